#pragma once
// Old runs moved out of a store, and copies of it.

#include <filesystem>
#include <string>

#include "station/run/record.h"
#include "station/store/database.h"

namespace station {

// Moves the runs that have ended and started before this time (as isoTime() writes it) from the store into a new file:
// one record per line, as in result files, compressed with gzip. Units, what they were given, and the names of the runs
// that took it stay in the store; it also remembers the name of the file, which show() reports. The file is on the disk
// and has been read back before anything is removed, so after an interruption a run may be in both, but never in
// neither. Returns how many runs were moved; 0: no file was made. Throws StoreError, or std::runtime_error when the
// file exists already or cannot be written.
//
//     archiveRuns(database, "2026-01-01T00:00:00.000Z", "2025.jsonl.gz");
//     // then, as with any such file: zcat 2025.jsonl.gz | jq 'select(.unit == "A-1")'
size_t archiveRuns(Database &database, const std::string &before, const std::filesystem::path &path);

// Copies an SQLite store of any version into a new file, while stations write to it. When this returns, the copy is
// complete, checked and on the disk. Throws Refusal for PostgreSQL, which has a tool of its own, and when the file
// exists already.
void backUp(const std::string &store, const std::filesystem::path &path);

}  // namespace station
