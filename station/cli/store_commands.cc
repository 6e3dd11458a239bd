#include "station/cli/store_commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "station/base/text.h"
#include "station/run/results.h"
#include "station/store/database.h"
#include "station/store/format.h"
#include "station/store/load.h"
#include "station/store/pool.h"
#include "station/store/queries.h"

namespace station {
namespace {

struct Options {
    std::string store = "qcstation.db";
    std::string format = "table";
    std::string by, what, since, until, pool = "mac";
    std::vector<std::string> values;
    bool failed = false;
    int limit = RunFilter().limit;
    int low = -1;

    Period period() const {
        return {since.empty() ? since : parseTime(since), until.empty() ? until : parseTime(until)};
    }
};

using Work = std::function<void(Options &, Database &)>;

// ---- how a table is shown

void printTable(const Table &table) {
    std::vector<std::vector<std::string>> lines = {table.columns};
    for (const auto &row : table.rows) {
        std::transform(row.begin(), row.end(), std::back_inserter(lines.emplace_back()), cellText);
    }
    std::vector<size_t> widths(table.columns.size());
    for (const auto &line : lines) {
        for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], charactersOf(line[i]));
    }
    for (const auto &line : lines) {
        std::string shown;
        for (size_t i = 0; i < line.size(); ++i) {
            const std::string blanks(widths[i] - charactersOf(line[i]), ' ');
            const bool right = isNumber(table.columns[i]);
            shown += (i ? "  " : "") + (right ? blanks + line[i] : line[i] + blanks);
        }
        fmt::print("{}\n", shown.substr(0, shown.find_last_not_of(' ') + 1));
    }
}

nlohmann::ordered_json jsonOf(const Table &table) {
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (const auto &row : table.rows) {
        nlohmann::ordered_json &entry = rows.emplace_back();
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string &name = table.columns[i];
            if (!row[i]) {
                entry[name] = nullptr;
            } else if (isNumber(name)) {
                entry[name] = nlohmann::ordered_json::parse(*row[i], nullptr, false);
            } else {
                entry[name] = *row[i];
            }
        }
    }
    return rows;
}

void printAsJson(const std::vector<Section> &sections) {
    nlohmann::ordered_json all = nlohmann::ordered_json::object();
    for (const Section &section : sections) all[section.name] = jsonOf(section.table);
    fmt::print("{}\n", (sections.size() == 1 ? all.front() : all).dump(2));
}

void printAsTables(const std::vector<Section> &sections) {
    for (const Section &section : sections) {
        if (&section != &sections.front()) fmt::print("\n");
        if (sections.size() > 1) fmt::print("{}\n", section.name);
        if (section.table.empty()) fmt::print("none\n");
        if (!section.table.empty()) printTable(section.table);
    }
}

void print(const std::string &format, const std::vector<Section> &sections) {
    if (format == "json") return printAsJson(sections);
    if (format == "csv") return fmt::print("{}", csvOf(sections));
    printAsTables(sections);
}

// ---- what the subcommands do

void addPool(Options &options, Database &database) {
    if (options.values.size() == 3) {
        options.pool = options.values.front();
        options.values.erase(options.values.begin());
    }
    addRange(database, options.pool, options.values[0], options.values[1], options.low);
    fmt::print("pool {}: {} to {} added\n", options.pool, options.values[0], options.values[1]);
}

void importPool(Options &options, Database &database) {
    const int64_t added = importRows(database, options.pool, options.what, options.low);
    fmt::print("pool {}: {} added\n", options.pool, added);
}

void retirePool(Options &options, Database &database) {
    fmt::print("pool {}: {} retired\n", options.pool, retire(database, options.pool, options.what));
}

void printRuns(Options &options, Database &database) {
    const Table runs = listRuns(database, {options.period(), options.failed, options.limit});
    print(options.format, {{"runs", runs}});
    if (options.limit > 0 && runs.rows.size() == size_t(options.limit)) {
        fmt::print(stderr, "the newest {}: --limit 0 shows all\n", options.limit);
    }
}

void printSummary(Options &options, Database &database) {
    const Period period = options.period();
    std::vector<Section> sections;
    if (options.by.empty()) sections.push_back({"yield", yields(database, period, By::kAll)});
    if (options.by == "hour") sections.push_back({"hours", yields(database, period, By::kHour)});
    if (options.by == "place") sections.push_back({"places", yields(database, period, By::kPlace)});
    if (options.by.empty() || options.by == "step") {
        sections.push_back({"failures", failuresByStep(database, period)});
    }
    if (options.by.empty() || options.by == "value") {
        sections.push_back({"values", measuredValues(database, period)});
    }
    print(options.format, sections);
}

