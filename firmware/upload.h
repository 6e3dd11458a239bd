#pragma once
// Moves firmware onto the RAM disk before anything is flashed: a payload of the connection into a file, the sections of
// an image into one staged file each.

#include <cstdint>

// Empties or creates the file and receives `size` bytes from the socket into it, fewer when the connection ends before.
// A size below 1 receives nothing. Logs when the file does not hold all that was received.
// No caller uses the result: that of the shell for a size below 1, 0 when the file cannot be opened, else fclose's.
int saveFile(int socket, int32_t size, const char *path);

// Stages each section of the image at `path`, which has `size` bytes without its checksum trailer, as "/tmp/NAME.img",
// where NAME is the name of the section's MTD block device. Skips a section that cannot be read, or ends there. Removes
// the staged file, with a log line, when it cannot hold the whole section.
// Returns 0.
int write2tmp(const char *path, uint32_t size);
