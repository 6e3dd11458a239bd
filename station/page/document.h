#pragma once
// The data of the engineer's pages: tables of the store, the same in JSON, HTML and CSV.
// docs/api.schema.json describes the JSON.

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "station/page/archive.h"
#include "station/page/query.h"
#include "station/run/record_json.h"

namespace station {

// A table of a page.
struct Part {
    std::string_view name;
    Table (*ask)(Database &, const Query &, size_t most);  // most: rows of a long table
    const char *order = "";                                // the column that it is sorted by unless the query says more
};

struct Content {
    std::string_view page;  // "runs"
    std::vector<Part> parts;
};

extern const std::vector<Content> kContents;

// Returns the page's tables. A table that the store cannot give in time has an "error" instead of rows; everything else
// that goes wrong is thrown.
Json documentOf(Archive &archive, const Content &content, const Query &query);

// Returns one of them, whole. Throws Refusal when the page has no such table, or when it is too long for a file.
Table tableOf(Archive &archive, const Content &content, const std::string &name, const Query &query);

}  // namespace station
