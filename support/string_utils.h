#pragma once
// The tokenizer for every text file, the growing-string builder, and small text helpers.
// The caller frees heap strings. A failed allocation gives null.

#include <cstddef>
#include <cstdint>

// The characters that the scanf functions skip between words.
constexpr char kWhiteSpace[] = " \t\n\v\f\r";

// Splits `line` in place into at most `max` tokens separated by blanks and tabs. A token in double quotes may contain
// blanks; in it \" is a quote and \\ a backslash. An unquoted token ends at a blank, tab, CR or LF.
// `tokens` has room for max + 1 pointers into `line`; a null follows the last token.
// Returns the number of tokens, or -1 when a quote is not closed. Example: `KEY = "a b"` gives "KEY", "=" and "a b".
int string_parse(char **tokens, int max, char *line);

// Returns a new heap string: `previous` (a heap string, or null for none) followed by the formatted text. Frees
// `previous`. Returns null when memory runs out; `previous` is then freed unless the formatting failed.
// Example: text = my_string(text, "%d;", n);
[[gnu::format(printf, 2, 3)]] char *my_string(char *previous, const char *format, ...);

// Returns a new heap string: `text` with every `old` replaced; a copy of `text` when `old` is empty.
char *my_replaceStr(const char *text, const char *old, const char *replacement);

// Returns a new heap string: my_replaceStr for each pair of `pairs` (old, new, old, new, ..., null), in order.
char *my_replaceStrs(const char *text, const char *const *pairs);

// Returns a new heap string: `text` with every character of `set` replaced. Null when an input is null.
char *my_replaceChar(const char *text, const char *set, char replacement);

// Returns a new heap string: `text` without any `removed`. Returns `text` itself when the allocation fails.
char *my_removeChar(char *text, char removed);

// Remove a character or convert the case, in place. Return `text`.
char *my_stripChar(char *text, char removed);
char *my_toupper(char *text);
char *my_tolower(char *text);

// Returns the last non-overlapping occurrence of `needle`, or null. An empty needle occurs nowhere.
char *my_strrstr(char *text, const char *needle);

// Cuts `text` in place at each `separator` and stores at most `max` pieces. Only the first character of a separator is
// dropped: the rest of a longer one begins the next piece. An empty separator occurs nowhere.
// `tokens` has room for max + 1 pointers; those after the last piece are null.
// Returns `max`, not the number of pieces: count up to the first null.
int string_split(char **tokens, int max, char *text, const char *separator);

// Returns the length in bytes of the UTF-8 sequence that starts with `first`; 4 for a byte that cannot start one.
int utf8_len(unsigned char first);

// Percent-encodes everything but ASCII letters, digits and '.'. Returns a static buffer of 1024 bytes, valid until
// the next call. A text that does not fit is cut, never inside an escape.
char *url_encode(const char *text);

// Reads a text file and copies the second token of each line that has one, at most entry_size - 1 characters, into
// consecutive entries of `table` (max_entries * entry_size bytes). Skips lines that begin with '#'. Returns the number
// of entries written, 0 when the file cannot be opened.
int read_value_list(const char *path, char *table, int max_entries, int entry_size);

// Converts as strtoul does where unsigned long has 32 bits: a value out of range gives 4294967295. Stores the position
// after the number in `end` unless that is null.
uint32_t my_strtou32(const char *text, const char **end, int base);

// Copies at most size - 1 characters and terminates the text. `size` must not be 0; the two may overlap.
void my_copyText(char *destination, const char *source, size_t size);

// Returns the text after the next `count` blanks, or null when there are fewer. Null stays null.
const char *my_skipWords(const char *text, int count);
