#pragma once
// A plan: what is done with one board, read from YAML: a list of steps, or a map with "name", "probe", "defaults" and
// "steps". docs/plans.md describes the language for those who write plans.

#include <chrono>
#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "station/plan/expectation.h"
#include "station/plan/payload.h"

namespace station {

enum class Kind { kCommand, kScript, kVerify, kAsk, kRun };

// What a named group of a step's match is held to, as a number.
struct Limit {
    std::string group;
    std::optional<double> min, max;
    std::string unit;
};

// What a step needs from a pool of the line's store before it is sent: so many rows behind each other.
struct Taken {
    std::string pool;
    int count = 1;
};

struct Step {
    Kind kind = Kind::kCommand;
    std::string name;             // a title of its own; empty: the one that says what is done
    std::string send;             // the board's command, with {name}
    std::string run;              // the command of the station's shell, as it is
    std::optional<Payload> file;  // to upload, to run, or to compare with
    Expectation expected;         // of the reply, of the script's output, or of the answer
    Variables known;              // what its own files fill in its texts, as {size}
    std::vector<Limit> limits;
    std::vector<Taken> takes;
    std::string ask;                           // the variable that the operator's answer becomes
    std::string prompt;                        // with {name}
    std::string whose;                         // the group of its match that is an address of the unit; empty: none
    std::string hint;                          // what a person does when the step fails
    std::chrono::milliseconds timeout{10000};  // of each attempt
    int status = 0;
    int partition = -1;
    int retries = 0;
    bool bare = false;       // the command's text alone instead of 64 bytes
    bool closes = false;     // the board closes the connection behind the reply
    bool reconnect = false;  // and comes back: the plan goes on with its next connection
    bool erased = false;     // nothing but 0xFF may stand behind the file
    bool show = false;       // the reply or the output is printed as it is when the plan has ended
    bool required = false;   // its failure ends the plan
    bool always = false;     // runs even then

    // Returns true when it is done over the connection to the board.
    bool needsBoard() const;

    // For people: its name, or the command, or what is done with which file; {name} is filled in as far as it is known.
    std::string title(const Variables &variables = {}) const;
};

// Whether a unit is tested again whose last run of the plan passed: when the operator confirms, never, or always.
enum class Again { kAsk, kRefuse, kAllow };

struct Plan {
    std::string name;  // its own, or the file's without the extension; fit for a file's name
    bool probe = true;
    std::filesystem::path folder;  // of its files: commands of the station run there
    Again again = Again::kAsk;
    int attempts = 0;  // failed runs in a row after which a unit is to be repaired; 0: no limit
    std::vector<Step> steps;
    std::vector<PlanFile> files;  // of the steps, in their order
    std::string digest;    // SHA-256 of the plan's text with its files' digests after it, in the order of `files`
    std::string warnings;  // a line each, as in PlanError: what a plan may do, but hardly means
};

// The faults of a plan, a line each: FILE:LINE:COLUMN: what is wrong.
struct PlanError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What {name} may stand for besides what the plan's own steps find out.
struct Names {
    std::set<std::string> variables;  // of the line's file
    std::set<std::string> pools;      // of the line's store
};

// Reads a plan and makes sure that it can be run, and spoils no board: the keys, the expressions, the commands, the
// names, the files, which are read. They are looked for in `files`; when that is empty, where the plan says, or beside
// it. Throws PlanError with every fault.
Plan loadPlan(const std::filesystem::path &path, const std::filesystem::path &files = {}, const Names &names = {});

}  // namespace station
