#pragma once
// The product block: kProductBlockSize bytes of text at fixed positions, with which a firmware image and
// "/etc/system.info" begin.

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

// Reads a block from the file at `path` or, when that is null or cannot be opened, copies it from `source` unless that
// is null. Cuts its fields and logs them. The block goes into `destination` or, when that is null, into a static
// record. The record keeps what a short file does not fill, and everything when there is neither file nor source.
void getProduct(const char *path, const char *source, char *destination);
