#include "tests/fuzz/platform.h"

#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "daemon/board.h"
#include "daemon/dispatcher.h"
#include "firmware/product_block.h"
#include "support/configuration.h"
#include "support/handle.h"
#include "support/shell.h"
#include "tests/board_root.h"
#include "tests/fake_devices.h"

namespace fuzz {

std::string output;

namespace {

namespace fs = std::filesystem;

const struct {
    const char *path;
    std::string content;
} kFiles[] = {
    {"/sys/class/block/mtdblock2/device/name", "kernel"},
    {"/sys/class/block/mtdblock3/device/name", "rootfs"},
    {"/sys/class/block/mtdblock4/device/name", "firmware"},
    {"/tmp/dev/mtd2", std::string(256, '\xFF')},
    {"/tmp/dev/mtd3", std::string(256, '\xFF')},
    {"/dev/mtdblock6", std::string(32768, '\xFF')},
    {"/tmp/busybox", ""},  // there, so that the daemon need not copy it
    {kDebugSwitch, ""},    // so that what commands print is read as well
    {kPersistentConfiguration, ""},
    {"/etc/html.info", "& 12000\nname value\n"},
    {"/etc/entry.info", "& 3\nname value\n"},
    {kSystemInfo, "ACME                 AP-1                01.02.03 00012003                  "},
    {kDefaultConfiguration,
     "#& 1\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\nSYSTEM_MAC_ARGS = \"6 2 2 1_0 2_6 50_1002 60_5006\"\n"
     "SYSTEM_ART_PART = 6\nSYSTEM_COUNTRY_ARGS = \"6 1010\"\nWIFI_DEV_DEFINE = 3\nWIFI_24G_DEVICE = lo\n"
     "SYSTEM_CHECK_ETH_STATUS = \"eth0_ethtool_0 switch0_swconfig_1\"\n"},
};

void *const segment = calloc(1, kConfigurationSize);  // its borders are watched
std::string loaded;

}  // namespace

void enterBoard() {
    const fs::path folder = fs::current_path();
    board::enterRoot(FUZZ_FOLDER);
    std::error_code unseen;
    fs::current_path(folder, unseen);  // where the arguments' paths start, if the build can be seen from there
    prctl(PR_SET_NAME, "telnetd");     // whose presence tells the daemon that the board is up
    for (const auto &file : kFiles) put(file.path, file.content);
    fakeLinks["eth0"] = {};
    init_configuration();
    loaded.assign(static_cast<const char *>(segment), kConfigurationSize);
}

void reset() {
    memcpy(segment, loaded.data(), loaded.size());
    initialFunc();
    constexpr char kEmptyBlock[kProductBlockSize] = {};
    getProduct(nullptr, kEmptyBlock, nullptr);
    pingFlag = 0;
    factoryResetFlag = 0;
    output.clear();
    fakeFlash = {.eraseSize = 64};
}

// Not by a C++ stream, whose writes would go by the rules of flash.
void put(const std::string &path, std::string_view content) {
    FileHandle file(fopen(path.c_str(), "w"));
    if (file == nullptr && fs::create_directories(fs::path(path).parent_path())) return put(path, content);
    require(file != nullptr && fwrite(content.data(), 1, content.size(), file) == content.size() && file.close() == 0);
}

void require(bool held) {
    if (!held) abort();
}

}  // namespace fuzz

extern "C" {

// Formats, and thereby reads every argument to its end.
void syslog(int, const char *format, ...) {
    static char text[8192];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
}

int system(const char *line) { return strlen(line) > 0 ? 0 : -1; }

FILE *popen(const char *line, const char *mode) {
    return system(line) == 0 ? fmemopen(fuzz::output.data(), fuzz::output.size(), mode) : nullptr;
}

int pclose(FILE *stream) { return fclose(stream); }

// The factory reset's other process answers while the daemon sleeps.
unsigned sleep(unsigned) {
    factoryResetFlag = factoryResetFlag == 1 ? 2 : 0;
    return 0;
}

int shmget(key_t, size_t size, int) noexcept { return size == kConfigurationSize ? 1 : -1; }
void *shmat(int, const void *, int) noexcept { return fuzz::segment; }
int semget(key_t, int, int) noexcept { return 1; }
int semop(int, sembuf *, size_t) noexcept { return 0; }
int semtimedop(int, sembuf *, size_t, const timespec *) noexcept { return 0; }
}
