#include "station/run/record_json.h"

#include <nlohmann/json.hpp>

#include "station/base/time.h"

namespace station {
namespace {

Json toJson(const Measurement &measurement) {
    Json json = {{"name", measurement.name}, {"value", measurement.value}};
    if (measurement.min) json["min"] = *measurement.min;
    if (measurement.max) json["max"] = *measurement.max;
    if (!measurement.unit.empty()) json["unit"] = measurement.unit;
    json["verdict"] = textOf(measurement.passed ? Verdict::kPassed : Verdict::kFailed);
    return json;
}

}  // namespace

Json toJson(const Place &place) { return {{"number", place.number}, {"name", place.name}}; }

Json toJson(const StepResult &step) {
    Json json = {{"title", step.title},
                 {"verdict", textOf(step.verdict)},
                 {"offset", inSeconds(step.offset)},
                 {"seconds", inSeconds(step.duration)},
                 {"attempts", step.attempts},
                 {"reply", step.reply}};
    if (step.cut > 0) json["cut"] = step.cut;
    if (!step.failure.empty()) json["failure"] = step.failure;
    if (!step.passed() && !step.hint.empty()) json["hint"] = step.hint;
    json["measurements"] = Json::array();
    for (const Measurement &measurement : step.measurements) json["measurements"].push_back(toJson(measurement));
    return json;
}

Json toJson(const RunRecord &run) {
    Json json = {{"id", run.id},
                 {"plan", run.plan},
                 {"place", toJson(run.place)},
                 {"peer", run.peer},
                 {"unit", run.unit},
                 {"start", isoTime(run.start)},
                 {"end", isoTime(run.end)},
                 {"verdict", textOf(run.passed() ? Verdict::kPassed : Verdict::kFailed)},
                 {"interrupted", run.interrupted}};
    if (!run.failure.empty()) json["failure"] = run.failure;
    json["variables"] = run.variables;
    json["steps"] = Json::array();
    for (const StepResult &step : run.steps) json["steps"].push_back(toJson(step));
    return json;
}

std::string dump(const Json &json, int indent) { return json.dump(indent, ' ', false, Json::error_handler_t::replace); }

std::string dump(const RunRecord &run, int indent) { return dump(toJson(run), indent); }

}  // namespace station
