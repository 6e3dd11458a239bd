#pragma once
// The tokenizer that every text file is read with, the growing-string builder, and small text helpers.
// Heap strings are allocated with malloc and freed by the caller; an allocation that fails gives null.

#include <cstddef>
#include <cstdint>

// What the scanf functions pass over between words.
constexpr char kWhiteSpace[] = " \t\n\v\f\r";

// Splits `line` in place into at most `max` tokens separated by blanks and tabs. A token in double quotes may hold
// blanks; in it \" is a quote and \\ a backslash. An unquoted token ends at a blank, tab, CR or LF.
// `tokens` has room for max + 1 pointers into `line`; a null stands behind the last token.
// Returns the number of tokens, or -1 when a quote is not closed.
int string_parse(char **tokens, int max, char *line);

// Returns `previous` (a heap string, or null for none) followed by the formatted text, and frees `previous`.
// When formatting fails the result is null and `previous` stays as it was; when joining the two does, `previous` is
// gone.
[[gnu::format(printf, 2, 3)]] char *my_string(char *previous, const char *format, ...);

// New heap string: `text` with every `old` replaced by `replacement`; a copy of `text` when `old` is empty.
char *my_replaceStr(const char *text, const char *old, const char *replacement);

// New heap string: my_replaceStr for each pair of `pairs` (old, new, old, new, ..., null), in order.
char *my_replaceStrs(const char *text, const char *const *pairs);

// New heap string: every character of `text` that occurs in `set` replaced. Null when an input is null.
char *my_replaceChar(const char *text, const char *set, char replacement);

// New heap string: `text` without any `removed`. When the allocation fails, `text` itself.
char *my_removeChar(char *text, char removed);

// In place; each returns `text`.
char *my_stripChar(char *text, char removed);
char *my_toupper(char *text);
char *my_tolower(char *text);

// The last of the non-overlapping occurrences of `needle`, or null; null for an empty needle.
char *my_strrstr(char *text, const char *needle);

// Cuts `text` in place at each `separator` and stores the pieces. The text goes on one character behind the start of
// a separator, so a longer separator leaves its remaining characters at the start of the next piece. An empty separator
// is nowhere: the text is one piece.
// `tokens` has room for max + 1 pointers; those behind the last piece are null.
// Returns `max`, not the number of pieces: count up to the first null.
int string_split(char **tokens, int max, char *text, const char *separator);

// Length in bytes of the UTF-8 sequence that starts with `first`; 4 for a byte that starts none.
int utf8_len(unsigned char first);

// Percent-encodes everything but ASCII letters, digits and '.'. Returns a static buffer of 1024 bytes, valid until
// the next call; a text that does not fit ends before the escape that no longer does.
char *url_encode(const char *text);

// Reads a text file whose lines hold at least two tokens and copies the second token of each, at most
// entry_size - 1 characters, into consecutive entries of `table` (max_entries * entry_size bytes).
// Lines that begin with '#' are skipped. Returns the number of entries written, 0 when the file cannot be opened.
int read_value_list(const char *path, char *table, int max_entries, int entry_size);

// strtoul as on a machine whose unsigned long has 32 bits: a value out of range gives 4294967295.
// `end`, when not null, receives the position behind the number.
uint32_t my_strtou32(const char *text, const char **end, int base);

// Copies at most size - 1 characters and ends the text with a NUL. `size` must not be 0; the two may overlap.
void my_copyText(char *destination, const char *source, size_t size);
