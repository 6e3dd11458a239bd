#pragma once
// The regulatory country code.

// Reads (mode 0) or writes (any other) the two bytes of the country code on the flash, where "SYSTEM_COUNTRY_ARGS"
// says. `buffer` has at least three bytes for reading, whose third becomes NUL, and two for writing.
// Always 0: without the key or the partition, nothing happens.
int CountryRW(int mode, char *buffer);
