#include "station/store/queries.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <utility>

#include "station/base/mac.h"
#include "station/base/time.h"
#include "station/store/pool.h"
#include "station/store/sql.h"

namespace station {
namespace {

constexpr const char *kFirstDay = "0001-01-01", *kLastDay = "9999-12-31";

constexpr const char *kRuns =
    "SELECT r.run, u.serial, r.plan, s.name AS station, r.place_name AS place, r.started, r.seconds, r.verdict,"
    " r.attempt, r.failed_step, r.failure, r.cause, r.operator, r.reference FROM runs r"
    " JOIN stations s ON s.id = r.station LEFT JOIN units u ON u.id = r.unit";

// A filter's conditions on a run r. They replace {runs} in an SQL file; {readings} is for those on a measurement m.
constexpr std::pair<std::string Filter::*, const char *> kConditions[] = {
    {&Filter::plan, " AND r.plan = ${}"},
    {&Filter::product, " AND r.unit IN (SELECT id FROM units WHERE product = ${})"},
    {&Filter::station, " AND r.station IN (SELECT id FROM stations WHERE name = ${})"},
    {&Filter::place, " AND r.place_name = ${}"},
    {&Filter::cause, " AND r.verdict <> 'passed' AND coalesce(r.cause, 'unit') = ${}"}};
constexpr const char *kReference =
    " AND m.run NOT IN (SELECT id FROM runs WHERE reference AND started >= $1 AND started < $2)";

using Words = std::map<std::string, std::string>;

std::string fill(std::string sql, const Words &words) {
    for (const auto &[name, word] : words) {
        for (size_t at; (at = sql.find(name)) != std::string::npos;) sql.replace(at, name.size(), word);
    }
    return sql;
}

// A query about the runs of a filter.
class Question {
public:
    explicit Question(const Filter &filter) : plan_(!filter.plan.empty()), values_(bounds(filter.period)) {
        for (const auto &[member, condition] : kConditions) add(condition, filter.*member);
    }
    // Adds a condition with the value at its ${}. An empty value adds none.
    void add(const char *condition, const std::string &value) {
        if (value.empty()) return;
        values_.emplace_back(value);
        runs_ += fill(condition, {{"{}", std::to_string(values_.size())}});
    }
    const std::string &runs() const { return runs_; }
    const std::vector<Value> &values() const { return values_; }

