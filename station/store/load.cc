#include "station/store/load.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "station/base/time.h"
#include "station/run/record_json.h"

namespace station {
namespace {

constexpr size_t kNamesAtOnce = 1000;
constexpr size_t kMostSteps = 100000;  // against a number that no run has

std::string textOf(const Value &value) { return value.value_or(""); }
double numberOf(const Value &value) { return value ? std::strtod(value->c_str(), nullptr) : 0; }
std::optional<double> limitOf(const Value &value) { return value ? std::optional(numberOf(value)) : std::nullopt; }

std::chrono::milliseconds secondsOf(const Value &value) {
    return std::chrono::milliseconds(std::llround(numberOf(value) * 1000));
}

WallClock::time_point timeOf(const Value &value) {
    return parseIsoTime(textOf(value)).value_or(WallClock::time_point());
}

Verdict verdictOf(const Value &value) {
    for (const Verdict verdict : {Verdict::kPassed, Verdict::kFailed}) {
        if (value == textOf(verdict)) return verdict;
    }
    return Verdict::kNotRun;
}

void loadSteps(Database &database, const Value &key, RunRecord &run) {
    const Table steps = database.ask("SELECT title, verdict, reply, cut, failure, hint, started_after, seconds, "
                                     "attempts, step, cause FROM steps WHERE run = $1"
                                     " ORDER BY step",
                                     {key});
    for (const auto &row : steps.rows) {
        // An interrupted run may lack steps.
        const auto at = std::clamp<size_t>(size_t(numberOf(row[9])), run.steps.size() + 1, kMostSteps);
        run.steps.resize(at);
        StepResult &step = run.steps.back();
        step.title = textOf(row[0]);
        step.verdict = verdictOf(row[1]);
        step.reply = textOf(row[2]);
        step.cut = uint64_t(numberOf(row[3]));
        step.failure = textOf(row[4]);
        step.hint = textOf(row[5]);
        step.offset = secondsOf(row[6]);
        step.duration = secondsOf(row[7]);
        step.attempts = int(numberOf(row[8]));
        step.cause = causeOf(textOf(row[10]));
    }
}

void loadMeasurements(Database &database, const Value &key, RunRecord &run) {
    const Table found = database.ask("SELECT step, name, value, minimum, maximum, unit, verdict FROM measurements "
                                     "WHERE run = $1 ORDER BY step, name",
                                     {key});
    for (const auto &row : found.rows) {
        const auto step = size_t(numberOf(row[0]));
        if (step == 0 || step > run.steps.size()) continue;
        run.steps[step - 1].measurements.push_back(
            {textOf(row[1]), numberOf(row[2]), limitOf(row[3]), limitOf(row[4]), textOf(row[5]), row[6] == "passed"});
    }
}

void loadPlan(Database &database, const Value &version, RunRecord &run) {
    const Table plan = database.ask("SELECT v.digest, f.step, f.name, f.size, f.sha256 FROM plan_versions v"
                                    " LEFT JOIN plan_files f ON f.plan_version = v.id WHERE v.id = $1"
                                    " ORDER BY f.step, f.name",
                                    {version});
    for (const auto &row : plan.rows) {
        run.planDigest = textOf(row[0]);
        if (row[1])
            run.files.push_back({size_t(numberOf(row[1])), textOf(row[2]), uint64_t(numberOf(row[3])), textOf(row[4])});
    }
}

bool isOfStep(const RunRecord &run, const std::string &failure) {
    return std::any_of(run.steps.begin(), run.steps.end(), [&](const StepResult &step) {
        return step.verdict == Verdict::kFailed && step.failure == failure;
    });
}

std::map<std::string, std::string> variablesOf(const std::string &json) try {
    return nlohmann::json::parse(json).get<std::map<std::string, std::string>>();
} catch (const nlohmann::json::exception &error) {
    throw Refusal(fmt::format("its variables are not a JSON object of texts: {}", error.what()));
}

}  // namespace

void eachName(Database &database, const Period &period, const std::function<void(const std::string &)> &each) {
    const std::string next =
        fmt::format("SELECT run, started, id FROM runs WHERE (started, id) > ($1, CAST($2 AS BIGINT)) AND started < $3"
                    " AND verdict <> 'running' ORDER BY started, id LIMIT {}",
                    kNamesAtOnce);
    std::vector<Value> from =
        bounds(period);  // and the last key that was seen, which says how runs of one start follow
    from.insert(from.begin() + 1, "0");
    for (size_t count = kNamesAtOnce; count == kNamesAtOnce;) {
        const Table names = database.ask(next, from);
        count = names.rows.size();
        if (count > 0) std::copy_n(names.rows.back().begin() + 1, 2, from.begin());
        for (const auto &row : names.rows) each(*row[0]);
    }
}

RunRecord loadRun(Database &database, const std::string &name) {
    const Table found = database.ask(
        "SELECT r.id, r.plan, r.place, r.place_name, r.peer, u.serial, r.started, r.ended, r.variables, r.failure,"
        " r.verdict, s.name, s.key, r.cause, r.operator, r.reference, r.plan_version FROM runs r JOIN stations s ON "
        "s.id = r.station LEFT JOIN units u ON u.id = r.unit"
        " WHERE r.run = $1",
        {name});
    if (found.empty()) throw Refusal(fmt::format("the store knows no run \"{}\"", name));
    const auto &row = found.rows[0];
    RunRecord run;
    run.id = name;
    run.plan = textOf(row[1]);
    run.place = {int(numberOf(row[2])), textOf(row[3])};
    run.peer = textOf(row[4]);
    run.unit = textOf(row[5]);
    run.start = timeOf(row[6]);
    run.end = timeOf(row[7]);
    run.variables = variablesOf(textOf(row[8]));
    run.interrupted = row[10] == "interrupted";
    run.station = {textOf(row[11]), textOf(row[12])};
    run.cause = causeOf(textOf(row[13]));
    run.operatorName = textOf(row[14]);
    run.reference = row[15] == "1";
    loadPlan(database, row[16], run);
    loadSteps(database, row[0], run);
    loadMeasurements(database, row[0], run);
    if (!isOfStep(run, textOf(row[9]))) run.failure = textOf(row[9]);
    return run;
}

}  // namespace station
