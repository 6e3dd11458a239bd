#include "firmware/upgrade.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "firmware/product_block.h"
#include "firmware/upload.h"
#include "support/handle.h"
#include "support/ignored.h"
#include "support/process_file.h"
#include "support/shell.h"
#include "support/system_info.h"

namespace {

constexpr char kOperation[] = "writeImage";  // log lines begin with this and their source line
constexpr int kTrailerSize = 33;             // 32 hexadecimal digits and a byte that is not examined
constexpr size_t kDigestLength = 32;

void waitForBoot() {
    while (my_procisrun("telnetd") <= 0) {
        syslog(LOG_ALERT, "[%s,%d] wait boot", kOperation, __LINE__);
        sleep(1);
    }
}

// Cuts the trailer off the file and copies its digest, kDigestLength characters and a NUL. Returns the length of the
// image without the trailer, or -1 when the trailer is missing.
int32_t cutTrailer(const char *path, char *digest) {
    FileHandle image(fopen(path, "rbe"));
    if (image == nullptr) return -1;
    // In a file too short for a trailer the seek fails and the position stays 0.
    fseek(image, -kTrailerSize, SEEK_END);
    const int32_t length = static_cast<int32_t>(ftell(image));
    char trailer[kTrailerSize];
    const size_t count = fread(trailer, 1, sizeof trailer, image);
    if (count < sizeof trailer) {
        image.close();
        syslog(LOG_ALERT, "[%s,%d] fail!! get check md5sum len != 33 (len=%d)", kOperation, __LINE__,
               static_cast<int>(count));
        return -1;
    }
    memcpy(digest, trailer, kDigestLength);
    digest[kDigestLength] = '\0';
    image.close();
    ignored(truncate(path, length));
    return length;
}

bool digestHolds(const char *path, const char *expected) {
    FILE *const sum = popen(M("/usr/bin/md5sum %s", path), "r");
    if (sum == nullptr) return false;
    char computed[64] = "";
    ignored(fscanf(sum, "%63s", computed));
    pclose(sum);
    syslog(LOG_ALERT, "chksum = %s.", expected);
    syslog(LOG_ALERT, "buffer = %s.", computed);
    return strcmp(expected, computed) == 0;
}

// Logs the identities of the system and the image. Intended: they are not compared.
void logIdentities(const char *block) {
    char system[kSystemInfoSize];
    if (my_systemInfo(system) >= 0) {
        char image[kProductBlockSize];
        getProduct(nullptr, block, image);
        cutProductFields(system);  // the record has no NULs: each text would run to its end
        syslog(LOG_ALERT, "system_info(Vendor: %s, Product: %s, mark: %s)\n", system + kVendor, system + kProduct,
               system + kMark);
        syslog(LOG_ALERT, " image_info(Vendor: %s, Product: %s, mark: %s)\n", image + kVendor, image + kProduct,
               image + kMark);
    }
    getProduct(nullptr, block, nullptr);
}

int logAndRun(const char *command) {
    syslog(LOG_ALERT, "%s", command);
    return my_system("%s", command);
}

}  // namespace

int writeImage(const char *path) {
    waitForBoot();
    char digest[kDigestLength + 1];
    const int32_t length = cutTrailer(path, digest);
    if (length < 0 || !digestHolds(path, digest)) return -1;

    FileHandle image(fopen(path, "rbe"));
    if (image == nullptr) return 0;  // intended: the image counts as accepted although nothing is installed
    char block[kProductBlockSize];
    const size_t count = fread(block, 1, sizeof block, image);
    image.close();
    if (count < sizeof block) {
        syslog(LOG_ALERT, "[%s,%d] fail!! get product len != 60 (len=%d)", kOperation, __LINE__,
               static_cast<int>(count));
        return -1;
    }
    logIdentities(block);
    if (write2tmp(path, static_cast<uint32_t>(length)) >= 0) CheckFileDoUpgrade();
    return 0;
}

int CheckFileDoUpgrade() {
    if (access("/tmp/kernel.img", F_OK) == 0) logAndRun("/sbin/mtd -qq write /tmp/kernel.img kernel > /dev/null 2>&1");
    if (access("/tmp/rootfs.img", F_OK) == 0) logAndRun("/sbin/mtd -qq write /tmp/rootfs.img rootfs > /dev/null 2>&1");
    const int missing = access("/tmp/firmware.img", F_OK);
    if (missing != 0) return missing;
    // In the background: the upgrade flashes and reboots while the station gets its reply.
    return logAndRun("sysupgrade -c -d 3 /tmp/firmware.img > /dev/null 2>&1 &");
}

void writeDOMCheck(const char *) {}
