#include "station/page/view.h"

#include <fmt/format.h>
#include <string.h>  // strverscmp

#include <algorithm>
#include <cmath>
#include <kainjow/mustache.hpp>
#include <set>

#include "station/base/text.h"
#include "station/base/time.h"
#include "station/page/static_files.h"
#include "station/store/format.h"

namespace station {
namespace {

using Data = kainjow::mustache::data;

constexpr size_t kLongText = 24;  // that may be broken into lines

// ---- columns

// Returns a column as columns.json describes it. The entry "TABLE.NAME" adds to the entry "NAME".
//
//     name, heading
//     as            how to format a cell; empty: as it is
//     link, of      the path of a cell's link, and the cells of the row that are its parameters
//     with          its other parameters, unless the filter says otherwise
Json columnOf(const std::string &table, const std::string &called) {
    static const Json kColumns = Json::parse(*staticFile("columns.json", kTemplateFiles));
    Json column = {{"name", called}, {"heading", replaced(called, '_', " ")}, {"as", ""}};
    for (const std::string &key : {called, fmt::format("{}.{}", table, called)}) {
        if (kColumns.contains(key)) column.update(kColumns[key]);
    }
    return column;
}

double numberIn(const Json &row, const char *column) {
    const auto found = row.find(column);
    return found != row.end() && found->is_number() ? found->get<double>() : NAN;
}

std::string numberText(const std::string &as, const Json &cell, const Json &row) {
    const double number = cell.get<double>();
    if (as == "percent") return fmt::format("{:.1f}", number < 100 ? std::min(number, 99.9) : number);
    if (as == "value")
        return measuredText(number, numberIn(row, "minimum"), numberIn(row, "maximum"), numberIn(row, "deviation"));
    if (as == "yes") return number == 1 ? "yes" : "";
    if (as.starts_with('{')) return fmt::format(fmt::runtime(as), number);
    return cell.is_number_float() ? fmt::format("{:.9g}", number) : cell.dump();
}

std::string textOf(const std::string &as, const Json &cell, const Json &row) {
    if (cell.is_null() || as == "hidden") return "";
    if (cell.is_number()) return numberText(as, cell, row);
    std::string text = cell;
    if (as == "time") return localTime(timeOf(text));
    if (as == "minute") return localTime(timeOf(text), "%Y-%m-%d %H:%M");
    if (as == "run") return text.substr(text.rfind('-') + 1);  // the first part is its start, which is shown beside it
    return text;
}

// ---- cells

std::string linkOf(const Json &column, const Json &row, const Query &query) {
    if (!column.contains("link")) return "";
    Parameters parameters;
    for (const std::string name : column["of"]) {
        if (row.contains(name) && row[name].is_string()) parameters[name] = row[name];
    }
    const auto isHere = [&](const auto &parameter) { return query[parameter.first] == parameter.second; };
    if (column["link"] == query.path && std::ranges::all_of(parameters, isHere)) return "";
    if (column["link"] == "/value") parameters["run"] = query["run"];
    parameters.merge(query.kept());
    parameters.merge(column.value("with", Parameters()));
    return urlOf(column["link"], parameters);
}

// The table of attempts is transposed: what columns are elsewhere are its rows. Names from the plan mean nothing there.
Json cellOf(const Json &column, const Json &row, const Query &query) {
    const bool turned = row.contains("what") && column["name"] != "what";
    const Json &value = row.at(column["name"]), &name = turned ? row["what"] : column["name"];
    const std::string text = textOf(turned && name == "started" ? "time" : column["as"], value, row);
    return {{"heading", column["heading"]},
            {"text", text},
            {"class", text.size() > kLongText ? "long"
                      : value.is_number()     ? "number"
                                              : ""},
            {"mark", name == "verdict" ? replaced(text, ' ', "-") : ""},
            {"href", linkOf(column, row, query)},
            {"tip", column["as"] == "run" ? value : Json()}};
}

// ---- tables

// Returns the heading of a column. A click on it sorts by the column, numbers in descending order; a second click
// reverses the order. In the table of attempts the heading is a run.
Json headOf(const std::string &table, const Json &column, bool number, const Query &query) {
    const std::string name = column["name"];
    if (table == "attempts" && name != "what") {
        return {{"heading", textOf("run", name, {})},
                {name == query["run"] ? "here" : "other", query.link("/run", {{"run", name}})}};
    }
    const std::string sorted = query["sort"], up = fmt::format("{}.{}", table, name), down = "-" + up;
    const std::string &first = number ? down : up, &second = number ? up : down;
    return {{"heading", column["heading"]},
            {"class", number ? "number" : ""},
            {"sort", query.changed({{"sort", sorted == first ? second : first}, {"skip", ""}})},
            {"sorted", sorted == up     ? "ascending"
                       : sorted == down ? "descending"
                                        : ""}};
}

// Adds how a step's reply is shown: a long one is folded, unless the step failed.
void addReply(Json &line, const Json &step) {
    constexpr size_t kShort = 200;
    constexpr ptrdiff_t kFewLines = 3;
    const std::string reply = line["reply"];
    const auto lines = std::ranges::count(reply, '\n');
    const bool folds = lines > kFewLines || reply.size() > kShort;
    line["long"] = folds ? fmt::format("{} bytes, {} lines", reply.size(), lines) : "";
    line["open"] = step["verdict"] == "failed";
    line["missing"] = line["cut"] == "0" ? "" : line["cut"];
    for (const char *const column : {"started_after", "seconds", "attempts"}) {
        if (step["verdict"] == "not run") line[column] = "";
    }
}

bool differs(const Json &row) {
    const auto other = [&](const Json &cell) { return &cell != &row["what"] && cell != row.back(); };
    return std::ranges::any_of(row, other);
}

Json rowOf(const std::string &table, const Json &columns, const Json &row, const Query &query) {
    Json line = {{"cells", Json::array()}, {"changed", table == "attempts" && differs(row)}};
    for (const Json &column : columns) line["cells"].push_back(cellOf(column, row, query));
    if (table != "steps") return line;
    for (const auto &[name, cell] : row.items()) line[name] = textOf(columnOf(table, name)["as"], cell, row);
    addReply(line, row);
    return line;
}

Json tableView(const std::string &name, const Json &table, const Query &query) {
    Json columns = Json::array(), heads = Json::array(), lines = Json::array();
    for (const std::string one : table["columns"]) {
        const Json column = columnOf(name, one);
        const auto says = [&](const Json &row) { return !textOf(column["as"], row[one], row).empty(); };
        const auto hasNumber = [&](const Json &row) { return row[one].is_number(); };
        if (std::ranges::none_of(table["rows"], says)) continue;
        columns.push_back(column);
        heads.push_back(headOf(name, column, std::ranges::any_of(table["rows"], hasNumber), query));
    }
    for (const Json &row : table["rows"]) lines.push_back(rowOf(name, columns, row, query));
    Parameters file = query.parameters;
    file["table"] = name;
    const auto skip = [&](bool there, size_t rows) {
        return there ? query.changed({{"skip", std::to_string(rows)}}) : "";
    };
    return {{"table", name},
            {"heads", heads},
            {"lines", lines},
            {"any", !lines.empty()},
            {"there", !lines.empty() || table.contains("error")},  // something to show
            {"file", urlOf(query.path + ".csv", file)},
            {"trouble", table.value("error", "")},
            {"previous", skip(query.offset > 0, query.offset - std::min(query.offset, query.rows))},
            {"next", skip(table.value("more", false), query.offset + query.rows)}};
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

// Returns the JSON as data for a template, which takes what is empty for false.
Data dataOf(const Json &json) {
    if (json.is_string() && !json.get_ref<const std::string &>().empty()) return json.get<std::string>();
    if (json.is_array()) {
        Data list{Data::type::list};
        for (const Json &one : json) list.push_back(dataOf(one));
        return list;
    }
    if (!json.is_object()) return json == true;
    Data object{Data::type::object};
    for (const auto &[name, value] : json.items()) object.set(name, dataOf(value));
    return object;
}

std::string fill(const std::string &name, Json page) {
    page.update(
        {{"version", kStaticVersion}, {"now", localTime(std::time(nullptr), "%Y-%m-%d %H:%M")}, {"clock", zone()}});
    Data data = dataOf(page);
    for (const StaticFile &file : kTemplateFiles) {
        data.set(fmt::format("_{}", file.name.substr(0, file.name.find('.'))), std::string(file.content));
    }
    kainjow::mustache::mustache text(std::string(staticFile(name + ".mustache", kTemplateFiles).value()));
    text.set_custom_escape(escape);
    return text.render(data);
}

// Returns the parameters as a list for a template.
Json listOf(const Parameters &parameters) {
    Json fields = Json::array();
    for (const auto &[name, value] : parameters) {
        if (name != "skip") fields.push_back({{"key", name}, {"value", value}});
    }
    return fields;
}

Json periodLinks(const Query &query) {
    Json periods = Json::array();
    for (const auto &[text, time] :
         {std::pair{"Today", "today"}, {"24 hours", "24h"}, {"7 days", "7d"}, {"30 days", "30d"}}) {
        periods.push_back({{"text", text},
                           {"href", query.changed({{"since", time}, {"until", ""}, {"skip", ""}})},
                           {"current", query["since"] == time && query["until"].empty()}});
    }
    return periods;
}

// Returns the fields of the filter, each with its options, the present choice among them.
Json filterFields(const Json &rows, const Query &query) {
    const auto comesBefore = [](const auto &a, const auto &b) { return strverscmp(a.c_str(), b.c_str()) < 0; };
    Json fields = Json::array();
    for (const std::string name : kFilterFields) {
        std::set<std::string, decltype(comesBefore)> offered({query[name]}, comesBefore);
        for (const Json &row : rows) offered.insert(textOf("", row.value(name, Json()), row));
        if (name == "cause") offered.insert({"unit", "connection", "station", "operator"});
        offered.erase("");
        Json options = Json::array();
        for (const std::string &one : offered) options.push_back({{"option", one}, {"chosen", one == query[name]}});
        fields.push_back({{"name", name}, {"options", options}});
    }
    return fields;
}

// Returns the query for links from a run to its measured values: 12 hours before and after the run.
Query aroundRun(const Query &query, const Json &run) {
    Query around = query;
    const auto start = WallClock::from_time_t(timeOf(run["started"]));
    around.parameters["since"] = isoTime(start - std::chrono::hours(12));
    around.parameters["until"] = isoTime(start + std::chrono::hours(12));
    around.parameters["plan"] = run["plan"];
    return around;
}

// Returns what all pages show, beside their tables.
Json frameOf(const Query &query) {
    Parameters others = query.parameters, chosen;  // those that have no field of the filter, and those that have
    for (const char *const name : kFilterFields) {
        if (auto field = others.extract(name)) chosen.insert(std::move(field));
    }
    const auto bound = [](const std::string &utc) {
        return utc.empty() ? "now" : localTime(timeOf(utc), "%Y-%m-%d %H:%M");
    };
    return {{"query", query.parameters},
            {"path", query.path},
            {"periods", periodLinks(query)},
            {"fields", listOf(others)},
            {"scope", listOf(chosen)},
            {"kept", listOf(query.kept())},
            {"all_runs", query.changed({{"failed", ""}, {"step", ""}, {"skip", ""}})},
            {"failed_runs", query.changed({{"failed", "1"}, {"skip", ""}})},
            {"with_kept", query.link("")},
            {"since", bound(query.filter.period.since)},
            {"until", bound(query.filter.period.until)}};
}

}  // namespace

std::string pageOf(const Json &document, const Query &query) {
    Json page = frameOf(query);
    const Json &tables = document["tables"];
    const bool ofRun = document["page"] == "run" && !tables["run"]["rows"].empty();
    for (const auto &[name, table] : tables.items()) {
        const Query links = ofRun && name == "values" ? aroundRun(query, tables["run"]["rows"][0]) : query;
        page[name] = tableView(name, table, links);
    }
    if (tables.contains("choices")) page["filters"] = filterFields(tables["choices"]["rows"], query);
    page["document"] = replaced(dump(document), '<', "\\u003c");  // nothing in it ends the script
    return fill(document["page"], page);
}

std::string messagePage(const std::string &name, const std::string &title, const std::string &what) {
    Json page = frameOf(Query({}));
    page.update({{"title", title}, {"what", what}});
    return fill(name, page);
}

}  // namespace station
