#pragma once
// The regulatory country code.

// Reads (mode 0) or writes (any other mode) the two bytes of the country code at the place on the flash that
// "SYSTEM_COUNTRY_ARGS" gives. `buffer` has at least two bytes for writing, three for reading: the third becomes NUL.
// Returns 0, also when the key or the partition is missing; then nothing happens.
int CountryRW(int mode, char *buffer);
