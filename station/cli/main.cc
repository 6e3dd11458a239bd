// qcstation: the test station of the factory line on the command line.

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

#include "station/cli/exit_codes.h"
#include "station/cli/line_commands.h"
#include "station/cli/store_commands.h"
#include "station/line/line_file.h"
#include "station/run/records.h"
#include "station/store/pool.h"
#include "station/wire/listener.h"

namespace {

void check(const std::string &path, const std::string &files, const std::string &store) {
    const bool line = station::isLineFile(path);
    const station::Plan plan = line ? station::loadLine(path, station::poolNames).plan
                                    : station::loadPlan(path, files, {{}, station::poolNames(store)});
    if (!plan.warnings.empty()) fmt::print("{}\n", plan.warnings);
    fmt::print("{}plan {}: {} steps, no faults\n", line ? "line " + path + ": " : "", plan.name, plan.steps.size());
}

void addCheck(CLI::App &app) {
    CLI::App *const command =
        app.add_subcommand("check", "Find every fault of a plan or a line's file, without a board");
    const auto path = std::make_shared<std::string>(), files = std::make_shared<std::string>();
    const auto store = std::make_shared<std::string>();
    command->add_option("plan", *path, "The plan, or the line's file")->required();
    command->add_option("--files", *files, "Folder of the plan's files, instead of its own");
    command->add_option("--store", *store, "The store of whose pools the plan takes; a line's file says it itself");
    command->callback([=] { check(*path, *files, *store); });
}

int complain(int code, const std::exception &error, const char *name = "qcstation: ") {
    std::fprintf(stderr, "%s%s\n", name, error.what());
    return code;
}

}  // namespace

int main(int argc, char **argv) try {
    CLI::App app("The test station of the factory line: accepts boards and runs a plan on each.", "qcstation");
    app.require_subcommand(1);
    app.set_version_flag("--version", "qcstation " VERSION, "Print the version");
    int status = station::kPassed;
    station::addLineCommands(app, status);
    addCheck(app);
    station::addStoreCommands(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (app.exit(error) != 0) return station::kWrongInput;
    }
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
    std::fprintf(stderr, "qcstation: standard output: %s\n", strerror(errno));
    return station::kCannotWrite;
} catch (const station::PlanError &error) {
    return complain(station::kWrongInput, error, "");
} catch (const station::ListenError &error) {
    return complain(station::kCannotListen, error);
} catch (const station::RecordsError &error) {
    return complain(station::kCannotWrite, error);
} catch (const station::Refusal &error) {
    return complain(station::kFailed, error);
} catch (const station::StoreError &error) {
    return complain(station::kCannotWrite, error);
} catch (const std::system_error &error) {
    return complain(station::kCannotWrite, error);
} catch (const std::exception &error) {
    return complain(station::kFailed, error);
}
