// Receives firmware, stages its sections, logs, checks and installs it; and writes one partition.

#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include "daemon/board.h"
#include "firmware/partition.h"
#include "firmware/product_block.h"
#include "firmware/upgrade.h"
#include "firmware/upload.h"
#include "tests/board.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using board::header, board::padded, board::pattern, board::productBlock, board::sealed, board::section;
using testing::ElementsAre, testing::EndsWith, testing::HasSubstr, testing::StartsWith;

constexpr uint32_t kBlock = 65536, kSize = 32 * kBlock;

// Faults between the code and the native board's flash. Besides, every second write is interrupted by a signal.
struct Faults {
    uint32_t blockSize = kBlock;
    unsigned long failing = 0;  // the request that fails
    int failingWrite = 0;       // which write fails, from 1; 0 for none
    size_t noMemoryFor = 0;     // the size of the allocation that fails
    int writes = 0;
    uint32_t unlocked = 1;  // the block of the last MEMUNLOCK
} faults;

// Erasing a block fails unless MEMUNLOCK came first. Expects no request after the end.
extern "C" int __real_ioctl(int device, unsigned long request, void *argument);
extern "C" int __wrap_ioctl(int device, unsigned long request, void *argument) {
    errno = EIO;
    const uint32_t start = static_cast<const erase_info_user *>(argument)->start;
    if (request == MEMUNLOCK) faults.unlocked = start;
    EXPECT_TRUE(request != MEMERASE || start < kSize);
    if (request == faults.failing || (request == MEMERASE && start != faults.unlocked)) return -1;
    const int result = __real_ioctl(device, request, argument);
    if (request == MEMGETINFO) static_cast<mtd_info_user *>(argument)->erasesize = faults.blockSize;
    return result;
}

extern "C" ssize_t __real_write(int device, const void *data, size_t length);
extern "C" ssize_t __wrap_write(int device, const void *data, size_t length) {
    ++faults.writes;
    errno = faults.writes == faults.failingWrite ? EIO : EINTR;
    if (errno == EIO || faults.writes % 2 == 0) return -1;
    return __real_write(device, data, length);
}

extern "C" void *__real_malloc(size_t size);
extern "C" void *__wrap_malloc(size_t size) { return size == faults.noMemoryFor ? nullptr : __real_malloc(size); }

