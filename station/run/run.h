#pragma once
// Running a plan against one board.

#include <string>

#include "station/plan/plan.h"
#include "station/run/observer.h"
#include "station/run/operator.h"
#include "station/run/records.h"
#include "station/run/stop.h"
#include "station/run/units.h"
#include "station/wire/session.h"

namespace station {

// A board at its place, over as many connections as it makes.
class Board {
public:
    virtual ~Board() = default;
    virtual Session &session() = 0;
    // Waits for the board's next connection, which session() is from then on; the one before stays open until then.
    // Throws SessionError at the deadline.
    virtual void reconnect(Clock::time_point deadline) = 0;
};

// What a run needs besides its board and its plan.
struct Context {
    Observer &observer;
    Records &records;
    const Stop &stop;
    Operator &operators;
    Units &units;
};

// The record of a run that has not begun: a new ID, the time, every step "not run".
RunRecord newRun(const Plan &plan, const Place &place);

// Runs the steps. Not run are those behind the end of the session, but what the operator is asked; those behind a
// required step that failed; and those that the stop comes before. Those that run always are run even then.
RunRecord runPlan(Board &board, const Plan &plan, RunRecord run, const Context &context);

}  // namespace station