    // Runs the query of the file NAME.sql.
    Table ask(Database &database, const char *name, Words words = {}) const {
        words["{runs}"] = runs_;
        return database.ask(fill(std::string(sqlFile(name)), words), values_);
    }
    // The same for the measured values of this name; empty: of all names.
    Table askReadings(Database &database, const char *file, const std::string &name, Words words = {}) {
        std::string readings = std::string("m.started >= $1 AND m.started < $2") + kReference;
        if (plan_) readings += " AND m.plan = $3";
        if (values_.size() > (plan_ ? 3 : 2)) readings += " AND m.run IN (SELECT r.id FROM runs r WHERE " + runs_ + ")";
        if (!name.empty()) values_.emplace_back(name);
        if (!name.empty()) readings += fmt::format(" AND m.name = ${}", values_.size());
        words["{readings}"] = readings;
        return ask(database, file, words);
    }

private:
    const bool plan_;  // the first value after the period is a plan
    std::vector<Value> values_;
    std::string runs_ = "r.started >= $1 AND r.started < $2";
};

// Returns an address in any form in the store's form; any other text unchanged.
std::string inStoreForm(const std::string &value) {
    const auto mac = parseMac(value);
    return mac ? formatMac(*mac) : value;
}

// Returns the plans, with their files, of the runs that have this key in the column.
Table filesOf(Database &database, const char *column, const Value &key) {
    return database.ask(fmt::format("SELECT r.run, v.name AS plan, v.digest AS plan_sha256, f.step, f.name AS file,"
                                    " f.size, f.sha256 FROM runs r JOIN plan_versions v ON v.id = r.plan_version"
                                    " LEFT JOIN plan_files f ON f.plan_version = v.id WHERE {} = $1"
                                    " ORDER BY r.started, r.id, f.step, f.name",
                                    column),
                        {key});
}

std::vector<Section> showUnit(Database &database, const Value &unit) {
    return {{"unit", database.ask("SELECT u.serial, u.product, u.first_seen, u.last_seen, (SELECT r.verdict FROM runs r"
                                  " WHERE r.unit = u.id ORDER BY r.started DESC, r.id DESC LIMIT 1) AS verdict"
                                  " FROM units u WHERE u.id = $1",
                                  {unit})},
            {"given", database.ask("SELECT p.name AS pool, b.value, b.run, b.bound FROM pool_rows b"
                                   " JOIN pools p ON p.id = b.pool WHERE b.unit = $1"
                                   " ORDER BY p.name, b.id",
                                   {unit})},
            {"runs", database.ask(std::string(kRuns) + " WHERE r.unit = $1 ORDER BY r.started, r.id", {unit})},
            {"archives", database.ask("SELECT a.file, a.runs, a.since, a.until FROM archives a"
                                      " JOIN units u ON u.first_seen <= a.until WHERE u.id = $1 ORDER BY a.id",
                                      {unit})},
            {"files", filesOf(database, "r.unit", unit)}};
}

// Returns a clause that names the archives that may have the run, by the start in its name; empty when none may.
std::string archivesOf(Database &database, const std::string &run) {
    const std::string form = "00000000T000000";
    if (run.size() < form.size() || run[8] != 'T') return {};
    const auto part = [&](size_t at, size_t length) { return run.substr(at, length); };
    const std::string second =
        fmt::format("{}-{}-{}T{}:{}:{}", part(0, 4), part(4, 2), part(6, 2), part(9, 2), part(11, 2), part(13, 2));
    const auto time = parseIsoTime(second);
    if (!time) return {};
    const Table found = database.ask("SELECT file FROM archives WHERE since < $2 AND until >= $1 ORDER BY id",
                                     {isoTime(*time), isoTime(*time + std::chrono::seconds(1))});
    std::string files;
    for (const auto &row : found.rows) files += " " + *row[0];
    return files.empty() ? "" : "; runs of that time were archived in" + files;
}

std::vector<Section> showRunOf(Database &database, const Value &run) {
    return {{"run", database.ask(std::string(kRuns) + " WHERE r.id = $1", {run})},
            {"steps",
             database.ask("SELECT step, title, verdict, started_after, seconds, attempts, failure, reply, cut, hint"
                          " FROM steps WHERE run = $1 ORDER BY step",
                          {run})},
            {"values", database.ask("SELECT step, name, value, unit, minimum, maximum, verdict FROM measurements"
                                    " WHERE run = $1 ORDER BY step, name",
                                    {run})},
            {"files", filesOf(database, "r.id", run)}};
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
                                     {inStoreForm(what)}));
    }
    if (unit) return showUnit(database, unit);
    const Value run = findRun(database, what);
    if (!run)
        throw Refusal(
            fmt::format("the store knows no unit, address or run \"{}\"{}", what, archivesOf(database, what)));
    return showRunOf(database, run);
}

std::vector<Section> showRun(Database &database, const std::string &name) {
    const Value run = findRun(database, name);
    if (!run) throw Refusal(fmt::format("the store knows no run \"{}\"", name));
    return showRunOf(database, run);
}

Table unitsLike(Database &database, const std::string &begin, int limit) {
    return database.ask(
        fmt::format("SELECT f.serial, f.product, f.first_seen, f.last_seen, (SELECT r.verdict FROM runs r"
                    " WHERE r.unit = f.id ORDER BY r.started DESC, r.id DESC LIMIT 1) AS verdict"
                    " FROM (SELECT * FROM units u WHERE u.serial >= $1 AND u.serial < $2 ORDER BY u.last_seen DESC"
                    " LIMIT {}) AS f",
                    limit),
        {begin, begin + "\U0010FFFF"});
}

Table eachRun(Database &database, const RunFilter &wanted, const Database::EachRow &row) {
    Question question(wanted.filter);
    question.add(" AND coalesce(r.failed_step, r.failure) = ${}", wanted.step);
    question.add(" AND EXISTS (SELECT 1 FROM plan_files f JOIN steps t ON t.run = r.id AND t.step = f.step"
                 " AND t.verdict <> 'not run' WHERE f.plan_version = r.plan_version AND ${} IN (f.name, f.sha256))",
                 wanted.file);
    const std::string runs = fmt::format("{} WHERE {}{} ORDER BY r.started", kRuns, question.runs(),
                                         wanted.failed ? " AND r.verdict = 'failed'" : "");
    const std::string newest =
        fmt::format("SELECT * FROM ({} DESC LIMIT {}) AS newest ORDER BY started", runs, wanted.limit);
    return database.each(wanted.limit > 0 ? newest : runs, question.values(), row);
}

