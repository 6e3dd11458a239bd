#pragma once
// The results of runs as files: for each run its record (JSON), its log (one line per step), and a report in JUnit's
// XML, which test tools read.

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "station/base/mutex.h"
#include "station/run/records.h"

namespace station {

// Writes PLAN-ID-PLACE.json, durably, and .log and .xml, which say the same. Each file appears whole or not at all.
// Throws RecordsError.
void writeResult(const std::filesystem::path &folder, const RunRecord &run);

// Returns why the folder cannot take more results: it is gone, read-only or almost full. Empty when it can. Writes
// nothing.
std::string fullness(const std::filesystem::path &folder);

// Keeps each run as files in a folder. A run has its record there from its beginning, unfinished (record.h) until it
// ends. The .log is written last: a record without one belongs to a run in work, or to a run whose process died.
class FileRecords : public Records {
public:
    // Makes the folder if needed. Throws RecordsError when this process must not write there. A full disk is no error,
    // since it may have room later.
    explicit FileRecords(std::filesystem::path folder);

    std::string away() override;
    void begins(const RunRecord &run) override;
    void stepEnded(const RunRecord &run, size_t step) override;
    void ends(const RunRecord &run) override;

    // Returns the run's record, or nothing if its file is missing or holds no record. Throws RecordsError if the file
    // cannot be read at present.
    std::optional<RunRecord> find(const RunRecord &run) const;
    // Returns the records without a .log of the stations with these keys. Throws RecordsError as find() does.
    std::vector<RunRecord> left(const std::set<std::string> &keys) const;

private:
    const std::filesystem::path folder_;
    Mutex mutex_;
    std::map<std::string, RunRecord> unwritten_ GUARDED_BY(mutex_);  // by ID: ended, but the folder was full or gone
};

}  // namespace station
