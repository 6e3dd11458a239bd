#include "station/page/html.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "station/page/local_time.h"
#include "station/store/format.h"

namespace station {
namespace {

constexpr const char *kPage = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>{0}</title>
<link rel="stylesheet" href="/engineer.css">
</head>
<body>
<header>
<nav><a href="/">Line</a> <a href="/summary">Summary</a> <a href="/runs">Runs</a> <a href="/units">Units</a></nav>
<form action="/units" role="search"><label>Serial, address or run <input name="q" type="search" required autofocus></label>
<button>Find</button></form>
</header>
<main>
<h1>{0}</h1>
{1}
</main>
<footer>Times are the station's: {2}. Files (CSV) have them in UTC.</footer>
</body>
</html>
)";

// What a column is called, where its name would not say it.
const std::map<std::string, std::string> kHeadings = {{"cpk", "Cpk"},
                                                      {"cumulative_percent", "together %"},
                                                      {"final_yield", "final yield %"},
                                                      {"first_pass_yield", "first pass yield %"},
                                                      {"median_seconds", "median s"},
                                                      {"p90_seconds", "90th percentile s"},
                                                      {"percent", "%"},
                                                      {"seconds", "took s"},
                                                      {"started_after", "after s"}};

// A look that needs the cell alone.
Look ofCell(Html (*look)(const std::string &)) {
    return [look](const std::string &cell, const auto &) { return look(cell); };
}

Html timeMark(const std::string &utc) { return html("<time datetime=\"{}\">{}</time>", utc, localTime(timeOf(utc))); }

Html hourMark(const std::string &hour) { return {localTime(timeOf(hour), "%Y-%m-%d %H:%M")}; }

Html percent(const std::string &number) { return {fmt::format("{:.1f}", std::strtod(number.c_str(), nullptr))}; }

// A run's name begins with its start, which stands beside it.
Html runLink(const std::string &name) {
    return html("<a class=\"name\" href=\"{}\" title=\"{}\">{}</a>", urlOf("/run", {{"run", name}}), name,
                name.substr(name.rfind('-') + 1));
}

Html unitLink(const std::string &serial) {
    return html("<a class=\"name\" href=\"{}\">{}</a>", urlOf("/unit", {{"serial", serial}}), serial);
}

const std::map<std::string, Look> &looks() {
    static const std::map<std::string, Look> kLooks = {{"run", ofCell(runLink)},
                                                       {"serial", ofCell(unitLink)},
                                                       {"verdict", ofCell(verdictMark)},
                                                       {"hour", ofCell(hourMark)},
                                                       {"started", ofCell(timeMark)},
                                                       {"until", ofCell(timeMark)},
                                                       {"ended", ofCell(timeMark)},
                                                       {"bound", ofCell(timeMark)},
                                                       {"first_seen", ofCell(timeMark)},
                                                       {"last_seen", ofCell(timeMark)},
                                                       {"percent", ofCell(percent)},
                                                       {"cumulative_percent", ofCell(percent)},
                                                       {"first_pass_yield", ofCell(percent)},
                                                       {"final_yield", ofCell(percent)}};
    return kLooks;
}

std::string heading(std::string column) {
    const auto known = kHeadings.find(column);
    if (known != kHeadings.end()) return known->second;
    std::replace(column.begin(), column.end(), '_', ' ');
    return column;
}

Html plain(const std::string &text) { return html("{}", text); }

Html number(const std::string &text) { return plain(cellText(text)); }

Look lookOf(const std::string &column, const std::map<std::string, Look> &columns) {
    if (const auto own = columns.find(column); own != columns.end()) return own->second;
    if (const auto known = looks().find(column); known != looks().end()) return known->second;
    return ofCell(isNumber(column) ? number : plain);
}

Html rowOf(const std::vector<Value> &row, const std::vector<Look> &cells, const std::vector<bool> &numbers) {
    Html line;
    for (size_t i = 0; i < row.size(); ++i) {
        line += html("<td{}>{}</td>", Html{numbers[i] ? " class=\"number\"" : ""},
                     row[i] ? cells[i](*row[i], row) : Html{});
    }
    return html("<tr>{}</tr>\n", line);
}

std::string percentEncoded(const std::string &text) {
    std::string encoded;
    for (const char letter : text) {
        const bool safe = std::isalnum(uint8_t(letter)) || (letter != '\0' && std::strchr("-._~:", letter));
        encoded += safe ? std::string(1, letter) : fmt::format("%{:02X}", uint8_t(letter));
    }
    return encoded;
}

}  // namespace

