#pragma once
// A plan: the steps of one session, read from a YAML list. A step is one of three kinds:
//
//   - send: FW KERNEL {size}     a command; {size} stands for the upload's bytes
//     upload: kernel.bin         a file that is sent behind the command, before the reply
//     expect: OK                 the whole reply; or
//     match: "^OK$"              a regular expression (ECMAScript) that must occur in it
//     bare: true                 the command's text alone instead of 64 bytes
//     closes: true               the board closes the connection behind the reply
//
//   - script: leave-mark.sh      a script that the board runs, by the command SHELL
//     output: "done\n"           all that it prints; or
//     match: "[0-9]+ kB"         a regular expression that must occur in that
//     status: 0                  its exit status, 0 by default
//
//   - verify: kernel.bin         the start of a partition must hold this file
//     partition: 2               the number of its MTD device
//     erased: true               and 0xFF behind the file, to its end
//
// Each takes "timeout": seconds for the whole step, 10 by default; and "show": true, to have the reply or the output
// printed as it is when the plan has ended.

#include <chrono>
#include <filesystem>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace station {

enum class Kind { kCommand, kScript, kVerify };

// What is expected of a text: all of it, a match, or nothing.
struct Expectation {
    std::optional<std::string> text;
    std::optional<std::regex> match;
    std::string matchText;  // the expression as it stands in the plan

    // Empty when `actual` is as expected, else what is wrong with it.
    std::string judge(const std::string &actual) const;
};

struct Step {
    Kind kind = Kind::kCommand;
    std::string send;                           // of a command
    std::optional<std::filesystem::path> file;  // to upload, to run, or to compare with
    Expectation expected;                       // of the reply, or of the script's output
    std::chrono::milliseconds timeout{10000};
    bool bare = false;
    bool closes = false;
    int status = 0;
    int partition = -1;
    bool erased = false;
    bool show = false;

    std::string title() const;  // for the log: the command, or what is done with which file
};

struct Plan {
    std::string name;  // the file's name without its extension
    std::vector<Step> steps;
};

// The faults of a plan, a line each: FILE:LINE:COLUMN: what is wrong.
struct PlanError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads a plan and makes sure that it can be run: the keys, the expressions, that the files are there. Files are
// looked for in `files`, or beside the plan when that is empty. Throws PlanError with every fault.
Plan loadPlan(const std::filesystem::path &path, const std::filesystem::path &files = {});

}  // namespace station
