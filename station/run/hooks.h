#pragma once
// Commands of the station's shell: hooks, which run before and after a board, and steps. They reach the factory's own
// system, a label printer, a voltmeter, a lamp.

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "station/run/record.h"

namespace station {

struct Hook {
    std::string command;                     // of the shell; empty: nothing is run
    std::chrono::milliseconds limit{10000};  // it is killed then, with its process group
    std::filesystem::path folder;            // where it runs
};

// Runs the command, with the record as JSON on its standard input, and QC_RUN, QC_PLACE, QC_VERDICT and the run's
// variables as QC_NAME in its environment. QC_VERDICT is "passed" or "failed"; while the run may still pass, it is
// empty. Hands what the command prints to `take`, part by part, until the command ends; nobody reads what a process
// prints that it leaves behind. Returns its exit status. Throws std::runtime_error when it does not start, does not end
// within its limit, or ends by a signal.
int runShell(const Hook &command, const RunRecord &run, const std::function<void(std::string_view part)> &take);

// Runs a hook. `when` is "before" or "after". Returns what failed, with the last 400 bytes of what it printed; empty
// when it ended with status 0.
std::string runHook(const Hook &hook, const RunRecord &run, std::string_view when);

}  // namespace station
