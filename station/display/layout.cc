#include "station/display/layout.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace station {
namespace {

constexpr size_t kLongestName = 16;  // characters of a place's name that are shown
constexpr size_t kNarrowestBar = 5, kWidestBar = 30;
constexpr size_t kTallVerdict = 3;  // lines, when there is room

constexpr std::array<const char *, 5> kCounted = {"waiting", "in work", "asking", "passed", "failed"};

// Characters are counted as UTF-8 has them; the bytes behind the first of each do not count.
bool begins(char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }

size_t columnsOf(const std::string &text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), begins));
}

// Where the character with this number begins.
size_t offsetOf(const std::string &text, size_t character) {
    size_t at = 0;
    for (size_t seen = 0; at < text.size(); ++at) {
        if (begins(text[at]) && seen++ == character) break;
    }
    return at;
}

std::string fill(const std::string &text, size_t columns) {
    const std::string cut = withoutMiddle(text, columns);
    return cut + std::string(columns - columnsOf(cut), ' ');
}

std::string timeText(double seconds) {
    const long whole = std::lround(seconds);
    return whole < 100 ? fmt::format("{} s", whole) : fmt::format("{}:{:02}", whole / 60, whole % 60);
}

// Bar, percent and the time left; where these are not known a mark that moves, and the time that has passed.
std::string bar(const Row &row, size_t width) {
    if (row.fraction < 0) {
        const auto at = static_cast<size_t>(row.elapsed * 5) % width;
        return fmt::format("[{:-<{}}#{:-<{}}]       {:>6}", "", at, "", width - at - 1,
                           fmt::format("+{}", timeText(row.elapsed)));
    }
    const auto filled = static_cast<size_t>(row.fraction * double(width));
    return fmt::format("[{:#<{}}{:-<{}}] {:3.0f} % {:>6}", "", filled, "", width - filled,
                       std::floor(row.fraction * 100), timeText(row.left));
}

std::string withUnit(const Row &row) { return row.unit.empty() ? row.text : row.unit + "  " + row.text; }

// Bar, percent and time left first: what is cut is the title.
std::string runningLine(const Row &row, size_t columns) {
    const std::string start =
        fmt::format("{} {:2}/{} ", bar(row, std::clamp(columns / 5, kNarrowestBar, kWidestBar)), row.step, row.steps);
    return start + withoutMiddle(withUnit(row), columns - std::min(columns, columnsOf(start)));
}

std::string verdictText(const Row &row) {
    return fmt::format(" {}  {:>6}  {}", row.stage == Stage::kPassed ? "PASS" : "FAIL", timeText(row.seconds),
                       withUnit(row));
}

// A block over the whole width, which is seen from afar: green or red, or else inverted.
std::string block(const std::string &text, Stage stage, const Screen &screen) {
    const char *const colour = stage == Stage::kPassed ? "30;42" : stage == Stage::kFailed ? "97;41" : "30;43";
    return fmt::format("\033[{}m{}\033[0m", screen.coloured ? colour : "7", fill(text, screen.columns));
}

class Layout {
public:
    Layout(const std::vector<Row> &rows, const Screen &screen) : rows_(rows), screen_(screen) {
        for (const Row &row : rows) name_ = std::max(name_, columnsOf(row.place));
        name_ = std::min({name_, kLongestName, screen.columns / 4});
    }

    // How many lines the rows take, each verdict so many.
    size_t height(size_t verdict) const {
        size_t lines = 0;
        for (const Row &row : rows_) {
            lines += row.stage >= Stage::kPassed ? verdict : 1;
            lines += row.hint.empty() ? 0 : 1;
        }
        return lines;
    }

    std::vector<std::string> all(size_t verdict) {
        for (const Row &row : rows_) {
            const std::string empty = block("", row.stage, screen_);
            const bool tall = row.stage >= Stage::kPassed && verdict > 1;
            if (tall) lines_.push_back(empty);
            add(row);
            if (tall) lines_.push_back(empty);
            if (!row.hint.empty()) lines_.push_back(withoutMiddle(fmt::format("  -> {}", row.hint), screen_.columns));
        }
        return std::move(lines_);
    }

    // Counts; then what failed, what asks, and of what runs the slowest.
    std::vector<std::string> summary(size_t room) {
        std::array<size_t, kCounted.size()> counts{};
        std::vector<const Row *> shown;
        for (const Row &row : rows_) {
            ++counts[static_cast<size_t>(row.stage)];
            if (row.stage != Stage::kWaiting && row.stage != Stage::kPassed) shown.push_back(&row);
        }
        std::stable_sort(shown.begin(), shown.end(), [](const Row *a, const Row *b) { return rank(*a) > rank(*b); });
        std::string head = fmt::format("{} places:", rows_.size());
        for (size_t i = 0; i < counts.size(); ++i) head += fmt::format("  {} {}", counts[i], kCounted[i]);
        lines_.push_back(withoutMiddle(head, screen_.columns));
        for (const Row *const row : shown) {
            if (lines_.size() < room) add(*row);
        }
        return std::move(lines_);
    }

private:
    static double rank(const Row &row) { return row.stage == Stage::kRunning ? row.seconds : 1e9 * double(row.stage); }

    void add(const Row &row) {
        const std::string name = fill(row.place, name_) + " ";
        const size_t left = screen_.columns - name_ - 1;
        switch (row.stage) {
        case Stage::kWaiting:
            return lines_.push_back(name + (row.text.empty() ? "waiting" : row.text));
        case Stage::kRunning:
            return lines_.push_back(name + runningLine(row, left));
        case Stage::kAsking:
            return lines_.push_back(block(name + "? " + row.text, row.stage, screen_));
        case Stage::kPassed:
        case Stage::kFailed:
            return lines_.push_back(block(name + verdictText(row), row.stage, screen_));
        }
    }

    const std::vector<Row> &rows_;
    const Screen &screen_;
    size_t name_ = 0;  // characters of the longest
    std::vector<std::string> lines_;
};

}  // namespace

std::string withoutMiddle(const std::string &text, size_t columns) {
    constexpr char kGap[] = "..";
    const size_t length = columnsOf(text);
    if (length <= columns) return text;
    if (columns < 8) return text.substr(0, offsetOf(text, columns));
    const size_t tail = (columns - 2) / 2, head = columns - 2 - tail;
    return text.substr(0, offsetOf(text, head)) + kGap + text.substr(offsetOf(text, length - tail));
}

std::vector<std::string> layOut(const std::vector<Row> &rows, const Screen &screen,
                                const std::vector<std::string> &foot) {
    Layout layout(rows, screen);
    const size_t room = screen.rows - std::min(screen.rows - 1, foot.size());
    const bool fits = layout.height(1) <= room;
    std::vector<std::string> lines =
        fits ? layout.all(layout.height(kTallVerdict) <= room ? kTallVerdict : 1) : layout.summary(room);
    for (const std::string &line : foot) lines.push_back(withoutMiddle(line, screen.columns));
    return lines;
}

}  // namespace station
