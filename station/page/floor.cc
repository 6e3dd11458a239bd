#include "station/page/floor.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

#include "station/base/mutex.h"
#include "station/base/text.h"
#include "station/base/time.h"
#include "station/page/static_files.h"
#include "station/run/record_json.h"

namespace station {
namespace {

constexpr size_t kTroublesShown = 3;
constexpr std::chrono::minutes kTroubleShown{30};
constexpr size_t kReplyShown = 160;  // bytes
constexpr Milliseconds kLook{100};   // whether an answer is still needed

// Returns the picture of the step that runs. What is asked before a board's first step has none.
std::optional<Payload> pictureOf(const RunRecord &run, size_t step) {
    return step < run.steps.size() && run.steps[step].attempts > 0 ? run.steps[step].picture : std::nullopt;
}

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

// How long each step of a plan took in earlier runs of this station. A progress bar follows it while there are no bytes
// to count.
class Durations {
public:
    // Returns how many seconds a step takes; 0 when it has never passed.
    double of(const RunRecord &run, size_t step) const {
        const auto known = seconds_.find(keyOf(run, step));
        return known == seconds_.end() ? 0 : known->second;
    }

    // Returns how many seconds this step and all later ones take; 0 when one of them has never passed.
    double from(const RunRecord &run, size_t step) const {
        double sum = 0;
        for (; step < run.steps.size(); ++step) {
            const double seconds = of(run, step);
            if (seconds <= 0) return 0;
            sum += seconds;
        }
        return sum;
    }

    // Learns from a step that has passed: its new time is the mean of the known one and this one.
    void learn(const RunRecord &run, size_t step) {
        if (!run.steps[step].passed()) return;
        const double seconds = std::max(inSeconds(run.steps[step].duration), 0.0001);  // not 0: it is known
        double &known = seconds_.try_emplace(keyOf(run, step), seconds).first->second;
        known = (known + seconds) / 2;
    }

private:
    // Returns a key with the step's number, because its title changes with every board's addresses.
    static std::string keyOf(const RunRecord &run, size_t step) {
        return fmt::format("{} {}/{}", run.plan, step + 1, run.steps.size());
    }

    std::map<std::string, double> seconds_;
};

// Returns how many seconds a step will take in all; 0: unknown. That is `before`, its usual time (0: unknown), until it
// has taken longer; then an estimate from the bytes that were sent within `elapsed` seconds.
double estimate(double before, double elapsed, uint64_t sent, uint64_t total) {
    if (before > elapsed || sent == 0 || sent >= total) return before;
    return elapsed * double(total) / double(sent);
}

class Tiles : public Floor {
public:
    explicit Tiles(Shift shift) : shift_(std::move(shift)) {}

    void lineStarts(const std::vector<Place> &places) override {
        for (const Place &place : places) placeFree(place);
    }

    void boardConnects(const RunRecord &run) override {
        const Lock lock(mutex_);
        Tile &tile = change(run.place);
        tile.json = {{"stage", "running"}, {"unit", oneLine(run.unit)}, {"steps", run.steps.size()}, {"step", 0}};
        tile.marks = std::string(run.steps.size(), '.');
        tile.steps = Json::array();
        tile.connected = tile.started = Clock::now();
        tile.before = tile.behind = 0;
        tile.sent = tile.total = 0;
    }

    void stepStarts(const RunRecord &run, size_t step) override {
        const Lock lock(mutex_);
        Tile &tile = change(run.place);
        tile.json["unit"] = oneLine(run.unit);
        tile.json["step"] = step + 1;
        tile.json["title"] = oneLine(run.steps[step].title);
        tile.started = Clock::now();
        tile.before = durations_.of(run, step);
        tile.behind = durations_.from(run, step) - tile.before;
        tile.sent = tile.total = 0;
    }

    void progress(const RunRecord &run, size_t, uint64_t sent, uint64_t total) override {
        const Lock lock(mutex_);
        Tile &tile = change(run.place);
        tile.sent = sent;
        tile.total = total;
    }

    void stepEnds(const RunRecord &run, size_t step) override {
        const Lock lock(mutex_);
        Tile &tile = change(run.place);
        durations_.learn(run, step);
        tile.marks[step] = run.steps[step].passed() ? 'p' : 'f';
        tile.steps.push_back(endedStep(run.steps[step]));
    }

    void boardEnds(const RunRecord &run) override {
        const Lock lock(mutex_);
        Tile &tile = change(run.place);
        const double seconds = inSeconds(run.end - run.start);
        tile.json = {{"stage", run.passed()  ? "passed"
                               : run.again() ? "again"
                                             : "failed"},
                     {"unit", oneLine(run.unit)},
                     {"seconds", seconds},
                     {"steps", run.steps.size()}};
        if (!run.passed()) tile.json["failure"] = failureOf(run);
        if (const StepResult *const failed = run.firstFailed(); failed != nullptr && failed->cause == Cause::kUnit)
            tile.json["failure"]["picture"] = show(tile, failed->picture);
        if (run.again()) tile.json["todo"] = todoAbout(run);
        tile.started = Clock::now();
        if (!run.counts()) return;
        shift_.renew();
        shift_.add(run.unit, run.plan, run.passed(), seconds);
        shiftVersion_ = version_;
    }

