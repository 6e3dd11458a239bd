#pragma once
// The units that this line has in work, each at one place.

#include <map>
#include <string>

#include "station/base/mutex.h"
#include "station/run/record.h"

namespace station {

class Units {
public:
    // Returns the place where the run's unit is in work already; empty: it is the run's, until it is released.
    std::string claim(const RunRecord &run) {
        const Lock lock(mutex_);
        return inWork_.emplace(run.unit, run.place.name).second ? "" : "place " + inWork_[run.unit];
    }
    void release(const std::string &unit) {
        const Lock lock(mutex_);
        inWork_.erase(unit);
    }

    // Releases whatever unit is in work at the place.
    void releaseAt(const Place &place) {
        const Lock lock(mutex_);
        std::erase_if(inWork_, [&](const auto &unit) { return unit.second == place.name; });
    }

private:
    Mutex mutex_;
    std::map<std::string, std::string> inWork_ GUARDED_BY(mutex_);  // the place's name by the unit
};

}  // namespace station