namespace {

const std::string kOld(kSize, '\x55');

std::string flash(int number) { return board::readFile("/flash/mtd" + std::to_string(number)); }

// Returns the content of a partition to which `length` bytes of the pattern were written.
std::string flashed(size_t length) { return pattern(length) + std::string(kSize - length, '\xFF'); }

class Firmware : public board::BoardTest {
protected:
    void SetUp() override {
        BoardTest::SetUp();
        for (const char *number : {"2", "3", "4", "5"}) board::writeFile("/flash/mtd"s + number, kOld);
        faults = {};
        initialFunc();  // copies the device nodes to /tmp
        board::clearLog();
    }
};

// Returns the log of one operation, each text without the operation's name and followed by a '|'.
std::string progress() {
    std::string joined;
    for (const std::string &text : board::log()) {
        EXPECT_THAT(text, StartsWith("[writePartitions] "));
        joined += text.substr(text.find(' ') + 1) + "|";
    }
    board::clearLog();
    return joined;
}

TEST_F(Firmware, APartitionIsErasedWholeAndWritten) {
    const std::string erased = "erase size = 2097152, erase block = 65536|1 MB|2 MB|write to partition|";
    const std::string larger = "erase size = 2097152, erase block = 131072|1 MB|write to partition|1 MB|done|";
    // Partition, size of the file, number of its bytes on the flash (-1: unchanged), end of the log.
    const std::tuple<const char *, int, Faults, size_t, int, std::string> cases[] = {
        {"nothing", 2, {}, 0, 0, erased + "done|"},
        {"16 blocks and a byte", 3, {}, 16 * kBlock + 1, 16 * kBlock + 1, erased + "1 MB|done|"},
        {"more than it holds", 5, {}, kSize + 1, kSize, erased + "1 MB|2 MB|"},
        {"larger blocks", 2, {.blockSize = 2 * kBlock}, kSize, kSize, larger},
        {"a failed write", 3, {.failingWrite = 33}, 3 * kBlock, kBlock, erased},
        {"blocks that cannot be unlocked", 5, {.failing = MEMUNLOCK}, 17, 17, erased + "done|"},
        {"no geometry", 2, {.failing = MEMGETINFO}, 1, -1, ""},
        {"no memory for a block", 3, {.noMemoryFor = kBlock}, 9, -1, "no memory for an erase block|"},
        {"blocks of no size", 5, {.blockSize = 0}, 1, -1, ""}};
    for (const auto &[what, partition, wrong, length, written, log] : cases) {
        SetUp();
        faults = wrong;
        board::writeFile("/tmp/data", pattern(length));
        writePartitions(partition, "/tmp/data", nullptr, 0);
        EXPECT_TRUE(flash(partition) == (written < 0 ? kOld : flashed(static_cast<size_t>(written)))) << what;
        const std::string opened = "partition_num = " + std::to_string(partition);
        EXPECT_EQ(progress(), opened + "|file size = " + std::to_string(length) + "|" + log) << what;
    }
}

TEST_F(Firmware, APartitionThatIsNotThereIsPassedOver) {
    board::writeFile("/tmp/data", pattern(9));
    for (const int number : {4, 0, 1, -1, 6}) {
        writePartitions(number, "/tmp/data", nullptr, 0);
        EXPECT_EQ(progress(),
                  "fail!! partition_num = " + std::to_string(number) + ", not kernel(2) or rootfs(3) or config(5)|");
    }
    writePartitions(2, "/tmp/none", nullptr, 0);
    EXPECT_EQ(progress(), "partition_num = 2|");
    fs::remove("/tmp/dev/mtd2");
    writePartitions(2, "/tmp/data", nullptr, 0);
    EXPECT_FALSE(board::exists("/tmp/dev/mtd2")) << "must not be created";
    EXPECT_TRUE(flash(2) == kOld && flash(4) == kOld);
    board::writeFile("/flash/mtd3", "");
    writePartitions(3, "/dev/null", nullptr, 0);
    EXPECT_EQ(faults.unlocked, 1U) << "a partition without a size";
}

TEST_F(Firmware, AnOpenFileIsWrittenFromWhereItStands) {
    board::writeFile("/tmp/data", "skipped" + pattern(1000));
    FILE *const file = fopen("/tmp/data", "rb");
    fseek(file, 7, SEEK_SET);
    writePartitions(2, nullptr, file, 600);
    EXPECT_TRUE(flash(2) == flashed(600));
    EXPECT_THAT(progress(), StartsWith("partition_num = 2|file size = 600|"));
    EXPECT_EQ(ftell(file), 607) << "it stays open";
    writePartitions(3, nullptr, file, 5000);
    EXPECT_EQ(flash(3).substr(0, 400), pattern(1000).substr(600)) << "it ends before that length";
    EXPECT_THAT(progress(), EndsWith("|done|"));
    rewind(file);
    faults = {.failingWrite = 1};
    const int descriptor = fileno(file);
    writePartitions(2, nullptr, file, 10);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "it is closed";
}

TEST_F(Firmware, APayloadIsReceivedToTheByte) {
    for (const size_t size : {1, 1501}) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        const std::string sent = pattern(size) + "PING";
        EXPECT_EQ(send(ends[1], sent.data(), sent.size(), 0), static_cast<ssize_t>(sent.size()));
        saveFile(ends[0], static_cast<int32_t>(size), "/tmp/data");
        EXPECT_EQ(board::readFile("/tmp/data"), pattern(size));
        char left[8];
        EXPECT_EQ(recv(ends[0], left, sizeof left, 0), 4) << "PING";
        for (const int end : ends) close(end);
    }
}