    // AGAIN stays after the board has been taken away: to plug it in again, the operator must take it away first.
    void placeFree(const Place &place) override {
        const Lock lock(mutex_);
        Tile &tile = change(place);
        if (tile.json["stage"] == "again") return;
        tile.json = {{"stage", "waiting"}};
        tile.marks.clear();
    }

    void placeHeld(const Place &place, bool held) override {
        const Lock lock(mutex_);
        change(place).lasting["held"] = held;
        if (!held) endTroubles(WallClock::time_point::max(), nameOf(place) + " is held");
    }

    void placeBlocked(const Place &place, const std::string &why) override {
        const Lock lock(mutex_);
        change(place).lasting["blocked"] = oneLine(why);
    }

    void placePowered(const Place &place, bool powered) override {
        const Lock lock(mutex_);
        change(place).powered = powered ? std::optional(Clock::now()) : std::nullopt;
    }

    void strangerRefused(const std::string &peer, const std::string &why) override {
        const Lock lock(mutex_);
        Json &line = changeLine();
        line["strangers"] = line["strangers"].get<size_t>() + 1;
        line["stranger"] = oneLine(peer + ": " + why);
    }

    void lineWaits(const std::string &why) override {
        const Lock lock(mutex_);
        changeLine()["waits"] = oneLine(why);
    }

    void lineStops() override {
        const Lock lock(mutex_);
        changeLine()["stops"] = true;
    }

    void mended(const std::string &beginning) override {
        const Lock lock(mutex_);
        endTroubles(WallClock::time_point::max(), beginning);
    }
    void trouble(const std::string &text) override {
        const Lock lock(mutex_);
        changeLine();
        std::erase_if(troubles_, [&](const auto &trouble) { return trouble.first == oneLine(text); });
        troubles_.emplace_back(oneLine(text), WallClock::now());
        if (troubles_.size() > kTroublesShown) troubles_.pop_front();
    }

    // The place's tile stays in the map while other threads use the map.
    std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                    Clock::time_point deadline, const Needless &needless) override {
        Lock lock(mutex_);
        Tile &tile = change(run.place);
        tile.answer.reset();
        tile.json["stage"] = "asking";
        tile.json["ask"] = {{"question", ++asked_},
                            {"prompt", oneLine(prompt)},
                            {"problem", oneLine(problem)},
                            {"picture", show(tile, pictureOf(run, step))},
                            {"since", tile.started.time_since_epoch() / std::chrono::milliseconds(1)}};
        std::string why;
        while (!tile.answer && Clock::now() < deadline && why.empty()) {
            answered_.waitUntil(lock, Clock::now() + kLook, [&] { return tile.answer.has_value(); });
            lock.unlock();  // what needs no answer may be found out under other locks
            why = needless();
            lock.lock();
        }
        change(run.place).json["stage"] = "running";
        tile.json.erase("ask");
        if (tile.answer) return *tile.answer;
        throw NoAnswer(why.empty() ? "the operator did not answer in time" : why);
    }

    bool answer(int place, uint64_t question, const std::string &text) override {
        const Lock lock(mutex_);
        const auto found = tiles_.find(place);
        if (found == tiles_.end() || !found->second.json.contains("ask")) return false;
        Tile &tile = found->second;
        if (tile.answer || tile.json["ask"]["question"] != question) return false;
        tile.answer = text;
        answered_.notifyAll();
        return true;
    }

    bool seen(int place) override {
        const Lock lock(mutex_);
        if (place == 0) return endTroubles(WallClock::time_point::max());
        const auto found = tiles_.find(place);
        if (found == tiles_.end() || !found->second.json.contains("failure")) return false;
        Tile &tile = found->second;
        tile.json["seen"] = true;
        if (tile.json["stage"] == "again") tile.json = {{"stage", "waiting"}};
        tile.version = ++version_;
        return true;
    }

    std::string steps(int place) override {
        const Lock lock(mutex_);
        if (!tiles_.contains(place)) return {};
        return dump(Json{{"place", show(place)}, {"steps", tiles_[place].steps}});
    }

    std::optional<Payload> picture(const std::string &sha256) override {
        const Lock lock(mutex_);
        for (const auto &[number, tile] : tiles_) {
            if (tile.picture && tile.picture->sha256 == sha256) return tile.picture;
        }
        return std::nullopt;
    }