// One after the other, so that a million of them take no room.
void exportRuns(Options &options, Database &database) {
    // cppcheck-suppress unreadVariable
    const FileRecords folder(options.what);  // makes it, or says why not
    const std::vector<std::string> names =
        options.values.empty() ? runNames(database, options.period()) : options.values;
    for (const std::string &name : names) writeResult(options.what, loadRun(database, name));
    fmt::print("{} runs written to {}\n", names.size(), options.what);
}

// ---- how they are called

class Commands {
public:
    CLI::App *add(CLI::App &parent, const std::string &name, const std::string &help, Work work,
                  Database::Missing missing = Database::Missing::kIsAnError) {
        CLI::App *const command = parent.add_subcommand(name, help);
        command->add_option("--store", options_->store, "The store: a file of SQLite, or postgresql://...")
            ->envname("QCSTATION_STORE")
            ->capture_default_str();
        command->callback([options = options_, work = std::move(work), missing] {
            const auto say = [](const std::string &text) { fmt::print(stderr, "qcstation: {}\n", text); };
            const auto database = openStore(options->store, missing, say);
            work(*options, *database);
        });
        return command;
    }
    CLI::App *addQuestion(CLI::App &parent, const std::string &name, const std::string &help, Work work) {
        CLI::App *const command = add(parent, name, help, std::move(work));
        command->add_option("--format", options_->format, "table, json or csv")
            ->check(CLI::IsMember({"table", "json", "csv"}))
            ->capture_default_str();
        return command;
    }
    void addPeriod(CLI::App *command) {
        command->add_option("--since", options_->since, "Runs from this time on (UTC), or 90m, 8h or 7d ago");
        command->add_option("--until", options_->until, "Runs before this time");
    }
    void addLow(CLI::App *command) {
        command->add_option("--low", options_->low, fmt::format("Warn when fewer are left; {} at first", kLow))
            ->check(CLI::Range(0, 1'000'000'000));
    }
    Options &options() { return *options_; }

private:
    std::shared_ptr<Options> options_ = std::make_shared<Options>();
};

void addPoolCommands(CLI::App &app, Commands &commands) {
    Options &options = commands.options();
    CLI::App *const pool = app.add_subcommand("pool", "What is given to each unit once and for ever: addresses, keys");
    pool->require_subcommand(1);
    CLI::App *const add = commands.add(*pool, "add", "Add a range of MAC addresses", addPool);
    add->add_option("range", options.values, "[NAME] FIRST LAST; the name is mac if none is given")
        ->required()
        ->expected(2, 3);
    commands.addLow(add);
    CLI::App *const import = commands.add(*pool, "import", "Add the rows of a file", importPool);
    import->add_option("file", options.what, "A row a line, or FIRST,LAST for a range of addresses")->required();
    import->add_option("--name", options.pool, "The pool")->capture_default_str();
    commands.addLow(import);
    commands.addQuestion(*pool, "list", "Show what the pools hold", [](Options &all, Database &database) {
        print(all.format, {{"pools", listPools(database)}});
    });
    CLI::App *const retire = commands.add(*pool, "retire", "Never give what is left", retirePool);
    retire->add_option("name", options.pool, "The pool")->required();
    retire->add_option("value", options.what, "One value; or an address, for the rest of its range. None: all");
}

}  // namespace

void addStoreCommands(CLI::App &app) {
    Commands commands;
    Options &options = commands.options();
    addPoolCommands(app, commands);
    CLI::App *const store = app.add_subcommand("store", "The store itself");
    store->require_subcommand(1);
    commands.add(
        *store, "upgrade", "Make the store's tables, or bring those of an older program forward",
        [](Options &all, Database &database) {
            fmt::print("{}: version {}\n", shownName(all.store), database.version());
        },
        Database::Missing::kIsMade);
    CLI::App *const shown =
        commands.addQuestion(app, "show", "Show all about a unit or a run",
                             [](Options &all, Database &database) { print(all.format, show(database, all.what)); });
    shown->add_option("what", options.what, "A serial number, an address, or the name of a run")->required();
    CLI::App *const runs = commands.addQuestion(app, "runs", "List runs", printRuns);
    commands.addPeriod(runs);
    runs->add_flag("--failed", options.failed, "Failed ones only");
    runs->add_option("--limit", options.limit, "So many, the newest; 0 for all")->capture_default_str();
    CLI::App *const exported = commands.add(app, "export", "Write runs as files: JSON, a log, JUnit's XML", exportRuns);
    exported->add_option("folder", options.what, "Where to")->required();
    exported->add_option("runs", options.values, "Their names; else all of the period");
    commands.addPeriod(exported);
    CLI::App *const summary =
        commands.addQuestion(app, "summary", "Yield, cycle time, failures, measured values", printSummary);
    commands.addPeriod(summary);
    summary->add_option("--by", options.by, "A row a hour, place, step or value, instead of all in short")
        ->check(CLI::IsMember({"hour", "place", "step", "value"}));
}

}  // namespace station
