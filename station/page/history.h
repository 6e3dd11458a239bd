#pragma once
// The engineer's pages: units, runs, yields, failures and measured values, as tables and charts. Each table is a CSV
// file, too.

#include <memory>
#include <vector>

#include "station/line/line_file.h"
#include "station/page/archive.h"
#include "station/page/reply.h"

namespace station {

// Returns the routes of the pages. They query the archive, one query at a time, each with a timeout. Without a store,
// the pages say how to get one. Any thread may call the routes.
std::vector<Route> historyRoutes(const std::shared_ptr<Archive> &archive, bool hasStore, const PageSettings &settings);

}  // namespace station
