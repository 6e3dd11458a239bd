#pragma once
// The variables {name} in a plan's texts. Their values come from the line's file, an operator's answer, a board's reply
// or output, or a pool. A name is a letter or '_', then letters, digits and '_'. {{ and }} stand for a brace.
//
//     expand("MAC {mac}", {{"mac", "02:00:00:00:00:FE"}})  // "MAC 02:00:00:00:00:FE"

#include <array>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace station {

using Variables = std::map<std::string, std::string>;

// The most bytes of a value, which must fit into the environment of a board's script and of a hook.
constexpr size_t kLongestValue = 1024;

// Names that the station itself sets for its commands, as in QC_RUN. No variable has one of them, in any letter case.
constexpr std::array<std::string_view, 3> kStationNames = {"RUN", "PLACE", "VERDICT"};

// Returns why a variable or a pool cannot have the name; empty when it can.
std::string faultOfName(std::string_view name);

// In an expression, {2,3}, \{name} and \x{7F} belong to the expression and {{ is not special. A value matches itself,
// whatever characters it has.
enum class Syntax { kText, kExpression };

// Returns the names in a text. Throws std::invalid_argument for any other brace.
std::set<std::string> namesIn(const std::string &text, Syntax syntax = Syntax::kText);

// Returns the text with each {name} replaced by its value. Throws std::invalid_argument for a name without a value and
// for any other brace.
std::string expand(const std::string &text, const Variables &variables, Syntax syntax = Syntax::kText);

// The same for people: leaves a name without a value as it is.
std::string fill(const std::string &text, const Variables &variables);

}  // namespace station
