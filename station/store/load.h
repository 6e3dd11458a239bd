#pragma once
// Reads recorded runs back from a store.

#include <string>
#include <vector>

#include "station/run/record.h"
#include "station/store/database.h"
#include "station/store/queries.h"

namespace station {

// The names of the runs of a period that have ended, in the order of their start.
std::vector<std::string> runNames(Database &database, const Period &period);

// Throws Refusal when there is no run of this name. Whether a reply is to be shown is not recorded.
RunRecord loadRun(Database &database, const std::string &name);

}  // namespace station
