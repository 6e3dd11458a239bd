#pragma once
// The result of a run as files: its record (JSON), its log (a line a step), and a report in JUnit's XML, which test
// tools read.

#include <filesystem>
#include <string>

#include "station/line/record.h"

namespace station {

// Makes the folder, if need be, and makes sure that files can be written there: before a run, so that its results are
// not lost after it. Throws std::runtime_error.
void prepareResults(const std::filesystem::path &folder);

// Writes PLAN-ID-PLACE.json, .log and .xml. Each file appears whole or not at all. Throws std::runtime_error.
void writeResult(const std::filesystem::path &folder, const RunRecord &run);

}  // namespace station
