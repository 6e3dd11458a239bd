#pragma once
// Reads recorded runs back from a store.

#include <functional>
#include <string>

#include "station/run/record.h"
#include "station/store/database.h"
#include "station/store/queries.h"

namespace station {

// Calls `each` with the name of each run of the period that has ended, in the order of their start. `each` may use the
// connection. Keeps only some names in memory at a time.
void eachName(Database &database, const Period &period, const std::function<void(const std::string &)> &each);

// Returns the record of the run with this name, without StepResult::show, which the store does not have. Throws Refusal
// when there is no such run.
RunRecord loadRun(Database &database, const std::string &name);

}  // namespace station
