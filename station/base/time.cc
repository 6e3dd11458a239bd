#include "station/base/time.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>

namespace station {
namespace {

constexpr std::string_view kForm = "0000-00-00T00:00:00.000";

long millisecondsOf(WallClock::time_point time) {
    return std::chrono::floor<Milliseconds>(time).time_since_epoch().count() % 1000;
}

// Returns the time at which this machine's calendar and clock show what UTC's show at `time`.
WallClock::time_point asLocal(WallClock::time_point time) {
    const std::time_t shown = WallClock::to_time_t(time);
    std::tm date = fmt::gmtime(shown);
    date.tm_isdst = -1;  // as it is then
    return time + std::chrono::seconds(std::mktime(&date) - shown);
}

// Reads "90m", "8h", "7d". Returns the beginning of 1970 for a time before that.
std::optional<WallClock::time_point> parseAgo(const std::string &text) {
    static const re2::RE2 kAgo("([0-9]{1,9})([mhd])");
    int64_t count = 0;
    char unit = 0;
    if (!re2::RE2::FullMatch(text, kAgo, &count, &unit)) return std::nullopt;
    const std::chrono::minutes ago(count * (unit == 'd' ? 24 * 60 : unit == 'h' ? 60 : 1));
    const auto now = WallClock::now();
    return now - std::min(ago, std::chrono::floor<std::chrono::minutes>(now.time_since_epoch()));
}

}  // namespace

std::string isoTime(WallClock::time_point time) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(WallClock::to_time_t(time)), millisecondsOf(time));
}

std::optional<WallClock::time_point> parseIsoTime(std::string text) {
    static const re2::RE2 kTime("\\d{4}-\\d\\d-\\d\\d(T\\d\\d(:\\d\\d(:\\d\\d(\\.\\d{3})?)?)?)?Z?");
    if (!re2::RE2::FullMatch(text, kTime)) return std::nullopt;
    if (text.ends_with('Z')) text.pop_back();
    text += kForm.substr(text.size());
    std::tm date{};
    if (::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &date) == nullptr) return std::nullopt;
    if (date.tm_year < 1970 - 1900 || date.tm_year > 2261 - 1900) return std::nullopt;
    const auto time = WallClock::from_time_t(::timegm(&date)) + Milliseconds(std::stoi(text.substr(kForm.size() - 3)));
    return isoTime(time) == text + "Z" ? std::optional(time) : std::nullopt;  // not 30 February, which is in March then
}

std::optional<WallClock::time_point> parseTime(const std::string &text) {
    if (text == "today") return parseTime(localTime(std::time(nullptr), "%Y-%m-%d"));
    if (const auto ago = parseAgo(text)) return ago;
    const auto time = parseIsoTime(text);
    return time && !text.ends_with('Z') ? asLocal(*time) : time;
}

std::time_t timeOf(const std::string &utc) {
    return WallClock::to_time_t(parseIsoTime(utc).value_or(WallClock::time_point()));
}

std::string localTime(std::time_t time, std::string_view form) {
    return fmt::format(fmt::runtime(fmt::format("{{:{}}}", form)), fmt::localtime(time));
}

long aheadOfUtc(std::time_t time) { return fmt::localtime(time).tm_gmtoff; }

std::string zone() {
    const std::string zone = localTime(std::time(nullptr), "%Z, UTC%z");
    return zone == "UTC, UTC+0000" ? "UTC" : std::string(zone).insert(zone.size() - 2, ":");
}

}  // namespace station
