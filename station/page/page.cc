#include "station/page/page.h"

#include <fmt/format.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "station/page/history.h"
#include "station/page/static_files.h"
#include "station/page/words.h"

namespace station {
namespace {

constexpr size_t kLongestScan = 1024;

PageReply said(std::string json) { return {200, "application/json", std::move(json)}; }

PageReply outcome(bool done, const char *problem) { return done ? said(R"({"ok":true})") : refused(409, problem); }

// Returns a route that answers with what `act` makes of a request's JSON. Refuses JSON that lacks a member of `form`,
// or has one of another type.
template <typename Act>
Route change(const char *path, const char *form, const Act &act) {
    const auto answer = [=](const PageRequest &request) {
        try {
            return act(Json::parse(request.body));
        } catch (const Json::exception &) {
            return refused(400, fmt::format("expected {}", form));
        }
    };
    return {path, answer, RouteKind::kChange};
}

std::string parameter(const PageRequest &request, const char *name) {
    const auto found = request.parameters.find(name);
    return found == request.parameters.end() ? "" : found->second;
}

}  // namespace

Page::Page(const PageSettings &settings, const std::string &store)
    : floor_(floorWith(Shift(settings.shifts, settings.target, store))),
      archive_(std::make_shared<Archive>(store)),
      server_(settings, [this](uint64_t &seen) { return floor_->since(seen); }) {
    server_.add(staticRoutes());
    server_.add(historyRoutes(archive_, !store.empty(), settings));
    server_.add(shows(settings.language));
    server_.add(changes());
}

// Returns the routes by which the operator's page shows the line.
std::vector<Route> Page::shows(const std::string &language) {
    const auto words = [text = dump(readWords(language).texts)](const PageRequest &) { return said(text); };
    const auto line = [this](const PageRequest &) {
        uint64_t seen = 0;
        return said(floor_->since(seen));
    };
    const auto steps = [this](const PageRequest &request) {
        const std::string found = floor_->steps(std::atoi(parameter(request, "place").c_str()));
        return found.empty() ? refused(404, "There is no such place.") : said(found);
    };
    const auto picture = [this](const PageRequest &request) -> PageReply {
        const auto found = floor_->picture(parameter(request, "sha256"));
        if (!found) return refused(404, "There is no such picture.");
        return {200, pictureType(*found->bytes), *found->bytes, {{"Cache-Control", "max-age=31536000, immutable"}}};
    };
    return {{"/words.json", words, RouteKind::kQuick},
            {"/api/line", line, RouteKind::kQuick},
            {"/api/steps", steps, RouteKind::kQuick},
            {"/picture", picture, RouteKind::kQuick}};
}

std::vector<Route> Page::changes() {
    const auto scan = [this](const Json &json) {
        const auto text = json.at("text").get<std::string>();
        if (text.size() > kLongestScan || text.find_first_of(std::string_view("\n\r\0", 3)) != std::string::npos)
            return refused(400, "expected a line of at most 1024 bytes");
        return outcome(floor_->answer(whole<int>(json.at("place")), whole<uint64_t>(json.at("question")), text),
                       "The question was answered meanwhile, or its board has gone.");
    };
    const auto seen = [this](const Json &json) {
        return outcome(floor_->seen(whole<int>(json.at("place"))), "There is nothing to be seen at this place.");
    };
    const auto hold = [this](const Json &json) {
        return outcome(hold_(whole<int>(json.at("place")), json.at("hold")), "There is no such place.");
    };
    return {change("/scan", R"({"place": NUMBER, "question": NUMBER, "text": TEXT})", scan),
            change("/seen", R"({"place": NUMBER})", seen),
            change("/hold", R"({"place": NUMBER, "hold": true or false})", hold)};
}

void Page::start(Hold hold, std::function<void(const std::string &trouble)> tell) {
    hold_ = std::move(hold);
    server_.start(std::move(tell));
}

void Page::stop() {
    archive_->stop();
    server_.stop();
}

}  // namespace station
