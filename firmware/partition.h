#pragma once
// Writes one raw flash partition.

#include <cstdint>
#include <cstdio>

// MTD device numbers of the partitions that may be written.
constexpr int kKernelPartition = 2;
constexpr int kRootfsPartition = 3;
constexpr int kConfigPartition = 5;

// Erases the whole partition and writes a file to its start, through the copy of the device node that initialFunc put
// under /tmp/dev. Refuses other partitions with a log line.
// Without `file`, writes the file at `path`. With `file`, writes `length` bytes from its current position and leaves it
// open; only a failed write closes it.
// Returns nothing. When the file, the device or its geometry is unavailable, the partition stays untouched. A failed
// write leaves it erased and partly written, without the "done" line in the log. Nothing is read back.
void writePartitions(int partition, const char *path, FILE *file, int32_t length);
