#pragma once
// The SQL files of station/store/sql, which are compiled into the program.

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "station/base/file.h"

namespace station {

extern const std::vector<StaticFile> kSqlFiles;

using Words = std::map<std::string, std::string>;

// Returns the SQL of the file NAME.sql, followed by that of NAME.sqlite.sql or, if `shared`, of NAME.postgresql.sql. In
// it, {WORD} is replaced by the word's text; without one, by the SQL of the file WORD.sql.
std::string sqlOf(bool shared, const std::string &name, const Words &words = {});

// Returns the file's statements. Each ends with ";\n" in the file.
std::vector<std::string> statementsOf(bool shared, const std::string &name, const Words &words = {});

}  // namespace station
