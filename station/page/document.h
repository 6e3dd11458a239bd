#pragma once
// The data of the engineer's pages: tables from the store, which HTML, JSON and CSV share.
// docs/api.schema.json describes the JSON.

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "station/line/line_file.h"
#include "station/page/archive.h"
#include "station/page/query.h"
#include "station/run/record_json.h"

namespace station {

struct Asked {
    Database &database;
    const Query &query;
    const PageSettings &settings;
    size_t most;  // limit for the rows of a long table
};

// Tables of a page that one question to the store answers.
struct Part {
    std::vector<std::string> names;
    std::function<std::vector<Section>(const Asked &)> ask;
};

struct Content {
    std::string_view page;  // "runs"
    std::vector<Part> parts;
};

extern const std::vector<Content> kContents;

// Returns the page's tables. A table that the store cannot deliver in time has an "error" instead of rows. Throws
// Refusal or another StoreError for every other failure.
Json documentOf(Archive &archive, const Content &content, const Query &query, const PageSettings &settings = {});

// Returns all rows of the page's table `name`; of its first table when `name` is empty. Throws Refusal when the page
// has no such table, or when it is too long for a file (100,000 rows).
Table tableOf(Archive &archive, const Content &content, const std::string &name, const Query &query,
              const PageSettings &settings = {});

}  // namespace station
