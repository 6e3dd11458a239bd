#pragma once
// The interface to the person who answers a plan's questions, at the terminal or on the page.

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

#include "station/run/record.h"

namespace station {

// Returns why no answer is needed any more; empty: one is. Called several times a second.
using Needless = std::function<std::string()>;

// Nobody answered in time, or no answer is needed any more. The text says which.
struct NoAnswer : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Operator {
public:
    virtual ~Operator() = default;
    // Returns the answer to the prompt of a run's step. `problem` says what was wrong with the answer before; empty at
    // first. Throws NoAnswer; std::runtime_error when there is no way to ask.
    virtual std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                            std::chrono::steady_clock::time_point deadline, const Needless &needless) = 0;
};

}  // namespace station
