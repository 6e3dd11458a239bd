#pragma once
// How long each step of a plan took in the runs before: what moves a bar while there is nothing to count.

#include <map>
#include <string>

#include "station/run/record.h"

namespace station {

// Kept between runs in the user's cache folder, where that can be written; without it, for as long as this lives.
class Durations {
public:
    Durations();
    ~Durations();
    Durations(const Durations &) = delete;
    Durations &operator=(const Durations &) = delete;

    // In seconds; 0 when the step never passed.
    double of(const RunRecord &run, size_t step) const;
    // Of this step and all behind it; 0 when one of them never passed.
    double from(const RunRecord &run, size_t step) const;
    // Takes a step that has passed into account, the latest the most.
    void learn(const RunRecord &run, size_t step);

private:
    std::map<std::string, double> seconds_;
};

// How long a step takes in all, in seconds: as long as before (0: not known), else by the bytes that are sent of its
// payload, `elapsed` seconds after its start. 0: nobody can know.
double estimate(double before, double elapsed, uint64_t sent, uint64_t total);

}  // namespace station
