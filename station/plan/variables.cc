#include "station/plan/variables.h"

#include <fmt/format.h>
#include <re2/re2.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <stdexcept>

namespace station {
namespace {

// Gives what stands in the place of a {name}.
using Replace = std::function<std::string(const std::string &name)>;

bool begins(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_'; }
bool continues(char c) { return begins(c) || std::isdigit(static_cast<unsigned char>(c)) != 0; }

// The name at a '{', empty when none stands there.
std::string nameAt(std::string_view text, size_t brace) {
    const size_t end = text.find('}', brace);
    if (end == std::string_view::npos) return {};
    const std::string_view name = text.substr(brace + 1, end - brace - 1);
    return isName(name) ? std::string(name) : std::string();
}

// `keep`: two braces stay two, for another turn.
std::string replaceInText(const std::string &text, bool keep, const Replace &replace) {
    std::string result;
    for (size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (c != '{' && c != '}') {
            result += c;
        } else if (at + 1 < text.size() && text[at + 1] == c) {
            result.append(keep ? 2 : 1, c);
            ++at;
        } else if (const std::string name = c == '{' ? nameAt(text, at) : ""; !name.empty()) {
            result += replace(name);
            at += name.size() + 1;
        } else {
            throw std::invalid_argument(fmt::format("'{0}' that is no {{name}}; write '{0}{0}' for a brace", c));
        }
    }
    return result;
}

// Bytes of an escape, as that of a class or a character, whose braces are its own.
size_t escapeLength(std::string_view expression) {
    const bool braced = expression.size() > 2 && expression[2] == '{' &&
                        std::string_view("pPx").find(expression[1]) != std::string_view::npos;
    const size_t end = braced ? expression.find('}') : std::string_view::npos;
    return end == std::string_view::npos ? 2 : end + 1;
}

std::string replaceInExpression(const std::string &text, const Replace &replace) {
    std::string result;
    for (size_t at = 0; at < text.size();) {
        const std::string name = text[at] == '{' ? nameAt(text, at) : "";
        const size_t length = text[at] == '\\' ? escapeLength(std::string_view(text).substr(at)) : 1;
        result += name.empty() ? text.substr(at, length) : replace(name);
        at += name.empty() ? length : name.size() + 2;
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
    return !text.empty() && begins(text.front()) && std::all_of(text.begin(), text.end(), continues);
}

std::set<std::string> namesIn(const std::string &text) {
    std::set<std::string> names;
    replaceInText(text, false, [&](const std::string &name) { return *names.insert(name).first; });
    return names;
}

std::string expand(const std::string &text, const Variables &variables) {
    return replaceInText(text, false, [&](const std::string &name) { return valueOf(name, variables); });
}

std::string fill(const std::string &text, const Variables &variables) {
    return replaceInText(text, true, [&](const std::string &name) {
        const auto found = variables.find(name);
        return found == variables.end() ? "{" + name + "}" : found->second;
    });
}

std::set<std::string> namesInExpression(const std::string &text) {
    std::set<std::string> names;
    replaceInExpression(text, [&](const std::string &name) { return *names.insert(name).first; });
    return names;
}

std::string expandExpression(const std::string &text, const Variables &variables) {
    return replaceInExpression(text,
                               [&](const std::string &name) { return re2::RE2::QuoteMeta(valueOf(name, variables)); });
}

}  // namespace station
