// The subcommands that meet boards: discover, run and serve.

#include <fmt/format.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "station/base/mutex.h"
#include "station/base/text.h"
#include "station/cli/commands.h"
#include "station/cli/options.h"
#include "station/cli/service.h"
#include "station/cli/terminal.h"
#include "station/line/signals.h"
#include "station/page/page.h"
#include "station/run/events.h"
#include "station/run/hooks.h"
#include "station/run/results.h"
#include "station/store/pool.h"
#include "station/store/store_records.h"
#include "station/wire/discovery.h"

namespace station {
namespace {

constexpr std::chrono::seconds kStoreRetry{1};                   // of a store that is away at the start
constexpr const char *kAsBefore = "the line goes on as before";  // after a file with a fault
constexpr size_t kRequest = 60;  // bytes of a discovery frame: network cards send none that is shorter

// The work of "run" or "serve": a line, for so many boards.
struct Task {
    std::string path;  // of the line's file; empty: "run", which has none
    LineFile line;
    int boards = 0;  // to serve; 0: no limit
    bool json = false;
    int wait = 60;  // seconds: until all boards of "run" have connected
};

// The command's output. People read standard output. With --json it has the events, and people read standard error.
struct Console {
    explicit Console(bool events)
        : json(events), output(STDOUT_FILENO, [events](size_t dropped) {
              return events ? linesDropped(dropped)
                            : fmt::format("{} lines are missing here, because they were not read in time\n", dropped);
          }) {}
    // Prints whole lines for people.
    void say(const std::string &lines) { json ? printError(lines) : output.put(lines); }

    const bool json;
    Output output;
};

// Keeps track of the running steps, for a station that is ended at once.
class Unfinished : public Observer {
public:
    void stepStarts(const RunRecord &run, size_t step) override {
        const Lock lock(mutex_);
        running_[run.place.name] = {oneLine(run.steps[step].title)};
    }

    void progress(const RunRecord &run, size_t, uint64_t, uint64_t) override {
        const Lock lock(mutex_);
        running_[run.place.name].sent = true;
    }

    void stepEnds(const RunRecord &run, size_t) override {
        const Lock lock(mutex_);
        running_.erase(run.place.name);
    }

