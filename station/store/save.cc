#include "station/store/save.h"

#include <nlohmann/json.hpp>

#include "station/base/time.h"
#include "station/run/record_json.h"
#include "station/store/sql.h"

namespace station {
namespace {

// Returns the JSON as text() does it for a text.
std::string parameter(const Json &json) {
    std::string text = dump(json);
    for (size_t at = 0; (at = text.find('\\', at)) != std::string::npos; at += 2) {
        if (text.compare(at, 6, "\\u0000") == 0) text.replace(at, 6, "\uFFFD");
    }
    return text;
}

// Queues the statements of the file NAME.sql, if there are rows for them.
void queue(Database &database, const char *name, const Json &rows) {
    if (rows.empty()) return;
    const std::string values = parameter(rows);
    for (const std::string &sql : statementsOf(database.shared(), name)) database.queue(sql, {values});
}

// Returns the run as save_run.sql takes it.
Json rowOf(const RunRecord &run, bool inWork) {
    Json row = headOf(run);
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

void save(Database &database, const std::vector<Saving> &all) {
    Json rows = Json::array(), begun = rows, judged = rows, steps = rows;
    for (const Saving &run : all) {
        if (run.steps) addSteps(steps, *run.steps, run.first);
        if (!run.row) continue;
        rows.push_back(rowOf(*run.row, run.inWork));
        if (run.isNew) begun.push_back(rows.back());
        if (run.row->counts() && !run.row->unit.empty()) judged.push_back(rows.back());
    }
    queue(database, "save_references", begun);
    queue(database, "save_run", rows);
    queue(database, "save_steps", steps);
    queue(database, "save_attempts", judged);
}

void save(Database &database, const RunRecord &run) {
    save(database, std::vector<Saving>{{.row = &run, .steps = &run}});
}

}  // namespace station
