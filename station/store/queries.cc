#include "station/store/queries.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <map>

#include "station/base/mac.h"
#include "station/base/time.h"
#include "station/store/pool.h"

namespace station {
namespace {

// Runs of the period whose verdict is final. A run without a unit counts as one of its own.
constexpr const char *kInPeriod = "r.started >= $1 AND r.started < $2 AND r.verdict <> 'running'";
constexpr const char *kFirstDay = "0001-01-01", *kLastDay = "9999-12-31";

constexpr const char *kRuns =
    "SELECT r.run, u.serial, r.plan, s.name AS station, r.place_name AS place, r.started, r.seconds, r.verdict,"
    " r.attempt, r.failed_step, r.failure FROM runs r JOIN stations s ON s.id = r.station"
    " LEFT JOIN units u ON u.id = r.unit";

// The median and the 90th percentile are the nearest ranks. A final verdict is the last one of a unit and plan: that of
// the highest id, which is carried with it in one number.
constexpr const char *kYields = R"(
WITH ended AS (
    SELECT {group} AS part, r.id, coalesce(r.unit, -r.id) AS unit, r.plan, r.seconds, r.attempt, r.verdict,
           CASE r.verdict WHEN 'passed' THEN 1 ELSE 0 END AS passed
    FROM runs r JOIN stations s ON s.id = r.station
    WHERE {period}),
judged AS (
    SELECT part, unit, count(*) AS runs, sum(CASE WHEN attempt = 1 THEN passed END) AS passed_first,
           sum(CASE WHEN attempt = 1 THEN 1 END) AS first, sum(CASE WHEN attempt > 1 THEN 1 ELSE 0 END) AS retests,
           max(2 * id + passed) % 2 AS passed_last
    FROM ended WHERE verdict <> 'interrupted' GROUP BY part, unit, plan),
counted AS (
    SELECT part, count(DISTINCT unit) AS units, sum(runs) AS runs, 100.0 * sum(passed_first) / sum(first) AS first_pass_yield,
           100.0 * sum(passed_last) / count(*) AS final_yield, sum(retests) AS retests
    FROM judged GROUP BY part),
timed AS (
    SELECT part, sum(CASE verdict WHEN 'interrupted' THEN 1 ELSE 0 END) AS interrupted,
           {median} FILTER (WHERE verdict <> 'interrupted') AS median_seconds,
           {p90} FILTER (WHERE verdict <> 'interrupted') AS p90_seconds
    FROM ended GROUP BY part)
SELECT t.part AS {name}, coalesce(c.units, 0) AS units, coalesce(c.runs, 0) AS runs, c.first_pass_yield, c.final_yield,
       coalesce(c.retests, 0) AS retests, t.interrupted, t.median_seconds, t.p90_seconds
FROM timed t LEFT JOIN counted c ON c.part = t.part ORDER BY t.part)";

constexpr const char *kFailures = R"(
SELECT coalesce(r.failed_step, r.failure) AS step, count(*) AS failures,
       100.0 * count(*) / sum(count(*)) OVER () AS percent,
       100.0 * sum(count(*)) OVER (ORDER BY count(*) DESC, coalesce(r.failed_step, r.failure))
             / sum(count(*)) OVER () AS cumulative_percent
FROM runs r WHERE {period} AND r.verdict = 'failed'
GROUP BY coalesce(r.failed_step, r.failure) ORDER BY failures DESC, step)";

// Where the limits were changed within the period, the tightest hold.
constexpr const char *kValues = R"(
WITH spread AS (
    SELECT m.plan, m.name, m.unit, count(*) AS measured, sum(CASE m.verdict WHEN 'failed' THEN 1 ELSE 0 END) AS failed,
           min(m.value) AS lowest, avg(m.value) AS mean, max(m.value) AS highest, stddev_samp(m.value) AS deviation,
           max(m.minimum) AS minimum, min(m.maximum) AS maximum
    FROM measurements m WHERE {readings} GROUP BY m.plan, m.name, m.unit)
SELECT spread.*, CASE WHEN minimum IS NULL OR maximum - mean <= mean - minimum THEN maximum - mean ELSE mean - minimum END
                 / nullif(3 * deviation, 0) AS cpk
FROM spread ORDER BY cpk, plan, name)";

constexpr const char *kReadings = "m.started >= $1 AND m.started < $2 AND ($3 = '' OR m.name = $3)"
                                  " AND ($4 = '' OR m.plan = $4)";

constexpr const char *kEachReading = R"(
SELECT m.started, r.run, u.serial, s.name AS station, r.place_name AS place, m.value, m.minimum, m.maximum, m.unit, m.verdict
FROM measurements m JOIN runs r ON r.id = m.run JOIN stations s ON s.id = r.station LEFT JOIN units u ON u.id = r.unit
WHERE {readings} ORDER BY m.started, m.run, m.step LIMIT {limit})";

constexpr const char *kReadingGroups = R"(
WITH found AS (
    SELECT m.started, m.value, m.minimum, m.maximum, m.unit, m.verdict, ntile({limit}) OVER (ORDER BY m.started) AS part
    FROM measurements m
    WHERE {readings})
SELECT min(started) AS started, max(started) AS until, count(*) AS measured,
       sum(CASE verdict WHEN 'failed' THEN 1 ELSE 0 END) AS failed, min(value) AS lowest, avg(value) AS mean,
       max(value) AS highest, max(minimum) AS minimum, min(maximum) AS maximum, min(unit) AS unit
FROM found GROUP BY part ORDER BY part)";

