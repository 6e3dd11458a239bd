#include "station/cli/store_commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
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
    std::string store = std::getenv("QCSTATION_STORE") != nullptr ? std::getenv("QCSTATION_STORE") : "qcstation.db";
    std::string format = "table";
    std::string by, what, since, until, kind, table, file, pool = "mac";
    Filter runs;  // without its period
    std::vector<std::string> values;
    bool failed = false, excel = false, undo = false;
    int limit = RunFilter().limit;
    int low = -1;

    Period period() const {
        return {since.empty() ? since : parseTime(since), until.empty() ? until : parseTime(until)};
    }
    Filter filter() const {
        Filter all = runs;
        all.period = period();
        return all;
    }
};

using Work = std::function<void(Options &, Database &)>;

// ---- how a table is shown

// Prints tables one after the other, a row as it comes, so that a million of them take no room.
class Printer {
public:
    Printer(const Options &options, bool isOneOfSeveral)
        : format_(options.format), excel_(options.excel), several_(isOneOfSeveral) {}

    void begin(const std::string &name) {
        if (several_ && format_ == "json") fmt::print("{}\"{}\": ", tables_ == 0 ? "{" : ",\n", name);
        if (several_ && format_ == "table") fmt::print("{}{}\n", tables_ == 0 ? "" : "\n", name);
        ++tables_;
        rows_ = 0;
        widths_.clear();
    }
    void row(const Table &head, const std::vector<Value> &row) {
        if (format_ == "json") {
            fmt::print("{}{}", rows_ == 0 ? "[\n" : ",\n", jsonOf(head, row).dump());
        } else if (format_ == "csv") {
            fmt::print("{}{}", rows_ == 0 ? csvHead() + csvLine(head) : "", csvLine(head, row));
        } else {
            waiting_.push_back(row);
            if (waiting_.size() == kMeasured) flush(head);
        }
        ++rows_;
    }
    void end(const Table &head) {
        if (format_ == "json") fmt::print("{}", rows_ == 0 ? "[]" : "\n]");
        if (format_ == "json" && !several_) fmt::print("\n");
        if (format_ == "csv" && rows_ == 0) fmt::print("{}{}", csvHead(), csvLine(head));
        if (format_ == "table" && rows_ == 0) fmt::print("none\n");
        if (format_ == "table" && rows_ > 0) flush(head);
    }
    void finish() const {
        if (format_ == "json" && several_) fmt::print("}}\n");
    }
    size_t rows() const { return rows_; }

private:
    static constexpr size_t kMeasured = 1000;  // rows whose widths all others get, too

    std::string csvHead() const { return excel_ ? "\uFEFF" : ""; }
    static nlohmann::ordered_json jsonOf(const Table &head, const std::vector<Value> &row) {
        nlohmann::ordered_json entry;
        for (size_t i = 0; i < row.size(); ++i) {
            nlohmann::ordered_json cell;
            if (row[i])
                cell = head.numbers.at(i) ? nlohmann::ordered_json::parse(*row[i]) : nlohmann::ordered_json(*row[i]);
            entry[head.columns[i]] = cell;
        }
        return entry;
    }
    void flush(const Table &head) {
        std::vector<std::vector<std::string>> lines;
        if (widths_.empty()) lines.push_back(head.columns);
        for (const auto &row : waiting_) {
            auto &line = lines.emplace_back();
            for (size_t i = 0; i < row.size(); ++i) line.push_back(cellText(row[i], head.numbers.at(i)));
        }
        waiting_.clear();
        if (widths_.empty()) measure(lines);
        for (const auto &line : lines) printLine(head, line);
    }
    void measure(const std::vector<std::vector<std::string>> &lines) {
        widths_.resize(lines[0].size());
        for (const auto &line : lines) {
            for (size_t i = 0; i < line.size(); ++i) widths_[i] = std::max(widths_[i], charactersOf(line[i]));
        }
    }
    void printLine(const Table &head, const std::vector<std::string> &line) const {
        std::string shown;
        for (size_t i = 0; i < line.size(); ++i) {
            const size_t width = charactersOf(line[i]);
            const std::string blanks(width < widths_[i] ? widths_[i] - width : 0, ' ');
            shown += (i ? "  " : "") + (head.numbers.at(i) ? blanks + line[i] : line[i] + blanks);
        }
        fmt::print("{}\n", shown.substr(0, shown.find_last_not_of(' ') + 1));
    }

    const std::string format_;
    const bool excel_, several_;
    size_t tables_ = 0, rows_ = 0;
    std::vector<size_t> widths_;
    std::vector<std::vector<Value>> waiting_;
};

void print(const Options &options, std::vector<Section> sections) {
    std::string names;
    for (const Section &section : sections) names += (names.empty() ? "" : ", ") + section.name;
    if (!options.table.empty()) {
        std::erase_if(sections, [&](const Section &section) { return section.name != options.table; });
        if (sections.empty()) throw Refusal(fmt::format("there is no table \"{}\", but {}", options.table, names));
    }
    if (options.format == "csv" && sections.size() > 1) {
        throw Refusal(fmt::format("CSV has one table a file: choose one with --table, of {}", names));
    }
    Printer printer(options, sections.size() > 1);
    for (const Section &section : sections) {
        printer.begin(section.name);
        for (const auto &row : section.table.rows) printer.row(section.table, row);
        printer.end(section.table);
    }
    printer.finish();
}

// ---- what the subcommands do

void printUnusual(const std::vector<std::string> &unusual) {
    for (const std::string &text : unusual) fmt::print(stderr, "note: {}\n", text);
}

void addPool(Options &options, Database &database) {
    if (options.values.size() == 3) {
        options.pool = options.values.front();
        options.values.erase(options.values.begin());
    }
    printUnusual(addRange(database, options.pool, options.values[0], options.values[1], options.low));
    fmt::print("pool {}: {} to {} added\n", options.pool, options.values[0], options.values[1]);
}

