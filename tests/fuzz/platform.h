#pragma once
// What stands under a fuzz target: a board's root file system in memory, and in the place of what the C library does
// outside the process - shell, log, clock, shared memory - functions that only read what they are given.

#include <string>
#include <string_view>

namespace fuzz {

// What each program started with popen prints.
extern std::string output;

// Puts the process on a board that a factory has configured: flash partitions, calibration data, two wired ports.
void enterBoard();

// Puts the configuration table and what the daemon keeps between commands back into their first state.
void reset();

// Writes a file, and makes the folder for it.
void put(const std::string &path, std::string_view content);

// Ends the run with a finding unless `held`.
void require(bool held);

}  // namespace fuzz
