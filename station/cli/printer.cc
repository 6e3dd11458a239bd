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

size_t Printer::print(const std::string &name, const std::function<Table(const Database::EachRow &)> &each) {
    const bool json = format_ == "json", csv = format_ == "csv", table = format_ == "table";
    if (several_ && json) fmt::print("{}\"{}\": ", tables_ == 0 ? "{" : ",\n", name);
    if (several_ && table) fmt::print("{}{}\n", tables_ == 0 ? "" : "\n", name);
    ++tables_;
    widths_.clear();
    const std::string mark = excel_ ? "\uFEFF" : "";
    size_t rows = 0;
    const Table head = each([&](const Table &all, const std::vector<Value> &row) {
        if (json) fmt::print("{}{}", rows == 0 ? "[\n" : ",\n", jsonOf(all, row).dump());
        if (csv) fmt::print("{}{}", rows == 0 ? mark + csvHead(all) : "", csvLine(all, row));
        if (table) waiting_.push_back(row);
        if (waiting_.size() == kMeasured) flush(all);
        ++rows;
    });
    if (json) fmt::print("{}{}", rows == 0 ? "[]" : "\n]", several_ ? "" : "\n");
    if (csv && rows == 0) fmt::print("{}{}", mark, csvHead(head));
    if (table && rows == 0) fmt::print("none\n");
    if (table && rows > 0) flush(head);
    return rows;
}

void Printer::finish() const {
    if (format_ == "json" && several_) fmt::print("}}\n");
}

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
