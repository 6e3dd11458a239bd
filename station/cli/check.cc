#include <fmt/format.h>

#include <memory>
#include <string>

#include "station/cli/commands.h"
#include "station/line/line_file.h"
#include "station/store/pool.h"

namespace station {
namespace {

void check(const std::string &path, const std::string &files, const std::string &store) {
    const bool line = isLineFile(path);
    const Plan plan = line ? loadLine(path, poolNames).plan : loadPlan(path, files, {{}, poolNames(store)});
    if (!plan.warnings.empty()) fmt::print("{}\n", plan.warnings);
    fmt::print("{}plan {}: {} steps, no faults\n", line ? "line " + path + ": " : "", plan.name, plan.steps.size());
}

}  // namespace

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

}  // namespace station
