#include "station/store/save.h"

#include <nlohmann/json.hpp>

#include "station/base/time.h"
#include "station/run/record_json.h"
#include "station/store/sql.h"

namespace station {
namespace {

// Queues the statements of the file NAME.sql.
void queue(Database &database, const char *name, const std::vector<Value> &values) {
    for (const std::string &sql : statementsOf(database.shared(), name)) database.queue(sql, values);
}

// Returns the JSON as text() does it for a text.
std::string parameter(const Json &json) {
    std::string text = dump(json);
    for (size_t at = 0; (at = text.find('\\', at)) != std::string::npos; at += 2) {
        if (text.compare(at, 6, "\\u0000") == 0) text.replace(at, 6, "\uFFFD");
    }
    return text;
}

// Returns the run as save_run.sql takes it.
Json rowOf(const RunRecord &run, bool inWork) {
    Json row = toJson(run);
    row.erase("steps");
    row["station"] = {{"name", run.station.name}, {"key", run.station.key}};  // also when only the key is known
    row["verdict"] = verdictIn(run, inWork);
    if (run.ended()) row["seconds"] = inSeconds(run.end - run.start);
    row["counts"] = run.counts();
    if (const StepResult *const failed = run.firstFailed()) {
        row["failed_step"] = failed->planned.empty() ? failed->title : failed->planned;
        if (run.failure.empty() && !failed->failure.empty()) row["failure"] = failed->failure;
    }
    return row;
}

void addSteps(Json &rows, const RunRecord &run, size_t first) {
    for (size_t i = first; i < run.steps.size(); ++i) {
        const StepResult &step = run.steps[i];
        const bool passedOver = !step.failure.empty();  // says why it was not run, while later steps may still run
        if (!run.ended() && step.verdict == Verdict::kNotRun && !passedOver) continue;
        Json &row = rows.emplace_back(toJson(step));
        row["run"] = run.id;
        row["step"] = i + 1;
        if (!step.hint.empty()) row["hint"] = step.hint;  // also of a step that passed
    }
}

}  // namespace

std::string verdictIn(const RunRecord &run, bool inWork) {
    if (inWork && !run.ended()) return "running";
    if (run.interrupted || !run.ended()) return "interrupted";
    return run.passed() ? "passed" : "failed";
}

void saveSteps(Database &database, const std::vector<StepsOf> &all) {
    Json rows = Json::array();
    for (const StepsOf &part : all) addSteps(rows, part.run, part.first);
    if (!rows.empty()) queue(database, "save_steps", {parameter(rows)});
}

void save(Database &database, const RunRecord &run, bool inWork, size_t first) {
    const std::string row = parameter(Json::array({rowOf(run, inWork)}));
    if (first == 0) queue(database, "save_references", {row});
    queue(database, "save_run", {row});
    saveSteps(database, {{run, first}});
    if (run.counts() && !run.unit.empty())
        queue(database, "save_attempts", {text(run.unit), text(run.plan).value_or("")});
}

}  // namespace station
