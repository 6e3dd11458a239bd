#include "station/store/load.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "station/run/record_json.h"
#include "station/store/sql.h"

namespace station {
namespace {

constexpr size_t kNamesAtOnce = 1000;
constexpr size_t kMostSteps = 100000;  // against a number that no run has

// Returns the rows as JSON objects. NULL becomes no member, and a column "place/name" one of the member "place".
Json jsonOf(const Table &table) {
    Json rows = Json::array();
    for (const auto &row : table.rows) {
        Json &json = rows.emplace_back(Json::object());
        for (size_t i = 0; i < row.size(); ++i) {
            if (!row[i]) continue;
            json[Json::json_pointer("/" + table.columns[i])] = table.numbers[i] ? Json::parse(*row[i]) : Json(*row[i]);
        }
    }
    return rows;
}

// Returns the step that a row belongs to. Those of an interrupted run may have gaps, which are filled.
Json &stepOf(Json &steps, const Json &row) {
    const size_t number = std::clamp<size_t>(whole<size_t>(row["step"]), 1, kMostSteps);
    while (steps.size() < number) steps.push_back(toJson(StepResult()));
    return steps[number - 1];
}

// Reads the answers to load_run.sql as the JSON of a record: the run, its files, steps and measurements.
RunRecord recordFrom(Json run, const Json &files, const Json &steps, const Json &measurements) {
    run["interrupted"] = run["verdict"] == "interrupted";
    run["reference"] = run["reference"] == 1;
    run["variables"] = Json::parse(run["variables"].get<std::string>());
    run["files"] = files;
    Json &all = run["steps"] = Json::array();
    for (const Json &step : steps) stepOf(all, step).update(step);
    // A step that another program has removed is not made up: it would count as not run, and the run as failed.
    for (const Json &found : measurements) {
        const size_t index = whole<size_t>(found["step"]) - 1;
        if (index < all.size()) all[index]["measurements"].push_back(found);
    }
    return recordOf(run);
}

}  // namespace

void eachName(Database &database, const Period &period, const std::function<void(const std::string &)> &each) {
    const std::string next = sqlOf(database.shared(), "load_names", {{"count", std::to_string(kNamesAtOnce)}});
    std::vector<Value> from = bounds(period);
    from.insert(from.begin() + 1, "0");  // the last key that was seen, which tells runs with the same start apart
    for (size_t count = kNamesAtOnce; count == kNamesAtOnce;) {
        const Table names = database.ask(next, from);
        count = names.rows.size();
        if (count > 0) std::copy_n(names.rows.back().begin() + 1, 2, from.begin());
        for (const auto &row : names.rows) each(*row[0]);
    }
}

RunRecord loadRun(Database &database, const std::string &name) try {
    std::vector<Json> parts;
    for (const std::string &sql : statementsOf(database.shared(), "load_run")) {
        parts.push_back(jsonOf(database.ask(sql, {name})));
        if (parts[0].empty()) throw Refusal(fmt::format("the store knows no run \"{}\"", name));
    }
    return recordFrom(parts[0][0], parts[1], parts[2], parts[3]);
} catch (const StoreError &) {
    throw;
} catch (const std::exception &error) {
    throw Refusal(fmt::format("the run {} cannot be read from the store: {}", name, error.what()));
}

}  // namespace station
