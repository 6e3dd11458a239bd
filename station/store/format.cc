#include "station/store/format.h"

#include <fmt/format.h>

#include <cstdlib>
#include <set>

namespace station {
namespace {

std::string csvField(const std::string &text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char letter : text) quoted += letter == '"' ? "\"\"" : std::string(1, letter);
    return quoted + "\"";
}

std::string csvLine(const auto &cells, auto textOfCell) {
    std::string line;
    for (const auto &cell : cells) line += csvField(textOfCell(cell)) + ",";
    line.back() = '\n';
    return line;
}

}  // namespace

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

std::string cellText(const Value &cell) {
    if (!cell) return "-";
    char *end = nullptr;
    const double number = std::strtod(cell->c_str(), &end);
    if (cell->find('.') != std::string::npos && *end == '\0') return fmt::format("{:.3f}", number);
    std::string shown = *cell;
    for (char &letter : shown) letter = uint8_t(letter) < ' ' || letter == '\x7F' ? ' ' : letter;
    return shown;
}

std::string csvOf(const Table &table) {
    std::string text = csvLine(table.columns, [](const std::string &name) { return name; });
    for (const auto &row : table.rows) text += csvLine(row, [](const Value &cell) { return cell.value_or(""); });
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
