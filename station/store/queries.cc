#include "station/store/queries.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>
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

std::vector<std::vector<Value>> measuredPlans(Database &database, const std::string &name) {
    return database.ask(sqlOf(database.shared(), "measured_plans"), {name}).rows;
}

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
        for (const auto &row : measuredPlans(database, name)) {
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

// Returns figures in groups, by the SQL of the groups, of what tells one from another, and of the first and last start.
Spreads spreadsOf(Database &database, const Filter &filter, const std::string &name, const Words &words) {
    Spreads spreads;
    for (auto &row : Question(filter).askReadings(database, "spreads", name, words).rows) {
        const auto at = row.begin() + 5;
        const auto real = [&](ptrdiff_t i) { return at[i] ? std::stod(*at[i]) : NAN; };
        const Spread spread = {at[0],   at[1],   real(2), real(3), real(4), real(5),
                               real(6), real(7), real(8), real(9), real(10)};
        spreads[{row.begin(), at}] += spread;
    }
    return spreads;
}

Value onlyCell(const Table &table) { return table.empty() ? std::nullopt : table.rows[0][0]; }

Value findRun(Database &database, const std::string &name) {
    return onlyCell(database.ask("SELECT id FROM runs WHERE run = $1", {name}));
}

}  // namespace

void append(Table &all, Table more) {
    std::ranges::move(more.rows, std::back_inserter(all.rows));
    for (size_t i = 0; i < all.numbers.size(); ++i) more.numbers[i] = more.numbers[i] || all.numbers[i];
    more.rows = std::move(all.rows);
    all = std::move(more);
}

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
    const std::map<By, Grouping> groupings = {{By::kAll, {"'all' AS period", "period", "period"}},
                                              {By::kHour, since("hour", 13, "YYYY-MM-DD\"T\"HH24")},
                                              {By::kDay, since("day", 10, "YYYY-MM-DD")},
                                              {By::kPlace,
                                               {database.shared() ? "r.station AS station_id, r.place_name AS place"
                                                                  : "s.name AS station, r.place_name AS place",
                                                "station, place", "station, place"}},
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
                                 {"named", places ? "r.*, s.name AS station" : "r.*"},
                                 {"join", !places             ? ""
                                          : database.shared() ? "JOIN stations s ON s.id = r.station_id"
                                                              : "JOIN stations s ON s.id = r.station"}});
}

Table failuresByStep(Database &database, const Filter &filter) {
    Filter units = filter;
    if (units.cause.empty()) units.cause = "unit";
    return Question(units).ask(database, "failures_by_step");
}

Table failuresByCause(Database &database, const Filter &filter) {
    return Question(filter).ask(database, "failures_by_cause");
}

// Adds means and squares up by Chan's formula, which loses no digits, as plain sums of squares would.
void Spread::operator+=(const Spread &other) {
    if (other.numbers > 0) {
        const double distance = other.mean - mean, share = other.numbers / (numbers + other.numbers);
        squares += other.squares + distance * distance * numbers * share;
        mean += distance * share;
        numbers += other.numbers;
    }
    if (!started || (other.started && other.started < started)) started = other.started;
    until = std::max(until, other.until);
    measured += other.measured;
    failed += other.failed;
    lowest = std::fmin(lowest, other.lowest);
    highest = std::fmax(highest, other.highest);
    minimum = std::fmax(minimum, other.minimum);
    maximum = std::fmin(maximum, other.maximum);
}

Spreads spreadsByPlace(Database &database, const Filter &filter, const std::string &name) {
    return spreadsOf(
        database, filter, name,
        {{"columns", "(SELECT s.name FROM stations s WHERE s.id = m.station), m.place_name, m.plan, m.name,"
                     " m.unit, min(m.started), max(m.started)"},
         {"groups", "GROUP BY m.place_name, m.station, m.plan, m.name, m.unit"}});
}

Table valuesTable(const Spreads &spreads, bool byPlace) {
    Table table{{"station", "place", "plan", "name", "unit", "measured", "failed", "lowest", "mean", "highest",
                 "deviation", "minimum", "maximum", "cpk"},
                {},
                std::vector<bool>(5)};
    table.numbers.resize(table.columns.size(), true);
    for (const auto &[group, of] : spreads) {
        // A constant has no Cpk: what rounding leaves of its deviation means nothing.
        const double mean = of.numbers > 0 ? of.mean : NAN, above = of.maximum - mean, below = mean - of.minimum;
        const double deviation = of.lowest == of.highest ? 0 : std::sqrt(of.squares / (of.numbers - 1));
        const double cpk = deviation > 0 ? std::fmin(above, below) / (3 * deviation) : NAN;
        auto &row = table.rows.emplace_back(group);
        for (const double cell :
             {of.measured, of.failed, of.lowest, mean, of.highest, deviation, of.minimum, of.maximum, cpk}) {
            row.push_back(number(cell));
        }
    }
    std::ranges::stable_sort(table.rows, {}, [](const auto &row) {
        return std::tuple(row.back() ? std::stod(*row.back()) : HUGE_VAL, row[3], row[2]);
    });
    if (byPlace) return table;
    const auto drop = [](auto &list) { list.erase(list.begin(), list.begin() + 2); };
    drop(table.columns), drop(table.numbers);
    std::ranges::for_each(table.rows, drop);
    return table;
}

// One query per plan and name: an index answers it. SQLite sorts what it groups. If all have the same unit, which is
// usual, no groups are needed.
Table measuredValues(Database &database, const Filter &filter) {
    const Words oneUnit = {{"columns", "NULL, NULL, min(m.plan), min(m.name), min(m.unit), NULL, NULL"},
                           {"groups", "HAVING count(*) > 0 AND (count(m.unit) = 0 OR"
                                      " count(m.unit) = count(*) AND min(m.unit) = max(m.unit))"}},
                units = {{"columns", "NULL, NULL, min(m.plan), min(m.name), m.unit, NULL, NULL"},
                         {"groups", "GROUP BY m.unit"}};
    Spreads all;
    Filter one = filter;
    for (const auto &row : database.ask(sqlOf(database.shared(), "measured_names")).rows) {
        if (!filter.plan.empty() && row[1] != filter.plan) continue;
        one.plan = *row[1];
        Spreads found = spreadsOf(database, one, *row[0], oneUnit);
        if (found.empty()) found = spreadsOf(database, one, *row[0], units);
        all.merge(found);
    }
    return valuesTable(all, false);
}

// One query per plan: an index has the readings of a plan in the order of time.
Table readings(Database &database, const Filter &filter, const std::string &name, size_t limit) {
    Filter one = filter;
    Table all;
    auto plans = measuredPlans(database, name);
    if (!filter.plan.empty() || plans.empty()) plans = {{filter.plan}};
    for (const auto &row : plans) {
        one.plan = *row[0];
        append(all, Question(one).askReadings(database, "readings", name, {{"count", std::to_string(limit)}}));
    }
    std::ranges::stable_sort(all.rows, {}, [](const auto &row) { return row[0]; });
    all.rows.resize(std::min(all.rows.size(), limit));
    return all;
}

Table histogram(Database &database, const Filter &filter, const std::string &name, int ranges) {
    return Question(filter).askReadings(database, "histogram", name, {{"count", std::to_string(ranges)}});
}

Table choices(Database &database) { return database.ask(sqlOf(database.shared(), "choices")); }

}  // namespace station
