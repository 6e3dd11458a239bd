#pragma once
// Texts from boards and people may have any bytes. These functions make them fit to be shown and kept.

#include <charconv>
#include <concepts>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace station {

// Returns the text as UTF-8; each byte that is not UTF-8 becomes U+FFFD.
std::string asUtf8(const std::string &text);

// Returns the text with `by` in the place of each such letter.
std::string replaced(const std::string &text, char letter, std::string_view by);

// Returns the text without the blanks, tabs and line ends around it.
std::string trim(const std::string &text);

// Returns the text as one line of UTF-8 that is fit for XML: line ends and control characters become visible.
std::string oneLine(const std::string &text);

// Returns a command for the shell without the blanks and assignments before its program: A="1 2" ./check 3.
std::string withoutAssignments(const std::string &command);

// Returns the program that a command for the shell begins with. What is before and after it may be a password.
std::string programOf(const std::string &command);

// Returns the number of UTF-8 characters in the text, which is its width on most terminals.
size_t charactersOf(const std::string &text);

// Returns the text if it has at most `most` bytes; otherwise its first `most` bytes, less an incomplete character at
// the end, and "...".
std::string shorten(const std::string &text, size_t most);

// Returns the whole number that the text is, in decimal digits; nothing for any other text, and for a number that the
// type does not hold.
template <std::integral Number>
std::optional<Number> wholeNumber(std::string_view text) {
    Number number = 0;
    const char *const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && behind == end ? std::optional(number) : std::nullopt;
}

}  // namespace station
