#include "station/page/page.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

#include "station/page/history.h"
#include "station/page/static_files.h"
#include "station/page/words.h"
#include "station/store/database.h"

namespace station {
namespace {

constexpr size_t kLongestScan = 1024;

PageReply said(int status, const Json &json) { return {status, "application/json", dump(json)}; }

PageReply outcome(const std::string &problem) {
    return problem.empty() ? said(200, {{"ok", true}}) : refused(409, problem);
}

// Returns what `act` makes of the request's JSON. Refuses JSON that lacks a member or has one of another type.
template <typename Act>
PageReply read(const PageRequest &request, const char *form, const Act &act) try {
    return act(Json::parse(request.body));
} catch (const Json::exception &) {
    return refused(400, fmt::format("expected {}", form));
}

// Returns the counters of the shift. Without a store, or while it is away, they start at 0.
Shift shiftOf(const PageSettings &settings, const std::string &store) {
    Shift shift(settings.shifts, settings.target);
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
      archive_(std::make_shared<Archive>(store)),
      server_(settings, [this](uint64_t &seen) { return floor_.since(seen); }) {
    server_.add(staticRoutes());
    server_.add({{"/words.json",
                  [words = Json(readWords(settings.language).texts)](const PageRequest &) { return said(200, words); },
                  RouteKind::kQuick}});
    server_.add(historyRoutes(archive_, !store.empty()));
    server_.add({{"/scan", [this](const PageRequest &request) { return scan(request); }, RouteKind::kChange},
                 {"/api/line", [this](const PageRequest &) { return line(); }, RouteKind::kQuick},
                 {"/api/steps", [this](const PageRequest &request) { return steps(request); }, RouteKind::kQuick},
                 {"/picture", [this](const PageRequest &request) { return picture(request); }, RouteKind::kQuick},
                 {"/seen", [this](const PageRequest &request) { return seen(request); }, RouteKind::kChange},
                 {"/hold", [this](const PageRequest &request) { return hold(request); }, RouteKind::kChange}});
}

std::string Page::url() const { return fmt::format("http://{}:{}/", address_, server_.port()); }

void Page::start(Hold hold, std::function<void(const std::string &trouble)> tell) {
    hold_ = std::move(hold);
    server_.start(std::move(tell));
}

void Page::stop() {
    archive_->stop();
    server_.stop();
}

PageReply Page::picture(const PageRequest &request) {
    const auto wanted = request.parameters.find("sha256");
    const auto found = floor_.picture(wanted == request.parameters.end() ? "" : wanted->second);
    if (!found) return refused(404, "There is no such picture.");
    return {200, pictureType(*found->bytes), *found->bytes, {{"Cache-Control", "max-age=31536000, immutable"}}};
}

PageReply Page::scan(const PageRequest &request) {
    const char *const form = "{\"place\": NUMBER, \"question\": NUMBER, \"text\": TEXT}";
    return read(request, form, [this](const Json &json) {
        const std::string text = json.at("text").get<std::string>();
        if (text.size() > kLongestScan || !isLine(text)) return refused(400, "expected a line of at most 1024 bytes");
        return outcome(scanner_.answer(json.at("place").get<int>(), json.at("question").get<uint64_t>(), text));
    });
}

// Returns the state of all places, as a new browser gets it.
PageReply Page::line() {
    uint64_t seen = 0;
    return {200, "application/json", floor_.since(seen)};
}

// Returns what the place of the parameter "place" did so far.
PageReply Page::steps(const PageRequest &request) {
    const auto place = request.parameters.find("place");
    const int number = place == request.parameters.end() ? 0 : std::atoi(place->second.c_str());
    std::string found = floor_.steps(number);
    if (found.empty()) return refused(404, "There is no such place.");
    return {200, "application/json", std::move(found)};
}

PageReply Page::seen(const PageRequest &request) {
    return read(request, "{\"place\": NUMBER}", [this](const Json &json) {
        return outcome(floor_.seen(json.at("place").get<int>()) ? "" : "There is nothing to be seen at this place.");
    });
}

PageReply Page::hold(const PageRequest &request) {
    return read(request, "{\"place\": NUMBER, \"hold\": true or false}", [this](const Json &json) {
        const bool known = hold_(json.at("place").get<int>(), json.at("hold").get<bool>());
        return outcome(known ? "" : "There is no such place.");
    });
}

}  // namespace station