    // Returns a line per board: where it was left, and whether it may hold half of what was sent.
    std::string describe() const {
        const Lock lock(mutex_);
        std::string text;
        for (const auto &[place, left] : running_) {
            text += fmt::format("place {}: left in the step {}{}\n", place, left.step,
                                left.sent ? ": may hold half of what was sent" : "");
        }
        return text;
    }

private:
    struct Left {
        std::string step;
        bool sent = false;  // some of a payload
    };
    mutable Mutex mutex_;
    std::map<std::string, Left> running_ GUARDED_BY(mutex_);  // by the place's name
};

// ---- before the first board

// Makes room for a thousand boards: raises the limit of descriptors, and limits malloc's arenas, of which each thread
// would otherwise get its own.
void makeRoom() {
    mallopt(M_ARENA_MAX, 2);
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
}

// Throws PlanError when the line asks and nobody can answer: it has no page, and there is no terminal or --json takes
// it.
void needAnswers(const LineFile &line, bool page, bool json) {
    if (page || (!json && isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0)) return;
    const std::string asker = askerOf(line);
    if (asker.empty()) return;
    throw PlanError(asker +
                    " asks, and nobody can answer: give the line a page, or start the station on a terminal, without"
                    " --json");
}

// Opens the records of a line whose questions can be answered, and prints the plan's warnings.
std::unique_ptr<Records> recordsOf(const LineFile &line, bool json) {
    needAnswers(line, line.page.has_value(), json);
    if (!line.plan.warnings.empty()) fmt::print(stderr, "{}\n", line.plan.warnings);
    auto files = line.results.empty() ? nullptr : std::make_unique<FileRecords>(line.results);
    if (line.store.empty() && files) return files;
    if (line.store.empty()) return std::make_unique<Records>();
    return std::make_unique<StoreRecords>(line.store, line.spool.empty() ? defaultSpool(line.store) : line.spool,
                                          std::move(files));
}

// Returns a listener per cable, all at one port; without cables, a single one.
std::vector<Listener> listenersOf(const LineFile &line, bool patient) {
    std::vector<Listener> listeners;
    if (line.cables.empty()) listeners.emplace_back(line.address, line.port);
    for (const std::string &cable : line.cables) {
        listeners.emplace_back(line.address, listeners.empty() ? line.port : listeners.front().port(), cable, patient);
    }
    return listeners;
}

std::string startOf(const Task &task, uint16_t port) {
    const LineFile &line = task.line;
    const std::string where = fmt::format("{}:{}", line.address, port);
    if (!task.path.empty()) {
        return fmt::format("line {}: {} places, plan {}, waiting for boards on {}\n", task.path, line.places.size(),
                           line.plan.name, where);
    }
    return fmt::format("plan {}: {} steps, waiting for {} on {}\n", line.plan.name, line.plan.steps.size(),
                       task.boards == 1 ? "a board" : fmt::format("{} boards", task.boards), where);
}

// ---- with boards

// Says what a reload has changed.
std::string adopted(const std::string &path, const Plan &plan, const Plan &before) {
    const std::string was = plan.digest == before.digest
                                ? "as before"
                                : fmt::format("instead of {} with {} steps", before.name, before.steps.size());
    return fmt::format("line {} read again: plan {} with {} steps, {}\n", path, plan.name, plan.steps.size(), was);
}

// Reads the line's file again, without a look at what `line`, `observers` and `console` refer to, which may be gone by
// then. Returns the function that makes the line do what the file says; if the file has a fault, only the observers are
// told.
std::function<void()> reload(const Task &task, Line &line, const Observers &observers, Console &console) try {
    if (task.path.empty()) return [] {};
    awaitWriters(task.path);
    const LineFile file = loadLine(task.path, poolNames);
    needAnswers(file, task.line.page.has_value(), task.json);
    return [job = std::make_shared<const Job>(file), same = file.sameStation(task.line), path = task.path, &line,
            &observers, &console] {
        observers.tell(&Observer::mended, kAsBefore);
        if (!same)
            observers.tell(&Observer::trouble,
                           path + ": a change of address, places, records or page takes effect at the next start");
        if (!job->plan.warnings.empty()) observers.tell(&Observer::trouble, job->plan.warnings);
        console.say(adopted(path, job->plan, line.change(job)->plan));
    };
} catch (const std::exception &error) {
    return
        [why = fmt::format("{}: {}", kAsBefore, error.what()), &observers] { observers.tell(&Observer::trouble, why); };
}

void endAtOnce(const Unfinished &unfinished) {
    killCommands([&] {
        printError("ended at once\n" + unfinished.describe());
        _exit(kInterrupted);
    });
}

std::string summaryOf(const Task &task, const Outcome &outcome) {
    const std::string counts = task.path.empty() && outcome.runs == 1 ? outcome.counts : outcome.describe();
    return fmt::format("{}: {}\n", task.path.empty() ? "plan " + task.line.plan.name : "line " + task.path, counts);
}

int exitCodeOf(const Task &task, const Outcome &outcome, const std::string &unprinted) {
    if (!outcome.unwritten.empty()) printError("qcstation: not all is recorded: " + outcome.unwritten + "\n");
    if (!unprinted.empty()) printError("qcstation: standard output: " + unprinted + "\n");
    if (!outcome.unwritten.empty() || !unprinted.empty()) return kCannotWrite;
    if (outcome.interrupted) return kInterrupted;
    // Failed boards are no failure of the service.
    return task.path.empty() && outcome.failed + outcome.again > 0 ? kFailed : kPassed;
}

// Runs the task until it ends or is stopped, and returns the exit code.
int work(const Task &task, Console &console, Records &records) {
    makeRoom();
    std::vector<Listener> listeners = listenersOf(task.line, !task.path.empty());
    const auto page = task.line.page ? std::make_unique<Page>(*task.line.page, task.line.store) : nullptr;
    if (page) console.say(fmt::format("page {}\n", page->url()));
    console.say(startOf(task, listeners.front().port()));
    const std::unique_ptr<Terminal> terminal = terminalOn(console.output, task.boards);
    const std::unique_ptr<Observer> events = eventsTo(console.output);
    Unfinished unfinished;
    Observers observers;
    observers.add(unfinished);
    observers.add(console.json ? *events : *terminal);
    if (page) observers.add(page->observer());
    Stop stop;
    Units units;
    Operator &people = page ? page->operators() : *terminal;
    Line line(listeners, task.line.places, std::make_shared<const Job>(task.line),
              {observers, records, stop, people, units});
    const auto end = [&] {
        stop.request();
        line.wake();
    };
    const Signals signals({end, [&] { endAtOnce(unfinished); },
                           [task, &line, &observers, &console] { return reload(task, line, observers, console); }});
    const auto tell = [&](const std::string &trouble) { observers.tell(&Observer::trouble, trouble); };
    std::shared_ptr<void> quiet(nullptr, [&](void *) {
        if (page) page->stop();
        records.tell({});
    });
    records.tell(tell);
    if (page) page->start([&](int place, bool held) { return line.hold(place, held); }, tell);
    const Outcome outcome = task.boards == 0 ? line.serve() : line.run(task.boards, std::chrono::seconds(task.wait));
    quiet.reset();
    console.say(summaryOf(task, outcome));
    return exitCodeOf(task, outcome, console.output.finish([&] { return stop.requested(); }));
}

int run(Task &task) {
    LineFile &line = task.line;
    line.plan = loadPlan(line.planPath, line.planFiles, {{}, poolNames(line.store)});
    const int cables = static_cast<int>(line.cables.size());
    if (task.boards == 0) task.boards = std::max(cables, 1);
    if (cables > 0 && task.boards > cables) {
        throw CLI::ValidationError("--boards", fmt::format("{0} boards need {0} interfaces", task.boards));
    }
    for (int i = 0; i < std::max(cables, task.boards); ++i) {
        line.places.push_back({i + 1, i < cables ? line.cables[size_t(i)] : std::to_string(i + 1)});
    }
    const auto records = recordsOf(line, task.json);
    holdSignals();  // before the first board can connect
    Console console(task.json);
    return work(task, console, *records);
}

// Reads the line's file. Waits for a store that is away, because it must name its pools. Returns false when the station
// is stopped meanwhile.
bool awaitLine(Task &task, Console &console) {
    std::string told;
    do {
        try {
            task.line = loadLine(task.path, poolNames);
            return true;
        } catch (const StoreError &error) {
            if (std::exchange(told, error.what()) == error.what()) continue;
            console.say(fmt::format("line {}: waits for {}\n", task.path, told));
            if (console.json) eventsTo(console.output)->lineWaits(told);
        }
    } while (!stopsWithin(kStoreRetry));
    return false;
}

int serve(Task &task) {
    holdSignals();
    Console console(task.json);
    return awaitLine(task, console) ? work(task, console, *recordsOf(task.line, task.json)) : kPassed;
}

// ---- how they are called

void addWait(CLI::App *command, int &wait, const char *help) {
    command->add_option("--wait", wait, help)->check(CLI::Range(0, 86400))->capture_default_str();
}

void addJson(CLI::App *command, bool &json) { command->add_flag("--json", json, "Print each event as a line of JSON"); }

}  // namespace

void addDiscover(CLI::App &app) {
    struct Discovery {
        std::string link, board = "FF:FF:FF:FF:FF:FF";
        int wait = 60;
    };
    CLI::App *const command = app.add_subcommand("discover", "Discover a board that waits in the mode qconly");
    const auto all = std::make_shared<Discovery>();
    command->add_option("link", all->link, "The network interface of the board's cable, or udp:LOCAL:REMOTE")
        ->required();
    command->add_option("--board", all->board, "The board's MAC address, or broadcast")
        ->check(kMac)
        ->capture_default_str();
    addWait(command, all->wait, "Seconds to wait for an answer");
    command->callback([all] {
        const Mac board =
            discover(openLink(all->link), *parseMac(all->board), kRequest, std::chrono::seconds(all->wait));
        fmt::print("board {} answered three times\n", formatMac(board));
    });
}

void addRun(CLI::App &app, int &status) {
    CLI::App *const command = app.add_subcommand("run", "Run a plan on the next boards that connect");
    const auto task = std::make_shared<Task>();
    LineFile &line = task->line;
    line.address = kDefaultAddress;
    line.port = kDefaultPort;
    command->add_option("plan", line.planPath, "The plan, a YAML list of steps")->required();
    command->add_option("--files", line.planFiles, "Folder of the plan's files, instead of its own");
    command->add_option("--boards", task->boards, "Number of boards; by default one, or one per interface")
        ->check(CLI::Range(1, 1000));
    command->add_option("--results", line.results, "Folder for the results: JSON, log and JUnit XML per board");
    command->add_option("--store", line.store, "Record to this store too: an SQLite file, or postgresql://...");
    addJson(command, task->json);
    command->add_option("--listen", line.address, "Address to listen on")->check(CLI::ValidIPV4)->capture_default_str();
    command->add_option("--port", line.port, "TCP port to listen on")->capture_default_str();
    command->add_option("--interface", line.cables,
                        "Listen on this interface only; give several if each board has its own cable");
    addWait(command, task->wait, "Seconds to wait for all boards to connect");
    command->callback([task, &status] { status = run(*task); });
}

void addServe(CLI::App &app, int &status) {
    CLI::App *const command = app.add_subcommand("serve", "Serve a line's boards until it is stopped");
    const auto task = std::make_shared<Task>();
    command->add_option("line", task->path, "The line's file")->required();
    addJson(command, task->json);
    command->callback([task, &status] { status = serve(*task); });
}

}  // namespace station
