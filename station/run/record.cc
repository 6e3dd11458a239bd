#include "station/run/record.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <random>

#include "station/base/text.h"

namespace station {
namespace {

constexpr size_t kReplyWidth = 160;  // of a reply or failure in a step's line
constexpr std::array<std::string_view, 3> kVerdicts = {"not run", "passed", "failed"};
constexpr std::array<std::string_view, 5> kCauses = {"", "unit", "connection", "station", "operator"};
constexpr std::array<std::string_view, 5> kTodos = {
    "", "", "Cable or power: plug the board in, then switch it off and on.",
    "Not the board's fault: call the engineer. Then switch it off and on.",
    "Switch the board off and on to test it again."};

size_t count(const std::vector<StepResult> &steps, Verdict verdict) {
    return static_cast<size_t>(std::ranges::count(steps, verdict, &StepResult::verdict));
}

}  // namespace

std::string_view textOf(Verdict verdict) { return kVerdicts[static_cast<size_t>(verdict)]; }
std::string_view textOf(Cause cause) { return kCauses[static_cast<size_t>(cause)]; }

void RunRecord::stampEnd() { end = start + std::chrono::duration_cast<WallClock::duration>(Clock::now() - began); }

size_t RunRecord::failures() const { return count(steps, Verdict::kFailed); }
size_t RunRecord::notRun() const { return count(steps, Verdict::kNotRun); }

bool RunRecord::counts() const { return ended() && !interrupted && !reference && !again(); }

const StepResult *RunRecord::firstFailed() const {
    const auto failed = std::ranges::find(steps, Verdict::kFailed, &StepResult::verdict);
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
    return run.passed() ? fmt::format("{} steps", run.steps.size())
                        : "the station was stopped, or died, before the run had ended";
}

std::string todoAbout(Cause cause) { return std::string(kTodos[static_cast<size_t>(cause)]); }

std::string todoAbout(const RunRecord &run) {
    const StepResult *const failed = run.firstFailed();
    return failed != nullptr && failed->cause == run.cause ? failed->hint : todoAbout(run.cause);
}

std::string endLine(const RunRecord &run) {
    const std::string todo = todoAbout(run);
    const char *const word = run.passed() ? "PASS" : run.again() ? "AGAIN" : "FAIL";
    return oneLine(fmt::format("{}  {}{:.1f} s  {}{}", word, run.unit.empty() ? "" : run.unit + "  ",
                               run.ended() ? inSeconds(run.end - run.start) : 0, summaryOf(run),
                               todo.empty() ? "" : "  -> " + todo));
}

std::string makeRunId(WallClock::time_point start) {
    std::string time = isoTime(start);
    std::erase_if(time, [](char c) { return c == '-' || c == ':'; });
    return fmt::format("{}-{:08x}", time, std::random_device()());
}

RunRecord unfinished(RunRecord run) {
    run.interrupted = true;
    run.cause = Cause::kStation;
    run.end = {};
    return run;
}

std::string countsOf(const RunRecord &run) {
    const std::string left = run.notRun() > 0 ? fmt::format(", {} not run", run.notRun()) : "";
    const std::string cause = run.again() ? fmt::format(" (cause: {})", textOf(run.cause)) : "";
    return fmt::format("{} steps, {} failed{}{}", run.steps.size(), run.failures(), left, cause);
}

std::string describeStep(const StepResult &result) {
    const std::string text = shorten(oneLine(result.passed() ? result.reply : result.failure), kReplyWidth);
    const char *const mark = result.passed()                      ? "ok"
                             : result.verdict == Verdict::kNotRun ? "-"
                             : result.cause > Cause::kUnit        ? "AGAIN"
                                                                  : "FAILED";
    return fmt::format("{:6}  {:7.2f} s  {}  ->  {}", mark, inSeconds(result.duration), oneLine(result.title), text);
}

}  // namespace station
