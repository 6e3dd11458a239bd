#pragma once
// Clocks, and times as texts.

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace station {

using Clock = std::chrono::steady_clock;  // for deadlines
using WallClock = std::chrono::system_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr double inSeconds(std::chrono::duration<double> duration) { return duration.count(); }

// Returns a time in UTC with milliseconds: "2026-11-21T17:30:00.123Z".
std::string isoTime(WallClock::time_point time);

// Reads what isoTime() writes, with or without the Z, or its beginning up to the day, hour, minute or second.
// Returns nothing for any other text, for a day that does not exist, and for years before 1970 or after 2261.
std::optional<WallClock::time_point> parseIsoTime(std::string text);

// Reads a time as people write it: "2026-11-21" or "2026-11-21T17:30" of this machine's time zone, the same with a Z in
// UTC, "today", or "90m", "8h", "7d" ago. Returns nothing for any other text and for a day that does not exist.
std::optional<WallClock::time_point> parseTime(const std::string &text);
constexpr const char *kTimeForms =
    "2026-11-21 or 2026-11-21T17:30 (the station's time, or UTC with a Z), today, or 8h or 7d ago";

// Returns the time that parseIsoTime() reads; 0 when it reads none.
std::time_t timeOf(const std::string &utc);

// Returns the time in this machine's time zone. `form` is one for strftime().
std::string localTime(std::time_t time, std::string_view form = "%Y-%m-%d %H:%M:%S");

// Returns by how many seconds this machine's zone is ahead of UTC at this time.
long aheadOfUtc(std::time_t time);

// Returns this machine's present zone: "CET, UTC+01:00".
std::string zone();

}  // namespace station
