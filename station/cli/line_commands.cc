#include "station/cli/line_commands.h"

#include <fmt/format.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "station/cli/exit_codes.h"
#include "station/display/display.h"
#include "station/line/line.h"
#include "station/line/line_file.h"
#include "station/line/signals.h"
#include "station/page/page.h"
#include "station/run/events.h"
#include "station/run/results.h"
#include "station/store/pool.h"
#include "station/store/store_records.h"
#include "station/wire/discovery.h"

namespace station {
namespace {

constexpr std::chrono::seconds kRetry{1};  // of a store that is away at the start

struct Discovery {
    std::string link;  // where a board is discovered; empty: not at all
    std::string board = "FF:FF:FF:FF:FF:FF";
    size_t size = 60;
    double wait = 60;  // seconds for a board to answer, and for all to connect

    Milliseconds limit() const { return Milliseconds(std::llround(wait * 1000)); }
};

struct RunOptions {
    std::string plan;
    std::string files;  // where the plan's files are; empty: beside it
    std::string address = kDefaultAddress;
    uint16_t port = kDefaultPort;
    std::vector<std::string> interfaces;
    int boards = 0;       // 0: one, or one an interface
    std::string results;  // folder; empty: none
    std::string store;    // a database's file or URL; empty: none
    bool json = false;    // events instead of the display
    Discovery discovery;

