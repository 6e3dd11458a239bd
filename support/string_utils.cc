#include "support/string_utils.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "support/handle.h"
#include "support/shell.h"

namespace {

char *newText(size_t length) { return static_cast<char *>(calloc(length + 1, 1)); }

// A quote after one backslash is escaped. After exactly two it closes the token: those two are an escaped backslash.
// After three or more it counts as escaped again. The opening quote bounds the look back.
bool isEscapedQuote(const char *quote) {
    if (quote[-1] != '\\') return false;
    return quote[-2] != '\\' || quote[-3] == '\\';
}

char *findClosingQuote(char *token) {
    for (char *quote = strchr(token, '"'); quote != nullptr; quote = strchr(quote + 1, '"')) {
        if (!isEscapedQuote(quote)) return quote;
    }
    return nullptr;
}

void unescape(char *token) {
    char *written = token;
    for (const char *read = token; *read != '\0'; ++read) {
        if (*read == '\\' && read[1] != '\0') ++read;
        *written++ = *read;
    }
    *written = '\0';
}

// Cuts the token at its closing quote and unescapes it. Returns the position after the quote, or null when the quote is
// missing.
char *cutQuoted(char *token) {
    char *const closing = findClosingQuote(token);
    if (closing == nullptr) return nullptr;
    *closing = '\0';
    unescape(token);
    return closing + 1;
}

char *cutUnquoted(char *token) {
    char *const end = token + strcspn(token, " \t\r\n");
    if (*end == '\0') return end;
    *end = '\0';
    return end + 1;
}

char *convertCase(char *text, int (*convert)(int)) {
    if (text == nullptr) return nullptr;
    for (char *c = text; *c != '\0'; ++c) *c = static_cast<char>(convert(static_cast<unsigned char>(*c)));
    return text;
}

void copyWithout(char *destination, const char *source, char removed) {
    for (; *source != '\0'; ++source) {
        if (*source != removed) *destination++ = *source;
    }
    *destination = '\0';
}

}  // namespace

int string_parse(char **tokens, int max, char *line) {
    for (int i = 0; i < max; ++i) tokens[i] = nullptr;
    int count = 0;
    while (count < max) {
        line += strspn(line, " \t");
        if (*line == '\0') break;
        char *token = line;
        if (*token == '"') {
            ++token;
            if (*token == '\0') break;
            line = cutQuoted(token);
            if (line == nullptr) return -1;
        } else {
            // A CR or LF here makes an empty token: only blanks and tabs are skipped between tokens.
            line = cutUnquoted(token);
        }
        tokens[count++] = token;
    }
    tokens[count] = nullptr;
    return count;
}

char *my_string(char *previous, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char *const added = xvasprintf(format, arguments);
    va_end(arguments);
    if (added == nullptr || previous == nullptr) return added;
    char *const joined = xasprintf("%s%s", previous, added);
    free(previous);
    free(added);
    return joined;
}

char *my_replaceStr(const char *text, const char *old, const char *replacement) {
    const size_t oldLength = strlen(old);
    if (oldLength == 0) return strdup(text);
    const size_t newLength = strlen(replacement);
    size_t size = strlen(text);
    if (newLength > oldLength) size = newLength * (size / oldLength) + size % oldLength;
    char *const result = newText(size);
    if (result == nullptr) return nullptr;

    char *written = result;
    while (*text != '\0') {
        if (strncmp(text, old, oldLength) == 0) {
            memcpy(written, replacement, newLength);
            written += newLength;
            text += oldLength;
        } else {
            *written++ = *text++;
        }
    }
    return result;
}

char *my_replaceStrs(const char *text, const char *const *pairs) {
    char *result = strdup(text);
    for (; result != nullptr && pairs[0] != nullptr; pairs += 2) {
        char *const replaced = my_replaceStr(result, pairs[0], pairs[1]);
        free(result);
        result = replaced;
    }
    return result;
}

