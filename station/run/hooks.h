#pragma once
// Commands for the station's shell: hooks, which run before and after a board's plan, and the steps `run`. They reach
// the factory's own system, a label printer, a voltmeter, a lamp.

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "station/run/record.h"

namespace station {

struct Hook {
    std::string command;                     // for the shell; empty: none
    std::chrono::milliseconds limit{10000};  // after this time it is killed, with its process group
    std::filesystem::path folder;            // where it runs
};

// Runs the command with the record as JSON on its standard input, and with QC_RUN, QC_PLACE, QC_VERDICT and the run's
// variables as QC_NAME in its environment. QC_VERDICT is "passed" or "failed", or empty while the run may still pass.
// Passes the command's output to `take`, part by part, until the command ends; the output of processes that it leaves
// running is not read. Returns its exit status. Throws std::runtime_error when it does not start, does not end within
// its limit, or is ended by a signal.
int runShell(const Hook &command, const RunRecord &run, const std::function<void(std::string_view part)> &take);

// Kills all commands that run, with their process groups. Calls `then`, which is to end this process, before any thread
// can notice that, or start another command.
void killCommands(const std::function<void()> &then);

// Runs a hook. `when` is "before" or "after". Returns an empty text when it ended with status 0, otherwise what failed,
// with the last 400 bytes of its output.
std::string runHook(const Hook &hook, const RunRecord &run, std::string_view when);

}  // namespace station
