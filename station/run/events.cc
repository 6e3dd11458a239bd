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

Json endOf(const RunRecord &run) {
    Json end = {{"verdict", run.passed() ? "passed" : "failed"},
                {"failures", run.failures()},
                {"seconds", inSeconds(run.end - run.start)},
                {"interrupted", run.interrupted}};
    if (!run.failure.empty()) end["failure"] = run.failure;
    if (run.cause != Cause::kNone) end["cause"] = textOf(run.cause);
    if (!todoAbout(run).empty()) end["todo"] = todoAbout(run);
    return end;
}

class Events : public Observer {
public:
    explicit Events(Output &output) : output_(output) {}

    void lineStarts(const std::vector<Place> &places) override {
        Json list = Json::array();
        for (const Place &place : places) list.push_back(toJson(place));
        output_.put(line("line_starts", {{"places", list}}));
    }
    void boardConnects(const RunRecord &run) override {
        Json titles = Json::array();
        for (const StepResult &step : run.steps) titles.push_back(step.title);
        output_.put(line("board_connects", of(run), {{"peer", run.peer}, {"plan", run.plan}, {"steps", titles}}));
    }
    void stepStarts(const RunRecord &run, size_t step) override {
        output_.put(line("step_starts", of(run, step), {{"title", run.steps[step].title}}));
    }
    void progress(const RunRecord &run, size_t step, uint64_t sent, uint64_t total) override {
        output_.progress(line("progress", of(run, step), {{"sent", sent}, {"total", total}}));
    }
    void asks(const RunRecord &run, size_t step, const std::string &prompt) override {
        output_.put(line("asks", of(run, step), {{"prompt", prompt}}));
    }
    void stepEnds(const RunRecord &run, size_t step) override {
        output_.put(line("step_ends", of(run, step), {{"result", toJson(run.steps[step])}}));
    }
    void boardEnds(const RunRecord &run) override { output_.put(line("board_ends", of(run), endOf(run))); }
    void placeFree(const Place &place) override { output_.put(line("place_free", {{"place", toJson(place)}})); }
    void placeHeld(const Place &place, bool held) override {
        output_.put(line("place_held", {{"place", toJson(place)}, {"held", held}}));
    }
    void strangerRefused(const std::string &peer, const std::string &why) override {
        output_.put(line("stranger_refused", {{"peer", peer}, {"why", why}}));
    }
    void lineWaits(const std::string &why) override { output_.put(line("line_waits", {{"why", why}})); }
    void lineStops() override { output_.put(line("line_stops", Json::object())); }
    void trouble(const std::string &text) override { output_.put(line("trouble", {{"text", text}})); }

private:
    Output &output_;
};

}  // namespace

std::unique_ptr<Observer> eventsTo(Output &output) { return std::make_unique<Events>(output); }

std::string linesDropped(size_t count) { return line("lines_dropped", {{"count", count}}); }

}  // namespace station
