#include "tests/fake_devices.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <mtd/mtd-user.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>

namespace {

bool isFlash(int descriptor) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
    return target.string().starts_with("/tmp/dev/mtd");
}

int failWith(int error) {
    errno = error;
    return -1;
}

int answerFlash(int descriptor, unsigned long number, void *argument) {
    struct stat status = {};
    fstat(descriptor, &status);
    if (number == MEMGETINFO) {
        if (fakeFlash.failInfo) return failWith(EIO);
        mtd_info_user info = {};
        info.size = static_cast<uint32_t>(status.st_size);
        info.erasesize = fakeFlash.eraseSize;
        *static_cast<mtd_info_user *>(argument) = info;
        return 0;
    }
    const erase_info_user block = *static_cast<erase_info_user *>(argument);
    fakeFlash.requests.push_back((number == MEMUNLOCK ? "unlock " : "erase ") + std::to_string(block.start));
    if (fakeFlash.failErase) return failWith(EROFS);
    if (number == MEMUNLOCK) return 0;
    if (int64_t{block.start} + block.length > status.st_size) return failWith(EINVAL);
    const std::string ones(block.length, '\xFF');
    return pwrite(descriptor, ones.data(), ones.size(), static_cast<off_t>(block.start)) < 0 ? -1 : 0;
}

ssize_t program(int descriptor, const char *data, size_t length) {
    ++fakeFlash.writes;
    if (fakeFlash.failingWrite == fakeFlash.writes) return failWith(EIO);
    if (fakeFlash.interruptEvery > 0 && fakeFlash.writes % fakeFlash.interruptEvery == 0) return failWith(EINTR);
    const off_t position = lseek(descriptor, 0, SEEK_CUR);
    std::string bits(std::min(length, fakeFlash.atOnce), '\0');
    bits.resize(static_cast<size_t>(std::max<ssize_t>(pread(descriptor, bits.data(), bits.size(), position), 0)));
    if (bits.empty()) return failWith(ENOSPC);
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = static_cast<char>(bits[i] & data[i]);
    return syscall(SYS_write, descriptor, bits.data(), bits.size());
}

int answerLink(const ifreq &request) {
    const auto link = fakeLinks.find(request.ifr_name);
    if (link == fakeLinks.end()) return failWith(ENODEV);
    const auto [up, speed, duplex, told] = link->second;
    auto *const value = reinterpret_cast<ethtool_value *>(request.ifr_data);
    auto *const settings = reinterpret_cast<ethtool_cmd *>(request.ifr_data);
    if (value->cmd == ETHTOOL_GLINK) {
        value->data = up ? 1 : 0;
        return 0;
    }
    if (value->cmd != ETHTOOL_GSET || !told) return failWith(EOPNOTSUPP);
    settings->speed = speed;
    settings->duplex = duplex;
    return 0;
}

}  // namespace

// In the place of the C library's: what is not for the fake devices goes to the kernel.
extern "C" int ioctl(int descriptor, unsigned long number, ...) noexcept {
    va_list arguments;
    va_start(arguments, number);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    const bool ofFlash = number == MEMGETINFO || number == MEMUNLOCK || number == MEMERASE;
    if (ofFlash && isFlash(descriptor)) return answerFlash(descriptor, number, argument);
    if (number == SIOCETHTOOL && !fakeLinks.empty()) return answerLink(*static_cast<ifreq *>(argument));
    return static_cast<int>(syscall(SYS_ioctl, descriptor, number, argument));
}

extern "C" ssize_t write(int descriptor, const void *data, size_t length) {
    if (isFlash(descriptor)) return program(descriptor, static_cast<const char *>(data), length);
    return syscall(SYS_write, descriptor, data, length);
}
