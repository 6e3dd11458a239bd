#pragma once
// Moves firmware onto the RAM disk before anything is flashed: a payload from the connection into a file, an image's
// sections into staged partition images.

#include <cstdint>

// Empties or creates the file, then receives exactly `size` bytes from the socket into it; less when the station
// closes or fails before. A size below 1 receives nothing.
// The result is used by nobody: of the shell for a size below 1, 0 when the file cannot be opened, else of its close.
int saveFile(int socket, int32_t size, const char *path);

// Splits the image at `path`, of `size` bytes without its checksum trailer, into one file a section: "/tmp/NAME.img",
// where NAME is what the MTD block device of the section's number is called. Always 0; a section that cannot be read
// ends the walk or is passed over.
int write2tmp(const char *path, uint32_t size);
