#pragma once
// Runs a plan on one board.

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
    // Returns false while the board's cable has no link, as when it is unplugged or the board is off.
    virtual bool linked() const { return true; }
};

// What a run needs besides its board and its plan.
struct Context {
    Observer &observer;
    Records &records;
    const Stop &stop;
    Operator &operators;
    Units &units;
    Reference reference = {};
};

// Returns the record of a run that begins now: with a new ID, every step "not run".
RunRecord newRun(const Plan &plan, const Place &place);

// Runs the steps, and returns the record, with the cause of each failure. After the end of the session only steps are
// run that need no board (`ask`, `run`); after a required step has failed, or the stop was requested, only steps with
// `always`.
RunRecord runPlan(Board &board, const Plan &plan, RunRecord run, const Context &context);

}  // namespace station
