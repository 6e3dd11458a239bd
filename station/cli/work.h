#pragma once
// Shared by "run" and "serve": a line at work, shown to people or programs, until it ends or is stopped.

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

// Standard output, and where people read: there too, or with --json, which takes it for events, on standard error.
struct Console {
    explicit Console(bool events);
    // Prints whole lines for people.
    void say(const std::string &lines);

    const bool json;
    Output output;
};

// The result of a reload.
struct Reload {
    std::shared_ptr<const Job> job;     // for boards that come from now on; null: the old one stays
    std::vector<std::string> troubles;  // to be shown
};

struct Stage {
    Console &console;
    std::vector<Listener> &listeners;  // see Line
    std::vector<Place> places;
    std::shared_ptr<const Job> job;
    Records &records;
    int boards;                                           // 0: no end
    std::function<Outcome(Line &)> task;                  // has the line work
    std::function<std::string(const Outcome &)> summary;  // the last line for people
    std::function<Reload()> reload = {};  // at SIGHUP, in a thread that may outlive the line; empty: nothing is done
    Page *page = nullptr;                 // may be null
};

// Works until the task has ended, and says how it ended. Returns an exit code.
int work(const Stage &stage);

// Listens on each of the interfaces, or without any at one socket.
std::vector<Listener> listenAt(const std::string &address, uint16_t port, const std::vector<std::string> &interfaces,
                               bool patient);

// Opens the records of a results folder and a store; each may be empty.
std::unique_ptr<Records> recordsIn(const std::string &folder, const std::string &store,
                                   const std::filesystem::path &spool = {});

// Throws PlanError when the plan asks, and nobody can answer: no page, no terminal, or one that --json takes.
void needAnswers(const Plan &plan, bool page, bool json);

// Prints what a plan may do, but hardly means.
void warn(const Plan &plan);

void addJson(CLI::App *command, bool &json);

}  // namespace station
