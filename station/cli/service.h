#pragma once
// The service: its line, its user, and its folders.

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

// Becomes this user for good, which only root can. An empty name means the service's user; it changes nothing when that
// does not exist or this process is not root's. Throws CLI::ValidationError.
void becomeUser(const std::string &name);

// Returns the name of the user that this process runs as.
std::string userName();

// Returns the folders that the line writes to, each with its key in the line's file: "results", "spool", "store".
std::vector<std::pair<std::string, std::filesystem::path>> foldersOf(const LineFile &line);

}  // namespace station
