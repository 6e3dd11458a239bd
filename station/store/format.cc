#include "station/store/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string_view>

#include "station/base/text.h"

namespace station {
namespace {

std::string csvField(const std::string &text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    return '"' + replaced(text, '"', "\"\"") + '"';
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

std::string cellText(const Value &cell, bool number) {
    if (!cell) return "-";
    char *end = nullptr;
    const double value = std::strtod(cell->c_str(), &end);
    if (number && cell->find('.') != std::string::npos && *end == '\0') return fmt::format("{:.3f}", value);
    std::string shown = *cell;
    for (char &letter : shown) letter = uint8_t(letter) < ' ' || letter == '\x7F' ? ' ' : letter;
    return shown;
}

std::string csvHead(const Table &table) {
    return csvLine({}, std::vector<Value>(table.columns.begin(), table.columns.end()));
}

std::string csvLine(const Table &head, const std::vector<Value> &row) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
        const std::string cell = row[i].value_or("");
        line += csvField(head.isNumber(i) ? cell : guarded(cell)) + ",";
    }
    return line.substr(0, line.size() - 1) + '\n';
}

std::string csvOf(const Table &table) {
    std::string text = csvHead(table);
    for (const auto &row : table.rows) text += csvLine(table, row);
    return text;
}

}  // namespace station
