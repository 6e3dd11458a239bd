#include "firmware/partition.h"

#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "daemon/board.h"
#include "support/handle.h"
#include "support/process_file.h"
#include "support/shell.h"

namespace {

constexpr char kOperation[] = "writePartitions";  // every log line begins with this and its source line
constexpr int kProgressBlocks = 16;               // 1 MiB with the usual erase blocks of 64 KiB

void logProgress(int line, int blocks) {
    if (blocks % kProgressBlocks == 0) syslog(LOG_ALERT, "[%s,%d] %d MB", kOperation, line, blocks / kProgressBlocks);
}

// Goes on after a failure: writing shows whether it matters.
void eraseBlock(int device, erase_info_user *block) {
    ioctl(device, MEMUNLOCK, block);
    ioctl(device, MEMERASE, block);
}

void erasePartition(int device, const mtd_info_user &geometry) {
    int erased = 0;
    for (erase_info_user block = {0, geometry.erasesize}; block.start < geometry.size; block.start += block.length) {
        eraseBlock(device, &block);
        logProgress(__LINE__, ++erased);
    }
}

// Writes in chunks of one erase block through `buffer`, which has that size. Ends early if the file does. Returns false
// when a write fails.
bool writeChunks(int device, FILE *file, int32_t length, char *buffer, uint32_t blockSize) {
    int chunks = 0;
    for (int32_t remaining = length; remaining > 0;) {
        const size_t count = fread(buffer, 1, std::min(blockSize, static_cast<uint32_t>(remaining)), file);
        if (count == 0) break;
        if (my_writeAll(device, buffer, count) != 0) return false;
        logProgress(__LINE__, ++chunks);
        remaining -= static_cast<int32_t>(count);
    }
    return true;
}

int32_t measure(FILE *file) {
    fseek(file, 0, SEEK_END);
    const long length = ftell(file);
    fseek(file, 0, SEEK_SET);
    return static_cast<int32_t>(length);
}

// Erases the partition and writes the file to it. Returns false when a write fails.
bool writeDevice(int partition, FILE *file, int32_t length) {
    const DescriptorHandle device(open(M(kFlashNode, partition), O_RDWR | O_SYNC | O_CLOEXEC));
    if (device < 0) return true;
    mtd_info_user geometry = {};
    // With an erase block size of 0 the erasing would never end.
    if (ioctl(device, MEMGETINFO, &geometry) < 0 || geometry.erasesize == 0) return true;
    char *const buffer = static_cast<char *>(malloc(geometry.erasesize));
    if (buffer == nullptr) {
        syslog(LOG_ALERT, "[%s,%d] no memory for an erase block", kOperation, __LINE__);
        return true;
    }
    syslog(LOG_ALERT, "[%s,%d] erase size = %d, erase block = %d", kOperation, __LINE__,
           static_cast<int>(geometry.size), static_cast<int>(geometry.erasesize));
    erasePartition(device, geometry);
    lseek(device, 0, SEEK_SET);
    syslog(LOG_ALERT, "[%s,%d] write to partition", kOperation, __LINE__);
    const bool written = writeChunks(device, file, length, buffer, geometry.erasesize);
    if (written) syslog(LOG_ALERT, "[%s,%d] done", kOperation, __LINE__);
    free(buffer);
    return written;
}

}  // namespace

void writePartitions(int partition, const char *path, FILE *file, int32_t length) {
    if (partition != kKernelPartition && partition != kRootfsPartition && partition != kConfigPartition) {
        syslog(LOG_ALERT, "[%s,%d] fail!! partition_num = %d, not kernel(%d) or rootfs(%d) or config(%d)", kOperation,
               __LINE__, partition, kKernelPartition, kRootfsPartition, kConfigPartition);
        return;
    }
    syslog(LOG_ALERT, "[%s,%d] partition_num = %d", kOperation, __LINE__, partition);
    const FileHandle opened(file == nullptr ? fopen(path, "rbe") : nullptr);
    if (file == nullptr && opened == nullptr) return;
    FILE *const data = file != nullptr ? file : opened;
    const int32_t size = file != nullptr ? length : measure(data);
    syslog(LOG_ALERT, "[%s,%d] file size = %d", kOperation, __LINE__, size);
    if (!writeDevice(partition, data, size) && file != nullptr) fclose(file);
}
