#include "station/run/units.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "station/run/run.h"

namespace station {
namespace {

constexpr size_t kRemembered = 10000;  // units, for which a line without a store takes 2 MB

std::string keyOf(const RunRecord &run) { return run.unit + '\n' + run.plan; }

std::string keyOf(const Place &place, const std::string &unit, const std::string &plan) {
    return fmt::format("{}\n{}\n{}", place.name, unit, plan);
}

// Returns "14:02" in the station's time zone, with the date when that is not today.
std::string localTimeOf(WallClock::time_point when) {
    const std::time_t then = WallClock::to_time_t(when);
    const std::string day = localTime(then, "%Y-%m-%d "), today = localTime(std::time(nullptr), "%Y-%m-%d ");
    return (day == today ? "" : day) + localTime(then, "%H:%M");
}

// Why a unit is not tested at once; an empty text: it is.
struct Doubt {
    std::string text = {};
    bool asks = false;  // the operator may confirm
};

Doubt doubtOf(const UnitHistory &history, const std::string &unit, const Plan &plan, bool mayAsk) {
    const std::string last = fmt::format("{} at {}", localTimeOf(history.when), history.where);
    if (plan.attempts > 0 && history.failed >= plan.attempts) {
        return {fmt::format("{} failed {} times in a row, the last time {}: to repair{}", unit, history.failed, last,
                            mayAsk ? "; when that is done, scan it once more to test it again" : ""),
                mayAsk};
    }
    if (!history.passed() || plan.again == Again::kAllow) return {};
    if (plan.again == Again::kAsk && mayAsk) {
        return {fmt::format("{} passed {}; scan it once more to test it again", unit, last), true};
    }
    return {fmt::format("{} passed {}, and is not tested again: put it with those that passed, or check its label",
                        unit, last)};
}

}  // namespace

std::string Units::admit(RunRecord &run, const std::string &serial, const Plan &plan, const Context &context,
                         std::string *unconfirmed) {
    run.unit = serial;
    run.reference = serial == context.reference.serial;
    const bool confirmed = unconfirmed != nullptr && std::exchange(*unconfirmed, "") == serial;
    std::string why = claim(run);
    if (why.empty()) try {
            const auto known = context.records.named(run);
            Doubt doubt = doubtOf(known ? *known : historyOf(run), serial, plan, unconfirmed != nullptr);
            if (confirmed || run.reference) doubt = {};
            if (!run.reference) why = doubtOfPlace(run, context.reference);
            if (why.empty()) why = doubt.text;
            if (doubt.asks) *unconfirmed = serial;
        } catch (const RecordsError &error) {
            why = error.what();
        }
    if (!why.empty()) release(run, context.records);
    return why;
}

void Units::release(RunRecord &run, Records &records) {
    releaseAt(run.place);
    run.unit.clear();
    run.reference = false;
    records.named(run);
}

std::string Units::doubtOfPlace(const RunRecord &run, const Reference &reference) const {
    const Lock lock(mutex_);
    const auto passed = references_.find(keyOf(run.place, reference.serial, run.plan));
    if (reference.serial.empty()) return {};
    if (passed != references_.end() && Clock::now() < passed->second + reference.within) return {};
    return fmt::format("the reference unit {} is due at {}: test it here first, then this one", reference.serial,
                       nameOf(run.place));
}

std::string Units::claim(const RunRecord &run) {
    const Lock lock(mutex_);
    if (inWork_.emplace(run.unit, run.place.name).second) return {};
    return fmt::format("the unit {} is in work at place {}", run.unit, inWork_[run.unit]);
}

UnitHistory Units::historyOf(const RunRecord &run) const {
    const Lock lock(mutex_);
    const auto found = histories_.find(keyOf(run));
    return found == histories_.end() ? UnitHistory() : found->second;
}

void Units::ended(const RunRecord &run) {
    const Lock lock(mutex_);
    inWork_.erase(run.unit);
    const std::string reference = keyOf(run.place, run.unit, run.plan);
    if (run.reference && run.passed()) references_[reference] = Clock::now();
    if (run.reference && run.cause == Cause::kUnit) references_.erase(reference);
    if (run.unit.empty() || !run.counts()) return;
    UnitHistory &history = histories_[keyOf(run)];
    history = {run.passed() ? 0 : history.failed + 1, run.end, nameOf(run.place)};
    if (histories_.size() <= kRemembered) return;
    histories_.erase(std::ranges::min_element(histories_, {}, [](const auto &one) { return one.second.when; }));
}

void Units::releaseAt(const Place &place) {
    const Lock lock(mutex_);
    std::erase_if(inWork_, [&](const auto &unit) { return unit.second == place.name; });
}

}  // namespace station
