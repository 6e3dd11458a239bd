#pragma once
// The results of runs as files: for each its record (JSON), its log (a line a step), and a report in JUnit's XML, which
// test tools read.

#include <filesystem>
#include <map>
#include <mutex>
#include <string>

#include "station/run/records.h"

namespace station {

// Writes PLAN-ID-PLACE.json, durably, and .log and .xml, which say the same. Each file appears whole or not at all.
// Throws RecordsError.
void writeResult(const std::filesystem::path &folder, const RunRecord &run);

// Keeps each run as files in a folder. A run that has begun has its record there, as interrupted until it ends.
class FileRecords : public Records {
public:
    // Makes the folder, if need be, and makes sure that files can be written there. Throws RecordsError.
    explicit FileRecords(std::filesystem::path folder);
    std::string away() override;
    void begins(const RunRecord &run) override;
    void stepEnded(const RunRecord &run, size_t step) override;
    void ends(const RunRecord &run) override;

private:
    std::filesystem::path folder_;
    std::mutex mutex_;
    std::map<std::string, RunRecord> unwritten_;  // ended, but the folder was full or gone
};

}  // namespace station
