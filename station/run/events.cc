#include "station/run/events.h"

#include <nlohmann/json.hpp>

#include "station/base/time.h"
#include "station/run/record_json.h"

namespace station {
namespace {

// Returns an event as a line of JSON: time, name, what it is about, particulars.
std::string line(const char *event, const Json &about, const Json &particulars = Json::object()) {
    Json result = {{"time", isoTime(WallClock::now())}, {"event", event}};
    result.update(about);
    result.update(particulars);
    return dump(result) + "\n";
}

Json of(const RunRecord &run) {
    Json result = {{"run", run.id}, {"place", toJson(run.place)}};
    if (!run.unit.empty()) result["unit"] = run.unit;
    return result;
}

Json of(const RunRecord &run, size_t step) {
    Json result = of(run);
    result["step"] = step + 1;
    return result;
}

}  // namespace

std::string Events::linesDropped(size_t count) { return line("lines_dropped", {{"count", count}}); }

void Events::lineStarts(const std::vector<Place> &places) {
    Json list = Json::array();
    for (const Place &place : places) list.push_back(toJson(place));
    output_.put(line("line_starts", {{"places", list}}));
}

void Events::boardConnects(const RunRecord &run) {
    Json titles = Json::array();
    for (const StepResult &step : run.steps) titles.push_back(step.title);
    output_.put(line("board_connects", of(run), {{"peer", run.peer}, {"plan", run.plan}, {"steps", titles}}));
}

void Events::stepStarts(const RunRecord &run, size_t step) {
    output_.put(line("step_starts", of(run, step), {{"title", run.steps[step].title}}));
}

void Events::progress(const RunRecord &run, size_t step, uint64_t sent, uint64_t total) {
    output_.progress(line("progress", of(run, step), {{"sent", sent}, {"total", total}}));
}

void Events::asks(const RunRecord &run, size_t step, const std::string &prompt) {
    output_.put(line("asks", of(run, step), {{"prompt", prompt}}));
}

void Events::stepEnds(const RunRecord &run, size_t step) {
    output_.put(line("step_ends", of(run, step), {{"result", toJson(run.steps[step])}}));
}

void Events::boardEnds(const RunRecord &run) {
    Json particulars = {{"verdict", run.passed() ? "passed" : "failed"},
                        {"failures", run.failures()},
                        {"seconds", inSeconds(run.end - run.start)},
                        {"interrupted", run.interrupted}};
    if (!run.failure.empty()) particulars["failure"] = run.failure;
    if (run.cause != Cause::kNone) particulars["cause"] = textOf(run.cause);
    if (!todoAbout(run).empty()) particulars["todo"] = todoAbout(run);
    output_.put(line("board_ends", of(run), particulars));
}

void Events::placeFree(const Place &place) { output_.put(line("place_free", {{"place", toJson(place)}})); }

void Events::placeHeld(const Place &place, bool held) {
    output_.put(line("place_held", {{"place", toJson(place)}, {"held", held}}));
}

void Events::strangerRefused(const std::string &peer, const std::string &why) {
    output_.put(line("stranger_refused", {{"peer", peer}, {"why", why}}));
}

void Events::lineWaits(const std::string &why) { output_.put(line("line_waits", {{"why", why}})); }

void Events::lineStops() { output_.put(line("line_stops", Json::object())); }

void Events::trouble(const std::string &text) { output_.put(line("trouble", {{"text", text}})); }

}  // namespace station
