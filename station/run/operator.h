#pragma once
// Who answers what a plan asks: the person at the terminal, or at the page.

#include <chrono>
#include <functional>
#include <string>

#include "station/run/record.h"

namespace station {

// Looked at several times a second: why nobody needs to answer any more; empty: somebody does.
using Needless = std::function<std::string()>;

class Operator {
public:
    virtual ~Operator() = default;
    // The answer to the prompt of a run's step, which must come before the deadline. `problem` says what was wrong with
    // the answer before; empty at first. Throws std::runtime_error when none comes, or none is needed.
    virtual std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                            std::chrono::steady_clock::time_point deadline, const Needless &needless) = 0;
};

}  // namespace station
