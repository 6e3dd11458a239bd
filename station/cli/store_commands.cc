#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "station/base/time.h"
#include "station/cli/commands.h"
#include "station/cli/options.h"
#include "station/cli/printer.h"
#include "station/run/results.h"
#include "station/store/archive.h"
#include "station/store/load.h"
#include "station/store/pool.h"
#include "station/store/queries.h"
#include "station/store/save.h"
#include "station/store/spool.h"

namespace station {
namespace {

struct Options : StoreChoice {
    std::string format = "table";
    std::string by, what, kind, table, file, pool = "mac";
    Filter runs;
    std::vector<std::string> values;
    bool failed = false, excel = false, undo = false;
    int limit = RunFilter().limit;
    int low = -1;
    int *status = nullptr;

    // Prints what was changed, after the store's name.
    template <typename... Words>
    void report(fmt::format_string<Words...> form, Words &&...words) const {
        fmt::print("{}: {}\n", shownName(store), fmt::format(form, std::forward<Words>(words)...));
    }
};

using Work = std::function<void(Options &, Database &)>;

void print(const Options &options, std::vector<Section> sections) {
    std::string names;
    for (const Section &section : sections) names += (names.empty() ? "" : ", ") + section.name;
    if (!options.table.empty()) {
        std::erase_if(sections, [&](const Section &section) { return section.name != options.table; });
        if (sections.empty()) throw Refusal(fmt::format("there is no table \"{}\", but {}", options.table, names));
    }
    if (options.format == "csv" && sections.size() > 1) {
        throw Refusal(fmt::format("CSV has one table per file: choose one with --table: {}", names));
    }
    Printer printer(options.format, options.excel, sections.size() > 1);
    for (const Section &section : sections) {
        printer.print(section.name, [&](const Database::EachRow &tell) {
            for (const auto &row : section.table.rows) tell(section.table, row);
            return section.table;
        });
    }
    printer.finish();
}

void note(const std::string &text) { fmt::print(stderr, "qcstation: {}\n", text); }

void addPool(Options &options, Database &database) {
    if (options.values.size() == 3) {
        options.pool = options.values.front();
        options.values.erase(options.values.begin());
    }
    for (const auto &text : addRange(database, options.pool, options.values[0], options.values[1], options.low))
        note(text);
    options.report("pool {}: {} to {} added", options.pool, options.values[0], options.values[1]);
}

void importPool(Options &options, Database &database) {
    const Imported imported = importFile(database, options.pool, options.what, options.kind, options.low);
    for (const auto &text : imported.unusual) note(text);
    options.report("pool {}: {} added, \"{}\" first", options.pool, imported.added, imported.first);
}

void listPool(Options &options, Database &database) {
    if (options.what.empty()) return print(options, {{"pools", listPools(database)}});
    print(options, {{"ranges", listRanges(database, options.what)}});
}

void retirePool(Options &options, Database &database) {
    options.values.resize(2);
    const int64_t count = retire(database, options.pool, options.values[0], options.values[1], options.undo);
    options.report("pool {}: {} {}", options.pool, count, options.undo ? "can be given again" : "retired");
}

void printRuns(Options &options, Database &database) {
    Printer printer(options.format, options.excel, false);
    const RunFilter filter{options.runs, options.failed, options.limit, {}, options.file};
    const size_t rows =
        printer.print("runs", [&](const Database::EachRow &tell) { return eachRun(database, filter, tell); });
    printer.finish();
    if (options.limit > 0 && rows == size_t(options.limit)) {
        note(fmt::format("these are the newest {}: --limit 0 shows all", options.limit));
    }
}

// A table of "summary". `inShort`: is shown without --by.
struct Summary {
    const char *by, *name;
    bool inShort;
    Table (*ask)(Database &database, const Filter &filter);
};
template <By part>
Table yieldsBy(Database &database, const Filter &filter) {
    return yields(database, filter, part);
}
constexpr Summary kSummaries[] = {
    {"", "yield", true, yieldsBy<By::kAll>},       {"hour", "hours", false, yieldsBy<By::kHour>},
    {"day", "days", false, yieldsBy<By::kDay>},    {"place", "places", false, yieldsBy<By::kPlace>},
    {"plan", "plans", false, yieldsBy<By::kPlan>}, {"step", "failures", true, failuresByStep},
    {"cause", "causes", true, failuresByCause},    {"value", "values", true, measuredValues},
};

void printSummary(Options &options, Database &database) {
    std::vector<Section> sections;
    for (const auto &[by, name, inShort, ask] : kSummaries) {
        if (options.by == by || (options.by.empty() && inShort))
            sections.push_back({name, ask(database, options.runs)});
    }
    print(options, sections);
}

// Exports run by run, in bounded memory.
void exportRuns(Options &options, Database &database) {
    // cppcheck-suppress unreadVariable
    const FileRecords folder(options.what);  // makes it, or says why not
    size_t written = 0;
    const auto write = [&](const std::string &name) {
        writeResult(options.what, loadRun(database, name));
        ++written;
    };
    std::for_each(options.values.begin(), options.values.end(), write);
    if (options.values.empty()) eachName(database, options.runs.period, write);
    options.report("{} runs written to {}", written, options.what);
}

void archive(Options &options, Database &database) {
    if (options.runs.period.until > isoTime(WallClock::now()))
        throw Refusal("--before is a time to come, so that all runs would leave the store: is the year right?");
    const size_t runs = archiveRuns(database, options.runs.period.until, options.what);
    if (runs == 0) return options.report("no run is older: nothing was written");
    options.report("{} runs moved to {}", runs, options.what);
}

void replayRefused(Options &options, Database &database) {
    const auto say = [&](const std::string &trouble) {
        note(trouble);
        *options.status = 1;
    };
    if (!std::filesystem::is_directory(options.spool)) {
        throw Refusal(
            fmt::format("there is no folder {}: name the station's spool with --spool, or its line with --line",
                        options.spool.string()));
    }
    const auto take = [&](const RunRecord &run) { database.transact([&] { save(database, run); }); };
    options.report("{} runs written to the store", replay(options.spool, take, say));
}

// ---- how they are called

class Commands {
public:
    explicit Commands(int &status) { all->status = &status; }

