#include "station/page/document.h"

#include <fmt/format.h>
#include <string.h>  // strverscmp

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>

#include "station/page/local_time.h"
#include "station/store/format.h"
#include "station/store/load.h"

namespace station {
namespace {

constexpr size_t kMostOfFile = 100000;  // rows
constexpr size_t kMostReadings = 2000;  // that a chart shows one by one; beyond that it shows groups
constexpr int kGroups = 200, kBars = 30;
constexpr std::time_t kMostHours = 96;  // of a period that is shown by the hour

// ---- tables

size_t indexOf(const Table &table, const std::string &column) {
    return size_t(std::find(table.columns.begin(), table.columns.end(), column) - table.columns.begin());
}

Table without(Table table, const std::string &column) {
    const size_t index = indexOf(table, column);
    if (index == table.columns.size()) return table;
    const auto remove = [index](auto &cells) {
        if (index < cells.size()) cells.erase(cells.begin() + ptrdiff_t(index));
    };
    remove(table.columns);
    remove(table.numbers);
    for (auto &row : table.rows) remove(row);
    return table;
}

// Sorts the rows by a column. Compares numbers within texts as numbers, and puts empty cells last.
void sortBy(Table &table, const std::string &column, bool descending) {
    const size_t at = indexOf(table, column);
    if (at == table.columns.size()) return;
    const bool number = table.isNumber(at);
    const auto compare = [number](const std::string &a, const std::string &b) {
        if (!number) return strverscmp(a.c_str(), b.c_str());
        const double x = std::strtod(a.c_str(), nullptr), y = std::strtod(b.c_str(), nullptr);
        return x < y ? -1 : int(x > y);
    };
    std::stable_sort(table.rows.begin(), table.rows.end(), [&](const auto &a, const auto &b) {
        if (!a[at] || !b[at]) return a[at].has_value() > b[at].has_value();
        return descending ? compare(*b[at], *a[at]) < 0 : compare(*a[at], *b[at]) < 0;
    });
}

// Returns the column by which the query sorts this table, with a "-" in front for descending; empty: none.
std::string orderOf(const Part &part, const Query &query) {
    std::string order = query["sort"];
    const std::string sign = order.starts_with('-') ? "-" : "", prefix = fmt::format("{}{}.", sign, part.name);
    return order.starts_with(prefix) ? sign + order.substr(prefix.size()) : part.order;
}

Table ask(Archive &archive, const Part &part, const Query &query, size_t most) {
    Table table;
    archive.ask([&](Database &database) { table = part.ask(database, query, most); });
    const std::string order = orderOf(part, query);
    const bool descending = order.starts_with('-');
    sortBy(table, order.substr(descending ? 1 : 0), descending);
    return table;
}

Json cellOf(const Value &cell, bool number) {
    if (!cell) return nullptr;
    const Json parsed = number ? Json::parse(*cell, nullptr, false) : Json();
    return parsed.is_number() ? parsed : Json(*cell);
}

Json rowOf(const Table &table, const std::vector<Value> &row) {
    Json json = Json::object();
    for (size_t i = 0; i < row.size(); ++i) json[table.columns[i]] = cellOf(row[i], table.isNumber(i));
    return json;
}

Json jsonOf(const Table &table, size_t from, size_t most) {
    Json rows = Json::array();
    const size_t end = std::min(table.rows.size(), from + most);
    for (size_t i = from; i < end; ++i) rows.push_back(rowOf(table, table.rows[i]));
    return {{"columns", table.columns}, {"rows", rows}, {"more", table.rows.size() > end}};
}

std::time_t endOf(const Period &period) { return period.until.empty() ? std::time(nullptr) : timeOf(period.until); }

// Returns how many minutes the station's zone is ahead of UTC in the period, and from when on, for charts.
Json zonesOf(const Period &period) {
    constexpr std::time_t kStep = 1800;
    const std::time_t end = endOf(period);
    Json zones = Json::array();
    long last = 0;
    for (std::time_t time = timeOf(period.since); zones.empty() || time < end; time += kStep) {
        const long minutes = aheadOfUtc(time) / 60;
        if (zones.empty() || minutes != last) zones.push_back({{"from", utcTime(time) + "Z"}, {"minutes", minutes}});
        last = minutes;
    }
    return zones;
}

// ---- runs and units

Table runs(Database &database, const Query &query, size_t most) {
    Table found = listRuns(database, {query.filter, query["failed"] == "1", int(most), query["step"], query["file"]});
    std::reverse(found.rows.begin(), found.rows.end());
    return found;
}

Table units(Database &database, const Query &query, size_t most) { return unitsLike(database, query["q"], int(most)); }

template <size_t kSection>
Table ofUnit(Database &database, const Query &query, size_t) {
    const auto found = show(database, query["serial"]);
    if (found[0].name != "unit") throw Refusal(fmt::format("the store knows no unit \"{}\"", query["serial"]));
    return found[kSection].table;
}

template <size_t kSection>
Table ofRun(Database &database, const Query &query, size_t) {
    return showRun(database, query["run"])[kSection].table;
}

Table variables(Database &database, const Query &query, size_t) {
    Table table{{"variable", "is"}, {}};
    for (const auto &[name, value] : loadRun(database, query["run"]).variables) table.rows.push_back({name, value});
    return table;
}

// Returns the last run of each plan among a unit's runs.
std::vector<RunRecord> lastRuns(Database &database, const Query &query) {
    const Table runs = ofUnit<2>(database, query, 0);
    std::map<Value, std::string> names;
    for (const auto &row : runs.rows) names[row[indexOf(runs, "plan")]] = row[indexOf(runs, "run")].value_or("");
    std::vector<RunRecord> records;
    records.reserve(names.size());
    for (const auto &[plan, name] : names) records.push_back(loadRun(database, name));
    return records;
}

Table lastValues(Database &database, const Query &query, size_t) {
    Table table{{"plan", "name", "value", "unit", "minimum", "maximum", "verdict", "run"},
                {},
                {false, false, true, false, true, true}};
    const auto limit = [](const std::optional<double> &value) { return value ? number(*value) : std::nullopt; };
    for (const RunRecord &run : lastRuns(database, query)) {
        for (const StepResult &step : run.steps) {
            for (const Measurement &found : step.measurements) {
                table.rows.push_back({run.plan, found.name, number(found.value), text(found.unit), limit(found.min),
                                      limit(found.max), found.passed ? "passed" : "failed", run.id});
            }
        }
    }
    return table;
}

Table lastFiles(Database &database, const Query &query, size_t) {
    Table table{{"plan", "step", "file", "size", "sha256"}, {}, {false, true, false, true, false}};
    for (const RunRecord &run : lastRuns(database, query)) {
        for (const PlanFile &file : run.files) {
            table.rows.push_back({run.plan, number(file.step), file.name, number(file.size), file.sha256});
        }
    }
    return table;
}

// ---- the runs of a unit side by side

constexpr ptrdiff_t kNeighbours = 3;  // before and after the run

// Returns the facts of a run that may differ from those of another run of the unit: name and value.
std::vector<std::pair<std::string, Value>> factsOf(const RunRecord &run) {
    const StepResult *const failed = run.firstFailed();
    std::vector<std::pair<std::string, Value>> facts = {{"started", isoTime(run.start)},
                                                        {"verdict", run.passed()      ? "passed"
                                                                    : run.interrupted ? "interrupted"
                                                                                      : "failed"},
                                                        {"plan", run.plan},
                                                        {"station", run.station.name},
                                                        {"place", run.place.name},
                                                        {"failed step", failed ? Value(failed->title) : std::nullopt},
                                                        {"why", text(failed ? failed->failure : run.failure)},
                                                        {"cause", text(std::string(textOf(run.cause)))},
                                                        {"operator", text(run.operatorName)},
                                                        {"plan_sha256", text(run.planDigest.substr(0, 16))}};
    for (const PlanFile &file : run.files) facts.emplace_back(file.name, file.sha256.substr(0, 16));
    for (const StepResult &step : run.steps) {
        for (const Measurement &found : step.measurements) {
            facts.emplace_back(found.unit.empty() ? found.name : fmt::format("{}, {}", found.name, found.unit),
                               measuredText(found.value, found.min.value_or(NAN), found.max.value_or(NAN), NAN));
        }
    }
    for (const auto &[name, value] : run.variables) facts.emplace_back(fmt::format("{{{}}}", name), value);
    return facts;
}

void addColumn(Table &table, const RunRecord &run) {
    table.columns.push_back(run.id);
    for (auto &row : table.rows) row.emplace_back();
    for (const auto &[what, value] : factsOf(run)) {
        // Steps may measure values of the same name.
        const auto holds = [&name = what](const auto &cells) { return cells[0] == name && !cells.back(); };
        auto row = std::find_if(table.rows.begin(), table.rows.end(), holds);
        if (row == table.rows.end()) row = table.rows.insert(row, std::vector<Value>(table.columns.size()));
        row->front() = what;
        row->back() = value;
    }
}

Table attempts(Database &database, const Query &query, size_t) {
    const std::string serial = loadRun(database, query["run"]).unit;
    Table table{{"what"}, {}, {}};
    if (serial.empty()) return table;
    const Table all = show(database, serial)[2].table;
    const size_t name = indexOf(all, "run");
    const auto &rows = all.rows;
    const auto here =
        std::find_if(rows.begin(), rows.end(), [&](const auto &row) { return row[name] == query["run"]; });
    const auto first = here - std::min(kNeighbours, here - rows.begin());
    const auto end = here + std::min(kNeighbours + 1, rows.end() - here);
    for (auto row = first; row != end; ++row) addColumn(table, loadRun(database, *(*row)[name]));
    return table;
}

// ---- measured values

template <By kBy>
Table measuredBy(Database &database, const Query &query, size_t) {
    return measuredValues(database, query.filter, query["name"], kBy);
}

Table everyReading(Database &database, const Query &query, size_t most) {
    return readings(database, query.filter, query["name"], int(most));
}

// Returns no rows when there are too many.
Table fewReadings(Database &database, const Query &query, size_t most) {
    if (most > kMostReadings) return everyReading(database, query, most);
    Table table = everyReading(database, query, kMostReadings + 1);
    if (table.rows.size() > kMostReadings) table.rows.clear();
    return table;
}

Table groups(Database &database, const Query &query, size_t) {
    if (everyReading(database, query, kMostReadings + 1).rows.size() <= kMostReadings) return {};
    return readingGroups(database, query.filter, query["name"], kGroups);
}

Table bars(Database &database, const Query &query, size_t) {
    return histogram(database, query.filter, query["name"], kBars);
}

// ---- yields

template <By kBy>
Table yieldsBy(Database &database, const Query &query, size_t) {
    const Table table = yields(database, query.filter, kBy);
    return kBy == By::kAll ? without(table, "period") : table;
}

// A period of more than kMostHours is shown by the day, others by the hour. Days begin by the zone at the period's end.
bool isLong(const Period &period) { return endOf(period) - timeOf(period.since) > kMostHours * 3600; }

Table hours(Database &database, const Query &query, size_t) {
    return isLong(query.filter.period) ? Table() : yields(database, query.filter, By::kHour);
}

Table days(Database &database, const Query &query, size_t) {
    const std::chrono::minutes zone(aheadOfUtc(endOf(query.filter.period)) / 60);
    return isLong(query.filter.period) ? yields(database, query.filter, By::kDay, zone) : Table();
}

// Adapts a query with a filter to Part::ask.
template <Table (*kAsk)(Database &, const Filter &)>
Table ofFilter(Database &database, const Query &query, size_t) {
    return kAsk(database, query.filter);
}

Table toChoose(Database &database, const Query &, size_t) { return choices(database); }

}  // namespace

const std::vector<Content> kContents = {
    {"summary",
     {{"yields", yieldsBy<By::kAll>},
      {"failures", ofFilter<failuresByStep>},
      {"causes", ofFilter<failuresByCause>},
      {"hours", hours},
      {"days", days},
      {"places", yieldsBy<By::kPlace>, "place"},
      {"values", measuredBy<By::kAll>},
      {"choices", toChoose}}},
    {"runs", {{"runs", runs}, {"choices", toChoose}}},
    {"units", {{"units", units}}},
    {"unit",
     {{"unit", ofUnit<0>},
      {"given", ofUnit<1>},
      {"values", lastValues},
      {"files", lastFiles},
      {"runs", ofUnit<2>},
      {"archives", ofUnit<3>}}},
    {"run",
     {{"run", ofRun<0>},
      {"steps", ofRun<1>},
      {"values", ofRun<2>},
      {"attempts", attempts},
      {"variables", variables},
      {"files", ofRun<3>}}},
    {"value",
     {{"values", measuredBy<By::kAll>},
      {"places", measuredBy<By::kPlace>, "place"},
      {"histogram", bars},
      {"readings", fewReadings},
      {"groups", groups},
      {"choices", toChoose}}},
};

Json documentOf(Archive &archive, const Content &content, const Query &query) {
    Json tables = Json::object();
    for (const Part &part : content.parts) {
        const bool pages = part.name == content.page;  // a list of any length, sorted before it is cut
        const size_t shown = pages ? query.rows : kMostOfFile, from = pages ? query.offset : 0;
        const bool sorts = !query["sort"].empty();
        const size_t most = !pages ? kMostReadings : sorts ? kMostOfFile : std::min(from + shown + 1, kMostOfFile);
        try {
            tables[std::string(part.name)] = jsonOf(ask(archive, part, query, most), from, shown);
        } catch (const TooSlow &error) {
            tables[std::string(part.name)] = {
                {"columns", Json::array()}, {"rows", Json::array()}, {"error", error.what()}};
        }
    }
    return {{"page", content.page},
            {"query", query.parameters},
            {"since", query.filter.period.since},
            {"until", query.filter.period.until},
            {"zone", zonesOf(query.filter.period)},
            {"tables", tables}};
}

Table tableOf(Archive &archive, const Content &content, const std::string &name, const Query &query) {
    for (const Part &part : content.parts) {
        if (part.name != name && (!name.empty() || &part != &content.parts.front())) continue;
        Table table = ask(archive, part, query, kMostOfFile + 1);
        if (table.rows.size() <= kMostOfFile) return table;
        throw Refusal(fmt::format("more than {} rows: choose a shorter period, or ask the store in SQL", kMostOfFile));
    }
    throw Refusal(fmt::format("the page has no table \"{}\"", name));
}

}  // namespace station
