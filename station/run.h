#pragma once
// Running a plan against one board.

#include <chrono>
#include <string>

#include "station/plan.h"
#include "station/session.h"

namespace station {

struct StepResult {
    bool passed = false;
    std::string reply;    // its text, when one arrived
    std::string failure;  // why the step failed; empty when it passed
    std::chrono::milliseconds duration{0};
};

// Sends the step's command and payload and judges the reply. `connected` turns false when the session cannot go on.
StepResult runStep(Session &session, const Step &step, bool &connected, const Progress &progress = {});

}  // namespace station