    std::string since(uint64_t &seen) override {
        const Lock lock(mutex_);
        if (shift_.renew()) shiftVersion_ = ++version_;
        endTroubles(WallClock::now() - kTroubleShown);
        if (seen == version_) return {};
        Json json;
        if (seen == 0) json["version"] = std::string(kStaticVersion);
        for (const auto &[number, tile] : tiles_) {
            if (tile.version > seen) json["places"].push_back(show(number));
        }
        if (shiftVersion_ > seen) json["shift"] = shift_.toJson();
        if (lineVersion_ > seen) {
            json["line"] = line_;
            for (const auto &[text, time] : troubles_) {
                json["line"]["troubles"].push_back(localTime(WallClock::to_time_t(time), "%H:%M ") + text);
            }
        }
        seen = version_;
        return dump(json);
    }

private:
    struct Tile {
        Json json = {};                                 // the stage, without what changes with time
        Json lasting = {};                              // through all stages: number, name, held, blocked
        Clock::time_point connected, started;           // when the board came; when the step or verdict began
        double before = 0, behind = 0;                  // seconds of the step and of all later ones; <= 0: unknown
        uint64_t sent = 0, total = 0;                   // bytes of the step's payload
        std::string marks = {};                         // one letter per step: p passed, f failed, . neither
        Json steps = Json::array();                     // those that have ended
        std::optional<Clock::time_point> powered = {};  // since when its cable has had a link
        std::optional<Payload> picture = {};            // beside the question or the failure
        std::optional<std::string> answer = {};         // to the question that json["ask"] shows
        uint64_t version = 0;
    };

    // Returns the tile of a place that has news for the browsers.
    Tile &change(const Place &place) REQUIRES(mutex_) {
        Tile &tile = tiles_[place.number];
        tile.lasting["number"] = place.number;
        tile.lasting["name"] = nameOf(place);
        tile.version = ++version_;
        return tile;
    }

    // Returns what concerns all places, of which something is new.
    Json &changeLine() REQUIRES(mutex_) {
        lineVersion_ = ++version_;
        return line_;
    }

    // Shows a step's picture with the tile. Returns its address, or null when the step has no picture.
    static Json show(Tile &tile, const std::optional<Payload> &picture) {
        tile.picture = picture;
        return picture ? Json("/picture?sha256=" + picture->sha256) : Json();
    }

    // Ends the troubles that are older than this and begin with this. Returns false when there are none.
    bool endTroubles(WallClock::time_point before, const std::string &beginning = {}) REQUIRES(mutex_) {
        const auto over = [&](const auto &trouble) {
            return trouble.second < before && trouble.first.starts_with(beginning);
        };
        if (std::erase_if(troubles_, over) == 0) return false;
        changeLine();
        return true;
    }

    // Returns the place's tile with what changes with time, in seconds: `age` of the stage or step, `elapsed` of the
    // run, the step's `estimate` and its `usual` time (0: unknown), the usual time of all later steps (`behind`, if
    // known). `sent`: the share of the step's bytes.
    Json show(int place) REQUIRES(mutex_) {
        const auto secondsSince = [](Clock::time_point start) { return inSeconds(Clock::now() - start); };
        const Tile &tile = tiles_[place];
        Json json = tile.json;
        json.update(tile.lasting);
        if (json["stage"] != "waiting") json["age"] = secondsSince(tile.started);
        if (tile.powered) json["powered"] = secondsSince(*tile.powered);
        if (!tile.marks.empty()) json["marks"] = tile.marks;
        if (!json.contains("step")) return json;  // no run
        json["elapsed"] = secondsSince(tile.connected);
        json["estimate"] = estimate(tile.before, json["age"], tile.sent, tile.total);
        json["usual"] = tile.before;
        if (tile.behind > 0 || json["step"] == json["steps"]) json["behind"] = tile.behind;
        if (tile.sent < tile.total) json["sent"] = double(tile.sent) / double(tile.total);
        return json;
    }

    Mutex mutex_;
    Condition answered_;
    // The number of the last question. A browser that was open before the station restarted must not answer a new
    // question by an old number, so the count starts at the milliseconds since 1970.
    uint64_t asked_ GUARDED_BY(mutex_) = static_cast<uint64_t>(WallClock::now().time_since_epoch() /
                                                               std::chrono::milliseconds(1));
    Shift shift_ GUARDED_BY(mutex_);
    Durations durations_ GUARDED_BY(mutex_);
    std::map<int, Tile> tiles_ GUARDED_BY(mutex_);  // by the place's number
    Json line_ GUARDED_BY(mutex_) = {{"waits", ""}, {"stops", false}, {"strangers", 0}, {"stranger", ""}};
    std::deque<std::pair<std::string, WallClock::time_point>> troubles_
        GUARDED_BY(mutex_);  // at most three, the newest last
    uint64_t version_ GUARDED_BY(mutex_) = 1, lineVersion_ GUARDED_BY(mutex_) = 1, shiftVersion_ GUARDED_BY(mutex_) = 1;
};

}  // namespace

std::unique_ptr<Floor> floorWith(Shift shift) { return std::make_unique<Tiles>(std::move(shift)); }

}  // namespace station
