#pragma once
// Who answers what a plan asks: the person at the terminal, or at the page.

#include <chrono>
#include <string>

#include "station/line/record.h"
#include "station/line/stop.h"

namespace station {

class Operator {
public:
    virtual ~Operator() = default;
    // The answer to the prompt of a run's step, which must come before the deadline. `problem` says what was wrong with
    // the answer before; empty at first. Throws std::runtime_error when none comes, or when the line stops.
    virtual std::string ask(const RunRecord &run, size_t step, const std::string &prompt, const std::string &problem,
                            std::chrono::steady_clock::time_point deadline, const Stop &stop) = 0;
};

}  // namespace station
