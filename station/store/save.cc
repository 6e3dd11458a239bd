#include "station/store/save.h"

#include <nlohmann/json.hpp>

#include "station/base/time.h"
#include "station/run/record_json.h"
#include "station/store/sql.h"

namespace station {
namespace {

// Queues the statement of the file NAME.sql.
void queue(Database &database, const char *name, const std::vector<Value> &values) {
    database.queue(sqlOf(database.shared(), name), values);
}

Value words(const std::string &value) { return text(value).value_or(""); }
Value limit(const std::optional<double> &value) { return value ? number(*value) : std::nullopt; }

void saveStep(Database &database, const RunRecord &run, size_t index) {
    const StepResult &step = run.steps[index];
    const Value at = number(index + 1);
    queue(database, "save_step",
          {run.id, at, words(step.title), std::string(textOf(step.verdict)), text(step.reply), number(step.cut),
           text(step.failure), text(step.hint), number(inSeconds(step.offset)), number(inSeconds(step.duration)),
           number(step.attempts), text(std::string(textOf(step.cause)))});
    for (const Measurement &found : step.measurements) {
        queue(database, "save_measurement",
              {run.id, at, words(found.name), number(found.value), limit(found.min), limit(found.max), text(found.unit),
               std::string(textOf(found.passed ? Verdict::kPassed : Verdict::kFailed)), words(run.plan),
               isoTime(run.start)});
    }
}

void saveRun(Database &database, const RunRecord &run, bool inWork) {
    const StepResult *const failed = run.firstFailed();
    const std::string &failure = run.failure.empty() && failed ? failed->failure : run.failure;
    Json variables = Json::object();
    for (const auto &[name, value] : run.variables) variables[name] = *words(value);
    const std::string step = !failed ? "" : failed->planned.empty() ? failed->title : failed->planned;
    queue(database, "save_run",
          {run.id, text(run.unit), words(run.plan), run.station.key, number(run.place.number), words(run.place.name),
           text(run.peer), isoTime(run.start), run.ended() ? Value(isoTime(run.end)) : std::nullopt,
           run.ended() ? number(inSeconds(run.end - run.start)) : std::nullopt, verdictIn(run, inWork),
           run.counts() ? Value(run.unit.empty() ? "1" : "0") : std::nullopt, failed ? words(step) : std::nullopt,
           text(failure), text(std::string(textOf(run.cause))), text(run.operatorName), number(int(run.reference)),
           text(run.planDigest), variables.dump()});
}

void savePlan(Database &database, const RunRecord &run) {
    if (run.planDigest.empty()) return;
    queue(database, "save_plan", {words(run.plan), words(run.planDigest)});
    for (const PlanFile &file : run.files) {
        queue(database, "save_plan_file",
              {words(run.planDigest), number(file.step), words(file.name), number(file.size), words(file.sha256)});
    }
}

}  // namespace

std::string verdictIn(const RunRecord &run, bool inWork) {
    if (inWork && !run.ended()) return "running";
    if (run.interrupted || !run.ended()) return "interrupted";
    return run.passed() ? "passed" : "failed";
}

void saveSteps(Database &database, const RunRecord &run, size_t first) {
    for (size_t i = first; i < run.steps.size(); ++i) {
        const StepResult &step = run.steps[i];
        const bool passedOver = !step.failure.empty();  // says why it was not run, while later steps may still run
        if (run.ended() || step.verdict != Verdict::kNotRun || passedOver) saveStep(database, run, i);
    }
}

void save(Database &database, const RunRecord &run, bool inWork, size_t first) {
    const auto product = run.variables.find("product");
    queue(database, "save_station", {run.station.key, words(run.station.name), isoTime(run.start)});
    if (!run.unit.empty()) {
        const Value known = product == run.variables.end() ? std::nullopt : text(product->second);
        queue(database, "save_unit", {text(run.unit), known, isoTime(run.start)});
    }
    savePlan(database, run);
    saveRun(database, run, inWork);
    saveSteps(database, run, first);
    if (run.counts() && !run.unit.empty()) queue(database, "save_attempts", {text(run.unit), words(run.plan)});
}

}  // namespace station
