#pragma once
// Where runs are recorded: files, a store, or both.

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "station/run/record.h"

namespace station {

// What could not be recorded and why, in words for the line engineer.
struct RecordsError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What the judged runs of a plan tell about a unit, but for those that failed for another cause than the unit.
struct UnitHistory {
    int failed = 0;                // runs in a row, up to the last one
    WallClock::time_point when{};  // the last one ended; 0: there is none
    std::string where;             // its place, for people

    bool passed() const { return failed == 0 && when != WallClock::time_point(); }  // the last one
};

// Whose an address is.
struct AddressOwner {
    std::string unit;        // that was given the address; empty: none was
    bool hasOthers = false;  // the run's unit was given addresses, whichever
};

// Called by the threads of all boards at once. "Durable" is what survives a power cut.
class Records {
public:
    virtual ~Records() = default;
    // Where to say what a person should look at, from any thread; nowhere at first.
    virtual void tell(const std::function<void(const std::string &)> & /*trouble*/) {}
    // Why no new board may be taken now; empty: it may. Asked before a board is taken, and every second while it says
    // no: what waited to be written is tried again.
    virtual std::string away() { return {}; }
    // A board is there: durable before its first command. Throws RecordsError: the board waits, and it is tried again.
    virtual void begins(const RunRecord & /*run*/) {}
    // The next `count` rows of the pool for this run's unit, bound to it durably. Throws RecordsError: nothing is
    // bound.
    virtual std::vector<std::string> bind(const std::string &pool, const RunRecord & /*run*/, int /*count*/) {
        throw RecordsError("the line has no pool \"" + pool + "\"");
    }
    // The run has said which unit it is about, which no other station gets from now on. Returns what the store knows of
    // the unit from earlier runs of the plan; nothing: no store can be asked. Throws RecordsError when the run cannot
    // be about that unit, as when another station has it in work.
    virtual std::optional<UnitHistory> named(const RunRecord & /*run*/) { return std::nullopt; }
    // Returns whose the address ("02:00:00:00:00:FE") is. Throws RecordsError when that is not known.
    virtual AddressOwner ownerOf(const std::string & /*address*/, const RunRecord & /*run*/) {
        throw RecordsError("the line has no store that knows addresses");
    }
    // May be written later.
    virtual void stepEnded(const RunRecord & /*run*/, size_t /*step*/) {}
    // Durable before the verdict is shown. Throws RecordsError when it is not; it is then kept and tried again by
    // away().
    virtual void ends(const RunRecord & /*run*/) {}
};

}  // namespace station
