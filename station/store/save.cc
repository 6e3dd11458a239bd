#include "station/store/save.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "station/base/time.h"
#include "station/run/record_json.h"

namespace station {
namespace {

// Leaves a known station as it is: its `seen` comes from the store's clock.
constexpr const char *kWriteStation =
    "INSERT INTO stations (key, name, seen) VALUES ($1, $2, $3) ON CONFLICT (key) DO NOTHING";

constexpr const char *kWriteUnit =
    "INSERT INTO units (serial, product, first_seen, last_seen) VALUES ($1, $2, $3, $3) ON CONFLICT (serial) DO UPDATE"
    " SET product = coalesce(units.product, excluded.product),"
    " first_seen = CASE WHEN excluded.first_seen < units.first_seen THEN excluded.first_seen ELSE units.first_seen END,"
    " last_seen = CASE WHEN excluded.last_seen > units.last_seen THEN excluded.last_seen ELSE units.last_seen END";

constexpr const char *kWritePlan =
    "INSERT INTO plan_versions (name, digest) VALUES ($1, $2) ON CONFLICT (digest) DO NOTHING";

constexpr const char *kWritePlanFile = "INSERT INTO plan_files (plan_version, step, name, size, sha256) VALUES"
                                       " ((SELECT id FROM plan_versions WHERE digest = $1), $2, $3, $4, $5) ON "
                                       "CONFLICT (plan_version, step, name) DO NOTHING";

constexpr const char *kWriteRun =
    "INSERT INTO runs (run, unit, plan, station, place, place_name, peer, started, ended, seconds, verdict, attempt,"
    " failed_step, failure, cause, operator, reference, plan_version, variables)"
    " VALUES ($1, (SELECT id FROM units WHERE serial = $2), $3, (SELECT id FROM stations WHERE key = $4), $5, $6, $7, "
    "$8,"
    " $9, $10, $11, $12, $13, $14, $15, $16, $17, (SELECT id FROM plan_versions WHERE digest = $18), $19)"
    " ON CONFLICT (run) DO UPDATE SET unit = excluded.unit, ended = excluded.ended, seconds = excluded.seconds,"
    " verdict = excluded.verdict, attempt = excluded.attempt, failed_step = excluded.failed_step,"
    " failure = excluded.failure, cause = excluded.cause, operator = excluded.operator, reference = excluded.reference,"
    " plan_version = excluded.plan_version, variables = excluded.variables"
    " WHERE runs.ended IS NULL OR excluded.ended IS NOT NULL";

constexpr const char *kWriteStep =
    "INSERT INTO steps (run, step, title, verdict, reply, cut, failure, hint, started_after, seconds, attempts, cause)"
    " VALUES ((SELECT id FROM runs WHERE run = $1), $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12)"
    " ON CONFLICT (run, step) DO NOTHING";

constexpr const char *kWriteMeasurement =
    "INSERT INTO measurements (run, step, name, value, minimum, maximum, unit, verdict, plan, started)"
    " VALUES ((SELECT id FROM runs WHERE run = $1), $2, $3, $4, $5, $6, $7, $8, $9, $10)"
    " ON CONFLICT (run, step, name) DO NOTHING";

// Renumbers the attempts of a unit and plan, since a run may arrive late.
constexpr const char *kCount =
    "UPDATE runs SET attempt = counted.attempt, superseded = counted.superseded FROM"
    " (SELECT id, row_number() OVER (ORDER BY started, id) AS attempt,"
    " lead(id) OVER (ORDER BY started, id) IS NOT NULL AS superseded FROM runs"
    " WHERE unit = (SELECT id FROM units WHERE serial = $1) AND plan = $2 AND attempt IS NOT NULL) AS counted"
    " WHERE counted.id = runs.id AND (runs.attempt <> counted.attempt OR runs.superseded <> counted.superseded)";

Value words(const std::string &value) { return text(value).value_or(""); }
Value limit(const std::optional<double> &value) { return value ? number(*value) : std::nullopt; }

void saveStep(Database &database, const RunRecord &run, size_t index) {
    const StepResult &step = run.steps[index];
    const Value at = number(index + 1);
    database.queue(kWriteStep,
                   {run.id, at, words(step.title), std::string(textOf(step.verdict)), text(step.reply),
                    number(step.cut), text(step.failure), text(step.hint), number(inSeconds(step.offset)),
                    number(inSeconds(step.duration)), number(step.attempts), text(std::string(textOf(step.cause)))});
    for (const Measurement &found : step.measurements) {
        database.queue(kWriteMeasurement,
                       {run.id, at, words(found.name), number(found.value), limit(found.min), limit(found.max),
                        text(found.unit), std::string(textOf(found.passed ? Verdict::kPassed : Verdict::kFailed)),
                        words(run.plan), isoTime(run.start)});
    }
}

void saveRun(Database &database, const RunRecord &run, bool inWork) {
    const StepResult *const failed = run.firstFailed();
    const std::string &failure = run.failure.empty() && failed ? failed->failure : run.failure;
    Json variables = Json::object();
    for (const auto &[name, value] : run.variables) variables[name] = *words(value);
    const std::string step = !failed ? "" : failed->planned.empty() ? failed->title : failed->planned;
    database.queue(
        kWriteRun,
        {run.id, text(run.unit), words(run.plan), run.station.key, number(run.place.number), words(run.place.name),
         text(run.peer), isoTime(run.start), run.ended() ? Value(isoTime(run.end)) : std::nullopt,
         run.ended() ? number(inSeconds(run.end - run.start)) : std::nullopt, verdictIn(run, inWork),
         run.counts() ? Value("1") : std::nullopt, failed ? words(step) : std::nullopt, text(failure),
         text(std::string(textOf(run.cause))), text(run.operatorName), number(int(run.reference)), text(run.planDigest),
         variables.dump()});
}

void savePlan(Database &database, const RunRecord &run) {
    if (run.planDigest.empty()) return;
    database.queue(kWritePlan, {words(run.plan), words(run.planDigest)});
    for (const PlanFile &file : run.files) {
        database.queue(kWritePlanFile, {words(run.planDigest), number(file.step), words(file.name), number(file.size),
                                        words(file.sha256)});
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
    database.queue(kWriteStation, {run.station.key, words(run.station.name), isoTime(run.start)});
    if (!run.unit.empty()) {
        const Value known = product == run.variables.end() ? std::nullopt : text(product->second);
        database.queue(kWriteUnit, {text(run.unit), known, isoTime(run.start)});
    }
    savePlan(database, run);
    saveRun(database, run, inWork);
    saveSteps(database, run, first);
    if (run.counts() && !run.unit.empty()) database.queue(kCount, {text(run.unit), words(run.plan)});
}

}  // namespace station
