#pragma once
// Converts times between UTC, which the store has, and the station's time zone, which people at the station read.

#include <ctime>
#include <string>

namespace station {

// Parses a time, or the beginning of one: 2026-11-21T17:30:00.123Z, 2026-11-21T17. Returns 0 when it is neither.
std::time_t timeOf(const std::string &utc);

// Returns the time in the station's zone. `form` is one for strftime().
std::string localTime(std::time_t time, std::string_view form = "%Y-%m-%d %H:%M:%S");

// Returns by how many seconds the station's zone is ahead of UTC at this time.
long aheadOfUtc(std::time_t time);

// Returns the station's present zone: "CET, UTC+01:00".
std::string zone();

// Converts a time that a person wrote, in any form of parseTime(), to the store's form. Throws Refusal.
std::string parseLocalTime(const std::string &text);

}  // namespace station
