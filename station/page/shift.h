#pragma once
// What a shift has done: units, how many passed at once, how long a board takes.

#include <set>
#include <string>
#include <vector>

#include "station/run/record.h"
#include "station/run/record_json.h"

namespace station {

// When the shift of this moment began. `starts`: minutes of the local day, in order, at least one.
WallClock::time_point shiftBegin(const std::vector<int> &starts, WallClock::time_point now);

class Shift {
public:
    explicit Shift(std::vector<int> starts) : starts_(std::move(starts)), begin_(WallClock::now()) {}

    // Counts a run that was judged. `unit`: empty for one that nobody named, which counts as one of its own.
    void add(const std::string &unit, const std::string &plan, bool passed, double seconds);
    // Takes the runs of this shift, and of this station, that a store remembers. Throws StoreError.
    void recall(const std::string &store);
    // Forgets all of it when another shift has begun: true.
    bool renew();

    // Units; of those the percentage that passed at the first run; the median of a run's seconds; since when.
    Json toJson() const;

private:
    const std::vector<int> starts_;
    WallClock::time_point begin_;  // of the shift, or of the station, when nothing is remembered of before
    std::set<std::string> units_, firsts_;
    size_t unnamed_ = 0, firstRuns_ = 0, firstPasses_ = 0;
    std::vector<double> seconds_;
};

}  // namespace station
