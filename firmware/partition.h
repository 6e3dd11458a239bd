#pragma once
// Writing one raw flash partition.

#include <cstdint>
#include <cstdio>

// Partitions that may be written, by the number of their MTD device.
constexpr int kKernelPartition = 2;
constexpr int kRootfsPartition = 3;
constexpr int kConfigPartition = 5;

// Erases the whole partition and writes a file to its start, through the device node under /tmp/dev, where
// initialFunc put a copy. Other partitions are refused with a log line.
// The data is the file at `path`; or, when `file` is given, `length` bytes from where that stands. A file that the
// caller gave stays open, except after a failed write, which closes it.
// There is no result: a file, device or geometry that cannot be had leaves the partition untouched; a failed write
// ends it erased and written in part, without the "done" in the log. Nothing is read back.
void writePartitions(int partition, const char *path, FILE *file, int32_t length);
