// qcstation: the test station of the factory line on the command line.

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <string>

#include "station/discovery.h"
#include "station/display.h"
#include "station/plan.h"
#include "station/run.h"
#include "station/session.h"

namespace {

struct Options {
    std::string plan;
    std::string files;  // where the plan's files are; empty: beside it
    std::string address = station::kDefaultAddress;
    uint16_t port = station::kDefaultPort;
    double wait = 60;  // seconds for a board to answer, and to connect
    std::string link;  // where a board is discovered first; empty: not at all
    std::string board = "FF:FF:FF:FF:FF:FF";
    size_t size = 60;

    station::Milliseconds limit() const { return station::Milliseconds(static_cast<int64_t>(wait * 1000)); }
};

void discover(const Options &options) {
    const auto link = station::openLink(options.link);
    const station::Mac board =
        station::discover(*link, station::parseMac(options.board), options.size, options.limit());
    fmt::print("board {} answered three times\n", station::formatMac(board));
    std::fflush(stdout);
}

// What the plan wants to be seen as the board sent it, colours and all.
void showReplies(const station::Plan &plan, const std::vector<station::StepResult> &results) {
    for (size_t i = 0; i < results.size(); ++i) {
        if (plan.steps[i].show) fmt::print("\n{}\n", results[i].reply);
    }
}

int run(const Options &options) {
    const station::Plan plan = station::loadPlan(options.plan, options.files);
    if (!options.link.empty()) discover(options);
    station::Listener listener(options.address, options.port);
    fmt::print("plan {}: {} steps, waiting for a board on {}:{}\n", plan.name, plan.steps.size(), options.address,
               listener.port());
    std::fflush(stdout);
    station::Session session = listener.accept(options.limit());
    const auto display = station::makeDisplay();
    const std::vector<station::StepResult> results = station::runPlan(session, plan, *display);
    showReplies(plan, results);
    const auto failed =
        std::count_if(results.begin(), results.end(), [](const auto &result) { return !result.passed; });
    fmt::print("plan {}: {} steps, {} failed\n", plan.name, results.size(), failed);
    return failed == 0 ? 0 : 1;
}

void addDiscovery(CLI::App *command, Options &options) {
    command->add_option("--board", options.board, "The board's MAC address, or broadcast")->capture_default_str();
    command->add_option("--size", options.size, "Bytes of the discovery frame")
        ->check(CLI::Range(station::kShortestRequest, station::kLongestRequest))
        ->capture_default_str();
    command->add_option("--wait", options.wait, "Seconds to wait for the board")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
}

}  // namespace

int main(int argc, char **argv) try {
    CLI::App app("The test station of the factory line: accepts a board and runs a plan on it.", "qcstation");
    app.require_subcommand(1);
    Options options;
    CLI::App *const runCommand = app.add_subcommand("run", "Run a plan on the next board that connects");
    runCommand->add_option("plan", options.plan, "The plan, a YAML list of steps")->required();
    runCommand->add_option("--files", options.files, "Folder of the plan's files, instead of its own");
    runCommand->add_option("--listen", options.address, "Address to listen on")->capture_default_str();
    runCommand->add_option("--port", options.port, "TCP port to listen on")->capture_default_str();
    runCommand->add_option("--discover", options.link,
                           "Discover the board first, on this interface or udp:LOCAL:REMOTE");
    addDiscovery(runCommand, options);
    CLI::App *const discoverCommand = app.add_subcommand("discover", "Discover a board that waits in the mode qconly");
    discoverCommand->add_option("link", options.link, "A network interface, or udp:LOCAL:REMOTE")->required();
    addDiscovery(discoverCommand, options);
    CLI11_PARSE(app, argc, argv);
    if (runCommand->parsed()) return run(options);
    discover(options);
    return 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "qcstation: %s\n", error.what());
    return 1;
}