void importPool(Options &options, Database &database) {
    const Imported imported = importFile(database, options.pool, options.what, options.kind, options.low);
    printUnusual(imported.unusual);
    fmt::print("pool {}: {} added, \"{}\" first\n", options.pool, imported.added, imported.first);
}

void listPool(Options &options, Database &database) {
    if (options.what.empty()) return print(options, {{"pools", listPools(database)}});
    print(options, {{"ranges", listRanges(database, options.what)}});
}

void retirePool(Options &options, Database &database) {
    options.values.resize(2);
    const int64_t count = retire(database, options.pool, options.values[0], options.values[1], options.undo);
    fmt::print("pool {}: {} {}\n", options.pool, count, options.undo ? "can be given again" : "retired");
}

void printRuns(Options &options, Database &database) {
    Printer printer(options, false);
    printer.begin("runs");
    const RunFilter filter{options.filter(), options.failed, options.limit, {}, options.file};
    printer.end(eachRun(database, filter, [&](const Table &head, const auto &row) { printer.row(head, row); }));
    printer.finish();
    if (options.limit > 0 && printer.rows() == size_t(options.limit)) {
        fmt::print(stderr, "the newest {}: --limit 0 shows all\n", options.limit);
    }
}

void printSummary(Options &options, Database &database) {
    const Filter filter = options.filter();
    std::vector<Section> sections;
    static const std::map<std::string, std::pair<const char *, By>> kParts = {{"", {"yield", By::kAll}},
                                                                              {"hour", {"hours", By::kHour}},
                                                                              {"day", {"days", By::kDay}},
                                                                              {"place", {"places", By::kPlace}},
                                                                              {"plan", {"plans", By::kPlan}}};
    const auto asked = [&](const char *by) { return options.by.empty() || options.by == by; };
    if (const auto part = kParts.find(options.by); part != kParts.end()) {
        sections.push_back({part->second.first, yields(database, filter, part->second.second)});
    }
    if (asked("step")) sections.push_back({"failures", failuresByStep(database, filter)});
    if (asked("cause")) sections.push_back({"causes", failuresByCause(database, filter)});
    if (asked("value")) sections.push_back({"values", measuredValues(database, filter)});
    print(options, sections);
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
        command
            ->add_option("--store", options_->store,
                         "The store: a file of SQLite, or postgresql://...; else that of QCSTATION_STORE")
            ->default_str(shownName(options_->store));
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
        command->add_flag("--excel", options_->excel, "CSV with a byte order mark, by which Excel knows UTF-8");
        return command;
    }
    void addPeriod(CLI::App *command) {
        command->add_option("--since", options_->since, "Runs from this time on (UTC), or 90m, 8h or 7d ago");
        command->add_option("--until", options_->until, "Runs before this time");
    }
    void addFilter(CLI::App *command) {
        addPeriod(command);
        command->add_option("--plan", options_->runs.plan, "Runs of this plan");
        command->add_option("--product", options_->runs.product, "Runs of units of this product");
        command->add_option("--station", options_->runs.station, "Runs at this station");
        command->add_option("--place", options_->runs.place, "Runs at places of this name");
        command->add_option("--cause", options_->runs.cause, "Runs that failed through the fault of")
            ->check(CLI::IsMember({"unit", "connection", "station", "operator"}));
    }
    void addTable(CLI::App *command) {
        command->add_option("--table", options_->table, "One table of the answer, by its name");
    }
    void addLow(CLI::App *command) {
        command
            ->add_option("--low", options_->low,
                         fmt::format("Warn when it has enough for fewer units; {} at first", kLow))
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
    import->add_option("--kind", options.kind, "What a new pool has: addresses or values")
        ->check(CLI::IsMember({"addresses", "values"}));
    commands.addLow(import);
    CLI::App *const list = commands.addQuestion(*pool, "list", "Show what the pools have left", listPool);
    list->add_option("name", options.what, "The ranges of this pool");
    CLI::App *const retire = commands.add(*pool, "retire", "Never give what is left", retirePool);
    retire->add_option("name", options.pool, "The pool")->required();
    retire->add_option("values", options.values, "One value or address, or the FIRST and LAST address; none: all")
        ->expected(0, 2)
        ->check([](const std::string &value) { return value.empty() ? "is empty" : ""; });
    retire->add_flag("--undo", options.undo, "Let what is retired be given again");
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
                             [](Options &all, Database &database) { print(all, show(database, all.what)); });
    commands.addTable(shown);
    shown->add_option("what", options.what, "A serial number, an address, or the name of a run")->required();
    CLI::App *const runs = commands.addQuestion(app, "runs", "List runs", printRuns);
    commands.addFilter(runs);
    runs->add_option("--file", options.file, "Runs that used this file: its name in the plan, or its SHA-256");
    runs->add_flag("--failed", options.failed, "Failed ones only");
    runs->add_option("--limit", options.limit, "So many, the newest; 0 for all")->capture_default_str();
    CLI::App *const exported = commands.add(app, "export", "Write runs as files: JSON, a log, JUnit's XML", exportRuns);
    exported->add_option("folder", options.what, "Where to")->required();
    exported->add_option("runs", options.values, "Their names; else all of the period");
    commands.addPeriod(exported);
    CLI::App *const summary =
        commands.addQuestion(app, "summary", "Yield, cycle time, failures, measured values", printSummary);
    commands.addFilter(summary);
    commands.addTable(summary);
    summary->add_option("--by", options.by, "A row for each of these, instead of all in short")
        ->check(CLI::IsMember({"hour", "day", "place", "plan", "step", "cause", "value"}));
}

}  // namespace station
