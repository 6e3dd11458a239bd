#pragma once
// All about a run, as a page shows it.

#include <string>

#include "station/page/html.h"

namespace station {

// Throws Refusal when there is no run of this name.
Html runContent(Database &database, const std::string &name);

}  // namespace station
