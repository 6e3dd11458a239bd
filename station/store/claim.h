#pragma once
// Changes that boards want in the store, and their claims on units, which no other run may have in work meanwhile.

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "station/run/records.h"
#include "station/store/pool.h"

namespace station {

// A change that a board wants in the store. Owns all that it uses, since the board may give up waiting.
struct Change {
    enum What {
        kRun,    // the run: it begins, ends, or will not be served
        kClaim,  // the run's unit and product, if the store knows it by others; a unit is claimed
        kSteps,  // only its steps
    };
    std::shared_ptr<const RunRecord> run = {};  // null: nothing is written
    What what = kRun;
    bool inWork = true;                        // false: the run is over. Without an end it is interrupted
    size_t steps = 0;                          // number of steps of the record that are to be in the store
    Given given = {};                          // what the unit takes of a pool; a count of 0: nothing
    std::function<void(Database &)> ask = {};  // is called within the transaction; may read
    UnitHistory history = {};                  // an answer: of the unit that was claimed
    std::string refused = {};                  // an answer: why the run cannot have the unit
    std::promise<void> done = {};

    bool claims() const { return what == kClaim && !run->unit.empty(); }
};
using Changes = std::vector<std::shared_ptr<Change>>;

constexpr std::chrono::seconds kSilence{30};  // of a living process with a board in work, at most

// Returns an SQL condition: the station s was seen within the last `ago` seconds.
std::string wasSeen(const Database &database, std::chrono::seconds ago);

std::string productOf(const RunRecord &run);

// Locks the units that are claimed, and fills `history` or `refused`: another process that was active lately has the
// unit in work, or the serial number belongs to a unit of another product. Returns what those that are not refused take
// of pools, for give(). Must be called within a transaction, before anything else.
Givens claim(Database &database, const Changes &changes);

}  // namespace station
