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

// A regular expression in RE2's syntax, whose matching takes time in proportion to the text. It works on bytes. ^ and $
// are the ends of the whole text unless the expression begins with (?m); '.' is any byte except a line end.
class Expression {
public:
    // Throws std::invalid_argument when the text is not an expression. A {name} in it stands for any text.
    explicit Expression(std::string text);

    const std::string &text() const { return text_; }
    std::set<std::string> groups() const;  // the names of (?P<name>...)

    // Returns the expression with each {name} replaced. Throws std::invalid_argument for a name without a value.
    Expression with(const Variables &variables) const;

    // Returns the named groups of the first match in a text, except those that took no part; nothing without a match.
    std::optional<Variables> find(const std::string &text) const;

private:
    std::string text_;
    std::shared_ptr<const re2::RE2> compiled_;  // with an example for each {name}
    bool open_;                                 // it has a {name}
};

// How many bytes of a text a failure quotes, from its start. Records have all of it.
constexpr size_t kQuoted = 400;

// The expected reply or output: exactly a text, a match of an expression, or anything.
struct Expectation {
    std::optional<std::string> text;
    std::optional<Expression> match;
    std::string problem = {};  // what people read when it is not met, with {name}; empty: what differs

    explicit operator bool() const { return text || match; }

    // Returns the expectation with each {name} replaced. Throws std::invalid_argument for a name without a value.
    Expectation with(const Variables &variables) const;

    // Returns what is wrong with `actual`; empty when it is as expected. A match sets its named groups. Must be called
    // on what with() returned.
    std::string judge(const std::string &actual, Variables &groups) const;
};

}  // namespace station
