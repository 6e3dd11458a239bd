#pragma once
// The times of the store, which are UTC, as those who work at the station read them: in its own time zone.

#include <ctime>
#include <string>

namespace station {

// Of a time or the start of one, as 2026-11-21T17:30:00.123Z or 2026-11-21T17; 0 when it is none.
std::time_t timeOf(const std::string &utc);

std::string localTime(std::time_t time, const char *form = "%Y-%m-%d %H:%M:%S");  // as strftime() takes it
std::string utcTime(std::time_t time);                                            // 2026-11-21T17:30:00

// The seconds by which the station's clock is ahead of UTC then.
long aheadOfUtc(std::time_t time);

// "CET, UTC+01:00"
std::string zone();

// Returns a time as a person writes it, see parseTime(), as the store has it. Throws Refusal.
std::string parseLocalTime(const std::string &text);

}  // namespace station
