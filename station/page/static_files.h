#pragma once
// The page's own files, which are compiled in.

#include <optional>
#include <string_view>
#include <vector>

#include "station/base/file.h"
#include "station/page/reply.h"

namespace station {

extern const std::vector<StaticFile> kStaticFiles;  // from station/page/static, and the library of the charts
// Changes with each file: a browser that has another version must reload.
extern const std::string_view kStaticVersion;

extern const std::vector<StaticFile> kTemplateFiles;  // NAME.mustache, from station/page/templates

// Returns the content of the file with this name, or nothing if the program has no such file.
std::optional<std::string_view> staticFile(std::string_view name, const std::vector<StaticFile> &files = kStaticFiles);

// Returns a route for each static file, at its name; operator.html is at /.
std::vector<Route> staticRoutes();

}  // namespace station
