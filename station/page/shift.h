#pragma once
// The counters of a shift: units, first-pass yield, how long a run takes.

#include <map>
#include <string>
#include <vector>

#include "station/base/time.h"
#include "station/run/record.h"
#include "station/run/record_json.h"

namespace station {

// Returns when the shift that contains `now` began. `starts`: minutes of the local day, ascending, at least one.
WallClock::time_point shiftBegin(const std::vector<int> &starts, WallClock::time_point now);

// Returns the time since the machine started, sleep included. Setting the machine's clock does not change it.
std::chrono::nanoseconds sinceBoot();

class Shift {
public:
    // `starts`: as for shiftBegin(). `target`: units per hour; 0: none. Counts the runs of this shift at this station
    // that are in `store`; an empty one, or one that is away, has none.
    explicit Shift(std::vector<int> starts, int target = 0, const std::string &store = {});

    // Counts a run that says something about its unit (RunRecord::counts). A run without a unit counts as one.
    void add(const std::string &unit, const std::string &plan, bool passed, double seconds);
    // Resets the counters and returns true if a shift has begun since the last call. Setting the machine's clock begins
    // no shift.
    bool renew(WallClock::time_point now = WallClock::now(), std::chrono::nanoseconds uptime = sinceBoot());

    // Returns the units, how many of them failed at their last run, the percentage that passed their first run, the
    // median seconds of a run, the target, and when the counting began.
    Json toJson() const;

private:
    using Passed = std::map<std::string, bool>;

    const std::vector<int> starts_;
    const int target_;
    WallClock::time_point begin_ = WallClock::now();  // of the shift; of the station when it began later
    std::chrono::nanoseconds looked_ = sinceBoot();   // the time of the last call of renew()
    Passed units_;                                    // at their last run
    Passed firsts_;                                   // units with their plan, at their first run
    std::vector<double> seconds_;
};

}  // namespace station
