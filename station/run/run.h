#pragma once
// Runs a plan on one board.
//
//     RunRecord run = newRun(plan, place);
//     records.begins(run);                    // durable before the board's first command
//     run = runPlan(board, plan, std::move(run), {observers, records, stop, operators, units});
//     if (run.passed()) ...

#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <string>

#include "station/base/descriptor.h"
#include "station/plan/plan.h"
#include "station/run/observer.h"
#include "station/run/records.h"
#include "station/run/units.h"
#include "station/wire/session.h"

namespace station {

// A board at its place, which may connect more than once during a run.
class Board {
public:
    virtual ~Board() = default;
    virtual Session &session() = 0;
    // Waits for the board's next connection, which session() then returns. The old one stays open until then. Throws
    // SessionError at the deadline.
    virtual void reconnect(Clock::time_point deadline) = 0;
    // Returns false while the board's cable has no link, as when it is unplugged or the board is off.
    virtual bool linked() const { return true; }
};

// The request to stop the line: running steps end, and nothing new begins. May be used by any thread.
class Stop {
public:
    void request() {
        requested_ = true;
        eventfd_write(event_.descriptor(), 1);
    }
    bool requested() const { return requested_; }
    // Waits for this time, or until the stop is requested. Returns whether it has been.
    bool wait(Milliseconds duration) const {
        return waitFor(event_.descriptor(), POLLIN, Clock::now() + duration) || requested();
    }

private:
    std::atomic<bool> requested_ = false;
    const Descriptor event_{eventfd(0, EFD_CLOEXEC)};
};

// The services that a run uses. The caller owns them, and keeps them until the run has ended.
struct Context {
    Observers observers;
    Records &records;
    const Stop &stop;
    Operator &operators;
    Units &units;
    Reference reference = {};
};

// Returns the record of a run that begins now: it has a new ID, and every step is "not run".
RunRecord newRun(const Plan &plan, const Place &place);

// Runs the steps, and returns the completed record; a failure of any kind is in the record, with its cause. After the
// end of the session, only steps that need no board run (`ask`, `run`). After a required step has failed or a stop was
// requested, only steps with `always` run.
RunRecord runPlan(Board &board, const Plan &plan, RunRecord run, const Context &context);

}  // namespace station
