// qcstation: the test station of the factory line on the command line.

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

#include "station/plan.h"
#include "station/run.h"
#include "station/session.h"

namespace {

struct Options {
    std::string plan;
    std::string address = station::kDefaultAddress;
    uint16_t port = station::kDefaultPort;
    double wait = 60;  // seconds for a board to connect
};

double seconds(station::Milliseconds duration) { return double(duration.count()) / 1000; }

// A reply in one line: a report's line ends and colours become visible.
std::string oneLine(const std::string &text) {
    std::string result;
    for (const char c : text) {
        if (c == '\n') {
            result += "\\n";
        } else if (c == '\033') {
            result += "\\e";
        } else {
            result += c;
        }
    }
    return result;
}

void printStep(const station::Step &step, const station::StepResult &result) {
    fmt::print("{}  {:7.2f} s  {}", result.passed ? "ok    " : "FAILED", seconds(result.duration), step.send);
    if (step.upload) fmt::print("  [{}]", step.upload->filename().string());
    fmt::print("  ->  {}\n", oneLine(result.passed ? result.reply : result.failure));
    std::fflush(stdout);
}

// The number of steps that failed, those that could not be run any more included.
size_t runPlan(const station::Plan &plan, station::Session &session) {
    size_t passed = 0;
    bool connected = true;
    for (const station::Step &step : plan.steps) {
        station::StepResult result;
        result.failure = "not run: the session had ended";
        if (connected) result = station::runStep(session, step, connected);
        printStep(step, result);
        passed += result.passed ? 1 : 0;
    }
    return plan.steps.size() - passed;
}

int run(const Options &options) {
    const station::Plan plan = station::loadPlan(options.plan);
    station::Listener listener(options.address, options.port);
    fmt::print("plan {}: {} steps, waiting for a board on {}:{}\n", plan.name, plan.steps.size(), options.address,
               listener.port());
    std::fflush(stdout);
    station::Session session = listener.accept(station::Milliseconds(static_cast<int64_t>(options.wait * 1000)));
    const size_t failed = runPlan(plan, session);
    fmt::print("plan {}: {} steps, {} failed\n", plan.name, plan.steps.size(), failed);
    return failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) try {
    CLI::App app("The test station of the factory line: accepts a board and runs a plan on it.", "qcstation");
    app.require_subcommand(1);
    Options options;
    CLI::App *const runCommand = app.add_subcommand("run", "Run a plan on the next board that connects");
    runCommand->add_option("plan", options.plan, "The plan, a YAML list of steps")->required();
    runCommand->add_option("--listen", options.address, "Address to listen on")->capture_default_str();
    runCommand->add_option("--port", options.port, "TCP port to listen on")->capture_default_str();
    runCommand->add_option("--wait", options.wait, "Seconds to wait for the board")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    return run(options);
} catch (const std::exception &error) {
    std::fprintf(stderr, "qcstation: %s\n", error.what());
    return 1;
}
