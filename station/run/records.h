#pragma once
// Where runs are recorded: files, a store, or both.

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "station/run/record.h"

namespace station {

// Says what could not be recorded and why, in words for the line engineer.
struct RecordsError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The history of a unit in earlier runs of a plan. Leaves out runs that failed for another cause than the unit.
struct UnitHistory {
    int failed = 0;                // how many of the last runs failed in a row
    WallClock::time_point when{};  // when the last one ended; 0 if the unit had no run
    std::string where;             // the place of the last one, for people

    bool passed() const { return failed == 0 && when != WallClock::time_point(); }  // true if the last one passed
};

// The unit that an address belongs to.
struct AddressOwner {
    std::string unit;        // the unit that was given the address; empty: none was
    bool hasOthers = false;  // the run's unit was given any addresses at all
};

// Called by the threads of all boards at once. "Durable" means that it survives a power cut.
class Records {
public:
    virtual ~Records() = default;
    // Sets the function that reports what a person should look at. It may be called by any thread.
    virtual void tell(const std::function<void(const std::string &)> & /*trouble*/) {}
    // Returns why no new board can be taken now; empty when it can. Called before a board is taken, and every second
    // while the answer is no; each call retries what could not be written.
    virtual std::string away() { return {}; }
    // Records that a run begins; durable before the board's first command. When it throws RecordsError, the board waits
    // and the call is repeated.
    virtual void begins(const RunRecord & /*run*/) {}
    // Returns the next `count` rows of the pool, durably bound to this run's unit. When it throws RecordsError, nothing
    // is bound.
    virtual std::vector<std::string> bind(const std::string &pool, const RunRecord & /*run*/, int /*count*/) {
        throw RecordsError("the line has no pool \"" + pool + "\"");
    }
    // Records which unit the run is about; no other station can take that unit meanwhile. Returns what the store knows
    // of earlier runs of this plan on the unit; nothing when no store is available. Throws RecordsError when the run
    // cannot be about that unit, for example because another station has it in work. A run without a unit releases the
    // one that it had.
    virtual std::optional<UnitHistory> named(const RunRecord & /*run*/) { return std::nullopt; }
    // Returns whose the address ("02:00:00:00:00:FE") is. Throws RecordsError when that is not known.
    virtual AddressOwner ownerOf(const std::string & /*address*/, const RunRecord & /*run*/) {
        throw RecordsError("the line has no store that knows addresses");
    }
    // Records a step. It may be written later.
    virtual void stepEnded(const RunRecord & /*run*/, size_t /*step*/) {}
    // Records the end of a run; durable before the verdict is shown. When it throws RecordsError, the record is kept,
    // and away() retries it.
    virtual void ends(const RunRecord & /*run*/) {}
};

}  // namespace station
