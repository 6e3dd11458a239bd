#pragma once
// The SQL files of station/store/sql, which are compiled into the program.

#include <string>
#include <string_view>
#include <vector>

#include "station/base/static_file.h"

namespace station {

extern const std::vector<StaticFile> kSqlFiles;
extern const std::string_view kSqlVersion;  // changes with each of them

// Returns the content of the file NAME.sql; empty when there is none.
std::string_view sqlFile(const std::string &name);

}  // namespace station
