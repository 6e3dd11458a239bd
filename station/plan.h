#pragma once
// A plan: the steps of one session, read from a YAML list.
//
//   - send: FW KERNEL {size}     the command; {size} stands for the upload's bytes
//     upload: kernel.bin         sent behind the command, before the reply; relative to the plan
//     expect: OK                 the whole reply; or
//     match: "^OK$"              a regular expression (ECMAScript) that must occur in it
//     timeout: 120               seconds for upload and reply together, 10 by default
//     bare: true                 the command's text alone instead of 64 bytes
//     closes: true               the board closes the connection behind the reply

#include <chrono>
#include <filesystem>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace station {

struct Step {
    std::string send;
    std::optional<std::filesystem::path> upload;
    std::optional<std::string> expect;
    std::optional<std::regex> match;
    std::string matchText;  // the expression as it stands in the plan
    std::chrono::milliseconds timeout{10000};
    bool bare = false;
    bool closes = false;
};

struct Plan {
    std::string name;  // the file's name without its extension
    std::vector<Step> steps;
};

// A fault of a plan, with file, line and column.
struct PlanError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads a plan and makes sure that it can be run: the keys, the expressions, that the files to upload are there.
// Throws PlanError for the first fault.
Plan loadPlan(const std::filesystem::path &path);

}  // namespace station