std::string fill(std::string sql, const std::map<std::string, std::string> &words) {
    for (const auto &[name, word] : words) {
        for (size_t at; (at = sql.find(name)) != std::string::npos;) sql.replace(at, name.size(), word);
    }
    return sql;
}

std::vector<Value> bounds(const Period &period) {
    return {period.since.empty() ? kFirstDay : period.since, period.until.empty() ? kLastDay : period.until};
}

Table askReadings(Database &database, const Period &period, const std::string &plan, const std::string &name,
                  const char *sql, int limit) {
    std::vector<Value> values = bounds(period);
    values.insert(values.end(), {name, plan});
    return database.ask(fill(sql, {{"{readings}", kReadings}, {"{limit}", std::to_string(limit)}}), values);
}

Table askPeriod(Database &database, const Period &period, const char *sql,
                std::map<std::string, std::string> words = {}) {
    words["{period}"] = kInPeriod;
    return database.ask(fill(sql, words), bounds(period));
}

// As a scanner or a label may have it; anything else is left as it is.
std::string inStoreForm(const std::string &value) {
    const auto mac = parseMac(value);
    return mac ? formatMac(*mac) : value;
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
                                      {unit})}};
}

// Returns the archives that may have the run, whose name begins with its start; empty: none.
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
            {"steps", database.ask("SELECT step, title, verdict, started_after, seconds, attempts, failure, reply, hint"
                                   " FROM steps WHERE run = $1 ORDER BY step",
                                   {run})},
            {"values", database.ask("SELECT step, name, value, unit, minimum, maximum, verdict FROM measurements"
                                    " WHERE run = $1 ORDER BY step, name",
                                    {run})}};
}

Value onlyCell(const Table &table) { return table.empty() ? std::nullopt : table.rows[0][0]; }

Value findRun(Database &database, const std::string &name) {
    return onlyCell(database.ask("SELECT id FROM runs WHERE run = $1", {name}));
}

}  // namespace

std::string parseTime(const std::string &text) {
    static const std::map<char, int64_t> kMinutes = {{'m', 1}, {'h', 60}, {'d', 24 * 60}};
    int ago = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, ago);
    const auto unit = stop + 1 == end ? kMinutes.find(*stop) : kMinutes.end();
    if (error == std::errc() && unit != kMinutes.end() && ago >= 0) {
        const auto now = std::chrono::floor<std::chrono::minutes>(WallClock::now());  // the clock counts from 1970
        const std::chrono::minutes back(std::min<int64_t>(ago * unit->second, now.time_since_epoch().count()));
        return isoTime(WallClock::now() - back);
    }
    constexpr size_t kToTheHour = 13;  // which PostgreSQL does not take for a time
    const std::string time = text.ends_with('Z') ? text.substr(0, text.size() - 1) : text;
    if (parseIsoTime(time)) return time.size() == kToTheHour ? time + ":00" : time;
    throw Refusal(fmt::format("\"{}\" is no time: 2026-11-21 or 2026-11-21T17:30 (UTC), 8h or 7d ago", text));
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
        fmt::format("SELECT u.serial, u.product, u.first_seen, u.last_seen FROM units u WHERE u.serial >= $1"
                    " AND u.serial < $2 ORDER BY u.last_seen DESC LIMIT {}",
                    limit),
        {begin, begin + "\U0010FFFF"});
}

Table eachRun(Database &database, const RunFilter &filter, const Database::EachRow &row) {
    std::vector<Value> values = bounds(filter.period);
    if (!filter.step.empty()) values.emplace_back(filter.step);
    const std::string runs = fmt::format("{} WHERE r.started >= $1 AND r.started < $2{}{} ORDER BY r.started", kRuns,
                                         filter.failed ? " AND r.verdict = 'failed'" : "",
                                         filter.step.empty() ? "" : " AND coalesce(r.failed_step, r.failure) = $3");
    const std::string newest =
        fmt::format("SELECT * FROM ({} DESC LIMIT {}) AS newest ORDER BY started", runs, filter.limit);
    return database.each(filter.limit > 0 ? newest : runs, values, row);
}

Table listRuns(Database &database, const RunFilter &filter) { return eachRun(database, filter, {}); }

Table yields(Database &database, const Period &period, By by) {
    const std::map<By, std::pair<const char *, const char *>> groups = {
        {By::kAll, {"'all'", "period"}},
        {By::kHour,
         {database.shared() ? "to_char(r.started, 'YYYY-MM-DD\"T\"HH24')" : "substr(r.started, 1, 13)", "hour"}},
        {By::kPlace, {"s.name || ' ' || r.place_name", "place"}}};
    const auto &[group, name] = groups.at(by);
    const char *const rank =
        database.shared() ? "percentile_disc({}) WITHIN GROUP (ORDER BY seconds)" : "nearest_rank(seconds, {})";
    return askPeriod(database, period, kYields,
                     {{"{group}", group},
                      {"{name}", name},
                      {"{median}", fmt::format(fmt::runtime(rank), 0.5)},
                      {"{p90}", fmt::format(fmt::runtime(rank), 0.9)}});
}

Table failuresByStep(Database &database, const Period &period) { return askPeriod(database, period, kFailures); }

Table measuredValues(Database &database, const Period &period, const std::string &plan, const std::string &name) {
    return askReadings(database, period, plan, name, kValues, 0);
}

Table readings(Database &database, const Period &period, const std::string &plan, const std::string &name, int limit) {
    return askReadings(database, period, plan, name, kEachReading, limit);
}

Table readingGroups(Database &database, const Period &period, const std::string &plan, const std::string &name,
                    int groups) {
    return askReadings(database, period, plan, name, kReadingGroups, groups);
}

}  // namespace station
