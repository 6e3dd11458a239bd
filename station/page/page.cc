#include "station/page/page.h"

#include <fmt/format.h>

#include <algorithm>

#include "station/page/history.h"
#include "station/page/static_files.h"
#include "station/store/database.h"

namespace station {
namespace {

constexpr size_t kLongestScan = 1024;

PageReply said(int status, const Json &json) { return {status, "application/json", dump(json)}; }

PageReply outcome(const std::string &problem) {
    return problem.empty() ? said(200, {{"ok", true}}) : refused(409, problem);
}

// What `act` makes of the request's JSON; whatever is missing there, or of another kind, is refused.
template <typename Act>
PageReply read(const PageRequest &request, const char *form, const Act &act) try {
    return act(Json::parse(request.body));
} catch (const Json::exception &) {
    return refused(400, fmt::format("expected {}", form));
}

// Without a store's help the counters begin with the station.
Shift shiftOf(const PageSettings &settings, const std::string &store) {
    Shift shift(settings.shifts);
    if (store.empty()) return shift;
    try {
        Shift recalled = shift;
        recalled.recall(store);
        return recalled;
    } catch (const StoreError &) {  // the records say why
        return shift;
    }
}

bool isLine(const std::string &text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r' || c == '\0'; });
}

}  // namespace

Page::Page(const PageSettings &settings, const std::string &store)
    : address_(settings.address),
      floor_(shiftOf(settings, store), [this] { server_.changed(); }),
      scanner_(floor_),
      server_(settings, [this](uint64_t &seen) { return floor_.since(seen); }) {
    server_.add(staticRoutes());
    server_.add(historyRoutes(store));
    server_.add({{"/scan", [this](const PageRequest &request) { return scan(request); }, RouteKind::kChange},
                 {"/api/line", [this](const PageRequest &) { return line(); }, RouteKind::kQuick},
                 {"/hold", [this](const PageRequest &request) { return hold(request); }, RouteKind::kChange}});
}

std::string Page::url() const { return fmt::format("http://{}:{}/", address_, server_.port()); }

void Page::start(Hold hold, std::function<void(const std::string &trouble)> tell) {
    hold_ = std::move(hold);
    server_.start(std::move(tell));
}

PageReply Page::scan(const PageRequest &request) {
    const char *const form = "{\"place\": NUMBER, \"question\": NUMBER, \"text\": TEXT}";
    return read(request, form, [this](const Json &json) {
        const std::string text = json.at("text").get<std::string>();
        if (text.size() > kLongestScan || !isLine(text)) return refused(400, "expected a line of at most 1024 bytes");
        return outcome(scanner_.answer(json.at("place").get<int>(), json.at("question").get<uint64_t>(), text));
    });
}

// What each place asks and does, as a browser is told that comes now.
PageReply Page::line() {
    uint64_t seen = 0;
    return {200, "application/json", floor_.since(seen)};
}

PageReply Page::hold(const PageRequest &request) {
    return read(request, "{\"place\": NUMBER, \"hold\": true or false}", [this](const Json &json) {
        const bool known = hold_(json.at("place").get<int>(), json.at("hold").get<bool>());
        return outcome(known ? "" : "there is no such place");
    });
}

}  // namespace station
