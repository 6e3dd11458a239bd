#include "station/cli/printer.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "station/base/text.h"
#include "station/store/format.h"

namespace station {
namespace {

constexpr size_t kMeasured = 1000;  // rows that decide the widths of all

nlohmann::ordered_json jsonOf(const Table &head, const std::vector<Value> &row) {
    nlohmann::ordered_json json;
    for (size_t i = 0; i < row.size(); ++i) {
        json[head.columns[i]] = !row[i]            ? nlohmann::ordered_json()
                                : head.isNumber(i) ? nlohmann::ordered_json::parse(*row[i])
                                                   : nlohmann::ordered_json(*row[i]);
    }
    return json;
}

}  // namespace

void Printer::begin(const std::string &name) {
    if (several_ && format_ == "json") fmt::print("{}\"{}\": ", tables_ == 0 ? "{" : ",\n", name);
    if (several_ && format_ == "table") fmt::print("{}{}\n", tables_ == 0 ? "" : "\n", name);
    ++tables_;
    rows_ = 0;
    widths_.clear();
}

void Printer::row(const Table &head, const std::vector<Value> &row) {
    if (format_ == "json") fmt::print("{}{}", rows_ == 0 ? "[\n" : ",\n", jsonOf(head, row).dump());
    if (format_ == "csv") fmt::print("{}{}", rows_ == 0 ? csvStart(head) : "", csvLine(head, row));
    if (format_ == "table") waiting_.push_back(row);
    if (waiting_.size() == kMeasured) flush(head);
    ++rows_;
}

void Printer::end(const Table &head) {
    if (format_ == "json") fmt::print("{}{}", rows_ == 0 ? "[]" : "\n]", several_ ? "" : "\n");
    if (format_ == "csv" && rows_ == 0) fmt::print("{}", csvStart(head));
    if (format_ == "table" && rows_ == 0) fmt::print("none\n");
    if (format_ == "table" && rows_ > 0) flush(head);
}

void Printer::finish() const {
    if (format_ == "json" && several_) fmt::print("}}\n");
}

std::string Printer::csvStart(const Table &head) const { return (excel_ ? "\uFEFF" : "") + csvHead(head); }

void Printer::flush(const Table &head) {
    std::vector<std::vector<std::string>> lines;
    const bool isFirst = widths_.empty();  // these rows decide the widths of all
    if (isFirst) lines.push_back(head.columns);
    for (const auto &row : waiting_) {
        auto &line = lines.emplace_back();
        for (size_t i = 0; i < row.size(); ++i) line.push_back(cellText(row[i], head.isNumber(i)));
    }
    waiting_.clear();
    widths_.resize(head.columns.size());
    for (size_t i = 0; isFirst && i < widths_.size(); ++i) {
        for (const auto &line : lines) widths_[i] = std::max(widths_[i], charactersOf(line[i]));
    }
    for (const auto &line : lines) {
        std::string shown;
        for (size_t i = 0; i < line.size(); ++i) {
            const std::string blanks(widths_[i] - std::min(widths_[i], charactersOf(line[i])), ' ');
            shown += (i ? "  " : "") + (head.isNumber(i) ? blanks + line[i] : line[i] + blanks);
        }
        fmt::print("{}\n", shown.substr(0, shown.find_last_not_of(' ') + 1));
    }
}

}  // namespace station
