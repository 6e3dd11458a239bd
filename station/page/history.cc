#include "station/page/history.h"

#include <fmt/format.h>

#include <memory>

#include "station/page/document.h"
#include "station/page/view.h"
#include "station/store/format.h"
#include "station/store/load.h"

namespace station {
namespace {

using Answer = std::function<PageReply(const PageRequest &)>;

constexpr const char *kCsvType = "text/csv; charset=utf-8", *kJsonType = "application/json";

// Returns the reply that reports a failure: a page or JSON.
using Tell = PageReply (*)(int status, const std::string &title, const std::string &why);

PageReply tellPage(int status, const std::string &title, const std::string &why) {
    return {status, "text/html; charset=utf-8", messagePage("message", title, why)};
}

PageReply tellJson(int status, const std::string &, const std::string &why) { return refused(status, why); }

PageReply answered(Tell tell, const Answer &answer, const PageRequest &request) try {
    return answer(request);
} catch (const Refusal &refusal) {
    return tell(404, "Not found", refusal.what());
} catch (const TooSlow &error) {
    return tell(503, "It takes too long", fmt::format("{}. Choose a shorter period.", error.what()));
} catch (const StoreError &error) {
    return tell(503, "The store is away", fmt::format("{}. The page works again when the store does.", error.what()));
}

Answer guarded(Tell tell, const Answer &answer) {
    return [=](const PageRequest &request) { return answered(tell, answer, request); };
}

PageReply redirect(const std::string &url) { return {303, "text/plain", "", {{"Location", url}}}; }

// Redirects to the page of a unit or run if the text is its whole name, or an address. Returns nothing otherwise.
std::optional<PageReply> found(Archive &archive, const Query &query) try {
    Section section;
    if (query["q"].empty()) return std::nullopt;
    archive.ask([&](Database &database) { section = show(database, query["q"])[0]; });
    const Table &table = section.table;
    const std::string name = table.rows.at(0).at(0).value_or("");
    return redirect(section.name == "unit" ? query.link("/unit", {{"serial", name}})
                                           : query.link("/run", {{"run", name}}));
} catch (const Refusal &) {  // perhaps the beginning of a serial number
    return std::nullopt;
}

PageReply page(Archive &archive, const Content &content, const PageRequest &request) {
    const Query query(request);
    if (content.page == "units") {
        if (const auto reply = found(archive, query)) return *reply;
    }
    return {200, "text/html; charset=utf-8", pageOf(documentOf(archive, content, query), query)};
}

std::vector<Route> routesOf(const std::shared_ptr<Archive> &archive, const Content &content) {
    const std::string name(content.page);
    const auto html = [=](const PageRequest &request) { return page(*archive, content, request); };
    const auto json = [=](const PageRequest &request) {
        return PageReply{200, kJsonType, dump(documentOf(*archive, content, Query(request)), 1) + "\n"};
    };
    const auto csv = [=](const PageRequest &request) {
        const Query query(request);
        return PageReply{200, kCsvType, csvOf(tableOf(*archive, content, query["table"], query))};
    };
    return {{"/" + name, guarded(tellPage, html)},
            {"/api/" + name, guarded(tellJson, json)},
            {"/" + name + ".csv", guarded(tellJson, csv)}};
}

Route recordRoute(const std::shared_ptr<Archive> &archive) {
    return {"/run.json", guarded(tellJson, [=](const PageRequest &request) {
                std::string record;
                archive->ask(
                    [&](Database &database) { record = dump(loadRun(database, Query(request)["run"]), 2) + "\n"; });
                return PageReply{200, kJsonType, record};
            })};
}

PageReply noStore(const PageRequest &) {
    return {404, "text/html; charset=utf-8", messagePage("no_store", "No store", "")};
}

}  // namespace

std::vector<Route> historyRoutes(const std::shared_ptr<Archive> &archive, bool hasStore) {
    std::vector<Route> routes = {recordRoute(archive)};
    for (const Content &content : kContents) {
        for (Route &route : routesOf(archive, content)) routes.push_back(std::move(route));
    }
    for (Route &route : routes) {
        if (!hasStore) route.answer = noStore;
    }
    return routes;
}

}  // namespace station
