#pragma once
// Shared by "run" and "serve": runs a line, and shows it to people or programs, until it ends or is stopped.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "station/line/line.h"
#include "station/page/page.h"
#include "station/run/output.h"

namespace CLI {
class App;
}

namespace station {

// The command's output. People read standard output. With --json it has the events, and people read standard error.
struct Console {
    // `events`: --json was given.
    explicit Console(bool events);
    // Prints whole lines for people.
    void say(const std::string &lines);

    const bool json;
    Output output;
};

// The result of a reload.
struct Reload {
    std::shared_ptr<const Job> job;     // for boards that come from now on; null: keep the old one
    std::vector<std::string> troubles;  // for people
};

// The parts of work(). Everything that it refers to must outlive the call.
struct Stage {
    Console &console;
    std::vector<Listener> &listeners;  // one, or one per interface; see Line
    std::vector<Place> places;
    std::shared_ptr<const Job> job;
    Records &records;
    int boards;                                           // how many will be served; 0: no limit
    std::function<Outcome(Line &)> task;                  // runs the line until it ends or is stopped
    std::function<std::string(const Outcome &)> summary;  // returns the last line for people
    std::function<Reload()> reload = {};  // called at SIGHUP, in a thread that may outlive the line; may be empty
    Page *page = nullptr;                 // may be null
};

// Runs the task, prints the summary, and returns the exit code.
int work(const Stage &stage);

// Returns a listener per interface, all at one port; without interfaces, a single one. `patient`: see Listener. Throws
// ListenError.
std::vector<Listener> listenAt(const std::string &address, uint16_t port, const std::vector<std::string> &interfaces,
                               bool patient);

// Opens the records in a results folder and a store. Each may be empty, and is then not used. An empty `spool` means
// the store's usual one. Throws RecordsError.
std::unique_ptr<Records> recordsIn(const std::string &folder, const std::string &store,
                                   const std::filesystem::path &spool = {});

// Throws PlanError when the job asks and nobody can answer: the line has no page, and there is no terminal or --json
// takes it.
void needAnswers(const Job &job, bool page, bool json);

// Prints the plan's warnings on standard error.
void warn(const Plan &plan);

// Adds --json.
void addJson(CLI::App *command, bool &json);

}  // namespace station
