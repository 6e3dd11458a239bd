#pragma once
// The machine that the station runs on.

#include <string>

namespace station {

// Returns the machine's host name; "station" when it has none.
std::string hostName();

}  // namespace station
