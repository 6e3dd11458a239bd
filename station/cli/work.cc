#include "station/cli/work.h"

#include <fmt/format.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "station/cli/exit_codes.h"
#include "station/cli/terminal.h"
#include "station/line/signals.h"
#include "station/run/events.h"
#include "station/run/results.h"
#include "station/store/store_records.h"

namespace station {
namespace {

// The operator of a line without page and terminal: every question fails.
struct Nobody : Operator {
    std::string ask(const RunRecord &, size_t, const std::string &, const std::string &, Clock::time_point,
                    const Needless &) override {
        throw std::runtime_error("there is no terminal where an operator could be asked");
    }
};

// Makes room for a thousand boards: raises the limit of descriptors, and limits malloc's arenas, of which each thread
// would otherwise get its own.
void makeRoom() {
    mallopt(M_ARENA_MAX, 2);
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
}

// Forwards the records' troubles to the observer.
struct Telling {
    Telling(Records &all, Observer &observer) : records(all) {
        records.tell([&observer](const std::string &trouble) { observer.trouble(trouble); });
    }
    ~Telling() { records.tell({}); }
    Records &records;
};

// Serves the page while the line runs.
struct Showing {
    Showing(Page *all, Line &line, Observer &observer) : page(all) {
        if (page == nullptr) return;
        page->start([&line](int place, bool held) { return line.hold(place, held); },
                    [&observer](const std::string &trouble) { observer.trouble(trouble); });
    }
    ~Showing() {
        if (page != nullptr) page->stop();
    }
    Page *page;
};

[[noreturn]] void endAtOnce(const Unfinished &unfinished) {
    printError("ended at once\n" + unfinished.describe());
    _exit(kInterrupted);
}

int exitCodeOf(const Outcome &outcome, const std::string &unprinted) {
    if (!outcome.unwritten.empty()) printError("qcstation: not all is recorded: " + outcome.unwritten + "\n");
    if (!unprinted.empty()) printError("qcstation: standard output: " + unprinted + "\n");
    if (!outcome.unwritten.empty() || !unprinted.empty()) return kCannotWrite;
    if (outcome.interrupted) return kInterrupted;
    return outcome.failed + outcome.again > 0 ? kFailed : kPassed;
}

}  // namespace

Console::Console(bool events)
    : json(events), output(STDOUT_FILENO, [events](size_t dropped) {
          return events ? Events::linesDropped(dropped)
                        : fmt::format("{} lines are missing here, because they were not read in time\n", dropped);
      }) {}

void Console::say(const std::string &lines) {
    if (json) {
        printError(lines);
    } else {
        output.put(lines);
    }
}

int work(const Stage &stage) {
    makeRoom();
    Console &console = stage.console;
    Terminal terminal(console.output, stage.boards);
    Events events(console.output);
    Unfinished unfinished;
    Observers observers;
    observers.add(unfinished);
    observers.add(console.json ? static_cast<Observer &>(events) : terminal);
    if (stage.page != nullptr) observers.add(stage.page->observer());
    Nobody nobody;
    Operator &people = stage.page != nullptr ? stage.page->operators()
                       : console.json        ? static_cast<Operator &>(nobody)
                                             : terminal;
    Stop stop;
    Units units;
    Line line(stage.listeners, stage.places, stage.job, {observers, stage.records, stop, people, units});
    const Signals signals({[&] {
                               stop.request();
                               line.wake();
                           },
                           [&] { endAtOnce(unfinished); },
                           [&, reload = stage.reload]() -> std::function<void()> {
                               const Reload found = reload ? reload() : Reload{};
                               return [&, found] {
                                   for (const std::string &trouble : found.troubles) observers.trouble(trouble);
                                   if (found.job) line.change(found.job);
                               };
                           }});
    Outcome outcome;
    {
        const Telling telling(stage.records, observers);
        const Showing showing(stage.page, line, observers);
        outcome = stage.task(line);
    }
    console.say(stage.summary(outcome));
    return exitCodeOf(outcome, console.output.finish([&] { return stop.requested(); }));
}

std::vector<Listener> listenAt(const std::string &address, uint16_t port, const std::vector<std::string> &interfaces,
                               bool patient) {
    std::vector<Listener> listeners;
    if (interfaces.empty()) listeners.emplace_back(address, port);
    for (const std::string &interface : interfaces) {
        listeners.emplace_back(address, listeners.empty() ? port : listeners.front().port(), interface, patient);
    }
    return listeners;
}

std::unique_ptr<Records> recordsIn(const std::string &folder, const std::string &store,
                                   const std::filesystem::path &spool) {
    auto files = folder.empty() ? nullptr : std::make_unique<FileRecords>(folder);
    if (store.empty() && files) return files;
    if (store.empty()) return std::make_unique<Records>();
    return std::make_unique<StoreRecords>(store, spool.empty() ? defaultSpool(store) : spool, std::move(files));
}

void needAnswers(const Job &job, bool page, bool json) {
    if (page || (!json && isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0)) return;
    const auto asks = [](const Step &step) { return step.kind == Kind::kAsk; };
    const bool plans = std::any_of(job.plan.steps.begin(), job.plan.steps.end(), asks);
    if (!plans && job.who.prompt.empty()) return;
    throw PlanError(
        fmt::format("{} asks, and nobody can answer: give the line a page, or start the station on a terminal, without"
                    " --json",
                    plans ? "the plan " + job.plan.name : "\"operator\" of the line"));
}

void warn(const Plan &plan) {
    if (!plan.warnings.empty()) fmt::print(stderr, "{}\n", plan.warnings);
}

void addJson(CLI::App *command, bool &json) { command->add_flag("--json", json, "Print each event as a line of JSON"); }

}  // namespace station
