#include "station/plan/variables.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <strings.h>
#include <algorithm>
#include <functional>
#include <stdexcept>

namespace station {
namespace {

using re2::RE2;

// Gives what stands in the place of a {name}.
using Replace = std::function<std::string(const std::string &name)>;

// A piece of a text: a {name}, two braces, or what has none. Of an expression: a {name}, no braces, or anything else;
// an escape, as that of a class or a character, has braces of its own.
const RE2 kInText(R"(\{([A-Za-z_][A-Za-z0-9_]*)\}|(\{\{|\}\})|([^{}]+))", RE2::Latin1);
const RE2 kInExpression(R"((?s)\{([A-Za-z_][A-Za-z0-9_]*)\}|([^\x00-\xFF])|(\\[pPx]\{[^}]*\}|\\.|.))", RE2::Latin1);

std::string replaceIn(const std::string &text, const RE2 &piece, const Replace &replace) {
    std::string result, name, braces, plain;
    for (re2::StringPiece rest(text); !rest.empty();) {
        if (!RE2::Consume(&rest, piece, &name, &braces, &plain)) {
            throw std::invalid_argument(fmt::format("'{0}' that is no {{name}}; write '{0}{0}' for a brace", rest[0]));
        }
        result += plain + braces.substr(braces.size() / 2) + (name.empty() ? "" : replace(name));
    }
    return result;
}

std::string valueOf(const std::string &name, const Variables &variables) {
    const auto found = variables.find(name);
    if (found == variables.end()) throw std::invalid_argument(fmt::format("{{{}}} has no value", name));
    return found->second;
}

}  // namespace

bool isName(std::string_view text) {
    return RE2::FullMatch(re2::StringPiece(text.data(), text.size()), "[A-Za-z_][A-Za-z0-9_]*");
}

std::string faultOfName(std::string_view name) {
    if (!isName(name)) return fmt::format("\"{}\" is not a name: letters, digits and '_', no digit at the start", name);
    const auto taken = [&](std::string_view own) {
        return own.size() == name.size() && strncasecmp(own.data(), name.data(), name.size()) == 0;
    };
    if (std::none_of(kStationNames.begin(), kStationNames.end(), taken)) return {};
    return fmt::format("the station sets QC_{} itself: choose another name", name);
}

std::set<std::string> namesIn(const std::string &text) {
    std::set<std::string> names;
    replaceIn(text, kInText, [&](const std::string &name) { return *names.insert(name).first; });
    return names;
}

std::string expand(const std::string &text, const Variables &variables) {
    return replaceIn(text, kInText, [&](const std::string &name) { return valueOf(name, variables); });
}

std::string fill(const std::string &text, const Variables &variables) {
    return replaceIn(text, kInText, [&](const std::string &name) {
        const auto found = variables.find(name);
        return found == variables.end() ? "{" + name + "}" : found->second;
    });
}

std::set<std::string> namesInExpression(const std::string &text) {
    std::set<std::string> names;
    replaceIn(text, kInExpression, [&](const std::string &name) { return *names.insert(name).first; });
    return names;
}

std::string expandExpression(const std::string &text, const Variables &variables) {
    return replaceIn(text, kInExpression,
                     [&](const std::string &name) { return RE2::QuoteMeta(valueOf(name, variables)); });
}

}  // namespace station
