#include "station/base/text.h"

#include <re2/re2.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace station {
namespace {

// Returns true for the bytes of a character after its first.
bool continues(char c) { return (c & 0xC0) == 0x80; }

}  // namespace

std::string asUtf8(const std::string &text) {
    using nlohmann::json;
    return json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace)).get<std::string>();
}

std::string replaced(const std::string &text, char letter, std::string_view by) {
    std::string result;
    result.reserve(text.size());
    for (const char c : text) result.append(c == letter ? by : std::string_view(&c, 1));
    return result;
}

std::string trim(const std::string &text) {
    constexpr char kBlanks[] = " \t\r\n";
    const size_t start = text.find_first_not_of(kBlanks);
    return start == std::string::npos ? "" : text.substr(start, text.find_last_not_of(kBlanks) - start + 1);
}

std::string oneLine(const std::string &text) {
    static const re2::RE2 kLineEnd("\n"), kEscape("\x1B"), kControl("\\p{C}"), kNone("[\\x{FFFE}\\x{FFFF}]");
    std::string line = asUtf8(text);
    re2::RE2::GlobalReplace(&line, kLineEnd, R"(\\n)");
    re2::RE2::GlobalReplace(&line, kEscape, R"(\\e)");
    re2::RE2::GlobalReplace(&line, kControl, "?");
    re2::RE2::GlobalReplace(&line, kNone, "\uFFFD");  // no characters, and forbidden in XML
    return line;
}

std::string withoutAssignments(const std::string &command) {
    static const re2::RE2 kAssignments(R"(\s*(?:\w+=(?:"[^"]*"|'[^']*'|[^\s"'])*\s+)*)", re2::RE2::Latin1);
    re2::StringPiece rest(command);
    re2::RE2::Consume(&rest, kAssignments);
    return {rest.data(), rest.size()};
}

// Ends it before a '=', too: an assignment that was not recognized.
std::string programOf(const std::string &command) {
    const std::string rest = withoutAssignments(command);
    return rest.substr(0, rest.find_first_of(" \t\n="));
}

size_t charactersOf(const std::string &text) {
    return text.size() - static_cast<size_t>(std::ranges::count_if(text, continues));
}

std::string shorten(const std::string &text, size_t most) {
    if (text.size() <= most) return text;
    size_t end = most;
    while (end > 0 && most - end < 3 && continues(text[end])) --end;
    return text.substr(0, end) + "...";
}

}  // namespace station