char *my_replaceChar(const char *text, const char *set, char replacement) {
    if (text == nullptr || set == nullptr) return nullptr;
    char *const result = strdup(text);
    if (result == nullptr) return nullptr;
    for (char *c = strpbrk(result, set); c != nullptr; c = strpbrk(c + 1, set)) *c = replacement;
    return result;
}

char *my_removeChar(char *text, char removed) {
    char *const result = newText(strlen(text));
    if (result == nullptr) return text;
    copyWithout(result, text, removed);
    return result;
}

char *my_stripChar(char *text, char removed) {
    copyWithout(text, text, removed);
    return text;
}

char *my_toupper(char *text) { return convertCase(text, toupper); }

char *my_tolower(char *text) { return convertCase(text, tolower); }

char *my_strrstr(char *text, const char *needle) {
    const size_t length = strlen(needle);
    if (length == 0) return nullptr;
    char *last = nullptr;
    for (char *found = strstr(text, needle); found != nullptr; found = strstr(found + length, needle)) last = found;
    return last;
}

int string_split(char **tokens, int max, char *text, const char *separator) {
    if (max < 1) return max;
    int count = 0;
    while (count < max) {
        tokens[count++] = text;
        // strstr finds an empty separator at once: the cut would empty the token.
        char *const found = *separator != '\0' ? strstr(text, separator) : nullptr;
        if (found == nullptr) break;
        *found = '\0';
        text = found + 1;
    }
    while (count <= max) tokens[count++] = nullptr;
    return max;
}

int utf8_len(unsigned char first) {
    if (first < 0x80) return 1;
    if (first < 0xC0 || first >= 0xF0) return 4;
    return first < 0xE0 ? 2 : 3;
}

char *url_encode(const char *text) {
    static char encoded[1024];
    memset(encoded, 0, sizeof encoded);
    size_t length = 0;
    int escapesLeft = 0;  // bytes left in the current UTF-8 sequence
    for (; *text != '\0'; ++text) {
        const unsigned char byte = static_cast<unsigned char>(*text);
        if (escapesLeft == 0 && (isalnum(byte) || byte == '.')) {
            if (length + 1 >= sizeof encoded) break;
            encoded[length++] = *text;
            continue;
        }
        if (escapesLeft == 0) escapesLeft = utf8_len(byte);
        if (length + 3 >= sizeof encoded) break;
        length += static_cast<size_t>(snprintf(encoded + length, 4, "%%%02X", byte));
        --escapesLeft;
    }
    return encoded;
}

int read_value_list(const char *path, char *table, int max_entries, int entry_size) {
    const FileHandle file(fopen(path, "re"));
    if (file == nullptr || entry_size < 1) return 0;
    const int lineSize = (entry_size + 512) * 2;
    char *const line = static_cast<char *>(malloc(static_cast<size_t>(lineSize)));
    if (line == nullptr) return 0;

    int count = 0;
    while (count < max_entries && fgets(line, lineSize, file) != nullptr) {
        char *tokens[10 + 1];
        if (line[0] == '#' || string_parse(tokens, 10, line) < 2) continue;
        my_copyText(table, tokens[1], static_cast<size_t>(entry_size));
        table += entry_size;
        ++count;
    }
    free(line);
    return count;
}

uint32_t my_strtou32(const char *text, const char **end, int base) {
    constexpr uint32_t kMost = std::numeric_limits<uint32_t>::max();
    char *rest = nullptr;
    // Reads a signed 64-bit number, which keeps the sign. A magnitude of more than 32 bits is out of range.
    const long long value = strtoll(text, &rest, base);
    if (end != nullptr) *end = rest;
    const bool inRange = value >= -static_cast<long long>(kMost) && value <= static_cast<long long>(kMost);
    return inRange ? static_cast<uint32_t>(value) : kMost;
}

void my_copyText(char *destination, const char *source, size_t size) {
    const size_t length = strnlen(source, size - 1);
    memmove(destination, source, length);  // the two may overlap
    destination[length] = '\0';
}

const char *my_skipWords(const char *text, int count) {
    for (; count > 0 && text != nullptr; --count) {
        text = strchr(text, ' ');
        if (text != nullptr) ++text;
    }
    return text;
}
