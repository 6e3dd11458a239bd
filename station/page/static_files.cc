#include "station/page/static_files.h"

#include <algorithm>

namespace station {

std::optional<std::string_view> staticFile(std::string_view name, const std::vector<StaticFile> &files) {
    const auto file = std::ranges::find(files, name, &StaticFile::name);
    return file == files.end() ? std::nullopt : std::optional(file->content);
}

std::vector<Route> staticRoutes() {
    static const std::map<std::string_view, const char *> kTypes = {{"html", "text/html; charset=utf-8"},
                                                                    {"css", "text/css; charset=utf-8"},
                                                                    {"js", "text/javascript; charset=utf-8"},
                                                                    {"json", "application/json"},
                                                                    {"svg", "image/svg+xml"}};
    std::vector<Route> routes;
    for (const StaticFile &file : kStaticFiles) {
        std::string path = "/";
        if (file.name != "operator.html") path += file.name;
        const char *const type = kTypes.at(file.name.substr(file.name.rfind('.') + 1));
        routes.push_back({path,
                          [=](const PageRequest &request) {
                              PageReply reply{200, type, std::string(file.content)};
                              // A link with a version never gets other content; a browser need not ask again.
                              if (request.parameters.contains(std::string(kStaticVersion))) {
                                  reply.headers["Cache-Control"] = "max-age=31536000, immutable";
                              }
                              return reply;
                          },
                          RouteKind::kQuick});
    }
    return routes;
}

}  // namespace station
