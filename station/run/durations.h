#pragma once
// How long each step of a plan took in earlier runs of this station. A progress bar follows it while there are no bytes
// to count.

#include <map>
#include <string>

#include "station/run/record.h"

namespace station {

class Durations {
public:
    // Returns how many seconds a step takes; 0 when it has never passed.
    double of(const RunRecord &run, size_t step) const;
    // Returns how many seconds this step and all later ones take; 0 when one of them has never passed.
    double from(const RunRecord &run, size_t step) const;
    // Learns from a step that has passed: its new time is the mean of the known one and this one.
    void learn(const RunRecord &run, size_t step);

private:
    std::map<std::string, double> seconds_;
};

// Returns how many seconds a step will take in all; 0: unknown. That is `before`, its usual time (0: unknown), until it
// has taken longer; then an estimate from the bytes that were sent within `elapsed` seconds.
double estimate(double before, double elapsed, uint64_t sent, uint64_t total);

}  // namespace station
