#include "firmware/upload.h"

#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/handle.h"
#include "support/ignored.h"
#include "support/shell.h"
#include "support/string_utils.h"
#include "support/system_info.h"

namespace {

constexpr int32_t kReceiveSize = 1500;  // payload of an Ethernet frame
constexpr uint32_t kHeaderSize = 64;
constexpr size_t kCopySize = 256;

struct Section {
    uint32_t length;
    char name[kHeaderSize];
};

// Reads "LENGTH NAME" from a header of at most 64 characters, as "%lu %s" would. Intended: when either is missing, the
// section stays unchanged, even if there is a length. After an unreadable header the walk then subtracts the
// length of the last complete one from the rest.
bool parseHeader(const char *header, Section *section) {
    const char *rest = nullptr;
    const uint32_t length = my_strtou32(header, &rest, 10);
    if (rest == header) return false;
    const char *const name = rest + strspn(rest, kWhiteSpace);
    if (*name == '\0') return false;
    section->length = length;
    my_copyText(section->name, name, std::min(strcspn(name, kWhiteSpace) + 1, sizeof section->name));
    return true;
}

// Cuts "N.suffix" at the dot and returns N, or -1 when there is no dot.
int blockNumber(char *name) {
    char *const dot = strchr(name, '.');
    if (dot == nullptr) return -1;
    *dot = '\0';
    return atoi(name);
}

// Reads the partition's name into a buffer of 32 bytes, which stays unchanged when the device does not exist.
void readPartitionName(int number, char *partition) {
    const FileHandle file(fopen(M("/sys/class/block/mtdblock%d/device/name", number), "re"));
    if (file == nullptr) return;
    ignored(fscanf(file, "%31s", partition));
}

// A file that is written, and why it does not hold everything: an errno, or 0 while it does.
struct Output {
    FileHandle file;
    int failure = 0;

    void write(const char *data, size_t length) {
        if (fwrite(data, 1, length, file) != length && failure == 0) failure = errno;
    }

    // Returns fclose's result. Logs a line when the file does not hold everything.
    int close(const char *path) {
        const int closed = file.close();
        if (closed != 0 && failure == 0) failure = errno;
        if (failure != 0) syslog(LOG_ALERT, "%s is incomplete (%s)", path, strerror(failure));
        return closed;
    }
};

// Copies a section of `length` bytes to the file at `path`. Returns the number of bytes that were not read.
uint32_t stageSection(FILE *image, const char *path, uint32_t length) {
    Output staged = {FileHandle(fopen(path, "wbe"))};
    uint32_t left = length;
    char buffer[kCopySize];
    while (staged.file != nullptr && left > 0) {
        const size_t count = fread(buffer, 1, std::min<size_t>(left, sizeof buffer), image);
        if (count == 0) break;
        staged.write(buffer, count);
        left -= static_cast<uint32_t>(count);
    }
    staged.close(path);
    // Whatever is staged is flashed: half a kernel would leave a board that does not boot.
    if (staged.failure != 0) unlink(path);
    return left;
}

}  // namespace

int saveFile(int socket, int32_t size, const char *path) {
    syslog(LOG_ALERT, "[%s,%d] filename=%s, size=%d", __func__, __LINE__, path, size);
    // Before the size is looked at: an announced size of 0 must leave an empty file, not the last payload.
    const int emptied = my_system("> %s", path);
    if (size < 1) return emptied;
    Output output = {FileHandle(fopen(path, "wbe"))};
    if (output.file == nullptr) return 0;
    char buffer[kReceiveSize];
    for (int32_t remaining = size; remaining != 0;) {
        const ssize_t received = recv(socket, buffer, static_cast<size_t>(std::min(remaining, kReceiveSize)), 0);
        if (received <= 0) break;
        remaining -= static_cast<int32_t>(received);
        output.write(buffer, static_cast<size_t>(received));
    }
    return output.close(path);
}

int write2tmp(const char *path, uint32_t size) {
    const FileHandle image(fopen(path, "rbe"));
    if (image == nullptr) return 0;
    fseek(image, kProductBlockSize, SEEK_SET);

    char header[kHeaderSize + 1] = "";
    char partition[32] = "";  // not cleared per section: one whose name cannot be read goes where the last one went
    Section section = {};
    // Intended: `remaining` wraps at 32 bits and is not the number of bytes left. A copied section takes only its
    // header off it; a skipped section takes its length, and its data is then read as headers. Which sections of an
    // image are staged depends on these numbers.
    uint32_t remaining = size;
    while (fread(header, 1, kHeaderSize, image) == kHeaderSize) {
        if (!parseHeader(header, &section) || section.length > remaining - kHeaderSize) {
            remaining -= section.length;
            continue;
        }
        const int number = blockNumber(section.name);
        if (number < 0) break;
        readPartitionName(number, partition);
        remaining -= kHeaderSize + stageSection(image, M("/tmp/%s.img", partition), section.length);
    }
    return 0;
}
