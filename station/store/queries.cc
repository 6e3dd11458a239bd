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

// A filter's conditions on a run r, with its value as "?".
constexpr std::pair<std::string Filter::*, const char *> kConditions[] = {
    {&Filter::plan, " AND r.plan = ?"},
    {&Filter::product, " AND r.unit IN (SELECT id FROM units WHERE product = ?)"},
    {&Filter::station, " AND r.station IN (SELECT id FROM stations WHERE name = ?)"},
    {&Filter::place, " AND r.place_name = ?"},
    {&Filter::cause, " AND r.verdict IN ('failed', 'interrupted') AND {cause} = ?"}};
constexpr const char *kReference = "SELECT id FROM runs WHERE reference AND started >= $1 AND started < $2";

// A query about the runs of a filter.
class Question {
public:
    explicit Question(const Filter &filter) : plan_(!filter.plan.empty()), values_(bounds(filter.period)) {
        for (const auto &[member, condition] : kConditions) add(condition, filter.*member);
    }
    // Adds a condition. An empty value adds none.
    void add(const char *condition, const std::string &value) {
        if (value.empty()) return;
        values_.emplace_back(value);
        runs_ += replaced(condition, '?', fmt::format("${}", values_.size()));
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
        std::string readings = "m.started >= $1 AND m.started < $2";
        // Only with reference units among the runs: the index of measured values does not have the run.
        const bool any = !database.ask(fmt::format("{} LIMIT 1", kReference), {values_[0], values_[1]}).empty();
        if (any) readings += fmt::format(" AND m.run NOT IN ({})", kReference);
        if (plan_) readings += " AND m.plan = $3";
        if (values_.size() > (plan_ ? 3 : 2)) readings += " AND m.run IN (SELECT r.id FROM runs r WHERE " + runs_ + ")";
        if (!name.empty()) values_.emplace_back(name);
        words["name"] = fmt::format("${}", values_.size());
        if (!name.empty()) readings += " AND m.name = {name}";
        words["readings"] = readings;
        return ask(database, file, words);
    }

private:
    const bool plan_;  // the first value after the period is a plan
    std::vector<Value> values_;
    std::string runs_ = "r.started >= $1 AND r.started < $2";
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
    const auto begin = [&](int length, const char *form) {
        return fmt::format(fmt::runtime(database.shared() ? "to_char(r.started, '{1}')" : "substr(r.started, 1, {0})"),
                           length, form);
    };
    const std::map<By, std::pair<std::string, const char *>> groups = {
        {By::kAll, {"'all' AS period", "period"}},
        {By::kHour, {begin(13, "YYYY-MM-DD\"T\"HH24") + " AS hour", "hour"}},
        {By::kDay, {begin(10, "YYYY-MM-DD") + " AS day", "day"}},
        {By::kPlace, {"s.name AS station, r.place_name AS place", "station, place"}},
        {By::kPlan, {"r.plan", "plan"}}};
    const auto &[group, names] = groups.at(by);
    // Without groups: SQLite would sort all runs to put them into one. Places first: it then compares most runs by the
    // first key alone.
    const char *const parts = by == By::kAll     ? "HAVING count(*) > 0"
                              : by == By::kPlace ? "GROUP BY 2, 1"
                                                 : "GROUP BY 1";
    const char *const rank =
        database.shared() ? "percentile_disc({}) WITHIN GROUP (ORDER BY r.seconds)" : "nearest_rank(r.seconds, {})";
    return Question(filter).ask(database, "yields",
                                {{"group", group},
                                 {"names", names},
                                 {"parts", parts},
                                 {"ordinals", by == By::kPlace ? "1, 2" : "1"},
                                 {"join", by == By::kPlace ? "JOIN stations s ON s.id = r.station" : ""},
                                 {"median", fmt::format(fmt::runtime(rank), 0.5)},
                                 {"p90", fmt::format(fmt::runtime(rank), 0.9)}});
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
    const Words groups = {
        {"group", std::string(places ? "s.name AS station, r.place_name AS place, " : "") + "m.plan, m.name, m.unit"},
        {"join", places ? "JOIN runs r ON r.id = m.run JOIN stations s ON s.id = r.station" : ""},
        {"parts", places ? "GROUP BY 1, 2, 3, 4, 5" : "GROUP BY 1, 2, 3"},
        {"ordinals", places ? "1, 2, 3, 4, 5" : "1, 2, 3"}};
    // One query per plan and name: an index answers it. To group all values in one query, SQLite would sort them. It
    // sorts even those of one plan and name, unless all have the same unit and thus need no groups.
    const Words oneUnit = {{"group", "CAST($3 AS TEXT) AS plan, CAST({name} AS TEXT) AS name, min(m.unit) AS unit"},
                           {"join", ""},
                           {"parts", "HAVING count(*) > 0 AND (count(m.unit) = 0 OR"
                                     " count(m.unit) = count(*) AND min(m.unit) = max(m.unit))"},
                           {"ordinals", "1, 2, 3"}};
    auto names = database.ask(sqlOf(database.shared(), "measured_names")).rows;
    std::erase_if(names, [&](const auto &row) {
        return (!name.empty() && row[0] != name) || (!filter.plan.empty() && row[1] != filter.plan);
    });
    Filter one = filter;
    // The head, without rows. It needs a name: without one, the database would read all values.
    Table all = Question({.period = {kLastDay, kLastDay}}).askReadings(database, "values", "-", groups);
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

Table histogram(Database &database, const Filter &filter, const std::string &name, int ranges, By by) {
    const bool places = by == By::kPlace;
    return Question(filter).askReadings(database, "histogram", name,
                                        {{"count", std::to_string(ranges)},
                                         {"place", places ? "r.place_name" : "NULL"},
                                         {"parts", places ? "part, placed.place" : "part"},
                                         {"join", places ? "JOIN runs r ON r.id = m.run" : ""}});
}

Table choices(Database &database) { return database.ask(sqlOf(database.shared(), "choices")); }

}  // namespace station
