#include "station/page/view.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <kainjow/mustache.hpp>
#include <set>

#include "station/page/local_time.h"
#include "station/page/static_files.h"
#include "station/store/format.h"

namespace station {
namespace {

using Data = kainjow::mustache::data;

// ---- cells

// What a column is called, where its name would not say it.
const std::map<std::string, std::string> kHeadings = {{"cpk", "Cpk"},
                                                      {"cumulative_percent", "together %"},
                                                      {"final_yield", "final yield %"},
                                                      {"first_pass_yield", "first pass yield %"},
                                                      {"median_seconds", "median s"},
                                                      {"p90_seconds", "90th percentile s"},
                                                      {"percent", "%"},
                                                      {"seconds", "took s"},
                                                      {"started_after", "after s"},
                                                      {"what", ""}};

std::string headingOf(std::string column) {
    const auto known = kHeadings.find(column);
    if (known != kHeadings.end()) return known->second;
    std::replace(column.begin(), column.end(), '_', ' ');
    return column;
}

std::string timeText(const Json &cell, const Json &) { return localTime(timeOf(cell.get<std::string>())); }
std::string hourText(const Json &cell, const Json &) {
    return localTime(timeOf(cell.get<std::string>()), "%Y-%m-%d %H:%M");
}
// What is not quite all is never shown as 100.
std::string percentText(const Json &cell, const Json &) {
    const double percent = cell.get<double>();
    return fmt::format("{:.1f}", percent < 100 ? std::min(percent, 99.9) : percent);
}
std::string secondsText(const Json &cell, const Json &) { return fmt::format("{:.1f}", cell.get<double>()); }
std::string cpkText(const Json &cell, const Json &) { return fmt::format("{:.2f}", cell.get<double>()); }
double numberIn(const Json &row, const char *column) {
    const auto found = row.find(column);
    return found != row.end() && found->is_number() ? found->get<double>() : NAN;
}
std::string valueText(const Json &cell, const Json &row) {
    return measuredText(cell.get<double>(), numberIn(row, "minimum"), numberIn(row, "maximum"),
                        numberIn(row, "deviation"));
}
// The last part of a run's name: it begins with its start, which stands beside it.
std::string runText(const Json &cell, const Json &) {
    const auto name = cell.get<std::string>();
    return name.substr(name.rfind('-') + 1);
}

using Text = std::string (*)(const Json &cell, const Json &row);
const std::map<std::string, Text> kTexts = {{"bound", timeText},
                                            {"cpk", cpkText},
                                            {"cumulative_percent", percentText},
                                            {"deviation", valueText},
                                            {"ended", timeText},
                                            {"final_yield", percentText},
                                            {"first_pass_yield", percentText},
                                            {"first_seen", timeText},
                                            {"highest", valueText},
                                            {"hour", hourText},
                                            {"last_seen", timeText},
                                            {"lowest", valueText},
                                            {"mean", valueText},
                                            {"median_seconds", secondsText},
                                            {"p90_seconds", secondsText},
                                            {"percent", percentText},
                                            {"run", runText},
                                            {"seconds", secondsText},
                                            {"since", timeText},
                                            {"started", timeText},
                                            {"started_after", secondsText},
                                            {"until", timeText},
                                            {"value", valueText}};

std::string plainText(const Json &cell) {
    if (cell.is_string()) return cell.get<std::string>();
    return cell.is_number_float() ? fmt::format("{:.9g}", cell.get<double>()) : cell.dump();
}

// `column` says what the cell means.
std::string textOf(const std::string &column, const Json &cell, const Json &row) {
    if (cell.is_null()) return "";
    const auto known = kTexts.find(column);
    const bool fits = known != kTexts.end() && (known->second != valueText || cell.is_number());
    return fits ? known->second(cell, row) : plainText(cell);
}

// Where a cell leads: to `path`, with parameters that are cells of its row.
struct Link {
    std::string_view table, column, path;  // `table` is empty: any
    std::vector<std::pair<std::string, std::string>> parameters;
};
const std::vector<Link> kLinks = {{"", "run", "/run", {{"run", "run"}}},
                                  {"", "serial", "/unit", {{"serial", "serial"}}},
                                  {"failures", "step", "/runs", {{"step", "step"}, {"plan", "plan"}}},
                                  {"values", "name", "/value", {{"name", "name"}, {"plan", "plan"}}}};

std::string linkOf(const std::string &table, const std::string &column, const Json &row, const Query &query) {
    const auto fits = [&](const Link &link) {
        return link.column == column && (link.table.empty() || link.table == table);
    };
    const auto link = std::find_if(kLinks.begin(), kLinks.end(), fits);
    if (link == kLinks.end()) return "";
    Parameters parameters;
    for (const auto &[name, source] : link->parameters) {
        if (row.contains(source) && row[source].is_string()) parameters[name] = row[source];
    }
    return query.link(std::string(link->path), parameters);
}

bool hasNumbers(const Json &table, const std::string &column) {
    const Json &rows = table["rows"];
    return std::any_of(rows.begin(), rows.end(), [&](const Json &row) { return row[column].is_number(); });
}

// In the table of attempts a row has what a column has elsewhere.
Data cellOf(const std::string &table, const std::string &column, const Json &row, const Query &query) {
    const Json &value = row.at(column);
    const bool turned = table == "attempts" && column != "what";
    const std::string meaning = turned ? row["what"].get<std::string>() : column;
    const std::string text = textOf(meaning, value, row), href = linkOf(table, column, row, query);
    Data cell;
    cell.set("heading", headingOf(column));
    if (!text.empty()) cell.set("text", text);
    if (value.is_number()) cell.set("class", "number");
    if (meaning == "verdict") cell.set("mark", text == "not run" ? "not-run" : text);
    if (!href.empty()) cell.set("href", href);
    if (column == "run") cell.set("tip", value.get<std::string>());
    return cell;
}

// ---- tables

// The heading of a column sorts by it, and the other way round when it does so already. In the table of attempts it is
// a run.
Data headOf(const std::string &table, const std::string &column, const Query &query) {
    Data head;
    if (table == "attempts" && column != "what") {
        head.set("heading", runText(column, {}));
        head.set(column == query["run"] ? "here" : "run", query.link("/run", {{"run", column}}));
        return head;
    }
    const std::string sorted = query["sort"], up = table + "." + column, down = "-" + up;
    head.set("heading", headingOf(column));
    head.set("sort", query.changed({{"sort", sorted == down ? up : down}, {"skip", ""}}));
    if (sorted == up || sorted == down) head.set("sorted", sorted == up ? "ascending" : "descending");
    return head;
}

// A long reply unfolds, and is open where the step failed.
void addReply(Data &line, const Json &step) {
    constexpr size_t kShort = 200;
    constexpr ptrdiff_t kFewLines = 3;
    const std::string reply = step.value("reply", Json()).is_string() ? step["reply"].get<std::string>() : "";
    const auto lines = std::count(reply.begin(), reply.end(), '\n');
    if (lines > kFewLines || reply.size() > kShort)
        line.set("long", fmt::format("{} bytes, {} lines", reply.size(), lines));
    if (step["verdict"] == "failed") line.set("open", true);
    for (const char *const column : {"started_after", "seconds", "attempts"}) {
        if (step["verdict"] == "not run") line.set(column, "");
    }
    if (step.value("cut", 0) > 0) line.set("missing", step["cut"].dump());
}

bool differs(const Json &row) {
    std::set<std::string> values;
    for (const auto &[column, cell] : row.items()) {
        if (column != "what") values.insert(cell.dump());
    }
    return values.size() > 1;
}

Data rowOf(const std::string &name, const Json &table, const Json &row, const Query &query) {
    Data cells{Data::type::list}, line;
    for (const Json &column : table["columns"]) cells.push_back(cellOf(name, column, row, query));
    line.set("cells", cells);
    for (const auto &[column, cell] : row.items()) {
        const std::string text = textOf(column, cell, row);
        if (!text.empty()) line.set(column, text);
    }
    if (name == "steps") addReply(line, row);
    if (name == "attempts" && differs(row)) line.set("changed", true);
    return line;
}

Data tableView(const std::string &name, const Json &table, const Query &query) {
    Data view, heads{Data::type::list}, lines{Data::type::list};
    for (const Json &column : table["columns"]) {
        Data head = headOf(name, column, query);
        if (hasNumbers(table, column)) head.set("class", "number");
        heads.push_back(head);
    }
    for (const Json &row : table["rows"]) lines.push_back(rowOf(name, table, row, query));
    Parameters file = query.parameters;
    file["table"] = name;
    view.set("heads", heads);
    view.set("lines", lines);
    view.set("any", !table["rows"].empty());
    view.set("file", urlOf(query.path + ".csv", file));
    if (table.contains("error")) view.set("trouble", table["error"].get<std::string>());
    const auto skip = [&](size_t rows) { return query.changed({{"skip", std::to_string(rows)}}); };
    if (query.offset > 0) view.set("previous", skip(query.offset - std::min(query.offset, query.rows)));
    if (table.value("more", false)) view.set("next", skip(query.offset + query.rows));
    return view;
}

// ---- the whole page

std::string escape(const std::string &text) {
    std::string visible;
    for (const char letter : text) {
        const bool control = letter == '\x7F' || (uint8_t(letter) < ' ' && letter != '\n' && letter != '\t');
        visible += control ? fmt::format("\\x{:02X}", uint8_t(letter)) : std::string(1, letter);
    }
    return kainjow::mustache::html_escape(visible);
}

std::string fill(const std::string &name, Data &data) {
    for (const StaticFile &file : kTemplateFiles) {
        data.set("_" + std::string(file.name.substr(0, file.name.find('.'))), std::string(file.content));
    }
    data.set("version", std::string(kStaticVersion));
    data.set("now", localTime(std::time(nullptr), "%Y-%m-%d %H:%M"));
    data.set("clock", zone());
    kainjow::mustache::mustache page(data.get("_" + name)->string_value());
    page.set_custom_escape(escape);
    return page.render(data);
}

// Fields of a form that nobody sees.
Data hiddenFields(const Parameters &parameters) {
    Data fields{Data::type::list};
    for (const auto &[name, value] : parameters) {
        if (value.empty() || name == "skip") continue;
        Data field("key", name);
        field.set("value", value);
        fields.push_back(field);
    }
    return fields;
}

Data periodLinks(const Query &query) {
    Data periods{Data::type::list};
    for (const auto &[text, time] :
         {std::pair{"Today", "today"}, {"24 hours", "24h"}, {"7 days", "7d"}, {"30 days", "30d"}}) {
        Data period("text", text);
        period.set("href", query.changed({{"since", time}, {"until", ""}, {"skip", ""}}));
        if (query["since"] == time && query["until"].empty()) period.set("current", true);
        periods.push_back(period);
    }
    return periods;
}

void addNavigation(Data &data, const Query &query) {
    Data given;
    for (const auto &[name, value] : query.parameters) given.set(name, value);
    data.set("query", given);
    data.set("path", query.path);
    data.set("periods", periodLinks(query));
    data.set("fields", hiddenFields(query.parameters));
    data.set("kept", hiddenFields(query.kept()));
    for (const std::string page : {"summary", "runs", "units"}) data.set("to_" + page, query.link("/" + page));
    const auto bound = [](const std::string &utc) { return localTime(timeOf(utc), "%Y-%m-%d %H:%M"); };
    data.set("since", bound(query.filter.period.since));
    data.set("until", query.filter.period.until.empty() ? "now" : bound(query.filter.period.until));
}

}  // namespace

std::string pageOf(const Json &document, const Query &query) {
    Data data;
    addNavigation(data, query);
    for (const auto &[name, table] : document["tables"].items()) data.set(name, tableView(name, table, query));
    std::string json = dump(document);
    for (size_t at; (at = json.find('<')) != std::string::npos;) json.replace(at, 1, "\\u003c");
    data.set("document", json);
    return fill(document["page"], data);
}

std::string messagePage(const std::string &name, const std::string &title, const std::string &what) {
    Data data("title", title);
    data.set("what", what);
    addNavigation(data, Query({}));
    return fill(name, data);
}

}  // namespace station
