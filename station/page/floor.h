#pragma once
// The present state of the line and its places, for the operator's page. A browser that connects late gets all of it.

#include <cstdint>
#include <deque>
#include <functional>
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

// A place's question to the operator.
struct Question {
    uint64_t number = 0;  // unique; 0: there is no question
    std::string prompt, problem;
    std::optional<Payload> picture = {};
};

class Floor : public Observer {
public:
    // Calls `changed`, from any thread, whenever something is new.
    Floor(Shift shift, std::function<void()> changed) : changed_(std::move(changed)), shift_(std::move(shift)) {}

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

    // Shows this question at the place. A question with the number 0 removes the one that is shown.
    void asks(const Place &place, const Question &question);

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
        Json json;                             // without what changes with time
        Clock::time_point connected, started;  // when the board came; when the step or verdict began
        double before = 0, behind = 0;         // seconds of the step and of all later ones; <= 0: unknown
        uint64_t sent = 0, total = 0;          // bytes of the step's payload
        uint64_t version = 0;
        bool runs = false, held = false;
        std::string marks = {};                         // one letter per step: p passed, f failed, . neither
        Json steps = Json::array();                     // those that have ended
        std::string blocked = {};                       // why the place can take no board; empty: it can
        std::optional<Clock::time_point> powered = {};  // since when its cable has had a link
    };
    struct Trouble {
        std::string text;
        WallClock::time_point time;
    };

    template <typename Change>
    void change(const Place &place, const Change &apply);
    template <typename Change>
    void changeLine(const Change &apply);
    Json show(const Tile &tile) const;
    Json link(const std::optional<Payload> &picture) REQUIRES(mutex_);
    bool endTroubles(WallClock::time_point before) REQUIRES(mutex_);

    const std::function<void()> changed_;
    Mutex mutex_;
    Shift shift_ GUARDED_BY(mutex_);
    Durations durations_ GUARDED_BY(mutex_);
    std::map<int, Tile> tiles_ GUARDED_BY(mutex_);                // by the place's number
    std::map<std::string, Payload> pictures_ GUARDED_BY(mutex_);  // by their SHA-256
    std::string waits_ GUARDED_BY(mutex_), stranger_ GUARDED_BY(mutex_);
    size_t strangers_ GUARDED_BY(mutex_) = 0;
    bool stops_ GUARDED_BY(mutex_) = false;
    std::deque<Trouble> troubles_ GUARDED_BY(mutex_);  // at most three, the newest last
    uint64_t version_ GUARDED_BY(mutex_) = 1, lineVersion_ GUARDED_BY(mutex_) = 1, shiftVersion_ GUARDED_BY(mutex_) = 1;
};

}  // namespace station
