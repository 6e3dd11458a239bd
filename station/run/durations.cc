#include "station/run/durations.h"

#include <fmt/format.h>

#include <algorithm>

namespace station {
namespace {

// Returns a key with the step's number, because its title changes with every board's addresses.
std::string keyOf(const RunRecord &run, size_t step) {
    return fmt::format("{} {}/{}", run.plan, step + 1, run.steps.size());
}

}  // namespace

double Durations::of(const RunRecord &run, size_t step) const {
    const auto known = seconds_.find(keyOf(run, step));
    return known == seconds_.end() ? 0 : known->second;
}

double Durations::from(const RunRecord &run, size_t step) const {
    double sum = 0;
    for (; step < run.steps.size(); ++step) {
        const double seconds = of(run, step);
        if (seconds <= 0) return 0;
        sum += seconds;
    }
    return sum;
}

void Durations::learn(const RunRecord &run, size_t step) {
    if (!run.steps[step].passed()) return;
    const double seconds = std::max(inSeconds(run.steps[step].duration), 0.0001);  // not 0: it is known
    double &known = seconds_.try_emplace(keyOf(run, step), seconds).first->second;
    known = (known + seconds) / 2;
}

double estimate(double before, double elapsed, uint64_t sent, uint64_t total) {
    if (before > elapsed || sent == 0 || sent >= total) return before;
    return elapsed * double(total) / double(sent);
}

}  // namespace station
