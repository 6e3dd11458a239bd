#include "station/page/document.h"

#include <fmt/format.h>
#include <string.h>  // strverscmp

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <future>

#include "station/base/time.h"
#include "station/page/shift.h"
#include "station/store/format.h"
#include "station/store/load.h"
#include "station/store/sql.h"

namespace station {
namespace {

using Sections = std::vector<Section>;

constexpr size_t kMostOfFile = 100000;  // rows
constexpr size_t kMostReadings = 2000;  // that a chart shows one by one; beyond that it shows groups
constexpr int kGroups = 200, kBars = 30;
constexpr std::time_t kHour = 3600, kDay = 24 * kHour;

// ---- tables

size_t indexOf(const Table &table, std::string_view column) {
    return size_t(std::find(table.columns.begin(), table.columns.end(), column) - table.columns.begin());
}

// Sorts the rows by a column, with a "-" in front in descending order. Compares numbers within texts as numbers, and
// puts empty cells last.
void sortBy(Table &table, std::string_view column) {
    const bool descending = column.starts_with('-');
    const size_t at = indexOf(table, column.substr(descending ? 1 : 0));
    if (at == table.columns.size()) return;
    const auto less = [number = table.isNumber(at)](const std::string &a, const std::string &b) {
        return number ? std::strtod(a.c_str(), nullptr) < std::strtod(b.c_str(), nullptr)
                      : strverscmp(a.c_str(), b.c_str()) < 0;
    };
    std::stable_sort(table.rows.begin(), table.rows.end(), [&](const auto &a, const auto &b) {
        if (!a[at] || !b[at]) return a[at].has_value() > b[at].has_value();
        return descending ? less(*b[at], *a[at]) : less(*a[at], *b[at]);
    });
}

// Returns the column by which the query sorts this table, with a "-" in front for descending; empty: none.
std::string orderOf(std::string_view table, const Query &query) {
    const std::string order = query["sort"], sign = order.starts_with('-') ? "-" : "";
    const std::string prefix = fmt::format("{}{}.", sign, table);
    return order.starts_with(prefix) ? sign + order.substr(prefix.size()) : table == "places" ? "place" : "";
}

Json cellOf(const Value &cell, bool number) {
    if (!cell) return nullptr;
    const Json parsed = number ? Json::parse(*cell, nullptr, false) : Json();
    return parsed.is_number() ? parsed : Json(*cell);
}

Json jsonOf(const Table &table, size_t from, size_t most) {
    Json rows = Json::array();
    const size_t end = std::min(table.rows.size(), from + most);
    for (size_t at = from; at < end; ++at) {
        Json &row = rows.emplace_back(Json::object());
        for (size_t i = 0; i < table.columns.size(); ++i) {
            row[table.columns[i]] = cellOf(table.rows[at][i], table.isNumber(i));
        }
    }
    return {{"columns", table.columns}, {"rows", rows}, {"more", table.rows.size() > end}};
}

// ---- times

std::time_t endOf(const Period &period) { return period.until.empty() ? std::time(nullptr) : timeOf(period.until); }

// Returns the first time after `time`, within `most` seconds, that has another key.
template <typename KeyOf>
std::time_t nextChange(std::time_t time, std::time_t most, const KeyOf &keyOf) {
    const auto key = keyOf(time);
    std::time_t change = time + most;
    while (change - time > 1) {
        const std::time_t middle = time + (change - time) / 2;
        (keyOf(middle) == key ? time : change) = middle;
    }
    return change;
}

// Returns how many minutes the station's zone is ahead of UTC in the period, and from when on, for charts.
Json zonesOf(const Period &period) {
    Json zones = Json::array();
    const auto add = [&](std::time_t time) {
        zones.push_back({{"from", isoTime(WallClock::from_time_t(time))}, {"minutes", aheadOfUtc(time) / 60}});
    };
    std::time_t time = timeOf(period.since);
    add(time);
    for (const std::time_t end = endOf(period); time < end; time += kDay) {
        if (aheadOfUtc(time) != aheadOfUtc(time + kDay)) add(nextChange(time, kDay, aheadOfUtc));
    }
    return zones;
}

// Returns where the period's hours, shifts, days or months begin, whichever suits its length: from its beginning to its
// end, both included.
std::vector<std::string> timesOf(const Period &period, const std::vector<int> &shifts) {
    constexpr std::time_t kHours = 2 * kDay + kHour, kShifts = 14 * kDay + kHour, kDays = 366 * kDay;
    const std::time_t end = endOf(period), length = end - timeOf(period.since);
    const char *const form = length <= kHours ? "%Y-%m-%d %H" : length <= kDays ? "%Y-%m-%d" : "%Y-%m";
    const auto keyOf = [&](std::time_t time) {
        if (length <= kHours || length > kShifts) return localTime(time, form);
        return isoTime(shiftBegin(shifts, WallClock::from_time_t(time)));
    };
    std::vector<std::string> times = {period.since};
    for (std::time_t time = timeOf(period.since); (time = nextChange(time, 32 * kDay, keyOf)) < end;) {
        times.push_back(isoTime(WallClock::from_time_t(time)));
    }
    times.push_back(period.until);
    return times;
}

// Drops the parts of the period before the first run and after the last one: decades without runs cost nothing.
void keepWithRuns(Database &database, std::vector<std::string> &times) {
    const auto after = [&](const Value &run) {
        return std::find_if(times.begin() + 1, times.end() - 1, [&](const auto &time) { return time > run; });
    };
    const auto runs = database.ask(sqlOf(database.shared(), "run_span")).rows[0];
    times.erase(after(runs[1]) + 1, times.end());
    times.erase(times.begin(), after(runs[0]) - 1);
}

// Asks about the runs between each time and the next one, and returns the rows of all answers.
Table inParts(const Asked &asked, const std::vector<std::string> &times,
              const std::function<Table(const Filter &)> &ask) {
    Table all;
    Filter part = asked.query.filter;
    for (size_t i = 1; i < times.size(); ++i) {
        part.period = {times[i - 1], times[i]};
        append(all, ask(part));
    }
    return all;
}

// ---- units and runs

Sections unit(const Asked &asked) {
    const std::string serial = asked.query["serial"];
    Sections sections = show(asked.database, serial);
    if (sections[0].name != "unit") throw Refusal(fmt::format("the store knows no unit \"{}\"", serial));
    // Of the last run of each plan, not of all.
    const std::vector<Value> known = {sections[0].table.rows[0][0]};
    const auto ask = [&](const char *file) { return asked.database.ask(sqlOf(asked.database.shared(), file), known); };
    sections.back() = {"files", ask("unit_files")};
    sections.push_back({"values", ask("unit_values")});
    return sections;
}

Table runs(const Asked &asked) {
    const Query &query = asked.query;
    Table found =
        listRuns(asked.database, {query.filter, query["failed"] == "1", int(asked.most), query["step"], query["file"]});
    std::ranges::reverse(found.rows);
    return found;
}

using Facts = std::vector<std::pair<std::string, Value>>;  // name and value

// Returns the facts of a run that may differ from those of another run of the unit.
Facts factsOf(const RunRecord &run) {
    const StepResult *const failed = run.firstFailed();
    const char *const verdict = run.passed() ? "passed" : run.interrupted ? "interrupted" : "failed";
    Facts facts = {{"started", isoTime(run.start)},
                   {"verdict", verdict},
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

void addColumn(Table &table, const std::string &name, const Facts &facts) {
    table.columns.push_back(name);
    for (auto &row : table.rows) row.emplace_back();
    for (const auto &[what, value] : facts) {
        // Steps may measure values of the same name.
        const auto holds = [&name = what](const auto &cells) { return cells[0] == name && !cells.back(); };
        auto row = std::ranges::find_if(table.rows, holds);
        if (row == table.rows.end()) row = table.rows.insert(row, std::vector<Value>(table.columns.size()));
        row->front() = what;
        row->back() = value;
    }
}

// Returns all about the query's run, and beside it the unit's runs before and after it.
Sections run(const Asked &asked) {
    Sections sections = showRun(asked.database, asked.query["run"]);
    Table variables{{"variable", "is"}, {}}, attempts{{"what"}, {}, {}};
    const Table names = asked.database.ask(sqlOf(asked.database.shared(), "runs_around"), {asked.query["run"]});
    for (const auto &row : names.rows) addColumn(attempts, *row[0], factsOf(loadRun(asked.database, *row[0])));
    for (const auto &[name, value] : loadRun(asked.database, asked.query["run"]).variables) {
        variables.rows.push_back({name, value});
    }
    sections.insert(sections.end(), {{"attempts", attempts}, {"variables", variables}});
    return sections;
}

// ---- measured values

// Returns the bounds of the groups in which a chart shows many readings: parts of the period of equal length.
std::vector<std::string> groupsOf(const Period &period, std::time_t start) {
    const std::time_t length = endOf(period) - start;
    std::vector<std::string> times = {period.since};
    for (int i = 1; i < kGroups; ++i) times.push_back(isoTime(WallClock::from_time_t(start + length * i / kGroups)));
    times.push_back(period.until);
    return times;
}

// Adds the figures of the readings in a part of the period to those by kind and by place. Returns those of all
// together, as the only row of a table.
Table addSpreads(const Asked &asked, const Filter &part, Spreads &values, Spreads &places) {
    Table table{{"started", "until", "measured", "failed", "lowest", "mean", "highest", "minimum", "maximum", "unit"},
                {},
                {false, false, true, true, true, true, true, true, true, false}};
    Spread all;
    Value unit;
    for (const auto &[group, spread] : spreadsByPlace(asked.database, part, asked.query["name"])) {
        values[{{}, {}, group[2], group[3], group[4]}] += spread;
        places[group] += spread;
        all += spread;
        if (!unit || (group[4] && group[4] < unit)) unit = group[4];
    }
    if (all.measured == 0) return table;
    table.rows = {{all.started, all.until, number(all.measured), number(all.failed), number(all.lowest),
                   number(all.numbers > 0 ? all.mean : NAN), number(all.highest), number(all.minimum),
                   number(all.maximum), unit}};
    return table;
}

// Returns the readings of a value by kind, by place, in groups, and each of them; for a chart, each or groups.
Sections value(const Asked &asked) {
    const Filter &filter = asked.query.filter;
    Table every = readings(asked.database, filter, asked.query["name"], std::max(asked.most, kMostReadings + 1));
    const bool many = every.rows.size() > kMostReadings;
    Spreads values, places;
    std::vector<std::string> times = {filter.period.since, filter.period.until};
    if (many) times = groupsOf(filter.period, timeOf(*every.rows[0][0]));
    Table groups = inParts(asked, times, [&](const Filter &part) { return addSpreads(asked, part, values, places); });
    if (!many) groups = {};
    if (many && asked.most <= kMostReadings) every.rows.clear();
    return {{"values", valuesTable(values, false)},
            {"places", valuesTable(places, true)},
            {"groups", groups},
            {"readings", every}};
}

// ---- yields

Part single(const std::string &name, const std::function<Table(const Asked &)> &ask) {
    return {{name}, [=](const Asked &asked) { return Sections{{name, ask(asked)}}; }};
}

// Returns the yields of the whole period, or of its parts.
Part yieldsOf(const char *name, bool parts) {
    return single(name, [=](const Asked &asked) {
        const Period &period = asked.query.filter.period;
        auto times =
            parts ? timesOf(period, asked.settings.shifts) : std::vector<std::string>{period.since, period.until};
        if (parts) keepWithRuns(asked.database, times);
        return inParts(asked, times, [&](const Filter &part) {
            Table table = yields(asked.database, part, By::kAll);
            table.columns[0] = "since";
            table.columns.insert(table.columns.begin() + 1, "until");
            table.numbers.insert(table.numbers.begin(), false);
            for (auto &row : table.rows) {
                row[0] = part.period.since;
                row.insert(row.begin() + 1, text(part.period.until));
            }
            return table;
        });
    });
}

const Part kChoices = single("choices", [](const Asked &asked) { return choices(asked.database); });

Sections askPart(Archive &archive, const Part &part, const Query &query, const PageSettings &settings, size_t most) {
    Sections sections;
    archive.ask([&](Database &database) { sections = part.ask({database, query, settings, most}); });
    for (auto &[name, table] : sections) sortBy(table, orderOf(name, query));
    return sections;
}

// Returns the tables as a page shows them; a `list` of any length is sorted before it is cut.
Json partOf(Archive &archive, const Part &part, const Query &query, const PageSettings &settings, bool list) {
    const size_t end = query["sort"].empty() ? query.offset + query.rows + 1 : kMostOfFile;
    const size_t most = list ? std::min(end, kMostOfFile) : kMostReadings;
    Json tables = Json::object();
    try {
        for (const auto &[name, table] : askPart(archive, part, query, settings, most)) {
            tables[name] = jsonOf(table, list ? query.offset : 0, list ? query.rows : kMostOfFile);
        }
    } catch (const TooSlow &error) {
        const Json none = {{"columns", Json::array()}, {"rows", Json::array()}, {"error", error.what()}};
        for (const std::string &name : part.names) tables[name] = none;
    }
    return tables;
}

}  // namespace

// The longest questions come first: three are asked at a time.
const std::vector<Content> kContents = {
    {"summary",
     {yieldsOf("yields", false),
      single("places", [](const Asked &asked) { return yields(asked.database, asked.query.filter, By::kPlace); }),
      single("values", [](const Asked &asked) { return measuredValues(asked.database, asked.query.filter); }),
      yieldsOf("times", true),
      single("failures", [](const Asked &asked) { return failuresByStep(asked.database, asked.query.filter); }),
      single("causes", [](const Asked &asked) { return failuresByCause(asked.database, asked.query.filter); }),
      kChoices}},
    {"runs", {single("runs", runs), kChoices}},
    {"units",
     {single("units",
             [](const Asked &asked) { return unitsLike(asked.database, asked.query["q"], int(asked.most)); })}},
    {"unit", {{{"unit", "given", "runs", "archives", "files", "values"}, unit}}},
    {"run", {{{"run", "steps", "values", "files", "attempts", "variables"}, run}}},
    {"value",
     {{{"values", "places", "groups", "readings"}, value},
      single(
          "histogram",
          [](const Asked &asked) { return histogram(asked.database, asked.query.filter, asked.query["name"], kBars); }),
      kChoices}},
};

Json documentOf(Archive &archive, const Content &content, const Query &query, const PageSettings &settings) {
    std::vector<std::future<Json>> answers;
    answers.reserve(content.parts.size());
    for (const Part &part : content.parts) {
        answers.push_back(std::async(
            std::launch::async, [&] { return partOf(archive, part, query, settings, part.names[0] == content.page); }));
    }
    Json tables = Json::object();
    for (auto &answer : answers) tables.update(answer.get());
    return {{"page", content.page},
            {"query", query.parameters},
            {"since", query.filter.period.since},
            {"until", query.filter.period.until},
            {"zone", zonesOf(query.filter.period)},
            {"target", settings.target},
            {"tables", tables}};
}

Table tableOf(Archive &archive, const Content &content, const std::string &name, const Query &query,
              const PageSettings &settings) {
    const std::string &wanted = name.empty() ? content.parts[0].names[0] : name;
    const auto part = std::ranges::find_if(
        content.parts, [&](const Part &each) { return std::ranges::count(each.names, wanted) > 0; });
    if (part == content.parts.end()) throw Refusal(fmt::format("the page has no table \"{}\"", name));
    const Sections sections = askPart(archive, *part, query, settings, kMostOfFile + 1);
    const Table &table = std::ranges::find(sections, wanted, &Section::name)->table;
    if (table.rows.size() <= kMostOfFile) return table;
    throw Refusal(fmt::format("more than {} rows: choose a shorter period, or ask the store in SQL", kMostOfFile));
}

}  // namespace station
