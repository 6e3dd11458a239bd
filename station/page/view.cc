#include "station/page/view.h"

#include <fmt/format.h>
#include <string.h>  // strverscmp

#include <algorithm>
#include <cmath>
#include <kainjow/mustache.hpp>
#include <set>

#include "station/base/text.h"
#include "station/page/local_time.h"
#include "station/page/static_files.h"
#include "station/store/format.h"

namespace station {
namespace {

using Data = kainjow::mustache::data;

constexpr size_t kLongText = 24;  // that may be broken into lines
constexpr const char *kFilterFields[] = {"plan", "product", "station", "place", "cause"};

// ---- cells

// The headings of columns whose names would not explain them.
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
// Never rounds up to 100.
std::string percentText(const Json &cell, const Json &) {
    const double percent = cell.get<double>();
    return fmt::format("{:.1f}", percent < 100 ? std::min(percent, 99.9) : percent);
}
std::string secondsText(const Json &cell, const Json &) { return fmt::format("{:.1f}", cell.get<double>()); }
std::string yesText(const Json &cell, const Json &) { return cell == 1 ? "yes" : ""; }
std::string cpkText(const Json &cell, const Json &) { return fmt::format("{:.2f}", cell.get<double>()); }
double numberIn(const Json &row, const char *column) {
    const auto found = row.find(column);
    return found != row.end() && found->is_number() ? found->get<double>() : NAN;
}
std::string valueText(const Json &cell, const Json &row) {
    return measuredText(cell.get<double>(), numberIn(row, "minimum"), numberIn(row, "maximum"),
                        numberIn(row, "deviation"));
}
// Returns the last part of a run's name. The first part is its start, which is shown beside it.
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
                                            {"reference", yesText},
                                            {"run", runText},
                                            {"seconds", secondsText},
                                            {"since", timeText},
                                            {"started", timeText},
                                            {"started_after", secondsText},
                                            {"until", timeText},
                                            {"value", valueText}};

bool comesBefore(const std::string &a, const std::string &b) { return strverscmp(a.c_str(), b.c_str()) < 0; }

std::string plainText(const Json &cell) {
    if (cell.is_string()) return cell.get<std::string>();
    return cell.is_number_float() ? fmt::format("{:.9g}", cell.get<double>()) : cell.dump();
}

// Formats a cell by the column that it belongs to.
std::string textOf(const std::string &column, const Json &cell, const Json &row) {
    if (cell.is_null()) return "";
    const auto known = kTexts.find(column);
    const bool fits = known != kTexts.end() && (known->second != valueText || cell.is_number());
    return fits ? known->second(cell, row) : plainText(cell);
}

// The link of a column's cells: `path`, with cells of the row as parameters.
struct Link {
    std::string_view table, column, path;  // `table` is empty: any
    std::vector<std::string> parameters;
};
const std::vector<Link> kLinks = {{"", "run", "/run", {"run"}},
                                  {"", "serial", "/unit", {"serial"}},
                                  {"failures", "step", "/runs", {"step"}},
                                  {"causes", "step", "/runs", {"step", "cause", "station", "place"}},
                                  {"values", "name", "/value", {"name", "plan"}},
                                  {"", "place", "/runs", {"station", "place"}},
                                  {"hours", "hour", "/runs", {}},
                                  {"days", "day", "/runs", {}}};

// Adds the period of the hour or day that begins with the cell.
void addPeriod(Parameters &parameters, const std::string &column, const std::string &begin) {
    const std::time_t start = timeOf(parseLocalTime(column == "hour" ? begin + "Z" : begin));
    parameters["since"] = utcTime(start) + "Z";
    if (column == "hour") parameters["until"] = utcTime(start + 3600) + "Z";
    if (column == "day") parameters["until"] = localTime(start + 93600, "%Y-%m-%d");  // 26 hours: a day may have 25
}

std::string linkOf(const std::string &table, const std::string &column, const Json &row, const Query &query) {
    const auto fits = [&](const Link &link) {
        return link.column == column && (link.table.empty() || link.table == table);
    };
    const auto link = std::find_if(kLinks.begin(), kLinks.end(), fits);
    if (link == kLinks.end()) return "";
    Parameters parameters;
    for (const std::string &name : link->parameters) {
        if (row.contains(name) && row[name].is_string()) parameters[name] = row[name];
    }
    const auto isHere = [&](const auto &parameter) { return query[parameter.first] == parameter.second; };
    if (link->path == query.path && std::all_of(parameters.begin(), parameters.end(), isHere)) return "";
    if (link->path == "/value") parameters["run"] = query["run"];
    if (link->parameters.empty()) addPeriod(parameters, column, row[column]);
    return query.link(std::string(link->path), parameters);
}

bool hasNumbers(const Json &table, const std::string &column) {
    const Json &rows = table["rows"];
    return std::any_of(rows.begin(), rows.end(), [&](const Json &row) { return row[column].is_number(); });
}

// The table of attempts is transposed: its rows are what columns are elsewhere, or have a name from the plan, which
// means nothing here.
std::string meaningOf(const std::string &what) { return what == "started" || what == "verdict" ? what : "what"; }

Data cellOf(const std::string &table, const std::string &column, const Json &row, const Query &query) {
    const Json &value = row.at(column);
    const bool turned = table == "attempts" && column != "what";
    const std::string meaning = turned ? meaningOf(row["what"]) : column;
    const std::string text = textOf(meaning, value, row), href = linkOf(table, column, row, query);
    Data cell;
    cell.set("heading", headingOf(column));
    if (!text.empty()) cell.set("text", text);
    if (value.is_number()) cell.set("class", "number");
    if (text.size() > kLongText) cell.set("class", "long");
    if (meaning == "verdict") cell.set("mark", text == "not run" ? "not-run" : text);
    if (!href.empty()) cell.set("href", href);
    if (column == "run") cell.set("tip", value.get<std::string>());
    return cell;
}

// ---- tables

// Returns the heading of a column. A click on it sorts by the column, numbers in descending order; a second click
// reverses the order. In the table of attempts the heading is a run.
Data headOf(const std::string &table, const std::string &column, bool number, const Query &query) {
    Data head;
    if (number) head.set("class", "number");
    if (table == "attempts" && column != "what") {
        head.set("heading", runText(column, {}));
        head.set(column == query["run"] ? "here" : "other", query.link("/run", {{"run", column}}));
        return head;
    }
    const std::string sorted = query["sort"], up = table + "." + column, down = fmt::format("-{}", up);
    const std::string &first = number ? down : up, &second = number ? up : down;
    head.set("heading", headingOf(column));
    head.set("sort", query.changed({{"sort", sorted == first ? second : first}, {"skip", ""}}));
    if (sorted == up || sorted == down) head.set("sorted", sorted == up ? "ascending" : "descending");
    return head;
}

// Adds a step's reply. A long one is folded, unless the step failed.
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

Data rowOf(const std::string &name, const std::vector<std::string> &columns, const Json &row, const Query &query) {
    Data cells{Data::type::list}, line;
    for (const std::string &column : columns) cells.push_back(cellOf(name, column, row, query));
    line.set("cells", cells);
    for (const auto &[column, cell] : row.items()) {
        const std::string text = textOf(column, cell, row);
        if (!text.empty()) line.set(column, text);
    }
    if (name == "steps") addReply(line, row);
    if (name == "attempts" && differs(row)) line.set("changed", true);
    return line;
}

// Returns the columns that are not empty.
std::vector<std::string> columnsOf(const Json &table) {
    std::vector<std::string> columns;
    for (const Json &column : table["columns"]) {
        const auto says = [&](const Json &row) { return !textOf(column, row[column.get<std::string>()], row).empty(); };
        if (std::any_of(table["rows"].begin(), table["rows"].end(), says)) columns.push_back(column);
    }
    return columns;
}

Data tableView(const std::string &name, const Json &table, const Query &query) {
    Data view, heads{Data::type::list}, lines{Data::type::list};
    const auto columns = columnsOf(table);
    for (const std::string &column : columns) {
        heads.push_back(headOf(name, column, hasNumbers(table, column), query));
    }
    for (const Json &row : table["rows"]) lines.push_back(rowOf(name, columns, row, query));
    Parameters file = query.parameters;
    file["table"] = name;
    view.set("heads", heads);
    view.set("lines", lines);
    view.set("any", !table["rows"].empty());
    view.set("there", !table["rows"].empty() || table.contains("error"));  // something to show
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
        data.set(fmt::format("_{}", file.name.substr(0, file.name.find('.'))), std::string(file.content));
    }
    data.set("version", std::string(kStaticVersion));
    data.set("now", localTime(std::time(nullptr), "%Y-%m-%d %H:%M"));
    data.set("clock", zone());
    kainjow::mustache::mustache page(data.get(fmt::format("_{}", name))->string_value());
    page.set_custom_escape(escape);
    return page.render(data);
}

