#pragma once
// Running a plan against one board.

#include <chrono>
#include <string>
#include <vector>

#include "station/plan.h"
#include "station/session.h"

namespace station {

struct StepResult {
    bool passed = false;
    std::string reply;    // its text, or what the script printed
    std::string failure;  // why the step failed; empty when it passed
    Milliseconds duration{0};
};

// Is told how a run goes on, in its thread.
class Observer {
public:
    virtual ~Observer() = default;
    virtual void stepStarts(const Step &step) = 0;
    virtual void uploads(uint64_t sent, uint64_t total) = 0;
    virtual void stepEnds(const Step &step, const StepResult &result) = 0;
};

// Runs one step. `connected` turns false when the session cannot go on.
StepResult runStep(Session &session, const Step &step, bool &connected, const Progress &progress = {});

// Runs every step; those behind the end of the session fail without being run.
std::vector<StepResult> runPlan(Session &session, const Plan &plan, Observer &observer);

}  // namespace station
