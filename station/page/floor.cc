#include "station/page/floor.h"

#include <fmt/chrono.h>

#include <algorithm>

#include "station/base/text.h"
#include "station/page/static_files.h"

namespace station {
namespace {

constexpr size_t kTroublesShown = 3;
constexpr std::chrono::minutes kTroubleShown{30};
constexpr size_t kReplyShown = 160;  // bytes
constexpr size_t kMostPictures = 200;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Returns a step that has ended, as the page lists it.
Json endedStep(const StepResult &step) {
    Json json = toJson(step);
    json["title"] = oneLine(step.title);
    json["reply"] = shorten(oneLine(step.reply), kReplyShown);
    if (!step.failure.empty()) json["failure"] = oneLine(step.failure);
    return json;
}

// Returns what went wrong first, and what to do about it.
Json failureOf(const RunRecord &run) {
    const StepResult *const failed = run.firstFailed();
    if (failed == nullptr || run.interrupted) return {{"text", oneLine(summaryOf(run))}};
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
        tile.marks = std::string(run.steps.size(), '.');
        tile.steps = Json::array();
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

void Floor::progress(const RunRecord &run, size_t, uint64_t sent, uint64_t total) {
    change(run.place, [&](Tile &tile) {
        tile.sent = sent;
        tile.total = total;
    });
}

void Floor::stepEnds(const RunRecord &run, size_t step) {
    change(run.place, [&](Tile &tile) REQUIRES(mutex_) {
        durations_.learn(run, step);
        tile.marks[step] = run.steps[step].passed() ? 'p' : 'f';
        tile.steps.push_back(endedStep(run.steps[step]));
    });
}

void Floor::boardEnds(const RunRecord &run) {
    const double seconds = std::chrono::duration<double>(run.end - run.start).count();
    change(run.place, [&](Tile &tile) REQUIRES(mutex_) {
        tile.json = {{"stage", run.passed()  ? "passed"
                               : run.again() ? "again"
                                             : "failed"},
                     {"unit", oneLine(run.unit)},
                     {"seconds", seconds},
                     {"steps", run.steps.size()}};
        if (!run.passed()) tile.json["failure"] = failureOf(run);
        if (const StepResult *const failed = run.firstFailed(); failed != nullptr && failed->cause == Cause::kUnit)
            tile.json["failure"]["picture"] = link(failed->picture);
        if (run.again()) tile.json["todo"] = todoAbout(run);
        if (run.again() && todoAbout(run) == todoAbout(run.cause)) tile.json["cause"] = textOf(run.cause);
        tile.runs = false;
        tile.started = Clock::now();
        if (!run.counts()) return;
        shift_.renew();
        shift_.add(run.unit, run.plan, run.passed(), seconds);
        shiftVersion_ = version_ + 1;
    });
}

// AGAIN stays after the board has been taken away: to plug it in again, the operator must take it away first.
void Floor::placeFree(const Place &place) {
    change(place, [](Tile &tile) {
        if (tile.json["stage"] == "again") return;
        tile.json = {{"stage", "waiting"}};
        tile.marks.clear();
        tile.runs = false;
    });
}

void Floor::placeHeld(const Place &place, bool held) {
    change(place, [&](Tile &tile) REQUIRES(mutex_) { tile.held = held; });
}

void Floor::placeBlocked(const Place &place, const std::string &why) {
    change(place, [&](Tile &tile) { tile.blocked = oneLine(why); });
}

void Floor::placePowered(const Place &place, bool powered) {
    change(place, [&](Tile &tile) {
        tile.powered.reset();
        if (powered) tile.powered = Clock::now();
    });
}

bool Floor::seen(int place) {
    {
        const Lock lock(mutex_);
        if (place == 0) {
            if (!endTroubles(WallClock::time_point::max())) return false;
        } else {
            const auto found = tiles_.find(place);
            if (found == tiles_.end() || !found->second.json.contains("failure")) return false;
            Tile &tile = found->second;
            tile.json["seen"] = true;
            if (tile.json["stage"] == "again")
                tile.json = {{"stage", "waiting"}, {"number", place}, {"name", tile.json["name"]}};
            tile.version = ++version_;
        }
    }
    changed_();
    return true;
}

// Ends the troubles that are older than this. Returns false when there are none.
bool Floor::endTroubles(WallClock::time_point before) {
    if (std::erase_if(troubles_, [&](const Trouble &trouble) { return trouble.time < before; }) == 0) return false;
    lineVersion_ = ++version_;
    return true;
}

std::string Floor::steps(int place) {
    const Lock lock(mutex_);
    const auto tile = tiles_.find(place);
    if (tile == tiles_.end()) return {};
    return dump(Json{{"place", show(tile->second)}, {"steps", tile->second.steps}});
}

// Returns the address of a step's picture, which browsers can ask for from now on; null: it has none. Of the plans that
// were read again and again, the pictures are not all kept.
Json Floor::link(const std::optional<Payload> &picture) {
    if (!picture) return nullptr;
    if (pictures_.size() >= kMostPictures) pictures_.clear();
    pictures_[picture->sha256] = *picture;
    return "/picture?sha256=" + picture->sha256;
}

std::optional<Payload> Floor::picture(const std::string &sha256) {
    const Lock lock(mutex_);
    const auto found = pictures_.find(sha256);
    return found == pictures_.end() ? std::nullopt : std::optional(found->second);
}

void Floor::asks(const Place &place, const Question &question) {
    change(place, [&](Tile &tile) REQUIRES(mutex_) {
        tile.json["stage"] = question.number > 0 ? "asking" : "running";
        tile.json["ask"] = nullptr;
        if (question.number == 0) return;
        tile.json["ask"] = {{"question", question.number},
                            {"prompt", oneLine(question.prompt)},
                            {"problem", oneLine(question.problem)},
                            {"picture", link(question.picture)},
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
        std::erase_if(troubles_, [&](const Trouble &trouble) { return trouble.text == oneLine(text); });
        troubles_.push_back({oneLine(text), WallClock::now()});
        if (troubles_.size() > kTroublesShown) troubles_.pop_front();
    });
}

// Returns the tile with what changes with time, in seconds: `age` of the stage or step, `elapsed` of the run, the
// step's `estimate` and its `usual` time (0: unknown), the usual time of all later steps (`behind`, if known). `sent`:
// the share of the step's bytes.
Json Floor::show(const Tile &tile) const {
    Json json = tile.json;
    if (json["stage"] != "waiting") json["age"] = secondsSince(tile.started);
    if (tile.held) json["held"] = true;
    if (!tile.blocked.empty()) json["blocked"] = tile.blocked;
    if (tile.powered) json["powered"] = secondsSince(*tile.powered);
    if (!tile.marks.empty()) json["marks"] = tile.marks;
    if (!tile.runs) return json;
    json["elapsed"] = secondsSince(tile.connected);
    json["estimate"] = estimate(tile.before, json["age"], tile.sent, tile.total);
    json["usual"] = tile.before;
    if (tile.behind > 0 || json["step"] == json["steps"]) json["behind"] = tile.behind;
    if (tile.sent < tile.total) json["sent"] = double(tile.sent) / double(tile.total);
    return json;
}

std::string Floor::since(uint64_t &seen) {
    const Lock lock(mutex_);
    if (shift_.renew()) shiftVersion_ = ++version_;
    endTroubles(WallClock::now() - kTroubleShown);
    if (seen == version_) return {};
    Json json;
    if (seen == 0) json["version"] = std::string(kStaticVersion);
    for (const auto &[number, tile] : tiles_) {
        if (tile.version > seen) json["places"].push_back(show(tile));
    }
    if (shiftVersion_ > seen) json["shift"] = shift_.toJson();
    if (lineVersion_ > seen) {
        json["line"] = {{"waits", waits_}, {"stops", stops_}, {"strangers", strangers_}, {"stranger", stranger_}};
        for (const auto &[text, time] : troubles_) {
            json["line"]["troubles"].push_back(
                fmt::format("{:%H:%M} {}", fmt::localtime(WallClock::to_time_t(time)), text));
        }
    }
    seen = version_;
    return dump(json);
}

}  // namespace station
