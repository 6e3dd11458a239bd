#pragma once
// The product block: kProductBlockSize bytes of text at fixed positions that open a firmware image and
// "/etc/system.info".

#include <cstddef>

#include "support/system_info.h"

// Positions of the fields. Text ends at its first blank or NUL; one byte separates the version's numbers and the mark.
constexpr size_t kVendor = 0;    // 21 bytes
constexpr size_t kProduct = 21;  // 20 bytes
constexpr size_t kMajor = 41;    // 2 digits
constexpr size_t kMinor = 44;    // 2 digits
constexpr size_t kPatch = 47;    // 2 digits
constexpr size_t kMark = 50;     // 8 characters
static_assert(kMark == kSystemInfoMark);

// Ends each field of the block with a NUL, in place. A vendor or product without an end runs on into what follows, as
// far as the fields behind it.
void cutProductFields(char *block);

// Reads a block from the file at `path`, if that is given and opens, or copies it from `source` if that is given;
// cuts its fields and logs them. It goes into `destination`, or into a static record when that is null. What a short
// file does not fill, and a block from neither, stays as the record had it.
void getProduct(const char *path, const char *source, char *destination);
