#pragma once
// The units of this line: those in work, each at one place, and the verdicts of the last ones.

#include <map>
#include <string>

#include "station/base/mutex.h"
#include "station/plan/plan.h"
#include "station/run/records.h"

namespace station {

struct Context;

// The reference unit, which is known to be good. By passing at a place it shows that the place judges right.
struct Reference {
    std::string serial;      // empty: there is none
    Milliseconds within{0};  // after this time it is due again
};

class Units {
public:
    // Makes a run without a unit one of this unit, which no other place gets until ended() or releaseAt(). Returns an
    // empty text, or why the unit is rejected, for the operator; the run then has none.
    //
    // Rejects a unit that is in work: one label was scanned for two boards. Rejects a unit that has passed or has
    // failed too often, as far as the plan says so; an operator confirms by scanning it once more. Rejects all units
    // but the reference unit while that is due at the place. `*unconfirmed` is the unit that waits for a confirmation;
    // keep it between the calls for a run. Null: nobody can confirm.
    std::string admit(RunRecord &run, const std::string &serial, const Plan &plan, const Context &context,
                      std::string *unconfirmed);
    // Makes the run one of no unit again.
    void release(RunRecord &run, Records &records);
    // Releases the run's unit, and remembers its verdict for lines without a store.
    void ended(const RunRecord &run);
    // Releases whatever unit is in work at the place.
    void releaseAt(const Place &place);

private:
    std::string claim(const RunRecord &run);
    UnitHistory historyOf(const RunRecord &run) const;
    std::string doubtOfPlace(const RunRecord &run, const Reference &reference) const;

    mutable Mutex mutex_;
    std::map<std::string, std::string> inWork_ GUARDED_BY(mutex_);            // the place's name, by unit
    std::map<std::string, UnitHistory> histories_ GUARDED_BY(mutex_);         // by unit and plan
    std::map<std::string, Clock::time_point> references_ GUARDED_BY(mutex_);  // its last pass, by place, unit and plan
};

}  // namespace station
