#pragma once
// Files that are compiled in by cmake/embed.cmake.

#include <string_view>

namespace station {

struct StaticFile {
    std::string_view name, content;
};

}  // namespace station
