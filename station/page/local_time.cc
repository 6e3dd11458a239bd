#include "station/page/local_time.h"

#include <fmt/format.h>

#include <cstdlib>
#include <iomanip>
#include <sstream>

#include "station/base/time.h"
#include "station/store/queries.h"

namespace station {
namespace {

std::string shown(const std::tm &date, const char *form) {
    std::ostringstream text;
    text << std::put_time(&date, form);
    return text.str();
}

std::tm localDate(std::time_t time) {
    std::tm date{};
    ::localtime_r(&time, &date);
    return date;
}

}  // namespace

std::time_t timeOf(const std::string &utc) {
    return WallClock::to_time_t(parseIsoTime(utc).value_or(WallClock::time_point()));
}

std::string localTime(std::time_t time, const char *form) { return shown(localDate(time), form); }

std::string utcTime(std::time_t time) {
    std::tm date{};
    ::gmtime_r(&time, &date);
    return shown(date, "%Y-%m-%dT%H:%M:%S");
}

long aheadOfUtc(std::time_t time) { return localDate(time).tm_gmtoff; }

std::string zone() {
    const std::tm date = localDate(std::time(nullptr));
    const long minutes = std::labs(date.tm_gmtoff) / 60;
    if (std::string("UTC") == date.tm_zone) return "UTC";
    return fmt::format("{}, UTC{}{:02}:{:02}", date.tm_zone, date.tm_gmtoff < 0 ? '-' : '+', minutes / 60,
                       minutes % 60);
}

std::string parseLocalTime(const std::string &text) {
    const auto time = parseTime(text);
    if (!time) throw Refusal(fmt::format("\"{}\" is not a time: {}", text, kTimeForms));
    return isoTime(*time);
}

}  // namespace station
