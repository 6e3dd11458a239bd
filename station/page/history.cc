#include "station/page/history.h"

#include <fmt/format.h>

#include "station/page/document.h"
#include "station/page/view.h"
#include "station/store/format.h"
#include "station/store/load.h"

namespace station {
namespace {

using Answer = std::function<PageReply(const Query &)>;

constexpr const char *kHtml = "text/html; charset=utf-8", *kCsv = "text/csv; charset=utf-8",
                     *kJson = "application/json";

// Returns a route whose failures are reported as a page, or as JSON for programs.
Route routeOf(const std::string &path, bool forPeople, const Answer &answer) {
    return {
        path, [=](const PageRequest &request) -> PageReply {
            const auto tell = [&](int status, const char *title, const std::string &why) {
                return forPeople ? PageReply{status, kHtml, messagePage("message", title, why)} : refused(status, why);
            };
            try {
                return answer(Query(request));
            } catch (const Refusal &refusal) {
                return tell(404, "Not found", refusal.what());
            } catch (const TooSlow &error) {
                return tell(503, "It takes too long", fmt::format("{}. Choose a shorter period.", error.what()));
            } catch (const StoreError &error) {
                return tell(503, "The store is away",
                            fmt::format("{}. The page works again when the store does.", error.what()));
            }
        }};
}

// Returns a link to the page of a unit or run if what the query seeks is its whole name, or an address; otherwise
// nothing.
std::string linkTo(Archive &archive, const Query &query) try {
    Section found;
    archive.ask([&](Database &database) { found = show(database, query["q"])[0]; });
    const std::string name = found.table.rows.at(0).at(0).value_or("");
    return found.name == "unit" ? query.link("/unit", {{"serial", name}}) : query.link("/run", {{"run", name}});
} catch (const Refusal &) {  // perhaps the beginning of a serial number
    return "";
}

}  // namespace

std::vector<Route> historyRoutes(const std::shared_ptr<Archive> &archive, bool hasStore, const PageSettings &settings) {
    std::vector<Route> routes;
    const auto add = [&](const std::string &path, bool forPeople, const Answer &answer) {
        routes.push_back(routeOf(path, forPeople, answer));
        if (!hasStore) routes.back().answer = [](auto &) { return PageReply{404, kHtml, messagePage("no_store")}; };
    };
    add("/run.json", false, [=](const Query &query) {
        std::string record;
        archive->ask([&](Database &database) { record = dump(loadRun(database, query["run"]), 2) + "\n"; });
        return PageReply{200, kJson, record};
    });
    for (const Content &content : kContents) {
        const std::string name(content.page);
        add("/" + name, true, [=](const Query &query) {
            const bool seeks = content.page == "units" && !query["q"].empty();
            const std::string link = seeks ? linkTo(*archive, query) : "";
            if (!link.empty()) return PageReply{303, "text/plain", "", {{"Location", link}}};
            return PageReply{200, kHtml, pageOf(documentOf(*archive, content, query, settings), query)};
        });
        add("/api/" + name, false, [=](const Query &query) {
            return PageReply{200, kJson, dump(documentOf(*archive, content, query, settings), 1) + "\n"};
        });
        add("/" + name + ".csv", false, [=](const Query &query) {
            return PageReply{200, kCsv, csvOf(tableOf(*archive, content, query["table"], query, settings))};
        });
    }
    return routes;
}

}  // namespace station