    CLI::App *add(CLI::App &parent, const std::string &name, const std::string &help, Work work,
                  Database::Missing missing = Database::Missing::kIsAnError) {
        CLI::App *const command = parent.add_subcommand(name, help);
        addStore(command, *all);
        command->callback([options = all, work = std::move(work), missing] {
            options->resolve();
            const auto &[since, until] = options->runs.period;
            if (!since.empty() && !until.empty() && since >= until)
                throw Refusal("no run is from --since on and before --until: swap the two");
            const auto database = openStore(options->store, missing, note);
            try {
                work(*options, *database);
            } catch (const StoreAway &error) {
                throw StoreAway(fmt::format("the store {}: {}: try again", shownName(options->store), error.what()));
            }
        });
        return command;
    }
    CLI::App *addQuestion(CLI::App &parent, const std::string &name, const std::string &help, Work work) {
        CLI::App *const command = add(parent, name, help, std::move(work));
        CLI::Option *const format = command->add_option("--format", all->format, "table, json or csv");
        format->check(CLI::IsMember({"table", "json", "csv"}))->capture_default_str();
        command->add_flag("--excel", all->excel, "Begin CSV with a byte order mark, so that Excel reads UTF-8")
            ->needs(format);
        return command;
    }
    void addPeriod(CLI::App *command) {
        command->add_option("--since", all->runs.period.since, std::string("Runs from this time on: ") + kTimeForms)
            ->transform(kTime);
        command->add_option("--until", all->runs.period.until, "Runs before this time")->transform(kTime);
    }
    void addFilter(CLI::App *command) {
        addPeriod(command);
        command->add_option("--plan", all->runs.plan, "Runs of this plan");
        command->add_option("--product", all->runs.product, "Runs of units of this product");
        command->add_option("--station", all->runs.station, "Runs at this station");
        command->add_option("--place", all->runs.place, "Runs at places of this name");
        command->add_option("--cause", all->runs.cause, "Runs that failed through the fault of this")
            ->check(CLI::IsMember({"unit", "connection", "station", "operator"}));
    }
    void addTable(CLI::App *command) {
        command->add_option("--table", all->table, "Print one table only, by its name");
    }
    void addLow(CLI::App *command) {
        command
            ->add_option("--low", all->low,
                         fmt::format("Warn when the pool is enough for fewer units than this; {} for a new pool", kLow))
            ->check(CLI::Range(0, 1'000'000'000));
    }

    const std::shared_ptr<Options> all = std::make_shared<Options>();
};

void addPoolCommands(CLI::App &app, Commands &commands) {
    Options &options = *commands.all;
    CLI::App *const pool = app.add_subcommand("pool", "What is given to each unit once and for ever: addresses, keys");
    pool->require_subcommand(1);
    CLI::App *const add = commands.add(*pool, "add", "Add a range of MAC addresses", addPool);
    add->add_option("range", options.values, "[NAME] FIRST LAST; the name is mac if none is given")
        ->required()
        ->expected(2, 3);
    commands.addLow(add);
    CLI::App *const import = commands.add(*pool, "import", "Add the rows of a file", importPool);
    import->add_option("file", options.what, "A file with one row per line; FIRST,LAST is a range of addresses")
        ->required()
        ->check(CLI::ExistingFile);
    import->add_option("--name", options.pool, "The pool")->capture_default_str();
    import->add_option("--kind", options.kind, "Content of a new pool: addresses or values")
        ->check(CLI::IsMember({"addresses", "values"}));
    commands.addLow(import);
    CLI::App *const list = commands.addQuestion(*pool, "list", "Show what the pools have left", listPool);
    list->add_option("name", options.what, "Show the ranges of this pool");
    CLI::App *const retire = commands.add(*pool, "retire", "Never give what is left", retirePool);
    retire->add_option("name", options.pool, "The pool")->required();
    retire->add_option("values", options.values, "One value or address, or the FIRST and LAST address; none: all")
        ->expected(0, 2)
        ->check([](const std::string &value) { return value.empty() ? "is empty" : ""; });
    retire->add_flag("--undo", options.undo, "Put retired rows back, so that they can be given again");
}

void addUpkeep(CLI::App &app, Commands &commands) {
    Options &options = *commands.all;
    CLI::App *const store = app.add_subcommand("store", "The store itself");
    store->require_subcommand(1);
    commands.add(
        *store, "upgrade", "Make the store's tables, or upgrade those of an older version",
        [](Options &all, Database &database) { all.report("version {}", database.version()); },
        Database::Missing::kIsMade);
    commands.add(*store, "replay", "Write the records that the store had refused", replayRefused)
        ->add_option("--spool", options.spool,
                     "The station's spool; by default the line's, or the usual one of the store");
    CLI::App *const old = commands.add(app, "archive", "Move old runs from the store into a file", archive);
    old->add_option("--before", options.runs.period.until,
                    std::string("Runs that started before this time: ") + kTimeForms)
        ->required()
        ->transform(kTime);
    old->add_option("--to", options.what, "The new file: one record per line, compressed with gzip")->required();
    CLI::App *const backup = app.add_subcommand("backup", "Copy an SQLite store while the line works");
    addStore(backup, options);
    backup->add_option("file", options.what, "The copy")->required();
    backup->callback([all = commands.all] {
        all->resolve();
        backUp(all->store, all->what);
        fmt::print("{} is a copy of {}\n", all->what, shownName(all->store));
    });
}

}  // namespace

void addStoreCommands(CLI::App &app, int &status) {
    Commands commands(status);
    Options &options = *commands.all;
    addPoolCommands(app, commands);
    addUpkeep(app, commands);
    CLI::App *const shown =
        commands.addQuestion(app, "show", "Show all about a unit or a run",
                             [](Options &all, Database &database) { print(all, show(database, all.what)); });
    commands.addTable(shown);
    shown->add_option("what", options.what, "A serial number, an address, or the name of a run")->required();
    CLI::App *const runs = commands.addQuestion(app, "runs", "List runs", printRuns);
    commands.addFilter(runs);
    runs->add_option("--file", options.file, "Runs that used this file: its name in the plan, or its SHA-256");
    runs->add_flag("--failed", options.failed, "Only failed runs");
    runs->add_option("--limit", options.limit, "Only so many of the newest runs; 0 for all")
        ->check(CLI::Range(0, 1'000'000'000))
        ->capture_default_str();
    CLI::App *const exported = commands.add(app, "export", "Write runs as files: JSON, a log, JUnit's XML", exportRuns);
    exported->add_option("folder", options.what, "The folder for the files")->required();
    exported->add_option("runs", options.values, "Names of runs; by default all of the period");
    commands.addPeriod(exported);
    CLI::App *const summary =
        commands.addQuestion(app, "summary", "Yield, cycle time, failures, measured values", printSummary);
    commands.addFilter(summary);
    commands.addTable(summary);
    summary->add_option("--by", options.by, "One row for each of these, instead of an overview")
        ->check(CLI::IsMember({"hour", "day", "place", "plan", "step", "cause", "value"}));
}

}  // namespace station
