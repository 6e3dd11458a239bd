#include "station/store/queries.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

#include "station/base/text.h"
#include "station/base/time.h"
#include "station/store/pool.h"
#include "station/store/sql.h"

namespace station {
namespace {

constexpr const char *kFirstDay = "0001-01-01", *kLastDay = "9999-12-31";

// A filter's conditions with its value as "?": on a run r, and on a measurement m where that has the column, too.
struct FilterPart {
    std::string Filter::*member;
    const char *ofRun, *ofReading = nullptr;
};
constexpr FilterPart kConditions[] = {{&Filter::plan, " AND r.plan = ?", " AND m.plan = ?"},
                                      {&Filter::station, " AND r.station IN (SELECT id FROM stations WHERE name = ?)",
                                       " AND m.station IN (SELECT id FROM stations WHERE name = ?)"},
                                      {&Filter::place, " AND r.place_name = ?", " AND m.place_name = ?"},
                                      {&Filter::product, " AND r.unit IN (SELECT id FROM units WHERE product = ?)"},
                                      {&Filter::cause, " AND r.verdict IN ('failed', 'interrupted') AND {cause} = ?"}};

// A query about the runs of a filter.
class Question {
public:
    explicit Question(const Filter &filter) : plan_(!filter.plan.empty()), values_(bounds(filter.period)) {
        for (const FilterPart &one : kConditions) {
            const std::string &value = filter.*one.member;
            add(one.ofRun, value);
            if (one.ofReading && !value.empty()) readings_ += numbered(one.ofReading);
            throughRuns_ |= !one.ofReading && !value.empty();
        }
    }
    // Adds a condition. An empty value adds none.
    void add(const char *condition, const std::string &value) {
        if (value.empty()) return;
        values_.emplace_back(value);
        runs_ += numbered(condition);
    }

    // Runs the query of the file NAME.sql, in which {runs} are the conditions on a run r.
    Table each(Database &database, const char *name, Words words, const Database::EachRow &row) const {
        words["runs"] = runs_;
        return database.each(sqlOf(database.shared(), name, words), values_, row);
    }
    Table ask(Database &database, const char *name, const Words &words = {}) const {
        return each(database, name, words, {});
    }
    // The same for the measured values of this name; empty: of all names. {readings} are the conditions on one, m.
    Table askReadings(Database &database, const char *file, const std::string &name, Words words = {}) {
        std::string readings = readings_;
        if (throughRuns_) readings += fmt::format(" AND m.run IN (SELECT r.id FROM runs r WHERE {})", runs_);
        if (!plan_) readings += planOf(database, name);
        if (!name.empty()) values_.emplace_back(name), readings += " AND m.name = {name}";
        words["name"] = fmt::format("${}", values_.size());
        words["readings"] = readings;
        return ask(database, file, words);
    }

private:
    std::string numbered(const char *condition) const {
        return replaced(condition, '?', fmt::format("${}", values_.size()));
    }
    // Returns the condition that the plan is one of those with this value. Without it, a database would read the
    // value's part of the index from the first run on.
    std::string planOf(Database &database, const std::string &name) {
        std::string plans;
        for (const auto &row : database.ask(sqlOf(database.shared(), "measured_plans"), {name}).rows) {
            values_.push_back(row[0]);
            plans += fmt::format("{}${}", plans.empty() ? "" : ", ", values_.size());
        }
        return plans.empty() ? "" : fmt::format(" AND m.plan IN ({})", plans);
    }

