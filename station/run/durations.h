#pragma once
// How long each step of a plan took in earlier runs: it moves a bar while there is nothing to count.

#include <map>
#include <string>

#include "station/run/record.h"

namespace station {

// Kept in the user's cache folder; while that cannot be written, for as long as this lives.
class Durations {
public:
    Durations();
    ~Durations();
    Durations(const Durations &) = delete;
    Durations &operator=(const Durations &) = delete;

    // Returns the seconds of a step; 0 when it never passed.
    double of(const RunRecord &run, size_t step) const;
    // Returns the seconds of this step and all later ones; 0 when one of them never passed.
    double from(const RunRecord &run, size_t step) const;
    // Takes a passed step into account; the latest one counts most.
    void learn(const RunRecord &run, size_t step);

private:
    std::map<std::string, double> seconds_;
};

// Returns how long a step takes in all, in seconds: as long as `before` (0: unknown); once it has taken longer, as
// estimated from the bytes that were sent within `elapsed` seconds. 0: unknown.
double estimate(double before, double elapsed, uint64_t sent, uint64_t total);

}  // namespace station
