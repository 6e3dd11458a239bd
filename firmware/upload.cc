#include "firmware/upload.h"

#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "firmware/product_block.h"
#include "support/handle.h"
#include "support/ignored.h"
#include "support/shell.h"
#include "support/string_utils.h"

namespace {

constexpr int32_t kReceiveSize = 1500;  // the payload of an Ethernet frame
constexpr uint32_t kHeaderSize = 64;
constexpr size_t kCopySize = 256;

struct Section {
    uint32_t length;
    char name[kHeaderSize];
};

// Reads "LENGTH NAME" from a header of at most 64 characters, as "%lu %s" would. The section stays as it was when
// either is missing: intended, also for a length without a name. What a header that cannot be read takes off the rest
// is the length of the last one that could be read as a whole.
bool parseHeader(const char *header, Section *section) {
    const char *behind = nullptr;
    const uint32_t length = my_strtou32(header, &behind, 10);
    if (behind == header) return false;
    const char *const name = behind + strspn(behind, kWhiteSpace);
    if (*name == '\0') return false;
    section->length = length;
    my_copyText(section->name, name, std::min(strcspn(name, kWhiteSpace) + 1, sizeof section->name));
    return true;
}

// Cuts "N.suffix" at the dot and returns N; -1 when there is no dot.
int blockNumber(char *name) {
    char *const dot = strchr(name, '.');
    if (dot == nullptr) return -1;
    *dot = '\0';
    return atoi(name);
}

// The partition's name, or what the buffer of 32 bytes held before when the device does not exist.
void readPartitionName(int number, char *partition) {
    const FileHandle file(fopen(M("/sys/class/block/mtdblock%d/device/name", number), "re"));
    if (file == nullptr) return;
    ignored(fscanf(file, "%31s", partition));
}

// Copies `length` bytes, fewer when the image ends before. Returns how many are missing.
uint32_t copySection(FILE *image, FILE *staged, uint32_t length) {
    char buffer[kCopySize];
    uint32_t left = length;
    while (left > 0) {
        const size_t count = fread(buffer, 1, std::min<size_t>(left, sizeof buffer), image);
        if (count == 0) break;
        fwrite(buffer, 1, count, staged);
        left -= static_cast<uint32_t>(count);
    }
    return left;
}

}  // namespace

int saveFile(int socket, int32_t size, const char *path) {
    syslog(LOG_ALERT, "[%s,%d] filename=%s, size=%d", __func__, __LINE__, path, size);
    // Before the size is looked at: an announced size of 0 leaves an empty file, not the one received before.
    const int emptied = my_system("> %s", path);
    if (size < 1) return emptied;
    FileHandle file(fopen(path, "wbe"));
    if (file == nullptr) return 0;
    char buffer[kReceiveSize];
    for (int32_t remaining = size; remaining != 0;) {
        const ssize_t received = recv(socket, buffer, static_cast<size_t>(std::min(remaining, kReceiveSize)), 0);
        if (received <= 0) break;
        remaining -= static_cast<int32_t>(received);
        fwrite(buffer, 1, static_cast<size_t>(received), file);
    }
    return file.close();
}

int write2tmp(const char *path, uint32_t size) {
    const FileHandle image(fopen(path, "rbe"));
    if (image == nullptr) return 0;
    fseek(image, kProductBlockSize, SEEK_SET);

    char header[kHeaderSize + 1] = "";
    char partition[32] = "";  // not cleared for each section: one without a name goes where the one before it went
    Section section = {};
    // What remains wraps at 32 bits and is not the number of bytes left: a section that was copied takes only its
    // header off it, one that was passed over takes its length, and its data is then read as headers. Intended: which
    // sections of an image are staged depends on these numbers.
    uint32_t remaining = size;
    while (fread(header, 1, kHeaderSize, image) == kHeaderSize) {
        if (!parseHeader(header, &section) || section.length > remaining - kHeaderSize) {
            remaining -= section.length;
            continue;
        }
        const int number = blockNumber(section.name);
        if (number < 0) break;
        readPartitionName(number, partition);
        const FileHandle staged(fopen(M("/tmp/%s.img", partition), "wbe"));
        const uint32_t missing = staged != nullptr ? copySection(image, staged, section.length) : section.length;
        remaining = remaining - kHeaderSize - missing;
    }
    return 0;
}
