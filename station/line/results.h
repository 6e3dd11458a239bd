#pragma once
// The results of a run as text and as files: for each board its record (JSON) and its log (a line a step), for the run
// a report in the XML of JUnit, which test tools read.

#include <filesystem>
#include <string>
#include <vector>

#include "station/line/run.h"

namespace station {

// A step's line: verdict, time, title, and the reply or what is wrong.
std::string describeStep(const Step &step, const StepResult &result);

// A text in one line: line ends and control characters become visible.
std::string oneLine(const std::string &text);

// Makes the folder, if need be, and makes sure that files can be written there: before a run, so that its results are
// not lost after it. Throws std::runtime_error.
void prepareResults(const std::filesystem::path &folder);

// Writes PLAN-TIME-board-N.json and .log for each board, and PLAN-TIME.xml; TIME is the run's start, in UTC to the
// millisecond, so that no run overwrites another's. Each file appears whole or not at all. Throws std::runtime_error.
void writeResults(const std::filesystem::path &folder, const Plan &plan, WallClock::time_point start,
                  const std::vector<BoardResult> &results);

}  // namespace station
