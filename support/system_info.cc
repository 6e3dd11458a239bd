#include "support/system_info.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/handle.h"
#include "support/string_utils.h"

char html_fmt[200][30];
char entry_num[32][20];

namespace {

constexpr int kMaxTokens = 20;
constexpr uint32_t kFamilyMask = 0xFFF000;
constexpr uint32_t kModelMask = 0xFFF;

struct Line {
    char text[1024];
    char *tokens[kMaxTokens + 1];
};

bool readLine(Line *line, FILE *file) { return fgets(line->text, sizeof line->text, file) != nullptr; }

int parse(Line *line) { return string_parse(line->tokens, kMaxTokens, line->text); }

bool beginsWithLetter(const char *text) {
    const char lower = static_cast<char>(text[0] | 0x20);
    return lower >= 'a' && lower <= 'z';
}

// Reads up to the next header that names the column. Returns the position of the column among a line's tokens, or -1 at
// the end of the file.
int findColumn(Line *line, FILE *file, uint32_t column_id) {
    while (readLine(line, file)) {
        if (line->text[0] != '&') continue;
        const int count = parse(line);
        for (int i = 1; i < count; ++i) {
            if (my_strtou32(line->tokens[i], nullptr, 16) == column_id) return i;
        }
    }
    return -1;
}

uint32_t modelNumber(const char *record) {
    char mark[kSystemInfoSize - kSystemInfoMark + 1] = "";
    memcpy(mark, record + kSystemInfoMark, sizeof mark - 1);
    return my_strtou32(mark, nullptr, 16);
}

bool readRecord(char *record) {
    const FileHandle file(fopen(kSystemInfo, "re"));
    return file != nullptr && fread(record, kSystemInfoSize, 1, file) == 1;
}

template <size_t Entries, size_t Size>
bool fillTable(const char *path, char (&table)[Entries][Size], uint32_t column_id) {
    return read_parameter(path, table[0], Entries, Size, column_id) > 0;
}

}  // namespace

int my_systemInfo(char *record) {
    bool complete = readRecord(record);
    if (complete) {
        const uint32_t model = modelNumber(record);
        complete = fillTable("/etc/html.info", html_fmt, model & kFamilyMask) &&
                   fillTable("/etc/entry.info", entry_num, model & kModelMask);
    }
    setenv("REMOTE_USER_PRIVILEGE", "15", 1);
    return complete ? 0 : -1;
}

int read_parameter(const char *path, char *table, int max_entries, int entry_size, uint32_t column_id) {
    const FileHandle file(fopen(path, "re"));
    if (file == nullptr) return 0;
    Line line;
    int count = 0;
    const int column = findColumn(&line, file, column_id);
    // Further headers are skipped like any line that does not begin with a letter. A full table ends the reading: there
    // is no room for the values of a later header.
    while (column > 0 && count < max_entries && readLine(&line, file)) {
        if (!beginsWithLetter(line.text) || parse(&line) <= column) continue;
        // The last byte of the entry stays as it is: 0 in a fresh table.
        strncpy(table, line.tokens[column], static_cast<size_t>(entry_size) - 1);
        table += entry_size;
        ++count;
    }
    return count;
}

void save_systemInfo(const char *record) {
    const FileHandle file(fopen("/etc/sysconfig/.firewall/system.info", "w+e"));
    if (file != nullptr) fwrite(record, kSystemInfoSize, 1, file);
}
