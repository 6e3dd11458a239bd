#pragma once
// The service: its line, its user, and what belongs to it.

#include <CLI/CLI.hpp>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "station/base/file.h"
#include "station/line/line_file.h"

namespace station {

constexpr const char *kServiceLine = "/etc/qcstation/line.yaml";

extern const std::vector<StaticFile> kExampleFiles;  // station/package/line.yaml, which is compiled in

// Adds --user.
void addUser(CLI::App *command, std::string &user);

// Becomes this user for good, which only root can. An empty name means the service's user; it changes nothing when that
// does not exist or this process is not root's. Throws CLI::ValidationError.
void becomeUser(const std::string &name);

// Returns the name of the user that this process runs as.
std::string userName();

// Returns what of the line asks its operator: "the plan NAME", for instance; empty: nothing does.
std::string askerOf(const LineFile &line);

// A folder that the line writes to, and the files in it that the station must be able to write; they need not exist.
struct Room {
    std::string about;  // its key in the line's file: "results", "spool", "store"
    std::filesystem::path folder;
    std::vector<std::filesystem::path> files;
};

// Returns the line's rooms with absolute paths.
std::vector<Room> roomsOf(const LineFile &line);

}  // namespace station
