#include "station/line/record.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <random>

namespace station {
namespace {

constexpr size_t kReplyWidth = 160;  // of a reply or failure in a step's line
constexpr std::array<std::string_view, 3> kVerdicts = {"not run", "passed", "failed"};

long millisecondsOf(WallClock::time_point time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
}

}  // namespace

std::string_view textOf(Verdict verdict) { return kVerdicts[static_cast<size_t>(verdict)]; }

size_t RunRecord::failures() const {
    return static_cast<size_t>(
        std::count_if(steps.begin(), steps.end(), [](const auto &step) { return !step.passed(); }));
}

std::string makeRunId(WallClock::time_point start) {
    return fmt::format("{:%Y%m%dT%H%M%S}.{:03}Z-{:08x}", fmt::gmtime(WallClock::to_time_t(start)),
                       millisecondsOf(start), std::random_device()());
}

std::string isoTime(WallClock::time_point time) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(WallClock::to_time_t(time)), millisecondsOf(time));
}

std::string describeStep(const StepResult &result) {
    std::string text = oneLine(result.passed() ? result.reply : result.failure);
    if (text.size() > kReplyWidth) {
        size_t end = kReplyWidth;
        while ((text[end] & 0xC0) == 0x80) --end;  // not within a character
        text.erase(end).append("...");
    }
    return fmt::format("{}  {:7.2f} s  {}  ->  {}", result.passed() ? "ok    " : "FAILED",
                       double(result.duration.count()) / 1000, oneLine(result.title), text);
}

std::string oneLine(const std::string &text) {
    constexpr auto kReplace = nlohmann::json::error_handler_t::replace;
    const auto clean = nlohmann::json::parse(nlohmann::json(text).dump(-1, ' ', false, kReplace)).get<std::string>();
    std::string result;
    for (size_t i = 0; i < clean.size(); ++i) {
        const char c = clean[i];
        if (c == '\n') {
            result += "\\n";
        } else if (c == '\033') {
            result += "\\e";
        } else if (clean.compare(i, 3, "\xEF\xBF\xBE") == 0 || clean.compare(i, 3, "\xEF\xBF\xBF") == 0) {
            result += "\xEF\xBF\xBD";  // no characters, and forbidden in XML: U+FFFD instead
            i += 2;
        } else {
            result += static_cast<unsigned char>(c) < ' ' || c == '\x7F' ? '?' : c;
        }
    }
    return result;
}

}  // namespace station
