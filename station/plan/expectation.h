#pragma once
// What is expected of a reply, of a script's output, or of an operator's answer.

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "station/plan/variables.h"

namespace re2 {
class RE2;
}

namespace station {

// A regular expression in RE2's syntax, which takes time in proportion to the text, whatever both are. It works on
// bytes; ^ and $ are the start and the end of the whole text unless it begins with (?m); '.' is any byte but a line
// end.
class Expression {
public:
    // Throws std::invalid_argument when it is none. A {name} in it stands for any text.
    explicit Expression(std::string text);

    const std::string &text() const { return text_; }
    std::set<std::string> groups() const;  // the names of (?P<name>...)

    // The same with each {name} replaced. Throws std::invalid_argument for one without a value.
    Expression with(const Variables &variables) const;

    // The named groups of the first match in a text, but those that took no part; nothing when there is no match.
    std::optional<Variables> find(const std::string &text) const;

private:
    std::string text_;
    std::shared_ptr<const re2::RE2> compiled_;  // the one without names, or with an example for each
    bool open_;                                 // there are names in it
};

// Bytes of a text that a failure quotes: its start, as records have all of it.
constexpr size_t kQuoted = 400;

// All of a text, a match in it, or nothing.
struct Expectation {
    std::optional<std::string> text;
    std::optional<Expression> match;
    std::string problem = {};  // what people read when it is not met, with {name}; empty: what differs

    explicit operator bool() const { return text || match; }

    // The same with each {name} replaced. Throws std::invalid_argument for one without a value.
    Expectation with(const Variables &variables) const;

    // Of what `with` returned: empty when `actual` is as expected, else what is wrong with it. A match sets its named
    // groups.
    std::string judge(const std::string &actual, Variables &groups) const;
};

}  // namespace station