using Staged = std::map<std::string, std::string>;

// Stages an image of these sections, with `size` as its announced size. Returns the staged files by name.
Staged split(const std::string &sections, size_t size) {
    board::writeFile("/tmp/image", productBlock() + sections);
    EXPECT_EQ(write2tmp("/tmp/image", static_cast<uint32_t>(size)), 0);
    Staged staged;
    for (const auto &entry : fs::directory_iterator("/tmp")) {
        if (entry.path().extension() != ".img") continue;
        staged[entry.path().stem()] = board::readFile(entry.path());
        fs::remove(entry);
    }
    return staged;
}

TEST_F(Firmware, SectionsAreStagedByTheirPartitionsName) {
    const std::pair<const char *, std::string> names[] = {{"6", "no/file"}, {"2", "kernel\n"},
                                                          {"3", "rootfs"},  {"4", "firmware and more\n"},
                                                          {"5", ""},        {"9", std::string(100, 'n')}};
    for (const auto &[number, name] : names)
        board::writeFile("/sys/class/block/mtdblock"s + number + "/device/name", name);
    const std::string data(1000, 'd'), bad = header("no number");
    const std::string kernel = section("2.bin", "1234"), root = section("3.bin", "5678");
    const Staged none, kernelOnly = {{"kernel", "1234"}}, rootOnly = {{"rootfs", "5678"}};
    const Staged both = {{"kernel", "1234"}, {"rootfs", "5678"}};
    // Description, sections, staged files, announced size (0: the true one).
    const std::tuple<const char *, std::string, Staged, size_t> cases[] = {
        // clang-format off
        {"the first word of the partition's name", section("4.x", "f"), {{"firmware", "f"}}, 0},
        {"no such device after one", section("2.bin", "x") + section("8.bin", "y"), {{"kernel", "y"}}, 0},
        {"a device without a name", section("3.bin", "x") + section("5.bin", "y"), {{"rootfs", "y"}}, 0},
        {"a long partition name", section("9.bin", "x"), {{std::string(31, 'n'), "x"}}, 0},
        {"a name without a dot ends the walk", section("2bin", "") + root, none, 0},
        {"a negative number ends the walk", section("-2.bin", "") + root, none, 0},
        {"no number is 0", section(".bin", "x"), {{"boot", "x"}}, 0},
        {"a path in the name", section("2./../../etc/x", "1234"), kernelOnly, 0},
        {"64 characters without a NUL", "4 2." + std::string(60, 's') + "1234", kernelOnly, 0},
        {"cut off after another", section("3.bin", data) + section("2.bin", data).substr(0, 500),
         {{"rootfs", data}, {"kernel", data.substr(0, 436)}}, 0},
        {"cut off in its header", kernel + header("1 3.bin").substr(0, 63), kernelOnly, 0},
        // The remaining size wraps around at 32 bits, which decides which sections fit.
        {"too long: its length is taken, its data read as headers", header("100 2.bin") + root, rootOnly, 130},
        {"the largest length adds one to what remains", header("4294967295 2.bin") + root, rootOnly, 67},
        {"and not two", header("4294967295 2.bin") + root, none, 66},
        {"a length above 32 bits is the largest", header("4294967300 2.bin") + root, rootOnly, 4000},
        {"an unreadable header takes the last length", kernel + bad + root, both, 136},
        {"until nothing fits", kernel + bad + root, kernelOnly, 135},
        {"a header with a length alone keeps the last length", kernel + header("5") + root, both, 136},
        {"what cannot be staged takes its length too", section("6.bin", kernel), none, 199}};
    // clang-format on
    for (const auto &[what, sections, staged, size] : cases)
        EXPECT_EQ(split(sections, size > 0 ? size : 60 + sections.size()), staged) << what;
    EXPECT_EQ(write2tmp("/tmp/none", 1000), 0);
}

