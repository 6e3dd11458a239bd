#pragma once
// How a store's answers look to people and to other programs: the same in a terminal and on the station's pages.

#include <string>
#include <vector>

#include "station/store/queries.h"

namespace station {

// True when a column of this name has numbers, whatever table it is of.
bool isNumber(const std::string &column);

// A cell to look at: three decimals, no control characters; "-" for none.
std::string cellText(const Value &cell);

// Comma-separated values, all digits, behind a line with the columns' names. Of several tables each has its name before
// it, behind "# ".
std::string csvOf(const Table &table);
std::string csvOf(const std::vector<Section> &sections);

}  // namespace station