std::string escape(const std::string &text) {
    static const std::map<char, const char *> kEntities = {
        {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&#39;"}};
    std::string escaped;
    for (const char letter : text) {
        const auto entity = kEntities.find(letter);
        if (entity != kEntities.end()) {
            escaped += entity->second;
        } else if (letter == '\x7F' || (uint8_t(letter) < ' ' && letter != '\n' && letter != '\t')) {
            escaped += fmt::format("\\x{:02X}", uint8_t(letter));
        } else {
            escaped += letter;
        }
    }
    return escaped;
}

std::string urlOf(const std::string &path, const Parameters &parameters) {
    std::string url = path;
    for (const auto &[name, value] : parameters) {
        if (value.empty()) continue;
        url += fmt::format("{}{}={}", url.size() == path.size() ? '?' : '&', name, percentEncoded(value));
    }
    return url;
}

Html linkTo(const std::string &path, const Parameters &parameters, const std::string &text) {
    return html("<a href=\"{}\">{}</a>", urlOf(path, parameters), text);
}

Html verdictMark(const std::string &verdict) {
    static const std::map<std::string, std::string> kShapes = {{"passed", "\u2714"},
                                                               {"failed", "\u2716"},
                                                               {"interrupted", "\u25FC"},
                                                               {"running", "\u25B6"},
                                                               {"not run", "\u2013"}};
    const auto shape = kShapes.find(verdict);
    if (shape == kShapes.end()) return plain(verdict);
    const std::string name = verdict == "not run" ? "not-run" : verdict;
    return html("<span class=\"verdict {}\"><b aria-hidden=\"true\">{}</b> {}</span>", name, shape->second, verdict);
}

std::string wholePage(const std::string &title, const Html &content) {
    return fmt::format(fmt::runtime(kPage), escape(title), content.text, escape(zone()));
}

Html asText(const std::string &cell, const std::vector<Value> &) { return plain(cell); }

Table without(Table table, const std::string &column) {
    const auto found = std::find(table.columns.begin(), table.columns.end(), column);
    if (found == table.columns.end()) return table;
    const auto index = found - table.columns.begin();
    table.columns.erase(found);
    for (auto &row : table.rows) row.erase(row.begin() + index);
    return table;
}

Html tableOf(const Table &table, const std::map<std::string, Look> &columns) {
    if (table.empty()) return html("<p class=\"none\">None.</p>\n");
    Html head, body;
    std::vector<Look> cells;
    std::vector<bool> numbers;
    for (const std::string &column : table.columns) {
        cells.push_back(lookOf(column, columns));
        numbers.push_back(isNumber(column) && !columns.contains(column));
        head += html("<th{}>{}</th>", Html{numbers.back() ? " class=\"number\"" : ""}, heading(column));
    }
    for (const auto &row : table.rows) body += rowOf(row, cells, numbers);
    return html("<div class=\"wide\"><table>\n<thead><tr>{}</tr></thead>\n<tbody>\n{}</tbody>\n</table></div>\n", head,
                body);
}

Html factsOf(const Table &table) {
    Html facts;
    for (size_t i = 0; i < table.columns.size() && !table.empty(); ++i) {
        const Value &cell = table.rows[0][i];
        if (!cell) continue;
        facts += html("<div><dt>{}</dt><dd>{}</dd></div>\n", heading(table.columns[i]),
                      lookOf(table.columns[i], {})(*cell, table.rows[0]));
    }
    return html("<dl class=\"facts\">\n{}</dl>\n", facts);
}

}  // namespace station
