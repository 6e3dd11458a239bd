#pragma once
// Pictures of what the store answers, as SVG within a page. What they look like is in engineer.css; shapes, not
// colours, tell things apart.

#include "station/page/html.h"

namespace station {

// Each of a table that is not empty.

// The failures of failuresByStep(): a bar a step with its share of all, and the line of the shares added up. The label
// of each is a link that `link` makes of the step.
Html paretoChart(const Table &failures, const std::function<std::string(const std::string &step)> &link);

// yields() by the hour: the first pass yield, and the number of runs below it.
Html yieldChart(const Table &hours);

// readings() or readingGroups(): a value over time, or its range within each group, and its limits. What failed is a
// cross.
Html valueChart(const Table &readings, const std::string &name);

}  // namespace station
