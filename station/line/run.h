#pragma once
// Running a plan against one board, or against any number at once.

#include <chrono>
#include <string>
#include <vector>

#include "station/plan/plan.h"
#include "station/wire/listener.h"

namespace station {

struct StepResult {
    bool passed = false;
    std::string reply;    // its text, or what the script printed
    std::string failure;  // why the step failed; empty when it passed
    Milliseconds duration{0};
};

using WallClock = std::chrono::system_clock;

struct BoardResult {
    int board = 1;     // numbered from 1, in the order in which they connected
    std::string peer;  // empty: it never connected
    WallClock::time_point start, end;
    std::vector<StepResult> steps;  // one for each step of the plan

    size_t failures() const;
    bool passed() const { return failures() == 0; }
};

// Is told how a run goes on; with several boards, by several threads at once.
class Observer {
public:
    virtual ~Observer() = default;
    virtual void boardConnects(int board, const std::string &peer) = 0;
    virtual void stepStarts(int board, const Step &step) = 0;
    virtual void uploads(int board, uint64_t sent, uint64_t total) = 0;
    virtual void stepEnds(int board, const Step &step, const StepResult &result) = 0;
    virtual void boardEnds(const BoardResult &result) = 0;
};

// Runs one step. `connected` turns false when the session cannot go on.
StepResult runStep(Session &session, const Step &step, bool &connected, const Progress &progress = {});

// Runs every step; those behind the end of the session fail without being run.
BoardResult runPlan(Session &session, const Plan &plan, int board, Observer &observer);

// Runs the plan on the next `boards` boards that connect within `wait`, each in a thread of its own. The result has one
// entry a board, those that never connected included: what one board does spoils no other's.
std::vector<BoardResult> runBoards(Listener &listener, const Plan &plan, int boards, Milliseconds wait,
                                   Observer &observer);

}  // namespace station
