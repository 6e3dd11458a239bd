#pragma once
// The page's own files, which are compiled in from station/page/static.

#include <string_view>
#include <vector>

#include "station/base/static_file.h"
#include "station/page/reply.h"

namespace station {

extern const std::vector<StaticFile> kStaticFiles;
// Changes with each of them: a page that was served by another build is stale.
extern const std::string_view kStaticVersion;

// Each at its name; operator.html at /.
std::vector<Route> staticRoutes();

}  // namespace station
