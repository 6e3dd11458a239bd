#include "station/page/chart.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <utility>

#include "station/page/local_time.h"

namespace station {
namespace {

// All in the units of the picture, of which the page makes as many pixels or more.
constexpr double kWidth = 1000, kLeft = 70, kRight = 20, kTop = 28, kBottom = 32, kFloor = kTop + 340;

// From values to places in the picture.
struct Scale {
    double low, high;  // values
    double from, to;   // places

    double at(double value) const { return from + (value - low) / (high - low) * (to - from); }
};

// The named columns of a table.
class Column {
public:
    Column(const Table &table, const std::string &name)
        : table_(table),
          index_(size_t(std::find(table.columns.begin(), table.columns.end(), name) - table.columns.begin())) {}

    bool exists() const { return index_ < table_.columns.size(); }
    std::optional<double> number(size_t row) const {
        const Value &cell = exists() ? table_.rows[row][index_] : kNone;
        return cell ? std::optional(std::strtod(cell->c_str(), nullptr)) : std::nullopt;
    }
    std::string text(size_t row) const { return exists() ? table_.rows[row][index_].value_or("") : ""; }
    double time(size_t row) const { return double(timeOf(text(row))); }

private:
    static inline const Value kNone;
    const Table &table_;
    size_t index_;
};

Html line(const char *style, double x1, double y1, double x2, double y2) {
    return html("<line class=\"{}\" x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\"/>\n", style, x1, y1, x2,
                y2);
}

Html label(const char *style, double x, double y, const std::string &text) {
    return html("<text class=\"{}\" x=\"{:.1f}\" y=\"{:.1f}\">{}</text>\n", style, x, y, text);
}

Html bar(const char *style, double x, double y, double width, double height) {
    return html("<rect class=\"{}\" x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\"/>\n", style, x, y,
                width, height);
}

Html dot(double x, double y) { return html("<circle class=\"dot\" cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"3\"/>\n", x, y); }

Html cross(double x, double y) {
    return html("<path class=\"cross\" d=\"M{:.1f} {:.1f}l10 10m0 -10l-10 10\"/>\n", x - 5, y - 5);
}

// A line through points, interrupted where there is none; a point alone is a dot.
class Path {
public:
    void to(double x, double y) {
        way_ += fmt::format("{}{:.1f} {:.1f}{}", open_ ? "L" : "M", x, y, open_ ? "" : "h0");
        open_ = true;
    }
    void lift() { open_ = false; }
    Html drawn(const char *style) const {
        return way_.empty() ? Html{} : html("<path class=\"{}\" d=\"{}\"/>\n", style, way_);
    }

private:
    std::string way_;
    bool open_ = false;
};

Html picture(double height, const std::string &title, const Html &content) {
    return html("<svg class=\"chart\" viewBox=\"0 0 {} {}\" role=\"group\" aria-label=\"{}\">\n{}</svg>\n", kWidth,
                height, title, content);
}

// One, two or five of a power of ten, so that some `count` of them fit in.
double niceStep(double range, double count) {
    const double power = std::pow(10, std::floor(std::log10(range / count)));
    for (const double step : {1, 2, 5}) {
        if (range / (step * power) <= count) return step * power;
    }
    return 10 * power;
}

std::string tickText(double value, double step) {
    if (std::abs(value) >= 1e7) return fmt::format("{:.5g}", value);
    const int digits = std::clamp(int(std::ceil(-std::log10(step) - 1e-9)), 0, 9);
    return fmt::format("{:.{}f}", std::abs(value) < step / 2 ? 0 : value, digits);
}

// Over the width of the picture, with some `count` lines.
Html valueAxis(const Scale &scale, int count) {
    Html axis;
    const double step = niceStep(scale.high - scale.low, count), first = std::ceil(scale.low / step - 1e-9);
    for (int i = 0; i <= count; ++i) {  // counted, as numbers that are large enough do not grow by a step
        const double value = (first + i) * step;
        if (value > scale.high + step * 1e-9) break;
        axis += line("grid", kLeft, scale.at(value), kWidth - kRight, scale.at(value));
        axis += label("end", kLeft - 8, scale.at(value) + 4, tickText(value, step));
    }
    return axis;
}

constexpr int kTicks = 10;  // at most, on the axis of time
// In seconds.
constexpr double kMinute = 60, kHour = 3600, kDay = 86400;

double timeStep(double range) {
    for (const double step : {kMinute, 5 * kMinute, 15 * kMinute, kHour, 3 * kHour, 6 * kHour, 12 * kHour, kDay,
                              2 * kDay, 7 * kDay, 14 * kDay, 28 * kDay, 91 * kDay}) {
        if (range / step <= kTicks) return step;
    }
    return 365 * kDay;
}

// Full hours and days are those of the station's clock.
Html timeAxis(const Scale &scale, double top, double bottom) {
    Html axis;
    const double step = timeStep(scale.high - scale.low), ahead = double(aheadOfUtc(std::time_t(scale.low)));
    const double first = std::ceil((scale.low + ahead) / step) * step - ahead;
    for (int i = 0; i <= kTicks && first + i * step <= scale.high; ++i) {
        const auto time = std::time_t(first + i * step);
        const double x = scale.at(double(time));
        const bool day = step >= kDay || localTime(time, "%H:%M") == "00:00";
        axis += line("grid", x, top, x, bottom);
        axis += label("middle", x, bottom + 18, localTime(time, day ? "%m-%d" : "%H:%M"));
    }
    axis += line("axis", scale.from, bottom, scale.to, bottom);
    return axis;
}

std::string cutText(const std::string &text, size_t most) {
    size_t end = 0;
    for (size_t letters = 0; end < text.size() && letters < most; ++letters) {
        do ++end;
        while (end < text.size() && (text[end] & 0xC0) == 0x80);
    }
    return end == text.size() ? text : text.substr(0, end) + "\u2026";
}

// ---- failures by step

constexpr double kRow = 30, kNames = 330, kCounts = 90;  // height of a row, widths left and right of the bars

Html shareAxis(const Scale &share, double bottom) {
    Html axis;
    for (int percent = 0; percent <= 100; percent += 20) {
        axis += line("grid", share.at(percent), kTop, share.at(percent), bottom);
        axis += label("middle", share.at(percent), bottom + 18, fmt::format("{} %", percent));
    }
    return axis;
}

Html stepLabel(const std::string &step, const std::string &url, double y) {
    return html("<a href=\"{}\"><title>{}: its failed runs</title>{}</a>\n", url, step,
                label("end", kNames - 10, y, cutText(step, 44)));
}

// ---- by the hour

struct Panel {
    double top, bottom;
};
constexpr Panel kYields{kTop, kTop + 180}, kRuns{kTop + 220, kTop + 360};

Html runBars(const Table &hours, const Scale &time, double width) {
    const Column starts(hours, "hour"), runs(hours, "runs");
    double most = 1;
    for (size_t i = 0; i < hours.rows.size(); ++i) most = std::max(most, runs.number(i).value_or(0));
    const Scale count{0, most, kRuns.bottom, kRuns.top};
    Html drawn = valueAxis(count, int(std::min(most, 4.0)));
    const double inset = std::min(width * 0.1, 3.0);
    for (size_t i = 0; i < hours.rows.size(); ++i) {
        const double top = count.at(runs.number(i).value_or(0));
        drawn += bar("bar", time.at(starts.time(i)) + inset, top, width - 2 * inset, kRuns.bottom - top);
    }
    return drawn;
}

// A point in the middle of its hour; the line ends where an hour has none.
constexpr size_t kDots = 200;  // more would be one upon the other
Html yieldLine(const Table &hours, const Scale &time, double width) {
    const Column starts(hours, "hour"), yields(hours, "first_pass_yield");
    const Scale percent{0, 100, kYields.bottom, kYields.top};
    Path path;
    Html dots;
    double last = 0;
    for (size_t i = 0; i < hours.rows.size(); ++i) {
        const auto yield = yields.number(i);
        if (!yield) continue;
        if (starts.time(i) - std::exchange(last, starts.time(i)) > kHour) path.lift();
        const double x = time.at(starts.time(i)) + width / 2;
        path.to(x, percent.at(*yield));
        if (hours.rows.size() <= kDots) dots += dot(x, percent.at(*yield));
    }
    Html drawn = valueAxis(percent, 5);
    drawn += path.drawn("sum");
    drawn += dots;
    return drawn;
}

// ---- a value over time

// What readings() and readingGroups() call the same.
struct Readings {
    explicit Readings(const Table &table)
        : rows(table.rows.size()),
          grouped(Column(table, "lowest").exists()),
          starts(table, "started"),
          lowest(table, grouped ? "lowest" : "value"),
          mean(table, grouped ? "mean" : "value"),
          highest(table, grouped ? "highest" : "value"),
          minimum(table, "minimum"),
          maximum(table, "maximum"),
          failed(table, grouped ? "failed" : "verdict"),
          unit(table, "unit"),
          run(table, "run") {}

