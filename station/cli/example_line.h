#pragma once
// The example of a line's file, station/package/line.yaml, which is compiled into the program.

#include <string_view>
#include <vector>

#include "station/base/static_file.h"

namespace station {

extern const std::vector<StaticFile> kExampleFiles;  // only that one
extern const std::string_view kExampleVersion;

}  // namespace station
