#include "station/plan/variables.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <strings.h>
#include <algorithm>
#include <stdexcept>

namespace station {
namespace {

using re2::RE2;

// A piece of a text: a {name}, two braces, or what has none. Of an expression: a {name}, no braces, or anything else;
// an escape, as that of a class or a character, has braces of its own.
const RE2 kInText(R"(\{([A-Za-z_][A-Za-z0-9_]*)\}|(\{\{|\}\})|([^{}]+))", RE2::Latin1);
const RE2 kInExpression(R"((?s)\{([A-Za-z_][A-Za-z0-9_]*)\}|([^\x00-\xFF])|(\\[pPx]\{[^}]*\}|\\.|.))", RE2::Latin1);

// Calls `replace` for what stands in the place of each name.
template <typename Replace>
std::string replaceIn(const std::string &text, Syntax syntax, const Replace &replace) {
    const RE2 &piece = syntax == Syntax::kText ? kInText : kInExpression;
    std::string result, name, braces, plain;
    for (re2::StringPiece rest(text); !rest.empty();) {
        if (!RE2::Consume(&rest, piece, &name, &braces, &plain)) {
            throw std::invalid_argument(
                fmt::format("a '{0}' is not part of a {{name}}: for a brace write '{0}{0}'", rest[0]));
        }
        result += plain + braces.substr(braces.size() / 2) + (name.empty() ? "" : replace(name));
    }
    return result;
}

}  // namespace

std::string faultOfName(std::string_view name) {
    if (!RE2::FullMatch(std::string(name), "[A-Za-z_][A-Za-z0-9_]*"))
        return fmt::format("\"{}\" is not a name: letters, digits and '_', no digit at the start", name);
    const auto taken = [&](std::string_view own) {
        return own.size() == name.size() && strncasecmp(own.data(), name.data(), name.size()) == 0;
    };
    if (std::ranges::none_of(kStationNames, taken)) return {};
    return fmt::format("the station sets QC_{} itself: choose another name", name);
}

std::set<std::string> namesIn(const std::string &text, Syntax syntax) {
    std::set<std::string> names;
    replaceIn(text, syntax, [&](const std::string &name) { return *names.insert(name).first; });
    return names;
}

std::string expand(const std::string &text, const Variables &variables, Syntax syntax) {
    return replaceIn(text, syntax, [&](const std::string &name) {
        const auto found = variables.find(name);
        if (found == variables.end()) throw std::invalid_argument(fmt::format("{{{}}} has no value", name));
        return syntax == Syntax::kText ? found->second : RE2::QuoteMeta(found->second);
    });
}

std::string fill(const std::string &text, const Variables &variables) {
    return replaceIn(text, Syntax::kText, [&](const std::string &name) {
        const auto found = variables.find(name);
        return found == variables.end() ? "{" + name + "}" : found->second;
    });
}

}  // namespace station
