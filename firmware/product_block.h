#pragma once
// The product block: kProductBlockSize bytes of text at fixed positions. A firmware image and "/etc/system.info" begin
// with it.

#include <cstddef>

#include "support/system_info.h"

// Offsets of the fields. A text ends at its first blank or NUL. One byte separates the version's numbers and the mark.
constexpr size_t kVendor = 0;    // 21 bytes
constexpr size_t kProduct = 21;  // 20 bytes
constexpr size_t kMajor = 41;    // 2 digits
constexpr size_t kMinor = 44;    // 2 digits
constexpr size_t kPatch = 47;    // 2 digits
constexpr size_t kMark = 50;     // 8 characters
static_assert(kMark == kSystemInfoMark);

// Terminates each field of the block with a NUL, in place. A vendor or product without an end runs on into the fields
// after it, up to the first separator.
void cutProductFields(char *block);

// Reads a block from the file at `path`. When `path` is null or cannot be opened, copies the block from `source`
// instead. Stores it in `destination`, or in a static record when that is null; cuts its fields and logs them. Bytes
// that a short file does not fill keep their old values; without file and source all bytes do.
void getProduct(const char *path, const char *source, char *destination);
