#include "station/store/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <set>
#include <string_view>

namespace station {
namespace {

std::string csvField(const std::string &text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char letter : text) quoted += letter == '"' ? "\"\"" : std::string(1, letter);
    return quoted + "\"";
}

std::string guarded(const std::string &text) {
    const bool formula = !text.empty() && std::string_view("=+-@\t\r").find(text[0]) != std::string_view::npos;
    return formula ? "'" + text : text;
}

// Returns how many decimals to show; -1: show seven significant digits.
int decimalsOf(double minimum, double maximum, double deviation) {
    const double limits =
        std::isfinite(minimum - maximum) ? maximum - minimum : std::abs(std::isfinite(minimum) ? minimum : maximum);
    const double spread = deviation > 0 ? deviation : limits;
    if (!(spread > 0) || !std::isfinite(spread)) return -1;
    return std::max((deviation > 0 ? 1 : 3) - int(std::floor(std::log10(spread))), 0);
}

}  // namespace

std::string measuredText(double value, double minimum, double maximum, double deviation) {
    constexpr int kMost = 15;
    if (value == std::round(value) && std::abs(value) < 1e15) return fmt::format("{:.0f}", value);
    int decimals = decimalsOf(minimum, maximum, deviation);
    if (decimals < 0) return fmt::format("{:.7g}", value);
    const auto shown = [&](double number) { return fmt::format("{:.{}f}", number, decimals); };
    for (const double limit : {minimum, maximum}) {
        while (value != limit && shown(value) == shown(limit) && decimals < kMost) ++decimals;
    }
    return decimals <= 9 ? shown(value) : fmt::format("{:.6g}", value);
}

bool isNumber(const std::string &column) {
    static const std::set<std::string> kNumbers = {"attempt",     "attempts",
                                                   "cpk",         "cumulative_percent",
                                                   "cut",         "deviation",
                                                   "failed",      "failures",
                                                   "final_yield", "first_pass_yield",
                                                   "given",       "highest",
                                                   "interrupted", "left",
                                                   "low",         "lowest",
                                                   "maximum",     "mean",
                                                   "measured",    "median_seconds",
                                                   "minimum",     "p90_seconds",
                                                   "percent",     "retests",
                                                   "retired",     "runs",
                                                   "seconds",     "started_after",
                                                   "step",        "units",
                                                   "value"};
    return kNumbers.contains(column);
}

std::string cellText(const Value &cell, bool isNumber) {
    if (!cell) return "-";
    char *end = nullptr;
    const double number = std::strtod(cell->c_str(), &end);
    if (isNumber && cell->find('.') != std::string::npos && *end == '\0') return fmt::format("{:.3f}", number);
    std::string shown = *cell;
    for (char &letter : shown) letter = uint8_t(letter) < ' ' || letter == '\x7F' ? ' ' : letter;
    return shown;
}

std::string csvLine(const Table &head) {
    std::string line;
    for (const std::string &name : head.columns) line += csvField(name) + ",";
    return line.substr(0, line.size() - 1) + '\n';
}

std::string csvLine(const Table &head, const std::vector<Value> &row) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
        const bool number = i < head.numbers.size() ? head.numbers[i] : isNumber(head.columns[i]);
        line += csvField(number ? row[i].value_or("") : guarded(row[i].value_or(""))) + ",";
    }
    return line.substr(0, line.size() - 1) + '\n';
}

std::string csvOf(const Table &table) {
    std::string text = csvLine(table);
    for (const auto &row : table.rows) text += csvLine(table, row);
    return text;
}

std::string csvOf(const std::vector<Section> &sections) {
    if (sections.size() == 1) return csvOf(sections.front().table);
    std::string text;
    for (const Section &section : sections) {
        text += fmt::format("{}# {}\n{}", text.empty() ? "" : "\n", section.name, csvOf(section.table));
    }
    return text;
}

}  // namespace station
