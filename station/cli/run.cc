#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "station/cli/commands.h"
#include "station/cli/discover.h"
#include "station/cli/work.h"
#include "station/line/signals.h"
#include "station/store/pool.h"

namespace station {
namespace {

struct RunOptions {
    std::string plan;
    std::string files;  // where the plan's files are; empty: beside it
    std::string address = kDefaultAddress;
    uint16_t port = kDefaultPort;
    std::vector<std::string> interfaces;
    int boards = 0;       // 0: one, or one per interface
    std::string results;  // folder; empty: none
    std::string store;    // a database's file or URL; empty: none
    bool json = false;
    Discovery discovery;
};

std::vector<Place> placesOf(const std::vector<std::string> &interfaces, int boards) {
    std::vector<Place> places;
    places.reserve(std::max(interfaces.size(), static_cast<size_t>(boards)));
    for (const std::string &interface : interfaces) places.push_back({int(places.size()) + 1, interface});
    while (int(places.size()) < boards) places.push_back({int(places.size()) + 1, std::to_string(places.size() + 1)});
    return places;
}

std::string summaryOf(const std::string &plan, const Outcome &outcome) {
    if (outcome.runs == 1) return fmt::format("plan {}: {}\n", plan, outcome.counts);
    return fmt::format("plan {}: {}\n", plan, outcome.describe());
}

int run(RunOptions options) {
    const auto job = std::make_shared<Job>();
    job->plan = loadPlan(options.plan, options.files, {{}, poolNames(options.store)});
    needAnswers(*job, false, options.json);
    warn(job->plan);
    const int interfaces = static_cast<int>(options.interfaces.size());
    if (options.boards == 0) options.boards = std::max(interfaces, 1);
    if (interfaces > 0 && options.boards > interfaces) {
        throw CLI::ValidationError("--boards", fmt::format("{0} boards need {0} interfaces", options.boards));
    }
    const auto records = recordsIn(options.results, options.store);
    const std::string found = options.discovery.link.empty() ? "" : discover(options.discovery);
    holdSignals();  // before the first board can connect
    Console console(options.json);
    std::vector<Listener> listeners = listenAt(options.address, options.port, options.interfaces, false);
    console.say(fmt::format("{}plan {}: {} steps, waiting for {} on {}:{}\n", found, job->plan.name,
                            job->plan.steps.size(),
                            options.boards == 1 ? "a board" : fmt::format("{} boards", options.boards), options.address,
                            listeners.front().port()));
    return work({.console = console,
                 .listeners = listeners,
                 .places = placesOf(options.interfaces, options.boards),
                 .job = job,
                 .records = *records,
                 .boards = options.boards,
                 .task = [&](Line &line) { return line.run(options.boards, options.discovery.limit()); },
                 .summary = [&](const Outcome &outcome) { return summaryOf(job->plan.name, outcome); }});
}

}  // namespace

void addRun(CLI::App &app, int &status) {
    CLI::App *const command = app.add_subcommand("run", "Run a plan on the next boards that connect");
    const auto options = std::make_shared<RunOptions>();
    command->add_option("plan", options->plan, "The plan, a YAML list of steps")->required();
    command->add_option("--files", options->files, "Folder of the plan's files, instead of its own");
    command->add_option("--boards", options->boards, "Number of boards; by default one, or one per interface")
        ->check(CLI::Range(1, 1000));
    command->add_option("--results", options->results, "Folder for the results: JSON, log and JUnit XML per board");
    command->add_option("--store", options->store, "Record to this store too: an SQLite file, or postgresql://...");
    addJson(command, options->json);
    command->add_option("--listen", options->address, "Address to listen on")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    command->add_option("--port", options->port, "TCP port to listen on")->capture_default_str();
    command->add_option("--interface", options->interfaces,
                        "Listen on this interface only; give several if each board has its own cable");
    addDiscovery(command, "--discover", options->discovery);
    command->callback([options, &status] { status = run(*options); });
}

}  // namespace station
