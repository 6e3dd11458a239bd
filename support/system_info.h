#pragma once
// The router's system information record, and the per-model settings that its mark selects.

#include <cstddef>
#include <cstdint>

constexpr char kSystemInfo[] = "/etc/system.info";

// The record begins with a product block (firmware/product_block.h). Its mark holds the model number, up to 8
// hexadecimal digits.
constexpr size_t kSystemInfoSize = 76;
constexpr size_t kProductBlockSize = 60;
constexpr size_t kSystemInfoMark = 50;

// This model's settings: texts of at most 29 and 19 characters, empty until my_systemInfo sets them. The daemon itself
// reads neither.
extern char html_fmt[200][30];
extern char entry_num[32][20];

// Reads the record (kSystemInfoSize bytes) from "/etc/system.info", then html_fmt from the column of "/etc/html.info"
// that bits 12 to 23 of the model number name, then entry_num from that of "/etc/entry.info" (bits 0 to 11). Always
// sets the environment variable REMOTE_USER_PRIVILEGE to "15". Returns 0 when both tables got a value, else -1; the
// record and the tables keep what was read before the failure.
int my_systemInfo(char *record);

// Reads a column table: a line that begins with '&' names the columns with hexadecimal numbers, and each line that
// begins with a letter holds one value per column. Copies the values of one column, at most entry_size - 1 characters
// each, into consecutive entries of `table` (max_entries * entry_size bytes).
// Returns the number of entries written, 0 when the file cannot be opened.
int read_parameter(const char *path, char *table, int max_entries, int entry_size, uint32_t column_id);

// Writes the record to "/etc/sysconfig/.firewall/system.info". Failures are not reported.
void save_systemInfo(const char *record);
