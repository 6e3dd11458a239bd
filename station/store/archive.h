#pragma once
// Old runs moved out of a store, and copies of it.

#include <filesystem>
#include <string>

#include "station/run/record.h"
#include "station/store/database.h"

namespace station {

// Moves the runs that started before this time (as isoTime() writes it) and have ended from the store into a new file:
// a record a line, as in result files, compressed by gzip. Units stay, what they were given and the names of the runs
// that took it; the store remembers the file's name, which show() tells. Nothing is removed before the whole file was
// read back and is on the disk. When it is interrupted, runs may be in the file and the store, but in none of the two
// never. Returns how many runs were moved; 0: there is no file. Throws StoreError, or std::runtime_error when the file
// is there already or cannot be written.
//
//     archiveRuns(database, "2026-01-01T00:00:00.000Z", "2025.jsonl.gz");
//     // then, as with any such file: zcat 2025.jsonl.gz | jq 'select(.unit == "A-1")'
size_t archiveRuns(Database &database, const std::string &before, const std::filesystem::path &path);

// Copies a store of SQLite into a new file, while stations write to it. The copy is whole, checked, and on the disk
// when this returns. Throws Refusal for PostgreSQL, which has a tool of its own, and when the file is there already.
void backUp(const std::string &store, const std::filesystem::path &path);

}  // namespace station
