#include "station/page/floor.h"

#include <fmt/chrono.h>

#include <algorithm>

#include "station/base/text.h"
#include "station/page/static_files.h"

namespace station {
namespace {

constexpr size_t kTroublesShown = 3;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// What went wrong first, and what to do about it.
Json failureOf(const RunRecord &run) {
    const StepResult *const failed = run.firstFailed();
    if (failed == nullptr) return {{"text", oneLine(summaryOf(run))}};
    return {{"step", failed - run.steps.data() + 1},
            {"title", oneLine(failed->title)},
            {"text", oneLine(failed->failure)},
            {"hint", oneLine(failed->hint)}};
}

}  // namespace

template <typename Change>
void Floor::change(const Place &place, const Change &apply) {
    {
        const Lock lock(mutex_);
        Tile &tile = tiles_[place.number];
        apply(tile);
        tile.json["number"] = place.number;
        tile.json["name"] = nameOf(place);
        tile.json["held"] = tile.held;
        tile.version = ++version_;
    }
    changed_();
}

template <typename Change>
void Floor::changeLine(const Change &apply) {
    {
        const Lock lock(mutex_);
        apply();
        lineVersion_ = ++version_;
    }
    changed_();
}

void Floor::lineStarts(const std::vector<Place> &places) {
    for (const Place &place : places) placeFree(place);
}

void Floor::boardConnects(const RunRecord &run) {
    change(run.place, [&](Tile &tile) REQUIRES(mutex_) {
        tile.json = {{"stage", "running"}, {"unit", oneLine(run.unit)}, {"steps", run.steps.size()}, {"step", 0}};
        tile.runs = true;
        tile.connected = tile.started = Clock::now();
        tile.before = tile.behind = 0;
        tile.sent = tile.total = 0;
    });
}

void Floor::stepStarts(const RunRecord &run, size_t step) {
    change(run.place, [&](Tile &tile) REQUIRES(mutex_) {
        tile.json["unit"] = oneLine(run.unit);
        tile.json["step"] = step + 1;
        tile.json["title"] = oneLine(run.steps[step].title);
        tile.started = Clock::now();
        tile.before = durations_.of(run, step);
        tile.behind = durations_.from(run, step) - tile.before;
        tile.sent = tile.total = 0;
    });
}

// A page moves the bar by itself where it knows how long the run takes.
void Floor::progress(const RunRecord &run, size_t, uint64_t sent, uint64_t total) {
    {
        const Lock lock(mutex_);
        Tile &tile = tiles_[run.place.number];
        tile.sent = sent;
        tile.total = total;
        if (tile.before > 0) return;
        tile.version = ++version_;
    }
    changed_();
}

void Floor::stepEnds(const RunRecord &run, size_t step) {
    const Lock lock(mutex_);
    durations_.learn(run, step);
}

void Floor::boardEnds(const RunRecord &run) {
    const double seconds = std::chrono::duration<double>(run.end - run.start).count();
    change(run.place, [&](Tile &tile) REQUIRES(mutex_) {
        tile.json = {{"stage", run.passed() ? "passed" : "failed"},
                     {"unit", oneLine(run.unit)},
                     {"seconds", seconds},
                     {"steps", run.steps.size()}};
        if (!run.passed()) tile.json["failure"] = failureOf(run);
        tile.runs = false;
        if (run.interrupted) return;
        shift_.renew();
        shift_.add(run.unit, run.plan, run.passed(), seconds);
        shiftVersion_ = version_ + 1;
    });
}

void Floor::placeFree(const Place &place) {
    change(place, [](Tile &tile) {
        tile.json = {{"stage", "waiting"}};
        tile.runs = false;
    });
}

void Floor::placeHeld(const Place &place, bool held) {
    change(place, [&](Tile &tile) REQUIRES(mutex_) { tile.held = held; });
}

void Floor::asks(const Place &place, const Question &question) {
    change(place, [&](Tile &tile) REQUIRES(mutex_) {
        tile.json["stage"] = question.number > 0 ? "asking" : "running";
        tile.json["ask"] = nullptr;
        if (question.number == 0) return;
        tile.json["ask"] = {{"question", question.number},
                            {"prompt", oneLine(question.prompt)},
                            {"problem", oneLine(question.problem)},
                            {"since", tile.started.time_since_epoch() / std::chrono::milliseconds(1)}};
    });
}

void Floor::strangerRefused(const std::string &peer, const std::string &why) {
    changeLine([&]() REQUIRES(mutex_) {
        ++strangers_;
        stranger_ = oneLine(peer + ": " + why);
    });
}

void Floor::lineWaits(const std::string &why) {
    changeLine([&]() REQUIRES(mutex_) { waits_ = oneLine(why); });
}

void Floor::lineStops() {
    changeLine([&]() REQUIRES(mutex_) { stops_ = true; });
}

void Floor::trouble(const std::string &text) {
    changeLine([&]() REQUIRES(mutex_) {
        const auto now = fmt::localtime(WallClock::to_time_t(WallClock::now()));
        troubles_.push_back(fmt::format("{:%H:%M} {}", now, oneLine(text)));
        if (troubles_.size() > kTroublesShown) troubles_.pop_front();
    });
}

// The seconds since the board came and, where they are known, those of the whole run; or how much of it is done.
Json Floor::show(const Tile &tile) const {
    Json json = tile.json;
    if (!tile.runs) return json;
    const double inStep = secondsSince(tile.started), elapsed = secondsSince(tile.connected);
    const double step = estimate(tile.before, inStep, tile.sent, tile.total);
    json["elapsed"] = elapsed;
    if (tile.behind > 0 || (step > 0 && json["step"] == json["steps"]))
        json["total"] = elapsed - inStep + step + tile.behind;
    if (step > 0) json["part"] = std::min(inStep / step, 0.99);
    return json;
}

std::string Floor::since(uint64_t &seen) {
    const Lock lock(mutex_);
    if (shift_.renew()) shiftVersion_ = ++version_;
    if (seen == version_) return {};
    Json json;
    if (seen == 0) json["version"] = std::string(kStaticVersion);
    for (const auto &[number, tile] : tiles_) {
        if (tile.version > seen) json["places"].push_back(show(tile));
    }
    if (shiftVersion_ > seen) json["shift"] = shift_.toJson();
    if (lineVersion_ > seen) {
        json["line"] = {{"waits", waits_}, {"stops", stops_}, {"strangers", strangers_}, {"stranger", stranger_}};
        json["line"]["troubles"] = troubles_;
    }
    seen = version_;
    return dump(json);
}

}  // namespace station
