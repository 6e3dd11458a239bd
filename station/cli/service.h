#pragma once
// The line that the service serves, and the user who serves it.

#include <CLI/CLI.hpp>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "station/line/line_file.h"

namespace station {

constexpr const char *kServiceLine = "/etc/qcstation/line.yaml";

// Adds --user.
void addUser(CLI::App *command, std::string &user);

// Becomes this user for good, which only root can; an empty name is the service's user, if this machine has it. Throws
// CLI::ValidationError.
void becomeUser(const std::string &name);

// Returns the name of the user as whom this process runs.
std::string userName();

// Returns the folders that the line writes to, with a word for each: "results", "spool", "store".
std::vector<std::pair<std::string, std::filesystem::path>> foldersOf(const LineFile &line);

}  // namespace station
