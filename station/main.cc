// qcstation: the test station of the factory line on the command line.

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "station/display/display.h"
#include "station/line/events.h"
#include "station/line/line.h"
#include "station/line/results.h"
#include "station/plan/plan.h"
#include "station/store/commands.h"
#include "station/wire/discovery.h"
#include "station/wire/listener.h"

namespace {

struct Options {
    std::string plan;
    std::string files;  // where the plan's files are; empty: beside it
    std::string address = station::kDefaultAddress;
    uint16_t port = station::kDefaultPort;
    std::vector<std::string> interfaces;
    int boards = 1;
    std::string results;  // folder; empty: none
    bool json = false;    // events instead of the display
    double wait = 60;     // seconds for a board to answer, and for all to connect
    std::string link;     // where a board is discovered first; empty: not at all
    std::string board = "FF:FF:FF:FF:FF:FF";
    size_t size = 60;

    // Where people read, where programs do not.
    FILE *said() const { return json ? stderr : stdout; }
    station::Milliseconds limit() const { return station::Milliseconds(static_cast<int64_t>(wait * 1000)); }
};

int discover(const Options &options) {
    const auto link = station::openLink(options.link);
    const station::Mac board =
        station::discover(*link, station::parseMac(options.board), options.size, options.limit());
    fmt::print(options.said(), "board {} answered three times\n", station::formatMac(board));
    std::fflush(stdout);
    return 0;
}

// Where no terminal is.
class Nobody : public station::Operator {
    std::string ask(const station::RunRecord &, size_t, const std::string &, const std::string &,
                    std::chrono::steady_clock::time_point, const station::Stop &) override {
        throw std::runtime_error("there is no terminal where an operator could be asked");
    }
};

int run(const Options &options) {
    const station::Plan plan = station::loadPlan(options.plan, options.files);
    if (!options.results.empty()) station::prepareResults(options.results);
    if (!options.link.empty()) discover(options);
    station::Listener listener(options.address, options.port, options.interfaces);
    fmt::print(options.said(), "plan {}: {} steps, waiting for {} on {}:{}\n", plan.name, plan.steps.size(),
               options.boards == 1 ? "a board" : fmt::format("{} boards", options.boards), options.address,
               listener.port());
    std::fflush(stdout);

    station::Observers observers;
    const auto events = options.json ? std::make_unique<station::Events>() : nullptr;
    auto display = options.json ? nullptr : station::makeDisplay(options.boards);
    if (events) observers.add(*events);
    if (display) observers.add(*display);
    station::Records records;
    const station::Stop stop;
    Nobody nobody;
    station::Operator *const operators = display ? static_cast<station::Operator *>(display.get()) : &nobody;
    const std::vector<station::RunRecord> results =
        station::runBoards(listener, plan, options.boards, options.limit(), {observers, records, stop, *operators});
    for (const station::RunRecord &run : results) {
        if (!options.results.empty()) station::writeResult(options.results, run);
    }
    display.reset();
    const auto failed = std::count_if(results.begin(), results.end(), [](const auto &r) { return !r.passed(); });
    if (options.boards == 1) {
        fmt::print(options.said(), "plan {}: {} steps, {} failed\n", plan.name, plan.steps.size(),
                   results.front().failures());
    } else {
        fmt::print(options.said(), "plan {}: {} boards, {} failed\n", plan.name, options.boards, failed);
    }
    return failed == 0 ? 0 : 1;
}

int check(const Options &options) {
    const station::Plan plan = station::loadPlan(options.plan, options.files);
    if (!plan.warnings.empty()) fmt::print("{}\n", plan.warnings);
    fmt::print("plan {}: {} steps, no faults\n", plan.name, plan.steps.size());
    return 0;
}

void addPlan(CLI::App *command, Options &options) {
    command->add_option("plan", options.plan, "The plan, a YAML list of steps")->required();
    command->add_option("--files", options.files, "Folder of the plan's files, instead of its own");
}

void addDiscovery(CLI::App *command, Options &options) {
    command->add_option("--board", options.board, "The board's MAC address, or broadcast")->capture_default_str();
    command->add_option("--size", options.size, "Bytes of the discovery frame")
        ->check(CLI::Range(station::kShortestRequest, station::kLongestRequest))
        ->capture_default_str();
    command->add_option("--wait", options.wait, "Seconds to wait for the boards")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
}

CLI::App *addRun(CLI::App &app, Options &options) {
    CLI::App *const command = app.add_subcommand("run", "Run a plan on the next boards that connect");
    addPlan(command, options);
    command->add_option("--boards", options.boards, "Number of boards, each with its own session and result")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    command->add_option("--results", options.results, "Folder for a JSON file, a log and a JUnit XML file a board");
    command->add_flag("--json", options.json, "Print each thing that happens as a line of JSON");
    command->add_option("--listen", options.address, "Address to listen on")->capture_default_str();
    command->add_option("--port", options.port, "TCP port to listen on")->capture_default_str();
    command->add_option("--interface", options.interfaces,
                        "Listen on this interface alone; give it several times for boards that are cabled one each");
    command->add_option("--discover", options.link, "Discover a board first, on this interface or udp:LOCAL:REMOTE");
    addDiscovery(command, options);
    return command;
}

}  // namespace

int main(int argc, char **argv) try {
    CLI::App app("The test station of the factory line: accepts boards and runs a plan on each.", "qcstation");
    app.require_subcommand(1);
    app.set_version_flag("--version", "qcstation " VERSION, "Print the version");
    Options options;
    CLI::App *const runCommand = addRun(app, options);
    CLI::App *const discoverCommand = app.add_subcommand("discover", "Discover a board that waits in the mode qconly");
    discoverCommand->add_option("link", options.link, "A network interface, or udp:LOCAL:REMOTE")->required();
    addDiscovery(discoverCommand, options);
    CLI::App *const checkCommand = app.add_subcommand("check", "Find every fault of a plan, without a board");
    addPlan(checkCommand, options);
    station::addStoreCommands(app);
    CLI11_PARSE(app, argc, argv);
    if (runCommand->parsed()) return run(options);
    if (checkCommand->parsed()) return check(options);
    return discoverCommand->parsed() ? discover(options) : 0;
} catch (const station::PlanError &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "qcstation: %s\n", error.what());
    return 1;
}
