#include "station/page/shift.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

#include "station/base/descriptor.h"
#include "station/store/queries.h"

namespace station {
namespace {

constexpr std::chrono::seconds kForRecall{5};

Table runsSince(WallClock::time_point begin, const std::string &store) {
    Database database(store, Database::Missing::kIsAnError);
    database.onlyAsk(kForRecall);
    return listRuns(database, {.filter = {.period = {isoTime(begin), ""}, .station = hostName()}, .limit = 0});
}

}  // namespace

WallClock::time_point shiftBegin(const std::vector<int> &starts, WallClock::time_point now) {
    const std::time_t seconds = WallClock::to_time_t(now);
    std::tm day{};
    localtime_r(&seconds, &day);
    const auto next = std::upper_bound(starts.begin(), starts.end(), day.tm_hour * 60 + day.tm_min);
    if (next == starts.begin()) --day.tm_mday;  // the last one of yesterday
    day.tm_hour = 0;
    day.tm_min = next == starts.begin() ? starts.back() : *(next - 1);
    day.tm_sec = 0;
    day.tm_isdst = -1;
    return WallClock::from_time_t(std::mktime(&day));
}

std::chrono::nanoseconds sinceBoot() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

Shift::Shift(std::vector<int> starts, int target, const std::string &store)
    : starts_(std::move(starts)), target_(target) {
    if (store.empty()) return;
    try {
        const auto begin = shiftBegin(starts_, WallClock::now());
        const Table runs = runsSince(begin, store);
        begin_ = begin;
        for (const auto &row : runs.rows) {
            const auto cell = [&](std::string_view column) {
                const auto at = std::find(runs.columns.begin(), runs.columns.end(), column);
                return row[static_cast<size_t>(at - runs.columns.begin())].value_or("");
            };
            if (cell("attempt").empty()) continue;  // it does not count
            const double seconds = std::strtod(cell("seconds").c_str(), nullptr);
            add(cell("serial"), cell("plan"), cell("verdict") == "passed", seconds);
        }
    } catch (const StoreError &) {  // the records say why
    }
}

void Shift::add(const std::string &unit, const std::string &plan, bool passed, double seconds) {
    seconds_.push_back(seconds);
    const std::string name = unit.empty() ? fmt::format("\n{}", seconds_.size()) : unit;
    units_[name] = passed;
    firsts_.emplace(name + '\n' + plan, passed);
}

// A wall clock that is set may jump over the start of a shift. So sinceBoot() tells the time since the last call.
bool Shift::renew(WallClock::time_point now, std::chrono::nanoseconds uptime) {
    const auto last = now - (uptime - std::exchange(looked_, uptime));
    const auto begin = shiftBegin(starts_, now);
    if (begin <= last) return false;
    begin_ = begin;
    units_.clear();
    firsts_.clear();
    seconds_.clear();
    return true;
}

Json Shift::toJson() const {
    const auto count = [](const Passed &all, bool passed) {
        return std::ranges::count(all, passed, &Passed::value_type::second);
    };
    Json json = {{"since", localTime(WallClock::to_time_t(begin_), "%H:%M")},
                 {"seconds", inSeconds(WallClock::now() - begin_)},
                 {"units", units_.size()},
                 {"failed", count(units_, false)}};
    if (target_ > 0) json["target"] = target_;
    if (!firsts_.empty()) json["yield"] = 100.0 * double(count(firsts_, true)) / double(firsts_.size());
    if (seconds_.empty()) return json;
    std::vector<double> sorted = seconds_;
    const auto middle = sorted.begin() + static_cast<ptrdiff_t>((sorted.size() - 1) / 2);  // as the store's median
    std::nth_element(sorted.begin(), middle, sorted.end());
    json["cycle"] = *middle;
    return json;
}

}  // namespace station
