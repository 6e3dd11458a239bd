// qcstation: the test station of the factory line on the command line.

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <string>

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
    double wait = 60;  // seconds for a board to connect
};

int run(const Options &options) {
    const station::Plan plan = station::loadPlan(options.plan, options.files);
    station::Listener listener(options.address, options.port);
    fmt::print("plan {}: {} steps, waiting for a board on {}:{}\n", plan.name, plan.steps.size(), options.address,
               listener.port());
    std::fflush(stdout);
    station::Session session = listener.accept(station::Milliseconds(static_cast<int64_t>(options.wait * 1000)));
    const auto display = station::makeDisplay();
    const std::vector<station::StepResult> results = station::runPlan(session, plan, *display);
    const auto failed =
        std::count_if(results.begin(), results.end(), [](const auto &result) { return !result.passed; });
    fmt::print("plan {}: {} steps, {} failed\n", plan.name, results.size(), failed);
    return failed == 0 ? 0 : 1;
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
    runCommand->add_option("--wait", options.wait, "Seconds to wait for the board")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    return run(options);
} catch (const std::exception &error) {
    std::fprintf(stderr, "qcstation: %s\n", error.what());
    return 1;
}
