#pragma once
// The units of this line: which ones are in work, each at one place, and how the last ones were judged.

#include <map>
#include <string>

#include "station/base/mutex.h"
#include "station/plan/plan.h"
#include "station/run/records.h"

namespace station {

struct Context;

// The unit that shows from time to time that a place judges right.
struct Reference {
    std::string serial;      // empty: there is none
    Milliseconds within{0};  // after which it is due again
};

class Units {
public:
    // Makes the run one of this unit, which no other place gets until the run has ended. Returns why not, for the
    // operator; empty: it is. Rejects a unit that is in work: one label was scanned for two boards. Rejects a unit that
    // has passed, or failed too often, as the plan says: an operator then confirms by naming it once more.
    // Rejects all units but the reference while that is due at the place. `*unconfirmed`: the unit that the operator
    // was told about, kept between the calls for a run; null: nobody can confirm.
    std::string admit(RunRecord &run, const std::string &serial, const Plan &plan, const Context &context,
                      std::string *unconfirmed);
    // Releases the unit. Remembers how it was judged, for lines without a store.
    void ended(const RunRecord &run);
    // Releases whatever unit is in work at the place.
    void releaseAt(const Place &place);

private:
    std::string claim(const RunRecord &run);
    UnitHistory historyOf(const RunRecord &run) const;
    std::string doubtOfPlace(const Place &place, const Reference &reference) const;

    mutable Mutex mutex_;
    std::map<std::string, std::string> inWork_ GUARDED_BY(mutex_);            // the place's name by the unit
    std::map<std::string, UnitHistory> histories_ GUARDED_BY(mutex_);         // by unit and plan, of the last ones
    std::map<std::string, Clock::time_point> references_ GUARDED_BY(mutex_);  // passed then, by the place's name
};

}  // namespace station
