#pragma once
// The engineer's pages: units, runs, yields, failures and measured values, as tables and charts. Each table is a CSV
// file, too.

#include <string>
#include <vector>

#include "station/page/reply.h"

namespace station {

// Returns the routes of the pages. They query the store over a connection of their own, one query at a time, each with
// a timeout. When `store` is empty, the pages say how to get one. Any thread may call the routes.
std::vector<Route> historyRoutes(const std::string &store);

}  // namespace station
