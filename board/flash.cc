// The flash of the native board. The program that links this file finds its partitions in the files /flash/mtdN. They
// answer the MTD requests and behave like NOR flash: a write only clears bits, an erase sets them.

#include <linux/limits.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t kEraseSize = 65536;

bool isFlash(int descriptor) {
    char name[32], target[PATH_MAX] = "";
    snprintf(name, sizeof name, "/proc/self/fd/%d", descriptor);
    if (readlink(name, target, sizeof target - 1) < 0) return false;
    return strncmp(target, "/flash/mtd", 10) == 0 && strncmp(target, "/flash/mtdblock", 15) != 0;
}

int tell(int flash, mtd_info_user *info) {
    struct stat status = {};
    if (fstat(flash, &status) != 0) return -1;
    *info = {};
    info->size = static_cast<uint32_t>(status.st_size);
    info->erasesize = kEraseSize;
    return 0;
}

int erase(int flash, const erase_info_user &range) {
    char ones[kEraseSize];
    memset(ones, 0xFF, sizeof ones);
    mtd_info_user info;
    const bool fits = tell(flash, &info) == 0 && uint64_t{range.start} + range.length <= info.size;
    if (!fits || range.start % kEraseSize != 0 || range.length % kEraseSize != 0) {
        errno = EINVAL;
        return -1;
    }
    for (uint32_t done = 0; done < range.length; done += kEraseSize) {
        if (pwrite(flash, ones, sizeof ones, static_cast<off_t>(range.start) + static_cast<off_t>(done)) < 0) return -1;
    }
    return 0;
}

ssize_t program(int flash, const char *data, size_t length) {
    char bits[4096];
    const ssize_t there = pread(flash, bits, std::min(length, sizeof bits), lseek(flash, 0, SEEK_CUR));
    if (there == 0) errno = ENOSPC;
    if (there <= 0) return -1;
    for (ssize_t i = 0; i < there; ++i) bits[i] = static_cast<char>(bits[i] & data[i]);
    return syscall(SYS_write, flash, bits, there);
}

}  // namespace

// Replace the C library's functions. Calls that do not concern the flash go on to the kernel.
extern "C" {
int flashIoctl(int descriptor, unsigned long request, ...) asm("ioctl");
ssize_t flashWrite(int descriptor, const void *data, size_t length) asm("write");
}

int flashIoctl(int descriptor, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    const bool ofFlash = request == MEMGETINFO || request == MEMUNLOCK || request == MEMERASE;
    if (!ofFlash || !isFlash(descriptor)) return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
    if (request == MEMGETINFO) return tell(descriptor, static_cast<mtd_info_user *>(argument));
    return request == MEMUNLOCK ? 0 : erase(descriptor, *static_cast<erase_info_user *>(argument));
}

ssize_t flashWrite(int descriptor, const void *data, size_t length) {
    if (isFlash(descriptor)) return program(descriptor, static_cast<const char *>(data), length);
    return syscall(SYS_write, descriptor, data, length);
}
