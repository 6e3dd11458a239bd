#pragma once
// The engineer's pages: units, runs, yield, failures, measured values, as tables and pictures, each as CSV too.

#include <string>
#include <vector>

#include "station/page/reply.h"

namespace station {

// They read the store (empty: there is none, and the pages say how to have one) over a connection of their own, a
// question at a time and none for long. May be called by many threads at once.
std::vector<Route> historyRoutes(const std::string &store);

}  // namespace station
