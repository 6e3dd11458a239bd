#include <fmt/format.h>

#include <cstdlib>
#include <memory>

#include "station/cli/commands.h"
#include "station/run/record_json.h"
#include "station/store/archive.h"
#include "station/store/queries.h"
#include "station/store/save.h"
#include "station/store/store_records.h"

namespace station {
namespace {

struct Chosen {
    std::string store = std::getenv("QCSTATION_STORE") != nullptr ? std::getenv("QCSTATION_STORE") : "qcstation.db";
    std::string before, file, spool;
};

void archive(const Chosen &options) {
    const auto database = openStore(options.store, Database::Missing::kIsAnError);
    const size_t runs = archiveRuns(*database, parseTime(options.before), options.file);
    if (runs == 0) return fmt::print("no run is older: nothing was written\n");
    fmt::print("{} runs moved to {}\n", runs, options.file);
}

void back(const Chosen &options) {
    backUp(options.store, options.file);
    fmt::print("{} is a copy of {}\n", options.file, shownName(options.store));
}

void replayRefused(const Chosen &options, int &status) {
    const auto database = openStore(options.store, Database::Missing::kIsAnError);
    const auto say = [&](const std::string &trouble) {
        fmt::print(stderr, "qcstation: {}\n", trouble);
        status = 1;
    };
    const auto take = [&](const RunRecord &run) { database->transact([&] { save(*database, run); }); };
    const size_t taken =
        replay(options.spool.empty() ? defaultSpool(options.store) : std::filesystem::path(options.spool), take, say);
    fmt::print("{} runs written to the store\n", taken);
}

}  // namespace

void addUpkeep(CLI::App &app, int &status) {
    const auto options = std::make_shared<Chosen>();
    const auto add = [&](CLI::App &parent, const char *name, const char *help) {
        CLI::App *const command = parent.add_subcommand(name, help);
        command
            ->add_option("--store", options->store,
                         "The store: a file of SQLite, or postgresql://...; else that of QCSTATION_STORE")
            ->default_str(shownName(options->store));
        return command;
    };
    CLI::App *const old = add(app, "archive", "Move old runs from the store into a file");
    old->add_option("--before", options->before, "Runs that started before this time (UTC), or 400d ago")->required();
    old->add_option("--to", options->file, "The file, a record a line, compressed by gzip")->required();
    old->callback([options] { archive(*options); });
    CLI::App *const copy = add(app, "backup", "Copy a store of SQLite while the line works");
    copy->add_option("file", options->file, "The copy")->required();
    copy->callback([options] { back(*options); });
    CLI::App *const again = add(*app.get_subcommand("store"), "replay", "Write what the store had refused");
    again->add_option("--spool", options->spool, "The station's spool; without it the usual one of the store");
    again->callback([options, &status] { replayRefused(*options, status); });
}

}  // namespace station
