#pragma once
// The interface to the person who answers what a plan asks, at the terminal or at the page.

#include <chrono>
#include <functional>
#include <string>

#include "station/run/record.h"

namespace station {

// Returns why no answer is needed any more; empty: one is. Called several times a second.
using Needless = std::function<std::string()>;

class Operator {
public:
    virtual ~Operator() = default;
    // Returns the answer to the prompt of a run's step. `problem` says what was wrong with the answer before; empty at
    // first. Throws std::runtime_error when none comes before the deadline, or none is needed.
    virtual std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                            std::chrono::steady_clock::time_point deadline, const Needless &needless) = 0;
};

}  // namespace station
