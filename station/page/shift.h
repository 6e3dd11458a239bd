#pragma once
// What a shift has done: units, how many passed at once, how long a board takes.

#include <map>
#include <set>
#include <string>
#include <vector>

#include "station/base/time.h"
#include "station/run/record.h"
#include "station/run/record_json.h"

namespace station {

// Returns when the shift of this moment began. `starts`: minutes of the local day, in order, at least one.
WallClock::time_point shiftBegin(const std::vector<int> &starts, WallClock::time_point now);

// Returns how long the machine has run, asleep or not: a clock that nobody sets.
std::chrono::nanoseconds sinceBoot();

class Shift {
public:
    // `starts`: as for shiftBegin. `target`: units per hour; 0: none.
    explicit Shift(std::vector<int> starts, int target = 0) : starts_(std::move(starts)), target_(target) {}

    // Counts a run that was judged. `unit`: empty when nobody named it; it then counts as a unit of its own.
    void add(const std::string &unit, const std::string &plan, bool passed, double seconds);
    // Counts the runs of this shift, and of this station, that a store remembers. Throws StoreError.
    void recall(const std::string &store);
    // Forgets everything when a shift has begun since the last call, and returns true then. A clock that was set, by
    // whatever, begins no shift.
    bool renew(WallClock::time_point now = WallClock::now(), std::chrono::nanoseconds uptime = sinceBoot());

    // Units; how many of them failed at their last run; the percentage that passed at the first run; the median of a
    // run's seconds; since when.
    Json toJson() const;

private:
    const std::vector<int> starts_;
    const int target_;
    WallClock::time_point begin_ = WallClock::now();  // of the shift; of the station when it began later
    std::chrono::nanoseconds looked_ = sinceBoot();   // at the last call of renew()
    std::map<std::string, bool> units_;               // whether the last run passed
    std::set<std::string> firsts_;
    size_t unnamed_ = 0, unnamedFailed_ = 0, firstRuns_ = 0, firstPasses_ = 0;
    std::vector<double> seconds_;
};

}  // namespace station