    const bool plan_;           // the first value after the period is a plan
    bool throughRuns_ = false;  // there are conditions on readings that only their runs can answer
    std::vector<Value> values_;
    std::string runs_ = "r.started >= $1 AND r.started < $2";
    std::string readings_ = "m.started >= $1 AND m.started < $2 AND m.run NOT IN"
                            " (SELECT id FROM runs WHERE reference AND started >= $1 AND started < $2)";
};

// Answers the statements of an SQL file for this key, a section each.
std::vector<Section> sectionsOf(Database &database, const char *file, const std::vector<const char *> &names,
                                const Value &key) {
    std::vector<Section> sections;
    const std::vector<std::string> statements = statementsOf(database.shared(), file);
    sections.reserve(names.size());
    for (size_t i = 0; i < names.size(); ++i) sections.push_back({names[i], database.ask(statements.at(i), {key})});
    return sections;
}

// Returns a clause that names the archives that may have the run, by the start in its name; empty when none may.
std::string archivesOf(Database &database, const std::string &run) {
    static const re2::RE2 kStart(R"((\d{4})(\d\d)(\d\d)T(\d\d)(\d\d)(\d\d).*)");
    std::string second = run;
    if (!re2::RE2::Replace(&second, kStart, R"(\1-\2-\3T\4:\5:\6)")) return {};
    const auto time = parseIsoTime(second);
    if (!time) return {};
    const Table found = database.ask(sqlOf(database.shared(), "archives_of"),
                                     {isoTime(*time), isoTime(*time + std::chrono::seconds(1))});
    std::string files;
    for (const auto &row : found.rows) files += " " + *row[0];
    return files.empty() ? "" : "; runs of that time were archived in" + files;
}

std::vector<Section> showRunOf(Database &database, const Value &run) {
    return sectionsOf(database, "show_run", {"run", "steps", "values", "files"}, run);
}

Value onlyCell(const Table &table) { return table.empty() ? std::nullopt : table.rows[0][0]; }

Value findRun(Database &database, const std::string &name) {
    return onlyCell(database.ask("SELECT id FROM runs WHERE run = $1", {name}));
}

}  // namespace

std::vector<Value> bounds(const Period &period) {
    return {period.since.empty() ? kFirstDay : period.since, period.until.empty() ? kLastDay : period.until};
}

std::vector<Section> show(Database &database, const std::string &what) {
    const std::vector<Value> key = {what};
    Value unit = onlyCell(database.ask("SELECT id FROM units WHERE serial = $1", key));
    if (!unit) {
        unit = onlyCell(database.ask("SELECT unit FROM pool_rows WHERE value = $1 AND unit IS NOT NULL ORDER BY id",
                                     {storeForm(what)}));
    }
    if (unit) return sectionsOf(database, "show_unit", {"unit", "given", "runs", "archives", "files"}, unit);
    if (const Value run = findRun(database, what)) return showRunOf(database, run);
    throw Refusal(fmt::format("the store knows no unit, address or run \"{}\"{}", what, archivesOf(database, what)));
}

std::vector<Section> showRun(Database &database, const std::string &name) {
    const Value run = findRun(database, name);
    if (!run) throw Refusal(fmt::format("the store knows no run \"{}\"", name));
    return showRunOf(database, run);
}

Table unitsLike(Database &database, const std::string &begin, int limit) {
    // With a condition that all serials meet, SQLite would sort all units instead of reading the index of times.
    const char *const like = begin.empty() ? "" : "WHERE u.serial >= $1 AND u.serial < $2";
    std::vector<Value> range;
    if (!begin.empty()) range = {begin, begin + "\U0010FFFF"};
    return database.ask(sqlOf(database.shared(), "units", {{"like", like}, {"limit", std::to_string(limit)}}), range);
}

Table eachRun(Database &database, const RunFilter &wanted, const Database::EachRow &row) {
    Question question(wanted.filter);
    question.add(" AND coalesce(r.failed_step, r.failure) = ? AND NOT (r.reference AND {cause} = 'unit')", wanted.step);
    question.add(" AND EXISTS (SELECT 1 FROM plan_files f JOIN steps t ON t.run = r.id AND t.step = f.step"
                 " AND t.verdict <> 'not run' WHERE f.plan_version = r.plan_version AND ? IN (f.name, f.sha256))",
                 wanted.file);
    const Words words = {{"failed", wanted.failed ? "AND r.verdict = 'failed'" : ""},
                         {"limit", std::to_string(wanted.limit)}};
    return question.each(database, wanted.limit > 0 ? "runs_newest" : "runs_all", words, row);
}

Table listRuns(Database &database, const RunFilter &filter) { return eachRun(database, filter, {}); }

Table yields(Database &database, const Filter &filter, By by) {
    struct Grouping {
        std::string group, names, shown;  // the expressions of a run r, what they are called, and how they are shown
    };
    const auto since = [&](const char *unit, int length, const char *form) {
        return database.shared() ? Grouping{fmt::format("date_trunc('{0}', r.started) AS {0}", unit), unit,
                                            fmt::format("to_char({0}, '{1}') AS {0}", unit, form)}
                                 : Grouping{fmt::format("substr(r.started, 1, {}) AS {}", length, unit), unit, unit};
    };
    const std::map<By, Grouping> groupings = {
        {By::kAll, {"'all' AS period", "period", "period"}},
        {By::kHour, since("hour", 13, "YYYY-MM-DD\"T\"HH24")},
        {By::kDay, since("day", 10, "YYYY-MM-DD")},
        {By::kPlace, {"s.name AS station, r.place_name AS place", "station, place", "station, place"}},
        {By::kPlan, {"r.plan", "plan", "plan"}}};
    const auto &[group, names, shown] = groupings.at(by);
    const bool places = by == By::kPlace;
    std::string groups = places ? "GROUP BY 1, 2, 3" : "GROUP BY 1, 2";  // the first is the time
    // SQLite sorts what it groups, even into one group. Places first: it then compares most runs by the first key
    // alone.
    if (!database.shared()) groups = by == By::kAll ? "HAVING count(*) > 0" : places ? "GROUP BY 2, 1" : "GROUP BY 1";
    return Question(filter).ask(database, "yields",
                                {{"group", group},
                                 {"names", names},
                                 {"shown", shown},
                                 {"groups", groups},
                                 {"join", places ? "JOIN stations s ON s.id = r.station" : ""}});
}

Table failuresByStep(Database &database, const Filter &filter) {
    Filter units = filter;
    if (units.cause.empty()) units.cause = "unit";
    return Question(units).ask(database, "failures_by_step");
}

Table failuresByCause(Database &database, const Filter &filter) {
    return Question(filter).ask(database, "failures_by_cause");
}

Table measuredValues(Database &database, const Filter &filter, const std::string &name, By by) {
    const bool places = by == By::kPlace;
    const std::string named = "CAST($3 AS TEXT) AS plan, CAST({name} AS TEXT) AS name, ";
    const Words groups = {{"group", (places ? "s.name AS station, m.place_name AS place, " : "") + named + "m.unit"},
                          {"join", places ? "JOIN stations s ON s.id = m.station" : ""},
                          {"parts", places ? "GROUP BY 2, 1, 5" : "GROUP BY 3"},
                          {"ordinals", places ? "1, 2, 3, 4, 5" : "1, 2, 3"}};
    // SQLite sorts what it groups. If all have the same unit, which is usual, no groups are needed.
    const Words oneUnit = {{"group", named + "min(m.unit) AS unit"},
                           {"join", ""},
                           {"parts", "HAVING count(*) > 0 AND (count(m.unit) = 0 OR"
                                     " count(m.unit) = count(*) AND min(m.unit) = max(m.unit))"},
                           {"ordinals", "1, 2, 3"}};
    // One query per plan and name: an index answers it.
    auto names = database.ask(sqlOf(database.shared(), "measured_names")).rows;
    std::erase_if(names, [&](const auto &row) {
        return (!name.empty() && row[0] != name) || (!filter.plan.empty() && row[1] != filter.plan);
    });
    Filter one = filter;
    // The head, without rows.
    Table all = Question({.period = {kLastDay, kLastDay}, .plan = "-"}).askReadings(database, "values", "-", groups);
    for (const auto &row : names) {
        one.plan = *row[1];
        Table found = places ? Table() : Question(one).askReadings(database, "values", *row[0], oneUnit);
        if (found.empty()) found = Question(one).askReadings(database, "values", *row[0], groups);
        all.rows.insert(all.rows.end(), found.rows.begin(), found.rows.end());
        for (size_t i = 0; i < all.numbers.size(); ++i) all.numbers[i] = all.numbers[i] || found.numbers[i];
    }
    const auto cpk = [](const auto &row) { return row.back() ? std::stod(*row.back()) : HUGE_VAL; };
    std::stable_sort(all.rows.begin(), all.rows.end(), [&](const auto &a, const auto &b) { return cpk(a) < cpk(b); });
    return all;
}

Table readings(Database &database, const Filter &filter, const std::string &name, int limit) {
    return Question(filter).askReadings(database, "readings", name, {{"count", std::to_string(limit)}});
}

Table readingGroup(Database &database, const Filter &filter, const std::string &name) {
    return Question(filter).askReadings(database, "reading_group", name);
}

Table histogram(Database &database, const Filter &filter, const std::string &name, int ranges) {
    return Question(filter).askReadings(database, "histogram", name, {{"count", std::to_string(ranges)}});
}

Table choices(Database &database) { return database.ask(sqlOf(database.shared(), "choices")); }

}  // namespace station
