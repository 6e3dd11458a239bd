#pragma once
// A browser's request for an engineer's page, and the links on that page, which keep the request's period and filter.

#include <map>
#include <string>

#include "station/page/reply.h"
#include "station/store/queries.h"

namespace station {

using Parameters = std::map<std::string, std::string>;

constexpr const char *kFilterFields[] = {"plan", "product", "station", "place", "cause"};

// Returns a path with its query: "/runs?plan=a%26b". Leaves out empty parameters.
std::string urlOf(const std::string &path, const Parameters &parameters);

struct Query {
    // Without a period it is the last 24 hours. Throws Refusal when the period ends before it begins, or is not one.
    explicit Query(const PageRequest &request);

    std::string operator[](const std::string &name) const;  // returns a parameter; empty when it is missing
    Parameters kept() const;                                // returns the period and the filter
    // Returns a link to another page, with this page's period and filter unless `more` overrides them.
    std::string link(const std::string &to, Parameters more = {}) const;
    // Returns a link to this page with these parameters replaced.
    std::string changed(Parameters changes) const;

    std::string path;       // "/runs"
    Parameters parameters;  // UTF-8, none is empty; `since` is always there
    Filter filter;
    size_t rows, offset;  // of a long table: how many to show, how many to skip
};

}  // namespace station
