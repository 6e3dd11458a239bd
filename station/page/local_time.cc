#include "station/page/local_time.h"

#include <fmt/chrono.h>

#include "station/base/time.h"
#include "station/store/queries.h"

namespace station {

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

std::string parseLocalTime(const std::string &text) {
    const auto time = parseTime(text);
    if (!time) throw Refusal(fmt::format("\"{}\" is not a time: {}", text, kTimeForms));
    return isoTime(*time);
}

}  // namespace station