// On a full RAM disk an incomplete section is removed rather than flashed, and the next section is staged.
TEST_F(Firmware, ASectionThatDoesNotFitIsNotStaged) {
    const std::string data = pattern(30000);
    board::writeFile("/var/image", productBlock() + section("2.x", "k") + section("3.x", data) + section("4.x", "f"));
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    EXPECT_EQ(send(ends[1], data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=16k"), 0);
    EXPECT_EQ(write2tmp("/var/image", 90000), 0);
    EXPECT_EQ(board::readFile("/tmp/kernel.img") + board::readFile("/tmp/firmware.img"), "kf");
    EXPECT_FALSE(board::exists("/tmp/rootfs.img"));
    EXPECT_THAT(board::log(), ElementsAre(HasSubstr("/tmp/rootfs.img")));
    board::clearLog();
    saveFile(ends[0], static_cast<int32_t>(data.size()), "/tmp/data");
    EXPECT_LT(board::readFile("/tmp/data").size(), data.size());
    EXPECT_EQ(recv(ends[0], ends + 1, 0, MSG_DONTWAIT | MSG_PEEK), -1) << "the whole payload is received";
    EXPECT_THAT(board::log(), ElementsAre(HasSubstr("size=30000"), "> /tmp/data", HasSubstr("/tmp/data")));
    for (const int end : ends) close(end);
    board::writeFile("/var/image", productBlock() + section("3.x", "r"));
    EXPECT_EQ(write2tmp("/var/image", 125), 0);
    EXPECT_FALSE(board::exists("/tmp/rootfs.img")) << "only closing the file fails";
    umount("/tmp");
}

constexpr char kAcme[] = "Vendor: ACME Product: AP-1 Version: 1.02.03 Mark: 00012003";

TEST_F(Firmware, AProductIsShown) {
    const std::string v21(21, 'V'), nines(60, '9');
    // A text without an end runs on into the next fields, which still start at their own offsets.
    const std::pair<std::string, std::string> cases[] = {
        {productBlock(), kAcme},
        {padded("A", 21, '\0') + padded("B", 20, '\0') + "12x34y56 abc       ",
         "Vendor: A Product: B Version: 12.34.56 Mark: abc     "},
        {padded("A B", 21) + padded("C D", 20) + "1 .ab. 7 12345678  ",
         "Vendor: A Product: C Version: 1.00.07 Mark: 12345678"},
        {v21 + productBlock().substr(21), "Vendor: " + v21 + "AP-1 Product: AP-1 Version: 1.02.03 Mark: 00012003"},
        {nines,
         "Vendor: " + nines.substr(0, 43) + " Product: " + nines.substr(0, 22) + " Version: 99.99.99 Mark: 99999999"}};
    for (const auto &[bytes, logged] : cases) {
        const std::vector<char> source(bytes.begin(), bytes.end());
        std::vector<char> record(kProductBlockSize);
        getProduct(nullptr, source.data(), record.data());
        EXPECT_EQ(std::string(source.begin(), source.end()), bytes) << "the source must not change";
        board::writeFile("/tmp/block", bytes + "and more");
        getProduct("/tmp/block", nullptr, nullptr);
        EXPECT_THAT(board::log(), ElementsAre(logged, logged));
        board::clearLog();
    }
    // The static record keeps its old bytes where a short or missing file does not fill it.
    board::writeFile("/tmp/short", "NEWVENDOR!");
    getProduct("/tmp/short", productBlock().data(), nullptr);
    getProduct("/tmp/none", nullptr, nullptr);
    getProduct("/tmp/none", productBlock().data(), nullptr);
    const std::string mixed = "Vendor: NEWVENDOR!" + nines.substr(0, 32);
    EXPECT_THAT(board::log(), ElementsAre(StartsWith(mixed), StartsWith(mixed), kAcme));
}

constexpr char kImage[] = "/tmp/image";
constexpr char kWriteKernel[] = "/sbin/mtd -qq write /tmp/kernel.img kernel > /dev/null 2>&1";
constexpr char kWriteRootfs[] = "/sbin/mtd -qq write /tmp/rootfs.img rootfs > /dev/null 2>&1";
constexpr char kUpgrade[] = "sysupgrade -c -d 3 /tmp/firmware.img > /dev/null 2>&1 &";

TEST_F(Firmware, AnImageIsInstalledWhenTheBoardHasBooted) {
    const std::string image = productBlock() + section("2.bin", "the kernel") + section("3.bin", "the root");
    const std::string bytes = sealed(image), digest = bytes.substr(image.size(), 32);
    board::writeFile(kImage, bytes);
    const pid_t writer = board::fork([] { EXPECT_EQ(writeImage(kImage), 0); });
    const std::string waits = "[writeImage] wait boot";
    ASSERT_TRUE(board::waitFor(20, [&] { return board::log() == std::vector{waits, waits}; })) << "more than once";
    const board::NamedProcess telnetd("telnetd");
    EXPECT_EQ(board::wait(writer), 0);
    EXPECT_EQ(board::readFile(kImage), image) << "without the trailer";
    EXPECT_EQ(board::readFile("/tmp/kernel.img") + board::readFile("/tmp/rootfs.img"), "the kernelthe root");
    std::vector<std::string> log = board::log();
    std::erase(log, waits);
    // writeImage and the shell runner each log a flashing command.
    EXPECT_THAT(log, ElementsAre("chksum = " + digest + ".", "buffer = " + digest + ".", kAcme,
                                 "system_info(Vendor: ACME, Product: AP-2, mark: 00012001)",
                                 " image_info(Vendor: ACME, Product: AP-1, mark: 00012003)", kAcme, kWriteKernel,
                                 kWriteKernel, kWriteRootfs, kWriteRootfs));
    // Sections that an earlier image staged are flashed again. Without system information no identities are logged.
    fs::remove("/etc/system.info");
    fs::remove("/tmp/rootfs.img");
    board::writeFile(kImage, sealed(productBlock() + header("50 4.bin") + "cut short"));
    board::clearLog();
    EXPECT_EQ(writeImage(kImage), 0);
    EXPECT_THAT(board::log(), ElementsAre(HasSubstr("chksum"), HasSubstr("buffer"), kAcme, kWriteKernel, kWriteKernel,
                                          kUpgrade, kUpgrade));
    fs::remove("/tmp/firmware.img");
    EXPECT_NE(CheckFileDoUpgrade(), 0) << "there is no staged firmware";
}

TEST_F(Firmware, ABadImageIsRefusedAndStillCut) {
    const board::NamedProcess telnetd("telnetd");
    const std::string image = productBlock() + section("2.bin", "kernel"), digest = sealed(image).substr(image.size());
    std::string upper = digest;
    for (char &c : upper) c = static_cast<char>(toupper(c));
    const std::string noProduct = "[writeImage] fail!! get product len != 60 (len=59)";
    const std::string noTrailer = "[writeImage] fail!! get check md5sum len != 33 (len=";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // Image, trailer, last line of the log.
        {image, upper, "buffer = "},
        {image, digest.substr(0, 31) + "x\n", "buffer = "},
        {"", std::string(33, 'x'), "buffer = "},
        {std::string(32, 'x'), "", noTrailer + "32)"},
        {std::string(59, 'x'), sealed(std::string(59, 'x')).substr(59), noProduct}};
    for (const auto &[content, trailer, logged] : cases) {
        board::writeFile(kImage, content + trailer);
        EXPECT_EQ(writeImage(kImage), -1) << logged;
        EXPECT_EQ(board::readFile(kImage), content) << logged;
        EXPECT_THAT(board::log().back(), HasSubstr(logged));
        EXPECT_FALSE(board::exists("/tmp/kernel.img")) << logged;
    }
    EXPECT_EQ(writeImage("/tmp/none"), -1);
}

}  // namespace
