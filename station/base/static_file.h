#pragma once
// Files that cmake/embed.cmake compiles into the program.

#include <string_view>

namespace station {

struct StaticFile {
    std::string_view name, content;
};

}  // namespace station
