#pragma once
// A plan says what is done with one board. docs/plans.md describes its language, which is YAML.
//
//     const Plan plan = loadPlan("final.yaml");  // throws PlanError with every fault
//     for (const Step &step : plan.steps) fmt::print("{}\n", step.title());

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

constexpr std::chrono::hours kAnswerTime(1);  // for an operator, who may be at another place of the line

enum class Kind { kCommand, kScript, kVerify, kAsk, kRun };

// The limits of a named group, which must be a number.
struct Limit {
    std::string group;
    std::optional<double> min, max;
    std::string unit;
};

// The consecutive rows that a step takes from a pool of the line's store before it is sent.
struct Taken {
    std::string pool;
    int count = 1;
};

struct Step {
    Kind kind = Kind::kCommand;
    std::string name;             // its title; empty: the title says what is done
    std::string send;             // the board's command, with {name}
    std::string run;              // the command for the station's shell, without {name}
    std::optional<Payload> file;  // to upload, to run, or to compare with
    Expectation expected;         // for the reply, the output, or the operator's answer
    Variables known;              // variables that its own files fill, such as {size}
    std::vector<Limit> limits;
    std::vector<Taken> takes;
    std::string ask;                           // the variable that the operator's answer becomes
    std::string prompt;                        // with {name}
    std::string whose;                         // the group of its match that is an address of the unit; empty: none
    std::optional<Payload> picture;            // shown beside the prompt or the hint
    std::string hint;                          // what a person should do when the step fails
    std::chrono::milliseconds timeout{10000};  // for each attempt
    int status = 0;
    int partition = -1;
    int retries = 0;
    bool bare = false;       // the command is not padded to 64 bytes
    bool closes = false;     // the board closes the connection after the reply
    bool reconnect = false;  // the board comes back, and the plan goes on with its next connection
    bool erased = false;     // in the partition, only 0xFF may follow the file
    bool show = false;       // reply or output is printed as it is when the plan has ended
    bool required = false;   // its failure ends the plan
    bool always = false;     // it runs even after the plan has ended

    // Returns true when the step needs a connection to the board.
    bool needsBoard() const;

    // Returns the variables that the step fills: the operator's answer, and the named groups of its match.
    std::set<std::string> fills() const;

    // Returns the step's title for people: its name, its command, or what it does with which file. Fills in {name} as
    // far as the variables are known.
    std::string title(const Variables &variables = {}) const;
};

// Whether to test a unit again whose last run of this plan passed: if the operator confirms, never, or always.
enum class Again { kAsk, kRefuse, kAllow };

struct Plan {
    std::string name;  // its own, or the file's without extension; can be part of a file's name
    bool probe = true;
    std::filesystem::path folder;  // the folder of its files, in which the station's commands run
    Again again = Again::kAsk;
    int attempts = 0;  // after so many failed runs in a row a unit must be repaired; 0: no limit
    std::vector<Step> steps;
    std::vector<PlanFile> files;  // of the steps, in their order
    std::string digest;           // SHA-256 of the plan's text, followed by the digests of `files` in their order
    std::string warnings;         // one per line, as in PlanError: what is allowed but probably a mistake
};

// Has one line per fault of a plan: FILE:LINE:COLUMN: what is wrong.
struct PlanError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The names that are known besides those that the plan's own steps fill.
struct Names {
    std::set<std::string> variables;  // those of the line's file
    std::set<std::string> pools;      // those of the line's store
};

// Reads a plan and its files, and checks that it can be run and spoils no board: keys, expressions, commands, names and
// files. `files` is the folder of its files; if it is empty, the plan names the folder, or they are beside the plan.
// Throws PlanError with every fault.
Plan loadPlan(const std::filesystem::path &path, const std::filesystem::path &files = {}, const Names &names = {});

}  // namespace station
