#pragma once
// The router's system information record, and the tables of per-model settings that its mark selects a column of.

#include <cstddef>
#include <cstdint>

constexpr char kSystemInfo[] = "/etc/system.info";

// The record opens with a product block, as a firmware image does; its mark holds up to 8 hexadecimal digits, the model
// number.
constexpr size_t kSystemInfoSize = 76;
constexpr size_t kProductBlockSize = 60;
constexpr size_t kSystemInfoMark = 50;

// This model's settings, zero-filled at start and set by my_systemInfo: texts of at most 29 and 19 characters. The
// daemon itself reads neither; they are there for code that is linked with this library.
extern char html_fmt[200][30];
extern char entry_num[32][20];

// Reads the record (kSystemInfoSize bytes) from "/etc/system.info" and fills html_fmt from "/etc/html.info" by bits 12
// to 23 of the model number, then entry_num from "/etc/entry.info" by bits 0 to 11. Sets the environment variable
// REMOTE_USER_PRIVILEGE to "15" whatever comes of it.
// Returns 0 when both tables got a value, else -1; the record and the tables keep what was read until then.
int my_systemInfo(char *record);

// Reads a column table: a line that begins with '&' names columns by hexadecimal numbers, lines that begin with a
// letter hold one value for each column. Copies this column's values into consecutive entries of `table` (max_entries *
// entry_size bytes), each at most entry_size - 1 characters, until the table is full.
// Returns the number of entries written, 0 when the file cannot be opened.
int read_parameter(const char *path, char *table, int max_entries, int entry_size, uint32_t column_id);

// Writes the record to "/etc/sysconfig/.firewall/system.info". Failures are not reported.
void save_systemInfo(const char *record);
