#pragma once
// What stands at each place now, for the operator's page. Whoever comes late sees what all others see.

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

// What a place asks the operator.
struct Question {
    uint64_t number = 0;  // no other question has it; 0: there is none
    std::string prompt, problem;
};

class Floor : public Observer {
public:
    // `changed` is called, by any thread, whenever there is something new.
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

    // The place's question is this one from now on; one without a number: it has been answered.
    void asks(const Place &place, const Question &question);

    // The operator has seen the place's verdict; of place 0: the line's troubles. Returns false when there are none.
    bool seen(int place);

    // Returns what the steps of the place's last run have done so far, as JSON; empty: there is no such place.
    std::string steps(int place);

    // What is new since `seen`, which is brought up to date, as JSON; empty: nothing is. 0: all of it, and the version
    // of the page's own files.
    std::string since(uint64_t &seen);

private:
    struct Tile {
        Json json;                             // but for what changes with time
        Clock::time_point connected, started;  // the board; what stands there now: a step, or a verdict
        double before = 0, behind = 0;         // seconds in earlier runs: of this step, and of all later ones
        uint64_t sent = 0, total = 0;          // bytes of the step
        uint64_t version = 0;
        bool runs = false, held = false;
        std::string marks = {};                         // a letter per step: p passed, f failed, . neither
        Json steps = Json::array();                     // that have ended
        std::string blocked = {};                       // why the place can take no board
        std::optional<Clock::time_point> powered = {};  // since when something has been switched on there
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
    bool endTroubles(WallClock::time_point before) REQUIRES(mutex_);

    const std::function<void()> changed_;
    Mutex mutex_;
    Shift shift_ GUARDED_BY(mutex_);
    Durations durations_ GUARDED_BY(mutex_);
    std::map<int, Tile> tiles_ GUARDED_BY(mutex_);  // by the place's number
    std::string waits_ GUARDED_BY(mutex_), stranger_ GUARDED_BY(mutex_);
    size_t strangers_ GUARDED_BY(mutex_) = 0;
    bool stops_ GUARDED_BY(mutex_) = false;
    std::deque<Trouble> troubles_ GUARDED_BY(mutex_);  // the last ones
    uint64_t version_ GUARDED_BY(mutex_) = 1, lineVersion_ GUARDED_BY(mutex_) = 1, shiftVersion_ GUARDED_BY(mutex_) = 1;
};

}  // namespace station
