#pragma once
// What a browser asks an engineer's page for, and the links from it to others, which keep its period and filter.

#include <map>
#include <string>

#include "station/page/reply.h"
#include "station/store/queries.h"

namespace station {

using Parameters = std::map<std::string, std::string>;

// Returns "/runs?plan=a%26b", without the parameters that are empty.
std::string urlOf(const std::string &path, const Parameters &parameters);

struct Query {
    // Throws Refusal when the period makes no sense.
    explicit Query(const PageRequest &request);

    std::string operator[](const std::string &name) const;  // a parameter; empty when it is missing
    Parameters kept() const;                                // period and filter
    // A link to another page, with the period and filter of this one unless `more` has others.
    std::string link(const std::string &to, Parameters more = {}) const;
    // A link to this page with some parameters changed.
    std::string changed(Parameters changes) const;

    std::string path;       // "/runs"
    Parameters parameters;  // UTF-8, none is empty; `since` is always there
    Filter filter;
    size_t rows, offset;  // of a long table: how many to show, how many come before them
};

}  // namespace station