// Returns the parameters that are not empty, for a template.
Data listOf(const Parameters &parameters) {
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

// Returns the fields of the filter, each with its options, the present choice among them.
Data filterFields(const Json &rows, const Query &query) {
    Data fields{Data::type::list};
    for (const std::string name : kFilterFields) {
        std::set<std::string, decltype(&comesBefore)> offered({query[name]}, comesBefore);
        for (const Json &row : rows) offered.insert(row.contains(name) && row[name].is_string() ? row[name] : "");
        if (name == "cause") offered.insert({"unit", "connection", "station", "operator"});
        Data options{Data::type::list}, field("name", name);
        for (const std::string &one : offered) {
            Data option("option", one);
            if (one == query[name]) option.set("chosen", true);
            if (!one.empty()) options.push_back(option);
        }
        field.set("options", options);
        fields.push_back(field);
    }
    return fields;
}

// Returns the query for links from a run to its measured values: 12 hours before and after the run.
Query aroundRun(const Query &query, const Json &run) {
    Query around = query;
    const std::time_t start = timeOf(run["started"]);
    around.parameters["since"] = utcTime(start - 43200) + "Z";
    around.parameters["until"] = utcTime(start + 43200) + "Z";
    around.parameters["plan"] = run["plan"];
    return around;
}

void addNavigation(Data &data, const Query &query) {
    Data given;
    for (const auto &[name, value] : query.parameters) given.set(name, value);
    data.set("query", given);
    data.set("path", query.path);
    data.set("periods", periodLinks(query));
    Parameters others = query.parameters;  // than those that fields of the filter have
    for (const char *const name : kFilterFields) others.erase(name);
    data.set("fields", listOf(others));
    Parameters chosen;
    for (const char *const name : kFilterFields) chosen[name] = query[name];
    data.set("scope", listOf(chosen));
    data.set("kept", listOf(query.kept()));
    data.set("all_runs", query.changed({{"failed", ""}, {"step", ""}, {"skip", ""}}));
    data.set("failed_runs", query.changed({{"failed", "1"}, {"skip", ""}}));
    for (const std::string page : {"summary", "runs", "units"})
        data.set(fmt::format("to_{}", page), query.link(fmt::format("/{}", page)));
    const auto bound = [](const std::string &utc) { return localTime(timeOf(utc), "%Y-%m-%d %H:%M"); };
    data.set("since", bound(query.filter.period.since));
    data.set("until", query.filter.period.until.empty() ? "now" : bound(query.filter.period.until));
}

}  // namespace

std::string pageOf(const Json &document, const Query &query) {
    Data data;
    addNavigation(data, query);
    const Json &tables = document["tables"];
    const bool ofRun = document["page"] == "run" && !tables["run"]["rows"].empty();
    for (const auto &[name, table] : tables.items()) {
        const Query links = ofRun && name == "values" ? aroundRun(query, tables["run"]["rows"][0]) : query;
        data.set(name, tableView(name, table, links));
    }
    if (tables.contains("choices")) data.set("filters", filterFields(tables["choices"]["rows"], query));
    data.set("document", replaced(dump(document), '<', "\\u003c"));  // nothing in it ends the script
    return fill(document["page"], data);
}

std::string messagePage(const std::string &name, const std::string &title, const std::string &what) {
    Data data("title", title);
    data.set("what", what);
    addNavigation(data, Query({}));
    return fill(name, data);
}

}  // namespace station
