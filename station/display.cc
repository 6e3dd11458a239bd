#include "station/display.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace station {
namespace {

constexpr Milliseconds kRefresh{100};
constexpr uint64_t kBarWidth = 30;
constexpr size_t kLineWidth = 160;  // of a reply or failure

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// A line for each step when it has ended.
class PlainDisplay : public Observer {
public:
    void stepStarts(const Step &) override {}
    void uploads(uint64_t, uint64_t) override {}
    void stepEnds(const Step &step, const StepResult &result) override {
        std::string text = oneLine(result.passed ? result.reply : result.failure);
        if (text.size() > kLineWidth) text.erase(kLineWidth).append("...");
        fmt::print("{}  {:7.2f} s  {}  ->  {}\n", verdict(result.passed), seconds(result.duration),
                   oneLine(step.title()), text);
        std::fflush(stdout);
    }

protected:
    virtual std::string verdict(bool passed) const { return passed ? "ok    " : "FAILED"; }
};

// The same, and one line below that shows the step under way.
class TerminalDisplay : public PlainDisplay {
public:
    explicit TerminalDisplay(bool coloured) : coloured_(coloured) {}

    void stepStarts(const Step &step) override {
        title_ = oneLine(step.title());
        start_ = Clock::now();
        show("");
    }

    void uploads(uint64_t sent, uint64_t total) override {
        if (sent < total && Clock::now() - shown_ < kRefresh) return;
        const double elapsed = std::max(seconds(Clock::now() - start_), 0.001);
        const double rate = double(sent) / elapsed;
        const uint64_t filled = total > 0 ? sent * kBarWidth / total : kBarWidth;
        show(fmt::format("[{:#<{}}{: <{}}] {:3} %  {:.1f} MB/s  {:.0f} s left", "", filled, "", kBarWidth - filled,
                         total > 0 ? sent * 100 / total : 100, rate / 1e6, double(total - sent) / rate));
    }

    void stepEnds(const Step &step, const StepResult &result) override {
        fmt::print("\r\033[K");
        PlainDisplay::stepEnds(step, result);
    }

protected:
    std::string verdict(bool passed) const override {
        if (!coloured_) return PlainDisplay::verdict(passed);
        return fmt::format("\033[{}m{}\033[0m", passed ? "32" : "1;31", PlainDisplay::verdict(passed));
    }

private:
    void show(const std::string &progress) {
        fmt::print("\r\033[K...     {}  {}", title_, progress);
        std::fflush(stdout);
        shown_ = Clock::now();
    }

    bool coloured_;
    std::string title_;
    Clock::time_point start_;
    Clock::time_point shown_;
};

}  // namespace

std::unique_ptr<Observer> makeDisplay() {
    if (isatty(STDOUT_FILENO) == 0) return std::make_unique<PlainDisplay>();
    const char *const noColour = std::getenv("NO_COLOR");
    return std::make_unique<TerminalDisplay>(noColour == nullptr || *noColour == '\0');
}

std::string oneLine(const std::string &text) {
    std::string result;
    for (const char c : text) {
        if (c == '\n') {
            result += "\\n";
        } else if (c == '\033') {
            result += "\\e";
        } else {
            result += static_cast<unsigned char>(c) < ' ' ? '?' : c;
        }
    }
    return result;
}

}  // namespace station
