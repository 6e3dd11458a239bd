#pragma once
// HTML of the engineer's pages: templates (station/page/templates, in mustache) filled with a page's data.

#include <string>

#include "station/page/document.h"

namespace station {

// Returns the page of a document.
std::string pageOf(const Json &document, const Query &query);

// Returns the page of the template `name` that says `what` in its own words.
std::string messagePage(const std::string &name, const std::string &title, const std::string &what);

}  // namespace station
