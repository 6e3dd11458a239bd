#include "station/display/display.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

namespace station {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRefresh{100};
constexpr uint64_t kBarWidth = 30;

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// In front of a line where there are several boards.
std::string prefix(int board, int boards) { return boards > 1 ? fmt::format("board {:>2}  ", board) : ""; }

// A line when a board connects, for each step that has ended, and for each board.
class PlainDisplay : public Observer {
public:
    explicit PlainDisplay(int boards) : boards_(boards) {}

    void boardConnects(const RunRecord &run) override {
        if (boards_ > 1) print(run.place.number, "connected from " + run.peer);
    }
    void stepEnds(const RunRecord &run, size_t step) override {
        print(run.place.number, describeStep(run.steps[step]));
    }
    void boardEnds(const RunRecord &result) override {
        if (boards_ == 1 && !result.peer.empty()) return;
        if (result.peer.empty()) {
            print(result.place.number, "never connected");
        } else {
            print(result.place.number, fmt::format("{} steps, {} failed", result.steps.size(), result.failures()));
        }
    }

private:
    void print(int board, const std::string &text) {
        const std::lock_guard lock(mutex_);
        fmt::print("{}{}\n", prefix(board, boards_), text);
        std::fflush(stdout);
    }

    int boards_;
    std::mutex mutex_;
};

// A live line for each board, at the bottom of the terminal. Above them, for good, go the steps of a single board, and
// of several those that failed.
class TerminalDisplay : public Observer {
public:
    TerminalDisplay(int boards, bool coloured) : boards_(boards), coloured_(coloured) {
        for (int board = 1; board <= boards; ++board) lines_[board].state = "waiting";
        const std::lock_guard lock(mutex_);
        draw();
    }

    void stepStarts(const RunRecord &run, size_t step) override {
        change(run.place.number, [&](Line &line) {
            line.start = Clock::now();
            line.title = fmt::format("{:>2}/{}  {}", step + 1, run.steps.size(), oneLine(run.steps[step].title));
            line.state = line.title;
        });
    }

    void progress(const RunRecord &run, size_t, uint64_t sent, uint64_t total) override {
        const std::lock_guard lock(mutex_);
        Line &line = lines_[run.place.number];
        line.state = fmt::format("{}  {}", line.title, bar(line, sent, total));
        if (sent == total || Clock::now() - drawn_ > kRefresh) draw();
    }

    void stepEnds(const RunRecord &run, size_t step) override {
        const std::lock_guard lock(mutex_);
        const StepResult &result = run.steps[step];
        if (boards_ > 1 && result.passed()) return;
        erase();
        fmt::print("{}{}\n", prefix(run.place.number, boards_), colour(describeStep(result), result.passed()));
        draw();
    }

    void boardEnds(const RunRecord &result) override {
        change(result.place.number, [&](Line &line) {
            const double time = std::chrono::duration<double>(result.end - result.start).count();
            if (result.peer.empty()) {
                line.state = colour("FAILED  never connected", false);
            } else if (result.passed()) {
                line.state = colour(fmt::format("ok      {} steps in {:.1f} s", result.steps.size(), time), true);
            } else {
                line.state = colour(
                    fmt::format("FAILED  {} of {} steps in {:.1f} s", result.failures(), result.steps.size(), time),
                    false);
            }
        });
    }

private:
    struct Line {
        std::string title;
        std::string state;
        Clock::time_point start;
    };

    template <typename Change>
    void change(int board, const Change &apply) {
        const std::lock_guard lock(mutex_);
        apply(lines_[board]);
        draw();
    }

    static std::string bar(const Line &line, uint64_t sent, uint64_t total) {
        const double rate = double(sent) / std::max(seconds(Clock::now() - line.start), 0.001);
        const uint64_t filled = total > 0 ? sent * kBarWidth / total : kBarWidth;
        return fmt::format("[{:#<{}}{: <{}}] {:3} %  {:.1f} MB/s  {:.0f} s left", "", filled, "", kBarWidth - filled,
                           total > 0 ? sent * 100 / total : 100, rate / 1e6, double(total - sent) / rate);
    }

    // The verdict at the start of the text, green or red.
    std::string colour(const std::string &text, bool passed) const {
        if (!coloured_) return text;
        const size_t end = text.find(' ');
        return fmt::format("\033[{}m{}\033[0m{}", passed ? "32" : "1;31", text.substr(0, end), text.substr(end));
    }

    void erase() {
        if (height_ > 0) fmt::print("\033[{}A\r\033[J", height_);
        height_ = 0;
    }

    void draw() {
        erase();
        const size_t width = terminalWidth();
        for (const auto &[board, line] : lines_) {
            std::string text = prefix(board, boards_) + line.state;
            // A line that wrapped could not be erased. Colours take no room, and stand only in short lines.
            if (text.size() > width && text.find('\033') == std::string::npos) text.resize(width);
            fmt::print("{}\n", text);
            ++height_;
        }
        std::fflush(stdout);
        drawn_ = Clock::now();
    }

    static size_t terminalWidth() {
        winsize size{};
        return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col - 1 : 79;
    }

    const int boards_;
    const bool coloured_;
    std::mutex mutex_;
    std::map<int, Line> lines_;
    int height_ = 0;  // lines drawn
    Clock::time_point drawn_;
};

}  // namespace

std::unique_ptr<Observer> makeDisplay(int boards) {
    if (isatty(STDOUT_FILENO) == 0) return std::make_unique<PlainDisplay>(boards);
    const char *const noColour = std::getenv("NO_COLOR");
    return std::make_unique<TerminalDisplay>(boards, noColour == nullptr || *noColour == '\0');
}

}  // namespace station
