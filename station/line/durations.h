#pragma once
// How long each step of a plan took in the runs before: what moves a bar while there is nothing to count.

#include <map>
#include <string>

#include "station/line/record.h"

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
    // Takes a step that has passed into account, the latest the most.
    void learn(const RunRecord &run, size_t step);

private:
    std::map<std::string, double> seconds_;
};

}  // namespace station