    // Where people read, where programs do not.
    FILE *said() const { return json ? stderr : stdout; }
};

// What a line's work needs, whatever the command.
struct Stage {
    Listener &listener;
    std::vector<Place> places;
    bool cabled;  // a place a socket
    std::shared_ptr<const Job> job;
    Records &records;
    bool json;
    int boards;            // 0: no end
    Page *page = nullptr;  // there may be none
};

// Whom a plan can ask where programs read.
struct Nobody : Operator {
    std::string ask(const RunRecord &, size_t, const std::string &, const std::string &, Clock::time_point,
                    const Needless &) override {
        throw SessionError("there is no terminal where an operator could be asked");
    }
};

void discover(const Discovery &discovery, FILE *said) {
    const auto link = openLink(discovery.link);
    const auto wanted = parseMac(discovery.board);
    if (!wanted) throw SessionError(fmt::format("\"{}\" is not a MAC address", discovery.board));
    const Mac board = station::discover(*link, *wanted, discovery.size, discovery.limit());
    fmt::print(said, "board {} answered three times\n", formatMac(board));
    std::fflush(said);
}

// Room for a thousand boards: descriptors as many as may be had, and few heaps, of which each thread would take its
// own.
void makeRoom() {
    mallopt(M_ARENA_MAX, 2);
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
}

// Has the records say their troubles where everything is said, for as long as there is such a place.
struct Telling {
    Telling(Records &all, Observer &observer) : records(all) {
        records.tell([&observer](const std::string &trouble) { observer.trouble(trouble); });
    }
    ~Telling() { records.tell({}); }
    Records &records;
};

// Lets browsers in for as long as there is a line to show.
struct Showing {
    Showing(Page *all, Line &line) : page(all) {
        if (page != nullptr) page->start([&line](int place, bool held) { return line.hold(place, held); });
    }
    ~Showing() {
        if (page != nullptr) page->stop();
    }
    Page *page;
};

// Works as long as `task` has the line do. At SIGHUP `reload` has a new job, or none.
Outcome work(const Stage &stage, const std::function<Outcome(Line &)> &task,
             const std::function<std::shared_ptr<const Job>(Observer &)> &reload = {}) {
    makeRoom();
    const auto display = stage.json ? nullptr : makeDisplay(stage.boards);
    const auto events = stage.json ? std::make_unique<Events>() : nullptr;
    Unfinished unfinished;
    Observers observers;
    observers.add(unfinished);
    observers.add(stage.json ? static_cast<Observer &>(*events) : *display);
    if (stage.page != nullptr) observers.add(stage.page->observer());
    Nobody nobody;
    Operator &people = stage.page != nullptr ? stage.page->operators()
                       : stage.json          ? static_cast<Operator &>(nobody)
                                             : *display;
    Stop stop;
    Units units;
    Line line(stage.listener, stage.places, stage.cabled, stage.job, {observers, stage.records, stop, people, units});
    const Telling telling(stage.records, observers);
    const Showing showing(stage.page, line);
    const Signals signals({[&] {
                               stop.request();
                               line.wake();
                           },
                           [&] {
                               const std::string left = "ended at once\n" + unfinished.describe();
                               [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, left.data(), left.size());
                               restoreTerminal();
                               _exit(kInterrupted);
                           },
                           [&] {
                               const auto job = reload ? reload(observers) : nullptr;
                               if (job) line.change(job);
                           }});
    return task(line);
}

int exitCodeOf(const Outcome &outcome) {
    if (!outcome.unwritten.empty()) {
        fmt::print(stderr, "qcstation: not all is recorded: {}\n", outcome.unwritten);
        return kCannotWrite;
    }
    if (outcome.interrupted) return kInterrupted;
    return outcome.failed > 0 ? kFailed : kPassed;
}

std::unique_ptr<Records> recordsIn(const std::string &folder, const std::string &store,
                                   const std::filesystem::path &spool = {}) {
    auto files = folder.empty() ? std::make_unique<Records>() : std::make_unique<FileRecords>(folder);
    if (store.empty()) return files;
    return std::make_unique<StoreRecords>(store, spool.empty() ? defaultSpool(store) : spool, std::move(files));
}

std::vector<Place> placesOf(const std::vector<std::string> &interfaces, int boards) {
    std::vector<Place> places;
    places.reserve(std::max(interfaces.size(), static_cast<size_t>(boards)));
    for (const std::string &interface : interfaces) places.push_back({int(places.size()) + 1, interface});
    while (int(places.size()) < boards) places.push_back({int(places.size()) + 1, std::to_string(places.size() + 1)});
    return places;
}

void warn(const Plan &plan) {
    if (!plan.warnings.empty()) fmt::print(stderr, "{}\n", plan.warnings);
}

int run(RunOptions options) {
    const auto job = std::make_shared<Job>();
    job->plan = loadPlan(options.plan, options.files, {{}, poolNames(options.store)});
    warn(job->plan);
    const int interfaces = static_cast<int>(options.interfaces.size());
    if (options.boards == 0) options.boards = std::max(interfaces, 1);
    if (interfaces > 0 && options.boards > interfaces) {
        throw CLI::ValidationError("--boards", fmt::format("{} boards need as many interfaces", options.boards));
    }
    const auto records = recordsIn(options.results, options.store);
    if (!options.discovery.link.empty()) discover(options.discovery, options.said());
    holdSignals();  // before the first board can connect
    Listener listener(options.address, options.port, options.interfaces);
    fmt::print(options.said(), "plan {}: {} steps, waiting for {} on {}:{}\n", job->plan.name, job->plan.steps.size(),
               options.boards == 1 ? "a board" : fmt::format("{} boards", options.boards), options.address,
               listener.port());
    std::fflush(options.said());
    const Stage stage{
        listener,      placesOf(options.interfaces, options.boards), interfaces > 0, job, *records, options.json,
        options.boards};
    const Outcome outcome =
        work(stage, [&](Line &line) { return line.run(options.boards, options.discovery.limit()); });
    if (outcome.runs == 1) {
        fmt::print(options.said(), "plan {}: {}\n", job->plan.name, outcome.counts);
    } else {
        fmt::print(options.said(), "plan {}: {} boards, {} failed\n", job->plan.name, outcome.runs, outcome.failed);
    }
    return exitCodeOf(outcome);
}

std::shared_ptr<const Job> jobOf(const LineFile &line) {
    return std::make_shared<Job>(Job{line.plan, line.variables, line.before, line.after});
}

// What boards get that come from now on. A new file that is wrong is reported, and the old one stays.
std::shared_ptr<const Job> reread(const std::string &path, const LineFile &old, Observer &observer) try {
    const LineFile line = loadLine(path, poolNames);
    if (!line.sameStation(old))
        observer.trouble(path + ": address, places, records and page change at the next start only");
    if (!line.plan.warnings.empty()) observer.trouble(line.plan.warnings);
    return jobOf(line);
} catch (const std::exception &error) {
    observer.trouble(fmt::format("the line goes on as before: {}", error.what()));
    return nullptr;
}

// A store that is away when the line starts cannot say what its pools are, of which the plan may take: there is no line
// before. Nothing when it is stopped meanwhile.
std::optional<LineFile> awaitLine(const std::string &path, bool json) {
    holdSignals();
    std::string told;
    do {
        try {
            return loadLine(path, poolNames);
        } catch (const StoreError &error) {
            if (std::exchange(told, error.what()) == error.what()) continue;
            fmt::print(json ? stderr : stdout, "line {}: waits for {}\n", path, told);
            std::fflush(stdout);
            if (json) Events().lineWaits(told);
        }
    } while (!stopsWithin(kRetry));
    return std::nullopt;
}

int serve(const std::string &path, bool json) {
    FILE *const said = json ? stderr : stdout;
    const std::optional<LineFile> found = awaitLine(path, json);
    if (!found) return kPassed;
    const LineFile &line = *found;
    warn(line.plan);
    const auto records = recordsIn(line.results.string(), line.store, line.spool);
    Listener listener(line.address, line.port, line.interfaces(), true);
    const auto page = line.page ? std::make_unique<Page>(*line.page, line.store) : nullptr;
    if (page) fmt::print(said, "page {}\n", page->url());
    fmt::print(said, "line {}: {} places, plan {}, waiting for boards on {}:{}\n", path, line.places.size(),
               line.plan.name, line.address, listener.port());
    std::fflush(said);
    const Stage stage{listener, line.places, !line.interfaces().empty(), jobOf(line), *records, json, 0, page.get()};
    const Outcome outcome = work(
        stage, [](Line &work) { return work.serve(); },
        [&](Observer &observer) { return reread(path, line, observer); });
    fmt::print(said, "line {}: {} boards, {} failed\n", path, outcome.runs, outcome.failed);
    // That boards fail is a line's daily business, and to be stopped is how it ends.
    const int code = exitCodeOf(outcome);
    return code == kFailed ? kPassed : code;
}

void addDiscovery(CLI::App *command, Discovery &discovery) {
    const CLI::Validator finite(
        [](const std::string &text) {
            return text.find_first_not_of("0123456789.") == std::string::npos ? "" : "not a number of seconds";
        },
        "SECONDS");
    command->add_option("--board", discovery.board, "The board's MAC address, or broadcast")->capture_default_str();
    command->add_option("--size", discovery.size, "Bytes of the discovery frame")
        ->check(CLI::Range(kShortestRequest, kLongestRequest))
        ->capture_default_str();
    command->add_option("--wait", discovery.wait, "Seconds to wait for the boards")
        ->check(finite)
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
}

void addJson(CLI::App *command, bool &json) {
    command->add_flag("--json", json, "Print each thing that happens as a line of JSON");
}

void addRun(CLI::App &app, int &status) {
    CLI::App *const command = app.add_subcommand("run", "Run a plan on the next boards that connect");
    const auto options = std::make_shared<RunOptions>();
    command->add_option("plan", options->plan, "The plan, a YAML list of steps")->required();
    command->add_option("--files", options->files, "Folder of the plan's files, instead of its own");
    command->add_option("--boards", options->boards, "Number of boards, each at its place; one, or one an interface")
        ->check(CLI::Range(1, 1000));
    command->add_option("--results", options->results, "Folder for a JSON file, a log and a JUnit XML file a board");
    command->add_option("--store", options->store, "Record to this store too: a file of SQLite, or postgresql://...");
    addJson(command, options->json);
    command->add_option("--listen", options->address, "Address to listen on")->capture_default_str();
    command->add_option("--port", options->port, "TCP port to listen on")->capture_default_str();
    command->add_option("--interface", options->interfaces,
                        "Listen on this interface alone; give it several times for boards that are cabled one each");
    command->add_option("--discover", options->discovery.link,
                        "Discover a board first, on this interface or udp:LOCAL:REMOTE");
    addDiscovery(command, options->discovery);
    command->callback([options, &status] { status = run(*options); });
}

void addServe(CLI::App &app, int &status) {
    CLI::App *const command = app.add_subcommand("serve", "Serve a line's boards until it is stopped");
    const auto path = std::make_shared<std::string>();
    command->add_option("line", *path, "The line's file")->required();
    const auto json = std::make_shared<bool>();
    addJson(command, *json);
    command->callback([=, &status] { status = serve(*path, *json); });
}

void addDiscover(CLI::App &app) {
    CLI::App *const command = app.add_subcommand("discover", "Discover a board that waits in the mode qconly");
    const auto discovery = std::make_shared<Discovery>();
    command->add_option("link", discovery->link, "A network interface, or udp:LOCAL:REMOTE")->required();
    addDiscovery(command, *discovery);
    command->callback([discovery] { discover(*discovery, stdout); });
}

}  // namespace

void addLineCommands(CLI::App &app, int &status) {
    addRun(app, status);
    addServe(app, status);
    addDiscover(app);
}

}  // namespace station
