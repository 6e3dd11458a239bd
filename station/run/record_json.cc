#include "station/run/record_json.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "station/base/text.h"
#include "station/base/time.h"

namespace station {
namespace {

constexpr double kLongestSeconds = 1e9;  // of a duration, which Clock counts in nanoseconds

Milliseconds duration(const Json &json) {
    const auto seconds = json.get<double>();
    if (!(std::abs(seconds) <= kLongestSeconds))
        throw std::invalid_argument(fmt::format("{} seconds are too long for a duration", seconds));
    return Milliseconds(std::llround(seconds * 1000));
}

WallClock::time_point timeOf(const Json &json) {
    const auto time = parseIsoTime(json.get<std::string>());
    if (!time) throw std::invalid_argument(fmt::format("{} is not a time", json.dump()));
    return *time;
}

Verdict verdictOf(const Json &json) {
    for (const Verdict verdict : {Verdict::kNotRun, Verdict::kPassed, Verdict::kFailed}) {
        if (json == textOf(verdict)) return verdict;
    }
    throw std::invalid_argument(fmt::format("{} is not a verdict", json.dump()));
}

// Returns the member's text, or an empty one without such a member.
std::string textIn(const Json &json, const char *name) { return json.value(name, std::string()); }

std::optional<double> numberIn(const Json &json, const char *name) {
    return json.value(name, Json()).is_null() ? std::nullopt : std::optional(json[name].get<double>());
}

Json toJson(const Measurement &measurement) {
    Json json = {{"name", measurement.name}, {"value", measurement.value}};
    if (measurement.min) json["min"] = *measurement.min;
    if (measurement.max) json["max"] = *measurement.max;
    if (!measurement.unit.empty()) json["unit"] = measurement.unit;
    json["verdict"] = textOf(measurement.passed ? Verdict::kPassed : Verdict::kFailed);
    return json;
}

Measurement measurementOf(const Json &json) {
    return {json.at("name"),       numberIn(json, "value").value_or(NAN),
            numberIn(json, "min"), numberIn(json, "max"),
            textIn(json, "unit"),  verdictOf(json.at("verdict")) == Verdict::kPassed};
}

StepResult stepOf(const Json &json) {
    StepResult step;
    step.title = json.at("title");
    step.planned = json.value("planned", step.title);
    step.verdict = verdictOf(json.at("verdict"));
    step.offset = duration(json.at("offset"));
    step.duration = duration(json.at("seconds"));
    step.attempts = whole<int>(json.at("attempts"));
    step.reply = json.at("reply");
    if (json.contains("cut")) step.cut = whole<uint64_t>(json["cut"]);
    step.failure = textIn(json, "failure");
    step.cause = causeOf(textIn(json, "cause"));
    step.hint = textIn(json, "hint");
    for (const Json &measurement : json.at("measurements")) step.measurements.push_back(measurementOf(measurement));
    return step;
}

}  // namespace

RunRecord recordOf(const Json &json) {
    RunRecord run;
    run.id = json.at("id");
    run.plan = json.at("plan");
    run.planDigest = textIn(json, "plan_sha256");
    for (const Json &file : json.value("files", Json::array())) {
        run.files.push_back(
            {whole<size_t>(file.at("step")), file.at("name"), whole<uint64_t>(file.at("size")), file.at("sha256")});
    }
    run.place = {whole<int>(json.at("place").at("number")), json.at("place").at("name")};
    if (json.contains("station")) run.station = {json["station"].at("name"), textIn(json["station"], "key")};
    run.peer = json.at("peer");
    run.unit = json.at("unit");
    run.start = timeOf(json.at("start"));
    if (json.contains("end")) run.end = timeOf(json["end"]);
    run.interrupted = json.at("interrupted");
    run.failure = textIn(json, "failure");
    run.cause = causeOf(textIn(json, "cause"));
    run.operatorName = textIn(json, "operator");
    run.reference = json.value("reference", false);
    run.variables = json.at("variables").get<std::map<std::string, std::string>>();
    for (const Json &step : json.at("steps")) run.steps.push_back(stepOf(step));
    return run;
}

Json toJson(const Place &place) { return {{"number", place.number}, {"name", place.name}}; }

Json toJson(const StepResult &step) {
    Json json = {{"title", step.title},
                 {"verdict", textOf(step.verdict)},
                 {"offset", inSeconds(step.offset)},
                 {"seconds", inSeconds(step.duration)},
                 {"attempts", step.attempts},
                 {"reply", step.reply}};
    if (!step.planned.empty() && step.planned != step.title) json["planned"] = step.planned;
    if (step.cut > 0) json["cut"] = step.cut;
    if (!step.failure.empty()) json["failure"] = step.failure;
    if (step.cause != Cause::kNone) json["cause"] = textOf(step.cause);
    if (!step.passed() && !step.hint.empty()) json["hint"] = step.hint;
    json["measurements"] = Json::array();
    for (const Measurement &measurement : step.measurements) json["measurements"].push_back(toJson(measurement));
    return json;
}

Json headOf(const RunRecord &run) {
    Json json = {{"id", run.id}, {"plan", run.plan}};
    if (!run.planDigest.empty()) json["plan_sha256"] = run.planDigest;
    json["place"] = toJson(run.place);
    if (!run.station.name.empty()) json["station"] = {{"name", run.station.name}, {"key", run.station.key}};
    json.update({{"peer", run.peer}, {"unit", run.unit}, {"start", isoTime(run.start)}});
    if (run.ended()) json["end"] = isoTime(run.end);
    json["verdict"] = textOf(run.passed() ? Verdict::kPassed : Verdict::kFailed);
    json["interrupted"] = run.interrupted;
    if (!run.failure.empty()) json["failure"] = run.failure;
    if (run.cause != Cause::kNone) json["cause"] = textOf(run.cause);
    if (!run.operatorName.empty()) json["operator"] = run.operatorName;
    if (run.reference) json["reference"] = true;
    json["variables"] = run.variables;
    for (const PlanFile &file : run.files) {
        json["files"].push_back(
            {{"step", file.step}, {"name", file.name}, {"size", file.size}, {"sha256", file.sha256}});
    }
    return json;
}

Json toJson(const RunRecord &run) {
    Json json = headOf(run);
    json["steps"] = Json::array();
    for (const StepResult &step : run.steps) json["steps"].push_back(toJson(step));
    return json;
}

std::string dump(const Json &json, int indent) { return json.dump(indent, ' ', false, Json::error_handler_t::replace); }

std::string dump(const RunRecord &run, int indent) { return dump(toJson(run), indent); }

Cause causeOf(const std::string &text) {
    for (const Cause cause : {Cause::kNone, Cause::kUnit, Cause::kConnection, Cause::kStation, Cause::kOperator}) {
        if (text == textOf(cause)) return cause;
    }
    throw std::invalid_argument(fmt::format("\"{}\" is not a cause", text));
}

template <std::integral Number>
Number whole(const Json &json) {
    const auto number = wholeNumber<Number>(json.dump());
    if (!number) throw Json::type_error::create(302, "expected a whole number within range", &json);
    return *number;
}
template int whole<int>(const Json &);
template uint64_t whole<uint64_t>(const Json &);

RunRecord parseRecord(const std::string &text) try {
    return recordOf(Json::parse(text));
} catch (const std::exception &error) {
    throw std::runtime_error(fmt::format("this is not the record of a run: {}", error.what()));
}

}  // namespace station
