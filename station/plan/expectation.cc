#include "station/plan/expectation.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "station/base/text.h"

namespace station {
namespace {

using re2::RE2;
using re2::StringPiece;

std::shared_ptr<const RE2> compile(const std::string &text) {
    RE2::Options options(RE2::Latin1);  // what boards send need not be UTF-8
    options.set_log_errors(false);
    auto expression = std::make_shared<const RE2>(text, options);
    const std::string &why = expression->error();
    if (!expression->ok())
        throw std::invalid_argument(fmt::format("bad expression: {}{}", why,
                                                why.ends_with("(?<") ? ": write a named group as (?P<name>...)" : ""));
    return expression;
}

// Returns the line of a text in which the byte is, with its end.
std::string lineAt(const std::string &text, size_t at) {
    const size_t start = at == 0 ? 0 : text.rfind('\n', at - 1) + 1;
    return text.substr(start, std::min(text.find('\n', start), text.size() - 1) - start + 1);
}

// Says what differs first: of several lines the line.
std::string difference(const std::string &expected, const std::string &actual) {
    const auto differ = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    const auto line = 1 + std::count(expected.begin(), differ.first, '\n');
    const auto at = static_cast<size_t>(differ.first - expected.begin());
    const bool several = (expected + actual).find('\n') != std::string::npos;
    return fmt::format("{}expected \"{}\", got \"{}\"", several ? fmt::format("line {}: ", line) : "",
                       shorten(lineAt(expected, at), kQuoted), shorten(lineAt(actual, at), kQuoted));
}

// Quotes the first line: a report's says what failed.
std::string unexpected(const std::string &actual) {
    const std::string line = actual.substr(0, actual.find('\n'));
    return fmt::format("\"{}{}\" is not what the plan expects", shorten(line, kQuoted),
                       actual.size() > line.size() + 1 ? "..." : "");
}

}  // namespace

Expression::Expression(std::string text) : text_(std::move(text)) {
    Variables examples;
    for (const std::string &name : namesIn(text_, Syntax::kExpression)) examples[name] = "x";
    compiled_ = compile(expand(text_, examples, Syntax::kExpression));
    open_ = !examples.empty();
}

std::set<std::string> Expression::groups() const {
    std::set<std::string> names;
    for (const auto &[name, index] : compiled_->NamedCapturingGroups()) names.insert(name);
    return names;
}

Expression Expression::with(const Variables &variables) const {
    return open_ ? Expression(expand(text_, variables, Syntax::kExpression)) : *this;
}

std::optional<Variables> Expression::find(const std::string &text) const {
    std::vector<StringPiece> parts(static_cast<size_t>(compiled_->NumberOfCapturingGroups()) + 1);
    const int count = static_cast<int>(parts.size());
    if (!compiled_->Match(text, 0, text.size(), RE2::UNANCHORED, parts.data(), count)) return std::nullopt;
    Variables named;
    for (const auto &[name, index] : compiled_->NamedCapturingGroups()) {
        const StringPiece &group = parts[static_cast<size_t>(index)];
        if (group.data() != nullptr) named[name] = std::string(group);
    }
    return named;
}

Expectation Expectation::with(const Variables &variables) const {
    Expectation ready;
    if (text) ready.text = expand(*text, variables);
    if (match) ready.match = match->with(variables);
    ready.problem = expand(problem, variables);
    return ready;
}

std::string Expectation::judge(const std::string &actual, Variables &groups) const {
    if (text && actual != *text) return problem.empty() ? difference(*text, actual) : problem;
    if (!match) return {};
    std::optional<Variables> found = match->find(actual);
    if (!found) return problem.empty() ? unexpected(actual) : problem;
    groups = std::move(*found);
    return {};
}

}  // namespace station
