#include "station/page/shift.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

#include "station/base/machine.h"
#include "station/base/time.h"
#include "station/store/queries.h"

namespace station {
namespace {

constexpr std::chrono::seconds kForRecall{5};

std::string cell(const Table &table, const std::vector<Value> &row, std::string_view column) {
    const auto at = std::find(table.columns.begin(), table.columns.end(), column);
    return row[static_cast<size_t>(at - table.columns.begin())].value_or("");
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

void Shift::add(const std::string &unit, const std::string &plan, bool passed, double seconds) {
    seconds_.push_back(seconds);
    unnamed_ += unit.empty() ? 1 : 0;
    unnamedFailed_ += unit.empty() && !passed ? 1 : 0;
    if (!unit.empty()) units_[unit] = passed;
    if (!unit.empty() && !firsts_.insert(unit + '\n' + plan).second) return;
    ++firstRuns_;
    firstPasses_ += passed ? 1 : 0;
}

void Shift::recall(const std::string &store) {
    begin_ = shiftBegin(starts_, WallClock::now());
    Database database(store, Database::Missing::kIsAnError);
    database.onlyAsk(kForRecall);
    const Table runs = listRuns(database, {{{isoTime(begin_), ""}}, false, 0});
    for (const auto &row : runs.rows) {
        // Only a run that counts has an attempt.
        if (cell(runs, row, "station") != hostName() || cell(runs, row, "attempt").empty()) continue;
        add(cell(runs, row, "serial"), cell(runs, row, "plan"), cell(runs, row, "verdict") == "passed",
            std::strtod(cell(runs, row, "seconds").c_str(), nullptr));
    }
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
    unnamed_ = unnamedFailed_ = firstRuns_ = firstPasses_ = 0;
    return true;
}

Json Shift::toJson() const {
    const auto failed = std::count_if(units_.begin(), units_.end(), [](const auto &unit) { return !unit.second; });
    Json json = {{"since", fmt::format("{:%H:%M}", fmt::localtime(WallClock::to_time_t(begin_)))},
                 {"seconds", std::chrono::duration<double>(WallClock::now() - begin_).count()},
                 {"units", units_.size() + unnamed_},
                 {"failed", static_cast<size_t>(failed) + unnamedFailed_}};
    if (target_ > 0) json["target"] = target_;
    if (firstRuns_ > 0) json["yield"] = 100.0 * double(firstPasses_) / double(firstRuns_);
    if (seconds_.empty()) return json;
    std::vector<double> sorted = seconds_;
    const auto middle = sorted.begin() + static_cast<ptrdiff_t>((sorted.size() - 1) / 2);  // as the store's median
    std::nth_element(sorted.begin(), middle, sorted.end());
    json["cycle"] = *middle;
    return json;
}

}  // namespace station