    bool fails(size_t row) const { return grouped ? failed.number(row) > 0 : failed.text(row) == "failed"; }

    size_t rows;
    bool grouped;
    Column starts, lowest, mean, highest, minimum, maximum, failed, unit, run;
};

Scale rangeOf(const Readings &all) {
    double low = INFINITY, high = -INFINITY;
    for (size_t i = 0; i < all.rows; ++i) {
        for (const Column *const column : {&all.lowest, &all.highest, &all.minimum, &all.maximum}) {
            const auto number = column->number(i);
            if (number) low = std::min(low, *number), high = std::max(high, *number);
        }
    }
    const double room = high > low ? (high - low) * 0.08 : std::max(std::abs(high) * 0.1, 0.5);
    return low > high ? Scale{0, 1, kFloor, kTop} : Scale{low - room, high + room, kFloor, kTop};
}

// A limit holds from the first reading that was held to it.
Html limitLine(const Readings &all, const Column &limits, const std::string &name, const Scale &time,
               const Scale &value) {
    Path path;
    std::optional<double> now;
    for (size_t i = 0; i < all.rows; ++i) {
        const auto next = limits.number(i);
        if (next == now) continue;
        const double x = i == 0 ? kLeft : time.at(all.starts.time(i));
        if (now) path.to(x, value.at(*now));
        if (!next) path.lift();
        if (next) path.to(x, value.at(*next));
        now = next;
    }
    if (!now) return path.drawn("limit");
    path.to(kWidth - kRight, value.at(*now));
    Html drawn = path.drawn("limit");
    drawn += label("end", kWidth - kRight, value.at(*now) - 6, fmt::format("{} {:g}", name, *now));
    return drawn;
}

// What is beyond its limits, a link to its run where it is of one alone.
Html failureMark(const Readings &all, size_t row, double x, const Scale &value) {
    const double low = *all.lowest.number(row), high = *all.highest.number(row);
    const auto minimum = all.minimum.number(row), maximum = all.maximum.number(row);
    const bool isLow = minimum && low < *minimum, isHigh = maximum && high > *maximum;
    Html drawn;
    if (isLow) drawn += cross(x, value.at(low));
    if (!isLow || (isHigh && all.grouped)) drawn += cross(x, value.at(high));
    if (all.grouped) return drawn;
    return html("<a href=\"{}\"><title>{}: its run</title>{}</a>\n", urlOf("/run", {{"run", all.run.text(row)}}), low,
                drawn);
}

Html mark(const Readings &all, size_t row, double x, const Scale &value) {
    const double low = value.at(*all.lowest.number(row)), high = value.at(*all.highest.number(row));
    Html drawn;
    if (all.grouped) drawn += line("range", x, low, x, high);
    if (!all.grouped && !all.fails(row)) drawn += dot(x, low);
    if (all.fails(row)) drawn += failureMark(all, row, x, value);
    return drawn;
}

Html marks(const Readings &all, const Scale &time, const Scale &value) {
    Html drawn;
    Path means;
    for (size_t i = 0; i < all.rows; ++i) {
        if (!all.mean.number(i)) continue;
        const double x = time.at(all.starts.time(i));
        drawn += mark(all, i, x, value);
        means.to(x, value.at(*all.mean.number(i)));
    }
    if (all.grouped) drawn += means.drawn("sum");
    return drawn;
}

}  // namespace

Html paretoChart(const Table &failures, const std::function<std::string(const std::string &step)> &link) {
    constexpr size_t kBars = 20;
    const Column steps(failures, "step"), counts(failures, "failures"), shares(failures, "percent"),
        sums(failures, "cumulative_percent");
    const size_t rows = std::min(failures.rows.size(), kBars);
    const double bottom = kTop + kRow * double(rows);
    const Scale share{0, 100, kNames, kWidth - kCounts};
    Html drawn = shareAxis(share, bottom), dots;
    Path sum;
    for (size_t i = 0; i < rows; ++i) {
        const double top = kTop + kRow * double(i), middle = top + kRow / 2, percent = shares.number(i).value_or(0);
        const double together = share.at(sums.number(i).value_or(0));
        drawn += stepLabel(steps.text(i), link(steps.text(i)), middle + 4);
        drawn += bar("bar", kNames, top + 5, share.at(percent) - kNames, kRow - 10);
        drawn +=
            label("start", kWidth - kCounts + 12, middle + 4, fmt::format("{} ({:.0f} %)", counts.text(i), percent));
        sum.to(together, middle);
        dots += dot(together, middle);
    }
    drawn += sum.drawn("sum");
    drawn += dots;
    return picture(bottom + kBottom, "Failures by step, the most frequent first", drawn);
}

Html yieldChart(const Table &hours) {
    const Column starts(hours, "hour");
    const double first = starts.time(0), last = starts.time(hours.rows.size() - 1);
    const Scale time{first, std::max(last, first + 5 * kHour) + kHour, kLeft, kWidth - kRight};
    const double width = time.at(kHour) - time.at(0);
    Html drawn = timeAxis(time, kTop, kRuns.bottom);
    drawn += label("start", kLeft, kYields.top - 10, "first pass yield, %");
    drawn += label("start", kLeft, kRuns.top - 10, "runs an hour");
    drawn += runBars(hours, time, width);
    drawn += yieldLine(hours, time, width);
    return picture(kRuns.bottom + kBottom, "First pass yield and runs by the hour", drawn);
}

Html valueChart(const Table &readings, const std::string &name) {
    const Readings all(readings);
    const Scale value = rangeOf(all);
    const double first = all.starts.time(0), last = all.starts.time(all.rows - 1);
    const Scale time{first, std::max(last, first + kMinute), kLeft + 10, kWidth - kRight - 10};
    const std::string unit = all.unit.text(0);
    Html drawn = valueAxis(value, 7);
    drawn += timeAxis(time, kTop, kFloor);
    drawn += label("start", kLeft, kTop - 10, unit.empty() ? name : name + ", " + unit);
    drawn += limitLine(all, all.minimum, "min", time, value);
    drawn += limitLine(all, all.maximum, "max", time, value);
    drawn += marks(all, time, value);
    return picture(kFloor + kBottom, name + " over time", drawn);
}

}  // namespace station
