#pragma once
// Renders the engineer's pages as HTML: fills mustache templates (station/page/templates) with a page's data.

#include <string>

#include "station/page/document.h"

namespace station {

// Returns the page that shows a document (documentOf()).
std::string pageOf(const Json &document, const Query &query);

// Returns a page without tables, from the template `name`. `what`: the message on it.
std::string messagePage(const std::string &name, const std::string &title = "", const std::string &what = "");

}  // namespace station