Table listRuns(Database &database, const RunFilter &filter) { return eachRun(database, filter, {}); }

Table yields(Database &database, const Filter &filter, By by, std::chrono::minutes zone) {
    const auto begin = [&](int length, const char *form) {
        if (database.shared()) {
            return fmt::format("to_char(r.started + interval '{} minutes', '{}')", zone.count(), form);
        }
        const std::string local = fmt::format("strftime('%Y-%m-%dT%H', r.started, '{:+} minutes')", zone.count());
        return fmt::format("substr({}, 1, {})", zone.count() == 0 ? "r.started" : local, length);
    };
    const std::map<By, std::pair<std::string, const char *>> groups = {
        {By::kAll, {"'all' AS period", "period"}},
        {By::kHour, {begin(13, "YYYY-MM-DD\"T\"HH24") + " AS hour", "hour"}},
        {By::kDay, {begin(10, "YYYY-MM-DD") + " AS day", "day"}},
        {By::kPlace, {"s.name AS station, r.place_name AS place", "station, place"}},
        {By::kPlan, {"r.plan", "plan"}}};
    const auto &[group, names] = groups.at(by);
    const char *const rank =
        database.shared() ? "percentile_disc({}) WITHIN GROUP (ORDER BY r.seconds)" : "nearest_rank(r.seconds, {})";
    return Question(filter).ask(database, "yields",
                                {{"{group}", group},
                                 {"{names}", names},
                                 {"{ordinals}", by == By::kPlace ? "1, 2" : "1"},
                                 {"{join}", by == By::kPlace ? "JOIN stations s ON s.id = r.station" : ""},
                                 {"{median}", fmt::format(fmt::runtime(rank), 0.5)},
                                 {"{p90}", fmt::format(fmt::runtime(rank), 0.9)}});
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
    const Words words = {
        {"{group}", std::string(places ? "s.name AS station, r.place_name AS place, " : "") + "m.plan, m.name, m.unit"},
        {"{join}", places ? "JOIN runs r ON r.id = m.run JOIN stations s ON s.id = r.station" : ""},
        {"{ordinals}", places ? "1, 2, 3, 4, 5" : "1, 2, 3"}};
    // One query per plan and name: an index answers it. To group all values in one query, SQLite would sort them.
    auto names = database.ask(std::string(sqlFile("measured_names"))).rows;
    std::erase_if(names, [&](const auto &row) {
        return (!name.empty() && row[0] != name) || (!filter.plan.empty() && row[1] != filter.plan);
    });
    Filter one = filter;
    Table all =
        Question({.period = {kLastDay, kLastDay}}).askReadings(database, "values", name, words);  // without rows
    for (const auto &row : names) {
        one.plan = *row[1];
        const Table found = Question(one).askReadings(database, "values", *row[0], words);
        all.rows.insert(all.rows.end(), found.rows.begin(), found.rows.end());
        for (size_t i = 0; i < all.numbers.size(); ++i) all.numbers[i] = all.numbers[i] || found.numbers[i];
    }
    const auto cpk = [](const auto &row) { return row.back() ? std::stod(*row.back()) : HUGE_VAL; };
    std::stable_sort(all.rows.begin(), all.rows.end(), [&](const auto &a, const auto &b) { return cpk(a) < cpk(b); });
    return all;
}

Table readings(Database &database, const Filter &filter, const std::string &name, int limit) {
    return Question(filter).askReadings(database, "readings", name, {{"{count}", std::to_string(limit)}});
}

Table readingGroups(Database &database, const Filter &filter, const std::string &name, int groups) {
    return Question(filter).askReadings(database, "reading_groups", name, {{"{count}", std::to_string(groups)}});
}

Table histogram(Database &database, const Filter &filter, const std::string &name, int ranges) {
    return Question(filter).askReadings(database, "histogram", name, {{"{count}", std::to_string(ranges)}});
}

Table choices(Database &database) { return database.ask(std::string(sqlFile("choices"))); }

}  // namespace station
