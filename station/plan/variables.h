#pragma once
// What a plan's texts call {name}: filled from the line's file, an operator's answer, what a board printed, or an
// address pool. A name is a letter or '_', then letters, digits and '_'. {{ and }} stand for a brace.

#include <array>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace station {

using Variables = std::map<std::string, std::string>;

// Bytes of a value: it may go into the environment of a board's script and of a hook.
constexpr size_t kLongestValue = 1024;

// What the station itself tells its commands, as QC_RUN: no variable has these names, whatever the letter case.
constexpr std::array<std::string_view, 3> kStationNames = {"RUN", "PLACE", "VERDICT"};

bool isName(std::string_view text);

// Returns why a variable or a pool cannot have the name; empty: it can.
std::string faultOfName(std::string_view name);

// The names in a text. Throws std::invalid_argument for a brace that is none of the above.
std::set<std::string> namesIn(const std::string &text);

// The text with each {name} replaced by its value. Throws std::invalid_argument, also for a name without a value.
std::string expand(const std::string &text, const Variables &variables);

// The same for people: a name without a value stays as it is.
std::string fill(const std::string &text, const Variables &variables);

// The same for regular expressions, where {2,3}, \{name} and \x{7F} are the expression's own and {{ is nothing special:
// a value stands for itself, whatever characters it has.
std::set<std::string> namesInExpression(const std::string &text);
std::string expandExpression(const std::string &text, const Variables &variables);

}  // namespace station
