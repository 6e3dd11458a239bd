#pragma once
// The present state of the line and its places, for the operator's page, and the questions that operators answer there.
// A browser that connects late gets all of it.

#include <cstdint>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "station/base/mutex.h"
#include "station/base/time.h"
#include "station/page/shift.h"
#include "station/run/durations.h"
#include "station/run/observer.h"
#include "station/run/record_json.h"

namespace station {

class Floor : public Observer, public Operator {
public:
    explicit Floor(Shift shift) : shift_(std::move(shift)) {}

    void lineStarts(const std::vector<Place> &places) override;
    void boardConnects(const RunRecord &run) override;
    void stepStarts(const RunRecord &run, size_t step) override;
    void progress(const RunRecord &run, size_t step, uint64_t sent, uint64_t total) override;
    void stepEnds(const RunRecord &run, size_t step) override;
    void boardEnds(const RunRecord &run) override;
    void placeFree(const Place &place) override;
    void placeHeld(const Place &place, bool held) override;
    void placeBlocked(const Place &place, const std::string &why) override;
    void placePowered(const Place &place, bool powered) override;
    void strangerRefused(const std::string &peer, const std::string &why) override;
    void lineWaits(const std::string &why) override;
    void lineStops() override;
    void trouble(const std::string &text) override;

    std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                    Clock::time_point deadline, const Needless &needless) override;
    // Gives an answer to this question of the place and to no other: text that was typed for one board must not reach
    // the next. Returns false when that question is not open.
    bool answer(int place, uint64_t question, const std::string &text);

    // Marks the place's verdict as seen; for place 0 removes the line's troubles. Returns false when there are none.
    bool seen(int place);

    // Returns the steps of the place's last run so far, as JSON; empty when there is no such place.
    std::string steps(int place);

    // Returns the picture with this SHA-256, if a question or a failure has shown it.
    std::optional<Payload> picture(const std::string &sha256);

    // Returns what has changed since version `seen`, as JSON, and sets `seen` to the present version. Returns an empty
    // text when nothing has. With `seen` 0 returns everything, and the version of the page's own files.
    std::string since(uint64_t &seen);

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
    Tile &change(const Place &place) REQUIRES(mutex_);
    Json &changeLine() REQUIRES(mutex_);
    Json show(int place) REQUIRES(mutex_);
    static Json show(Tile &tile, const std::optional<Payload> &picture);
    bool endTroubles(WallClock::time_point before) REQUIRES(mutex_);

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

}  // namespace station
