#pragma once
// Commands of the station that run before and after a board: for the factory's own system, a label printer, a lamp.

#include <filesystem>
#include <string>

#include "station/run/record.h"

namespace station {

struct Hook {
    std::string command;                     // of the shell; empty: nothing is run
    std::chrono::milliseconds limit{10000};  // it is killed then, with all that it started
    std::filesystem::path folder;            // where it runs
};

// Runs the hook, with the record as JSON on its standard input, and QC_RUN, QC_PLACE, QC_VERDICT and the run's
// variables as QC_NAME in its environment. Returns what failed, with the last 400 bytes of what it printed; empty when
// it ended with status 0. Nobody reads what a process that it leaves behind prints.
std::string runHook(const Hook &hook, const RunRecord &run);

}  // namespace station
