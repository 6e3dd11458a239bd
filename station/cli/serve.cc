#include <fmt/format.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "station/cli/commands.h"
#include "station/cli/exit_codes.h"
#include "station/cli/work.h"
#include "station/line/line_file.h"
#include "station/line/signals.h"
#include "station/run/events.h"
#include "station/store/pool.h"

namespace station {
namespace {

constexpr std::chrono::seconds kStoreRetry{1};  // of a store that is away at the start

std::shared_ptr<const Job> jobOf(const LineFile &line) {
    return std::make_shared<Job>(
        Job{line.plan, line.variables, line.before, line.after, line.who, line.reference, line.holdAfter});
}

// Reads the line's file again. Keeps the old job if the new file has a fault.
Reload reload(const std::string &path, const LineFile &old, bool json) try {
    const LineFile line = loadLine(path, poolNames);
    Reload found{jobOf(line), {}};
    needAnswers(*found.job, old.page.has_value(), json);
    if (!line.sameStation(old)) {
        found.troubles.push_back(path +
                                 ": a change of address, places, records or page takes effect at the next start");
    }
    if (!line.plan.warnings.empty()) found.troubles.push_back(line.plan.warnings);
    return found;
} catch (const std::exception &error) {
    return {nullptr, {fmt::format("the line goes on as before: {}", error.what())}};
}

// Reads the line's file. Waits for a store that is away, because it must name its pools. Returns nothing when the
// station is stopped meanwhile.
std::optional<LineFile> awaitLine(const std::string &path, Console &console) {
    std::string told;
    do {
        try {
            return loadLine(path, poolNames);
        } catch (const StoreError &error) {
            if (std::exchange(told, error.what()) == error.what()) continue;
            console.say(fmt::format("line {}: waits for {}\n", path, told));
            if (console.json) Events(console.output).lineWaits(told);
        }
    } while (!stopsWithin(kStoreRetry));
    return std::nullopt;
}

int serve(const std::string &path, bool json) {
    holdSignals();
    Console console(json);
    const std::optional<LineFile> found = awaitLine(path, console);
    if (!found) return kPassed;
    const LineFile &line = *found;
    needAnswers(*jobOf(line), line.page.has_value(), json);
    warn(line.plan);
    const auto records = recordsIn(line.results.string(), line.store, line.spool);
    std::vector<Listener> listeners = listenAt(line.address, line.port, line.cables, true);
    const auto page = line.page ? std::make_unique<Page>(*line.page, line.store) : nullptr;
    if (page) console.say(fmt::format("page {}\n", page->url()));
    console.say(fmt::format("line {}: {} places, plan {}, waiting for boards on {}:{}\n", path, line.places.size(),
                            line.plan.name, line.address, listeners.front().port()));
    const int code =
        work({.console = console,
              .listeners = listeners,
              .places = line.places,
              .job = jobOf(line),
              .records = *records,
              .boards = 0,
              .task = [](Line &all) { return all.serve(); },
              .summary = [&](const Outcome &outcome) { return fmt::format("line {}: {}\n", path, outcome.describe()); },
              .reload = [path, old = line, json] { return reload(path, old, json); },
              .page = page.get()});
    // Neither failed boards nor a stop is a failure of the service.
    return code == kFailed ? kPassed : code;
}

}  // namespace

void addServe(CLI::App &app, int &status) {
    CLI::App *const command = app.add_subcommand("serve", "Serve a line's boards until it is stopped");
    const auto path = std::make_shared<std::string>();
    command->add_option("line", *path, "The line's file")->required();
    const auto json = std::make_shared<bool>();
    addJson(command, *json);
    command->callback([=, &status] { status = serve(*path, *json); });
}

}  // namespace station
