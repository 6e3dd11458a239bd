#include "station/plan/expectation.h"

#include <fmt/format.h>
#include <re2/re2.h>

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
    if (!expression->ok()) throw std::invalid_argument(fmt::format("bad expression: {}", expression->error()));
    return expression;
}

Variables examples(const std::set<std::string> &names) {
    Variables values;
    for (const std::string &name : names) values.emplace(name, "x");
    return values;
}

}  // namespace

Expression::Expression(std::string text) : text_(std::move(text)) {
    const std::set<std::string> names = namesInExpression(text_);
    compiled_ = compile(expandExpression(text_, examples(names)));
    open_ = !names.empty();
}

std::set<std::string> Expression::groups() const {
    std::set<std::string> names;
    for (const auto &[name, index] : compiled_->NamedCapturingGroups()) names.insert(name);
    return names;
}

Expression Expression::with(const Variables &variables) const {
    return open_ ? Expression(expandExpression(text_, variables)) : *this;
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
    return ready;
}

std::string Expectation::judge(const std::string &actual, Variables &groups) const {
    if (text && actual != *text) return fmt::format("expected \"{}\", got \"{}\"", *text, shorten(actual, kQuoted));
    if (!match) return {};
    std::optional<Variables> found = match->find(actual);
    if (!found) return fmt::format("expected a match of \"{}\", got \"{}\"", match->text(), shorten(actual, kQuoted));
    groups = std::move(*found);
    return {};
}

}  // namespace station
