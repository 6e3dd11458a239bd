#pragma once
// Formats the results of queries for people and programs, alike for the terminal and the pages.

#include <string>
#include <vector>

#include "station/store/database.h"

namespace station {

// Returns a cell for people: a fraction with three decimals, a text without control characters, or "-" for NULL.
std::string cellText(const Value &cell, bool number);

// Returns a measured value, or a figure computed from several, with the digits that mean something: four of the
// distance between its limits, or two of the deviation; always enough to tell it from a limit that it does not equal.
// NAN: no such limit or deviation.
std::string measuredText(double value, double minimum, double maximum, double deviation);

// Return CSV: a line with the columns' names, then the rows, numbers with all digits. A text that a spreadsheet would
// take for a formula (it begins with =, +, -, @, a tab or a CR) gets an apostrophe in front.
std::string csvHead(const Table &table);  // the line with the names
std::string csvLine(const Table &head, const std::vector<Value> &row);
std::string csvOf(const Table &table);

}  // namespace station
