#include "station/run/record.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <random>

#include "station/base/text.h"
#include "station/base/time.h"

namespace station {
namespace {

constexpr size_t kReplyWidth = 160;  // of a reply or failure in a step's line
constexpr std::array<std::string_view, 3> kVerdicts = {"not run", "passed", "failed"};
constexpr std::array<std::string_view, 5> kCauses = {"", "unit", "connection", "station", "operator"};
constexpr std::array<std::string_view, 3> kMarks = {"-     ", "ok    ", "FAILED"};

size_t count(const std::vector<StepResult> &steps, Verdict verdict) {
    return static_cast<size_t>(
        std::count_if(steps.begin(), steps.end(), [=](const auto &step) { return step.verdict == verdict; }));
}

}  // namespace

std::string_view textOf(Verdict verdict) { return kVerdicts[static_cast<size_t>(verdict)]; }
std::string_view textOf(Cause cause) { return kCauses[static_cast<size_t>(cause)]; }

void RunRecord::stampEnd() { end = start + std::chrono::duration_cast<WallClock::duration>(Clock::now() - began); }

size_t RunRecord::failures() const { return count(steps, Verdict::kFailed); }
size_t RunRecord::notRun() const { return count(steps, Verdict::kNotRun); }

bool RunRecord::counts() const {
    const bool otherFault = !passed() && cause != Cause::kNone && cause != Cause::kUnit;
    return ended() && !interrupted && !reference && !otherFault;
}

const StepResult *RunRecord::firstFailed() const {
    const auto failed = std::find_if(steps.begin(), steps.end(),
                                     [](const StepResult &step) { return step.verdict == Verdict::kFailed; });
    return failed == steps.end() ? nullptr : &*failed;
}

std::string nameOf(const Place &place) {
    return place.name == std::to_string(place.number) ? "board " + place.name : place.name;
}

std::string summaryOf(const RunRecord &run) {
    const StepResult *const failed = run.firstFailed();
    if (failed != nullptr) {
        return fmt::format("step {}/{} {}: {}", failed - run.steps.data() + 1, run.steps.size(), failed->title,
                           failed->failure);
    }
    if (!run.failure.empty()) return run.failure;
    return run.passed() ? fmt::format("{} steps", run.steps.size()) : "ended before all steps were run";
}

std::string endLine(const RunRecord &run) {
    const StepResult *const failed = run.firstFailed();
    return oneLine(fmt::format("{}  {}{:.1f} s  {}{}", run.passed() ? "PASS" : "FAIL",
                               run.unit.empty() ? "" : run.unit + "  ",
                               std::chrono::duration<double>(run.end - run.start).count(), summaryOf(run),
                               failed == nullptr || failed->hint.empty() ? "" : "  -> " + failed->hint));
}

std::string makeRunId(WallClock::time_point start) {
    std::string time = isoTime(start);
    std::erase_if(time, [](char c) { return c == '-' || c == ':'; });
    return fmt::format("{}-{:08x}", time, std::random_device()());
}

RunRecord unfinished(RunRecord run) {
    run.interrupted = true;
    run.end = {};
    return run;
}

std::string countsOf(const RunRecord &run) {
    const std::string left = run.notRun() > 0 ? fmt::format(", {} not run", run.notRun()) : "";
    return fmt::format("{} steps, {} failed{}", run.steps.size(), run.failures(), left);
}

std::string describeStep(const StepResult &result) {
    const std::string text = shorten(oneLine(result.passed() ? result.reply : result.failure), kReplyWidth);
    return fmt::format("{}  {:7.2f} s  {}  ->  {}", kMarks[static_cast<size_t>(result.verdict)],
                       inSeconds(result.duration), oneLine(result.title), text);
}

}  // namespace station
