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
#include <climits>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fake_mtd {

Faults faults;
uint32_t eraseSize = 65536;
size_t largestWrite;
std::vector<std::string> requests;

namespace {

int writes;

std::string pathOf(int number) { return "/tmp/dev/mtd" + std::to_string(number); }

bool isFlash(int descriptor) {
    char target[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return length > 0 && std::string(target, static_cast<size_t>(length)).starts_with("/tmp/dev/mtd");
}

int failWith(int error) {
    errno = error;
    return -1;
}

off_t sizeOf(int descriptor) {
    struct stat status = {};
    fstat(descriptor, &status);
    return status.st_size;
}

int erase(int descriptor, const erase_info_user &block) {
    if (int64_t{block.start} + block.length > sizeOf(descriptor)) return failWith(EINVAL);
    const std::string ones(block.length, '\xFF');
    return pwrite(descriptor, ones.data(), ones.size(), static_cast<off_t>(block.start)) < 0 ? -1 : 0;
}

int request(int descriptor, unsigned long number, void *argument) {
    if (number == MEMGETINFO) {
        if (faults.info) return failWith(EIO);
        mtd_info_user info = {};
        info.type = MTD_NORFLASH;
        info.size = static_cast<uint32_t>(sizeOf(descriptor));
        info.erasesize = eraseSize;
        *static_cast<mtd_info_user *>(argument) = info;
        return 0;
    }
    const erase_info_user block = *static_cast<erase_info_user *>(argument);
    requests.push_back((number == MEMUNLOCK ? "unlock " : "erase ") + std::to_string(block.start));
    if (faults.erase) return failWith(EROFS);
    return number == MEMERASE ? erase(descriptor, block) : 0;
}

ssize_t program(int descriptor, const char *data, size_t length) {
    ++writes;
    largestWrite = std::max(largestWrite, length);
    if (faults.failingWrite == writes) return failWith(EIO);
    if (faults.interruptEvery > 0 && writes % faults.interruptEvery == 0) return failWith(EINTR);
    if (faults.atOnce > 0) length = std::min(length, faults.atOnce);
    const off_t position = lseek(descriptor, 0, SEEK_CUR);
    const off_t room = sizeOf(descriptor) - position;
    if (room <= 0) return failWith(ENOSPC);
    std::string bits(std::min(length, static_cast<size_t>(room)), '\0');
    if (pread(descriptor, bits.data(), bits.size(), position) < 0) return -1;
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = static_cast<char>(bits[i] & data[i]);
    return syscall(SYS_write, descriptor, bits.data(), bits.size());
}

}  // namespace

void reset() {
    faults = {};
    eraseSize = 65536;
    largestWrite = 0;
    writes = 0;
    requests.clear();
}

void create(int number, const std::string &content) {
    for (const std::string folder : {"/dev", "/tmp/dev"}) {
        std::filesystem::create_directories(folder);
        std::ofstream(folder + "/mtd" + std::to_string(number), std::ios::binary) << content;
    }
}

std::string content(int number) {
    std::ostringstream content;
    content << std::ifstream(pathOf(number), std::ios::binary).rdbuf();
    return content.str();
}

}  // namespace fake_mtd

namespace fake_link {

std::map<std::string, Link> links;

namespace {

int answer(const ifreq &request) {
    const auto link = links.find(request.ifr_name);
    if (link == links.end()) return fake_mtd::failWith(ENODEV);
    auto *const value = reinterpret_cast<ethtool_value *>(request.ifr_data);
    if (value->cmd == ETHTOOL_GLINK) {
        value->data = link->second.up ? 1 : 0;
        return 0;
    }
    if (value->cmd != ETHTOOL_GSET || !link->second.told) return fake_mtd::failWith(EOPNOTSUPP);
    auto *const settings = reinterpret_cast<ethtool_cmd *>(request.ifr_data);
    settings->speed = link->second.speed;
    settings->duplex = link->second.duplex;
    return 0;
}

}  // namespace
}  // namespace fake_link

// In the place of the C library's: what is not for the fake devices goes to the kernel.
extern "C" int ioctl(int descriptor, unsigned long number, ...) noexcept {
    va_list arguments;
    va_start(arguments, number);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    const bool ofFlash = number == MEMGETINFO || number == MEMUNLOCK || number == MEMERASE;
    if (ofFlash && fake_mtd::isFlash(descriptor)) return fake_mtd::request(descriptor, number, argument);
    if (number == SIOCETHTOOL && !fake_link::links.empty()) return fake_link::answer(*static_cast<ifreq *>(argument));
    return static_cast<int>(syscall(SYS_ioctl, descriptor, number, argument));
}

extern "C" ssize_t write(int descriptor, const void *data, size_t length) {
    if (fake_mtd::isFlash(descriptor)) return fake_mtd::program(descriptor, static_cast<const char *>(data), length);
    return syscall(SYS_write, descriptor, data, length);
}
