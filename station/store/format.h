#pragma once
// How a store's answers look to people and to other programs: the same in a terminal and on the station's pages.

#include <string>
#include <vector>

#include "station/store/queries.h"

namespace station {

// Returns true when a column of this name has numbers, whatever table it is of. Table::numbers knows better.
bool isNumber(const std::string &column);

// Returns a cell to look at: a number with three decimals at most, a text without control characters; "-" for none.
std::string cellText(const Value &cell, bool isNumber = true);

// Returns a measured value, or a figure of many, with the digits that mean something: four of the distance between its
// limits, or two of the deviation, and always enough to tell it from a limit that it is not. NAN: no limit, none known.
std::string measuredText(double value, double minimum, double maximum, double deviation);

// Comma-separated values, all digits, after a line with the columns' names. A text that a spreadsheet would take for a
// formula (it begins with =, +, -, @ or a tab) gets an apostrophe in front.
std::string csvLine(const Table &head);  // the names
std::string csvLine(const Table &head, const std::vector<Value> &row);
std::string csvOf(const Table &table);
std::string csvOf(const std::vector<Section> &sections);  // each with its name before it, after "# "

}  // namespace station
