#pragma once
// Texts of boards and people, which may be any bytes, made fit to be shown and kept.

#include <cstddef>
#include <string>

namespace station {

// Returns the text as UTF-8: each byte that is not part of it becomes U+FFFD.
std::string asUtf8(const std::string &text);

// Returns the text without the blanks, tabs and line ends around it.
std::string trim(const std::string &text);

// Returns the text as one line of UTF-8 that is fit for XML: line ends and control characters become visible.
std::string oneLine(const std::string &text);

// Returns how many characters UTF-8 has in the text: the columns that it takes on most terminals.
size_t charactersOf(const std::string &text);

// Returns the first `most` bytes of a longer text, without the part of a character at their end, and "...".
std::string shorten(const std::string &text, size_t most);

}  // namespace station
