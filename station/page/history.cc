#include "station/page/history.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

#include "station/page/archive.h"
#include "station/page/chart.h"
#include "station/page/html.h"
#include "station/page/local_time.h"
#include "station/page/run_page.h"
#include "station/run/record_json.h"
#include "station/store/format.h"
#include "station/store/load.h"
#include "station/store/queries.h"

namespace station {
namespace {

constexpr const char *kHtmlType = "text/html; charset=utf-8";
constexpr int kListed = 200;   // runs or units on a page
constexpr int kPoints = 2000;  // of a picture, each a reading; beyond that they are drawn in groups
constexpr int kGroups = 200;
constexpr size_t kLongest = 100000;  // rows of a file

std::string parameter(const PageRequest &request, const std::string &name) {
    const auto found = request.parameters.find(name);
    return found == request.parameters.end() ? "" : text(found->second).value_or("");
}

// The parameters of the request that say which runs are meant, for links that mean the same.
Parameters chosen(const PageRequest &request, const Parameters &more = {}) {
    Parameters all = more;
    for (const char *const name : {"since", "until"}) all.emplace(name, parameter(request, name));
    return all;
}

Period periodOf(const PageRequest &request) {
    const std::string since = parameter(request, "since"), until = parameter(request, "until");
    Period period{parseLocalTime(since.empty() ? "24h" : since), until.empty() ? "" : parseLocalTime(until)};
    if (!until.empty() && period.until <= period.since) throw Refusal("the period ends before it begins");
    return period;
}

Html timeField(const char *name, const std::string &utc) {
    const std::string local = utc.empty() ? "" : localTime(timeOf(utc), "%Y-%m-%dT%H:%M");
    return html("<label>{0} <input type=\"datetime-local\" name=\"{0}\" value=\"{1}\"></label>\n", name, local);
}

// Links to usual periods, and a form for any; both keep the other parameters of the request.
Html periodChooser(const PageRequest &request) {
    const std::string since = parameter(request, "since").empty() ? "24h" : parameter(request, "since");
    const Period period = periodOf(request);
    Parameters others = request.parameters;
    others.erase("until");
    Html links, hidden;
    for (const auto &[text, time] :
         {std::pair{"Today", "today"}, {"24 hours", "24h"}, {"7 days", "7d"}, {"30 days", "30d"}}) {
        others["since"] = time;
        const bool now = since == time && period.until.empty();
        links += html("<a href=\"{}\"{}>{}</a>\n", urlOf(request.path, others),
                      Html{now ? " aria-current=\"true\"" : ""}, text);
    }
    others.erase("since");
    for (const auto &[name, value] : others) {
        hidden += html("<input type=\"hidden\" name=\"{}\" value=\"{}\">", name, value);
    }
    return html("<form class=\"period\" action=\"{}\">{}{}{}{}<button>Show</button></form>\n", request.path, links,
                hidden, timeField("since", period.since), timeField("until", period.until));
}

Html csvLink(const std::string &path, const Parameters &parameters) {
    return html("<p class=\"file\">{}</p>\n", linkTo(path + ".csv", parameters, "CSV"));
}

Html folded(const std::string &title, const Html &content) {
    return html("<details><summary>{}</summary>\n{}</details>\n", title, content);
}

PageReply page(const std::string &title, const Html &content) { return {200, kHtmlType, wholePage(title, content)}; }

PageReply file(const std::string &csv) { return {200, "text/csv; charset=utf-8", csv}; }

PageReply file(const Table &table) {
    if (table.rows.size() <= kLongest) return file(csvOf(table));
    throw Refusal(fmt::format("more than {} rows: choose a shorter period, or ask the store in SQL", kLongest));
}

// ---- units

PageReply unitPage(const std::vector<Section> &unit) {
    const std::string serial = unit[0].table.rows[0][0].value_or("");
    Html content = factsOf(without(unit[0].table, "serial"));
    content += html("<h2>Given</h2>\n{}<h2>Runs</h2>\n{}", tableOf(unit[1].table, {{"value", asText}}),
                    tableOf(without(unit[2].table, "serial")));
    content += csvLink("/unit", {{"serial", serial}});
    return page("Unit " + serial, content);
}

PageReply unit(Database &database, const PageRequest &request) {
    const std::string serial = parameter(request, "serial");
    const auto found = show(database, serial);
    return found[0].name == "unit" ? unitPage(found) : page("Run " + serial, runContent(database, serial));
}

PageReply unitFile(Database &database, const PageRequest &request) {
    return file(csvOf(show(database, parameter(request, "serial"))));
}

std::string foundBy(const std::string &wanted, size_t units) {
    if (wanted.empty()) return "Those that were tested last.";
    if (units == 0) return fmt::format("No unit, address or run is called \"{}\", and no serial begins so.", wanted);
    return fmt::format("{} whose serials begin with \"{}\", the last tested first.",
                       units == kListed ? fmt::format("The first {}", kListed) : "Those", wanted);
}

// What is meant by a serial, an address or a run's name at once; else the units whose serials begin so.
PageReply units(Database &database, const PageRequest &request) {
    const std::string wanted = parameter(request, "q");
    try {
        if (!wanted.empty()) return unit(database, {request.path, {{"serial", wanted}}, {}});
    } catch (const Refusal &) {  // not by its whole name
    }
    const Table found = unitsLike(database, wanted, kListed);
    if (found.rows.size() == 1) return unitPage(show(database, found.rows[0][0].value_or("")));
    Html content = html("<p>{}</p>\n", foundBy(wanted, found.rows.size()));
    if (!found.empty()) content += tableOf(found);
    return page("Units", content);
}

// ---- runs

RunFilter filterOf(const PageRequest &request, int limit) {
    return {{periodOf(request)}, parameter(request, "failed") == "1", limit, parameter(request, "step")};
}

PageReply runs(Database &database, const PageRequest &request) {
    const RunFilter filter = filterOf(request, kListed);
    Table found = listRuns(database, filter);
    std::reverse(found.rows.begin(), found.rows.end());
    Html content = periodChooser(request);
    Parameters same = chosen(request, {{"step", filter.step}, {"failed", filter.failed ? "1" : ""}});
    const Parameters others = chosen(request, {{"failed", filter.failed ? "" : "1"}});
    content += html("<p>{}</p>\n", linkTo("/runs", others, filter.failed ? "All runs" : "Failed runs only"));
    if (!filter.step.empty()) content += html("<p>Those that failed first at <b>{}</b>.</p>\n", filter.step);
    content += tableOf(found);
    if (found.rows.size() == kListed) content += html("<p>The newest {}; the file has all.</p>\n", kListed);
    content += csvLink("/runs", same);
    return page(filter.failed ? "Failed runs" : "Runs", content);
}

PageReply runsFile(Database &database, const PageRequest &request) {
    return file(listRuns(database, filterOf(request, int(kLongest) + 1)));
}

PageReply run(Database &database, const PageRequest &request) {
    const std::string name = parameter(request, "run");
    return page("Run " + name, runContent(database, name));
}

PageReply runFile(Database &database, const PageRequest &request) {
    return file(csvOf(showRun(database, parameter(request, "run"))));
}

PageReply runRecord(Database &database, const PageRequest &request) {
    return {200, "application/json", dump(loadRun(database, parameter(request, "run")), 2) + "\n"};
}

// ---- summary

// A question about a period: a part of the summary, and a file.
struct Part {
    const char *path, *title;
    Table (*ask)(Database &, const Filter &);
};

constexpr Part kFailures{"/failures", "Failures by step", failuresByStep};
constexpr Part kHours{"/hours", "By the hour",
                      [](Database &database, const Filter &filter) { return yields(database, filter, By::kHour); }};
constexpr Part kPlaces{"/places", "By place",
                       [](Database &database, const Filter &filter) { return yields(database, filter, By::kPlace); }};
constexpr Part kValues{"/values", "Measured values",
                       [](Database &database, const Filter &filter) { return measuredValues(database, filter); }};

Html partOf(const PageRequest &request, const Part &part, const Html &content) {
    return html("<section>\n<h2>{}</h2>\n{}{}</section>\n", part.title, content, csvLink(part.path, chosen(request)));
}

Html failuresPart(Database &database, const PageRequest &request) {
    const Table table = failuresByStep(database, {periodOf(request)});
    const auto parameters = [&](const std::string &step) { return chosen(request, {{"step", step}, {"failed", "1"}}); };
    const Look toRuns = [&](const std::string &step, const auto &) { return linkTo("/runs", parameters(step), step); };
    Html content;
    if (!table.empty()) {
        content += paretoChart(table, [&](const std::string &step) { return urlOf("/runs", parameters(step)); });
    }
    content += tableOf(table, {{"step", toRuns}});
    return partOf(request, kFailures, content);
}

// What is left out is said.
Html keepNewest(Table &table, size_t most) {
    const size_t all = table.rows.size();
    if (all <= most) return {};
    table.rows.erase(table.rows.begin(), table.rows.end() - ptrdiff_t(most));
    return html("<p class=\"note\">The newest {} of {}; the file has all.</p>\n", most, all);
}

Html hoursPart(Database &database, const PageRequest &request) {
    Table table = kHours.ask(database, {periodOf(request)});
    if (table.empty()) return partOf(request, kHours, tableOf(table));
    Html content = keepNewest(table, kPoints);
    content += yieldChart(table);
    content += folded("The table", tableOf(table));
    return partOf(request, kHours, content);
}

Html valuesPart(Database &database, const PageRequest &request) {
    const Table table = measuredValues(database, {periodOf(request)});
    const Look toValue = [&](const std::string &name, const std::vector<Value> &row) {
        return linkTo("/value", chosen(request, {{"plan", row[0].value_or("")}, {"name", name}}), name);
    };
    return partOf(request, kValues, tableOf(table, {{"name", toValue}}));
}

PageReply summary(Database &database, const PageRequest &request) {
    Html content = periodChooser(request);
    content += factsOf(without(yields(database, {periodOf(request)}, By::kAll), "period"));
    content += failuresPart(database, request);
    content += hoursPart(database, request);
    content += partOf(request, kPlaces, tableOf(kPlaces.ask(database, {periodOf(request)})));
    content += valuesPart(database, request);
    return page("Summary", content);
}

// ---- a measured value

Table readingsOf(Database &database, const PageRequest &request, size_t most) {
    const std::string name = parameter(request, "name");
    if (name.empty()) throw Refusal("which value is not said: the summary leads to each");
    return readings(database, {periodOf(request), parameter(request, "plan")}, name, int(most) + 1);
}

PageReply value(Database &database, const PageRequest &request) {
    const std::string name = parameter(request, "name"), plan = parameter(request, "plan");
    Table table = readingsOf(database, request, kPoints);
    const bool grouped = table.rows.size() > kPoints;
    if (grouped) table = readingGroups(database, {periodOf(request), plan}, name, kGroups);
    Html content = periodChooser(request);
    content += factsOf(without(without(measuredValues(database, {periodOf(request), plan}, name), "plan"), "name"));
    content +=
        table.empty() ? html("<p class=\"none\">None was measured in this period.</p>\n") : valueChart(table, name);
    if (grouped) {
        content += html(
            "<p class=\"note\">More than {} values: drawn in {} groups, each from its lowest to its highest, the line"
            " through their means. The file has each value.</p>\n",
            kPoints, table.rows.size());
    }
    content += folded("The table", tableOf(table));
    content += csvLink("/value", chosen(request, {{"name", name}, {"plan", plan}}));
    return page(plan.empty() ? name : name + " in " + plan, content);
}

PageReply valueFile(Database &database, const PageRequest &request) {
    return file(readingsOf(database, request, kLongest));
}

// ---- which page a request is for

using Answer = std::function<PageReply(Database &, const PageRequest &)>;

PageReply sorry(int status, const std::string &title, const std::string &why) {
    return {status, kHtmlType, wholePage(title, html("<p class=\"failure\">{}</p>\n", why))};
}

PageReply noStore(const PageRequest &) {
    return {404, kHtmlType,
            wholePage("No store", html("<p>The station remembers runs when the line's file says where. Add a line to"
                                       " LINE.yaml, a file or <code>postgresql://...</code>, and start the station"
                                       " again:</p>\n<pre>store: /var/lib/qcstation/line.db</pre>\n"))};
}

PageReply answer(Archive &archive, const Answer &ask, const PageRequest &request) try {
    PageReply reply;
    archive.ask([&](Database &database) { reply = ask(database, request); });
    return reply;
} catch (const Refusal &refusal) {
    return sorry(404, "Not found", refusal.what());
} catch (const TooSlow &error) {
    return sorry(503, "It takes too long", fmt::format("{}. Choose a shorter period.", error.what()));
} catch (const StoreError &error) {
    return sorry(503, "The store is away", fmt::format("{}. The page works again when the store does.", error.what()));
}

Answer fileOf(const Part &part) {
    return [ask = part.ask](Database &database, const PageRequest &request) {
        return file(ask(database, {periodOf(request)}));
    };
}

}  // namespace

std::vector<Route> historyRoutes(const std::string &store) {
    const std::vector<std::pair<const char *, Answer>> answers = {{"/units", units},
                                                                  {"/unit", unit},
                                                                  {"/unit.csv", unitFile},
                                                                  {"/runs", runs},
                                                                  {"/runs.csv", runsFile},
                                                                  {"/run", run},
                                                                  {"/run.csv", runFile},
                                                                  {"/run.json", runRecord},
                                                                  {"/summary", summary},
                                                                  {"/value", value},
                                                                  {"/value.csv", valueFile},
                                                                  {"/failures.csv", fileOf(kFailures)},
                                                                  {"/hours.csv", fileOf(kHours)},
                                                                  {"/places.csv", fileOf(kPlaces)},
                                                                  {"/values.csv", fileOf(kValues)}};
    const auto archive = std::make_shared<Archive>(store);
    std::vector<Route> routes;
    for (const auto &[path, ask] : answers) {
        if (store.empty()) {
            routes.push_back({path, noStore});
        } else {
            routes.push_back(
                {path, [archive, ask = ask](const PageRequest &request) { return answer(*archive, ask, request); }});
        }
    }
    return routes;
}

}  // namespace station
