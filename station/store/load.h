#pragma once
// Reads recorded runs back from a store.

#include <functional>
#include <string>

#include "station/run/record.h"
#include "station/store/database.h"
#include "station/store/queries.h"

namespace station {

// Calls `each` with the name of each run of the period that has ended, in the order of their start. `each` may use the
// connection. However many there are, some are in memory at a time.
void eachName(Database &database, const Period &period, const std::function<void(const std::string &)> &each);

// Throws Refusal when there is no run of this name. Whether a reply is to be shown is not recorded.
RunRecord loadRun(Database &database, const std::string &name);

}  // namespace station
