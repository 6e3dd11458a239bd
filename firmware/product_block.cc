#include "firmware/product_block.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/handle.h"
#include "support/ignored.h"

namespace {

// Returns true for a blank or a NUL.
bool endsText(char c) { return (c & 0xDF) == 0; }

void cutText(char *block, size_t start) {
    size_t end = start;
    while (end < kProductBlockSize && !endsText(block[end])) ++end;
    if (end < kProductBlockSize) block[end] = '\0';
}

}  // namespace

void cutProductFields(char *block) {
    cutText(block, kVendor);
    cutText(block, kProduct);
    // Done last, so that a text without a terminator ends at the next separator.
    constexpr size_t kSeparators[] = {kMinor - 1, kPatch - 1, kMark - 1, kMark + 8};
    for (const size_t separator : kSeparators) block[separator] = '\0';
}

void getProduct(const char *path, const char *source, char *destination) {
    static char record[kProductBlockSize];
    char *const block = destination != nullptr ? destination : record;
    const FileHandle file(path != nullptr ? fopen(path, "re") : nullptr);
    if (file != nullptr) {
        ignored(fread(block, 1, kProductBlockSize, file));
    } else if (source != nullptr) {
        memcpy(block, source, kProductBlockSize);
    }
    cutProductFields(block);
    syslog(LOG_ALERT, "Vendor: %s\nProduct: %s\nVersion: %d.%02d.%02d\nMark: %s\n", block + kVendor, block + kProduct,
           atoi(block + kMajor), atoi(block + kMinor), atoi(block + kPatch), block + kMark);
}
