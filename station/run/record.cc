#include "station/run/record.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <random>

#include "station/run/record_json.h"

namespace station {
namespace {

constexpr size_t kReplyWidth = 160;  // of a reply or failure in a step's line
constexpr std::array<std::string_view, 3> kVerdicts = {"not run", "passed", "failed"};
constexpr std::array<std::string_view, 3> kMarks = {"-     ", "ok    ", "FAILED"};

long millisecondsOf(WallClock::time_point time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
}

size_t count(const std::vector<StepResult> &steps, Verdict verdict) {
    return static_cast<size_t>(
        std::count_if(steps.begin(), steps.end(), [=](const auto &step) { return step.verdict == verdict; }));
}

}  // namespace

std::string_view textOf(Verdict verdict) { return kVerdicts[static_cast<size_t>(verdict)]; }

size_t RunRecord::failures() const { return count(steps, Verdict::kFailed); }
size_t RunRecord::notRun() const { return count(steps, Verdict::kNotRun); }

const StepResult *RunRecord::firstFailed() const {
    const auto failed = std::find_if(steps.begin(), steps.end(),
                                     [](const StepResult &step) { return step.verdict == Verdict::kFailed; });
    return failed == steps.end() ? nullptr : &*failed;
}

std::string makeRunId(WallClock::time_point start) {
    return fmt::format("{:%Y%m%dT%H%M%S}.{:03}Z-{:08x}", fmt::gmtime(WallClock::to_time_t(start)),
                       millisecondsOf(start), std::random_device()());
}

std::string isoTime(WallClock::time_point time) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(WallClock::to_time_t(time)), millisecondsOf(time));
}

std::string countsOf(const RunRecord &run) {
    const std::string left = run.notRun() > 0 ? fmt::format(", {} not run", run.notRun()) : "";
    return fmt::format("{} steps, {} failed{}", run.steps.size(), run.failures(), left);
}

std::string describeStep(const StepResult &result) {
    std::string text = oneLine(result.passed() ? result.reply : result.failure);
    if (text.size() > kReplyWidth) {
        size_t end = kReplyWidth;
        while ((text[end] & 0xC0) == 0x80) --end;  // not within a character
        text.erase(end).append("...");
    }
    return fmt::format("{}  {:7.2f} s  {}  ->  {}", kMarks[static_cast<size_t>(result.verdict)],
                       double(result.duration.count()) / 1000, oneLine(result.title), text);
}

std::string oneLine(const std::string &text) {
    static const re2::RE2 kLineEnd("\n"), kEscape("\x1B"), kControl("\\p{C}"), kNone("[\\x{FFFE}\\x{FFFF}]");
    std::string line = asUtf8(text);
    re2::RE2::GlobalReplace(&line, kLineEnd, R"(\\n)");
    re2::RE2::GlobalReplace(&line, kEscape, R"(\\e)");
    re2::RE2::GlobalReplace(&line, kControl, "?");
    re2::RE2::GlobalReplace(&line, kNone, "\uFFFD");  // no characters, and forbidden in XML
    return line;
}

}  // namespace station
