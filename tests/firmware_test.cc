// Firmware: received, staged section by section, shown, checked and installed; and one partition written.

#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <map>
#include <thread>

#include "daemon/board.h"
#include "firmware/partition.h"
#include "firmware/product_block.h"
#include "firmware/upgrade.h"
#include "firmware/upload.h"
#include "tests/board.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using board::header, board::padded, board::pattern, board::productBlock, board::sealed, board::section;
using testing::ElementsAre, testing::EndsWith, testing::HasSubstr;

// What is to go wrong with the flash, between the code and the board's.
struct Faults {
    uint32_t blockSize = 65536;
    unsigned long failing = 0;  // this request fails
    int failingWrite = 0;       // the n-th write fails, from 1; 0 for none
    int interruptEvery = 0;     // every n-th write is interrupted by a signal, with nothing written
    size_t noMemoryFor = 0;     // an allocation of this size fails
    int writes = 0;
    std::string requests = {};  // what was asked: "unlock 0|", "erase 65536|"
} faults;

extern "C" int __real_ioctl(int device, unsigned long request, void *argument);
extern "C" int __wrap_ioctl(int device, unsigned long request, void *argument) {
    errno = EIO;
    const erase_info_user *const block = static_cast<erase_info_user *>(argument);
    if (request == MEMUNLOCK) faults.requests += "unlock " + std::to_string(block->start) + "|";
    if (request == MEMERASE) faults.requests += "erase " + std::to_string(block->start) + "|";
    if (request == faults.failing) return -1;
    const int result = __real_ioctl(device, request, argument);
    if (request == MEMGETINFO) static_cast<mtd_info_user *>(argument)->erasesize = faults.blockSize;
    return result;
}

extern "C" ssize_t __real_write(int device, const void *data, size_t length);
extern "C" ssize_t __wrap_write(int device, const void *data, size_t length) {
    ++faults.writes;
    errno = EIO;
    if (faults.writes == faults.failingWrite) return -1;
    errno = EINTR;
    if (faults.interruptEvery > 0 && faults.writes % faults.interruptEvery == 0) return -1;
    return __real_write(device, data, length);
}

extern "C" void *__real_malloc(size_t size);
extern "C" void *__wrap_malloc(size_t size) { return size == faults.noMemoryFor ? nullptr : __real_malloc(size); }

namespace {

constexpr uint32_t kBlock = 65536;
constexpr size_t kSize = 64 * kBlock;
constexpr char kFile[] = "/tmp/fabtestd.file";
const std::string kOld(kSize, '\x55');

std::string pathOf(int number) { return "/flash/mtd" + std::to_string(number); }

// The whole partition after `length` bytes of the pattern were written.
std::string flashed(size_t length) { return pattern(length) + std::string(kSize - length, '\xFF'); }

class Firmware : public board::BoardTest {
protected:
    void SetUp() override {
        BoardTest::SetUp();
        for (const int number : {2, 3, 4, 5}) board::writeFile(pathOf(number), kOld);
        faults = {};
        initialFunc();  // puts the device nodes under /tmp
        board::clearLog();
    }
};

// The log of the one operation that ran, a '|' behind each text, without the name that all have in front.
std::string progress() {
    std::string joined;
    for (const std::string &text : board::log()) {
        EXPECT_TRUE(text.starts_with("[writePartitions] ")) << text;
        joined += text.substr(text.find(' ') + 1) + "|";
    }
    board::clearLog();
    return joined;
}

TEST_F(Firmware, APartitionIsErasedWholeAndWritten) {
    const std::string erased = "erase size = 4194304, erase block = 65536|1 MB|2 MB|3 MB|4 MB|write to partition|";
    const struct {
        const char *what;
        Faults faults;
        size_t length;
        std::string content, log;  // of the partition; behind the file's size
    } cases[] = {
        // clang-format off
        {"nothing", {}, 0, flashed(0), erased + "done|"},
        {"16 blocks, nearly", {}, 16 * kBlock - 1, flashed(16 * kBlock - 1), erased + "1 MB|done|"},
        {"16 blocks and a byte", {}, 16 * kBlock + 1, flashed(16 * kBlock + 1), erased + "1 MB|done|"},
        {"the whole partition", {}, kSize, flashed(kSize), erased + "1 MB|2 MB|3 MB|4 MB|done|"},
        {"more than it holds", {}, kSize + 1, flashed(kSize), erased + "1 MB|2 MB|3 MB|4 MB|"},
        {"larger blocks", {.blockSize = 2 * kBlock}, 32 * kBlock + 5, flashed(32 * kBlock + 5),
         "erase size = 4194304, erase block = 131072|1 MB|2 MB|write to partition|1 MB|done|"},
        {"interrupted writes", {.interruptEvery = 2}, 3 * kBlock + 7, flashed(3 * kBlock + 7), erased + "done|"},
        {"a failed write", {.failingWrite = 17}, 3 * kBlock, flashed(kBlock), erased},
        {"blocks that cannot be unlocked", {.failing = MEMUNLOCK}, 9, flashed(9), erased + "done|"},
        {"no geometry", {.failing = MEMGETINFO}, 1, kOld, ""},
        {"no memory for a block", {.noMemoryFor = kBlock}, 9, kOld, "no memory for an erase block|"},
        {"blocks of no size", {.blockSize = 0}, 1, kOld, ""}};
    // clang-format on
    int number = 0;
    for (const auto &test : cases) {
        SetUp();
        faults = test.faults;
        const int partition = std::array{2, 3, 5}[number++ % 3];
        board::writeFile("/tmp/data", pattern(test.length));
        writePartitions(partition, "/tmp/data", nullptr, 0);
        EXPECT_TRUE(board::readFile(pathOf(partition)) == test.content) << test.what;
        EXPECT_EQ(progress(), "partition_num = " + std::to_string(partition) +
                                  "|file size = " + std::to_string(test.length) + "|" + test.log)
            << test.what;
        std::string requests;
        for (size_t at = 0; at < kSize && test.content != kOld; at += test.faults.blockSize) {
            requests += "unlock " + std::to_string(at) + "|erase " + std::to_string(at) + "|";
        }
        EXPECT_EQ(faults.requests, requests) << test.what;
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
    EXPECT_TRUE(board::readFile(pathOf(2)) == kOld && board::readFile(pathOf(4)) == kOld);
    fs::remove("/tmp/dev/mtd2");
    writePartitions(2, "/tmp/data", nullptr, 0);
    EXPECT_FALSE(board::exists("/tmp/dev/mtd2")) << "nothing is created";
    board::writeFile(pathOf(3), "");
    writePartitions(3, "/dev/null", nullptr, 0);
    EXPECT_EQ(faults.requests, "") << "a partition without a size";
}

TEST_F(Firmware, AnOpenFileIsWrittenFromWhereItStands) {
    board::writeFile("/tmp/data", "skipped" + pattern(1000));
    FILE *const file = fopen("/tmp/data", "rb");
    fseek(file, 7, SEEK_SET);
    writePartitions(2, nullptr, file, 600);
    EXPECT_TRUE(board::readFile(pathOf(2)) == flashed(600));
    EXPECT_THAT(progress(), testing::StartsWith("partition_num = 2|file size = 600|"));
    EXPECT_EQ(ftell(file), 607) << "it stays open";
    writePartitions(3, nullptr, file, 5000);
    EXPECT_EQ(board::readFile(pathOf(3)).substr(0, 400), pattern(1000).substr(600)) << "it ends before that length";
    EXPECT_THAT(progress(), EndsWith("|done|"));
    rewind(file);
    faults = {.failingWrite = 1};
    const int descriptor = fileno(file);
    writePartitions(2, nullptr, file, 10);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "it is closed";
}

// Receives `size` bytes from a station that sends `sent` and then closes; returns what is left in the socket.
std::string receive(int32_t size, const std::string &sent) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    std::thread station([&] {
        EXPECT_EQ(send(ends[1], sent.data(), sent.size(), MSG_NOSIGNAL), static_cast<ssize_t>(sent.size()));
        close(ends[1]);
    });
    saveFile(ends[0], size, kFile);
    station.join();
    std::string left(4096, '\0');
    left.resize(static_cast<size_t>(recv(ends[0], left.data(), left.size(), MSG_WAITALL)));
    close(ends[0]);
    return left;
}

TEST_F(Firmware, APayloadIsReceivedToTheByte) {
    for (const size_t size : {1, 1499, 1500, 1501, 9000}) {
        EXPECT_EQ(receive(static_cast<int32_t>(size), pattern(size) + "PING"), "PING");
        EXPECT_EQ(board::readFile(kFile), pattern(size)) << size;
        EXPECT_EQ(receive(10000, pattern(size)), "") << "the station closes early";
        EXPECT_EQ(board::readFile(kFile), pattern(size)) << size;
    }
    for (const int size : {0, -1, INT32_MIN}) {
        board::writeFile(kFile, "old");
        EXPECT_EQ(receive(size, "PING"), "PING") << size;
        EXPECT_TRUE(board::exists(kFile) && fs::is_empty(kFile)) << size;
    }
    EXPECT_EQ(board::log()[0], "[saveFile] filename=/tmp/fabtestd.file, size=1");
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=64k"), 0);
    EXPECT_EQ(receive(200000, std::string(200000, 'x') + "PING"), "PING") << "the disk is full";
    umount("/tmp");
}

using Staged = std::map<std::string, std::string>;

// Splits an image of these sections, telling the walk this size, and returns the staged files by name.
Staged split(const std::string &sections, size_t size) {
    board::writeFile("/tmp/image", productBlock() + sections);
    EXPECT_EQ(write2tmp("/tmp/image", static_cast<uint32_t>(size)), 0);
    fs::remove("/tmp/image");
    Staged staged;
    for (const auto &entry : fs::directory_iterator("/tmp")) {
        if (!entry.path().string().ends_with(".img")) continue;
        staged[entry.path().filename()] = board::readFile(entry.path());
        fs::remove(entry);
    }
    return staged;
}

TEST_F(Firmware, SectionsAreStagedByTheirPartitionsName) {
    const std::pair<int, std::string> names[] = {{6, "no/file"}, {2, "kernel\n"},
                                                 {3, "rootfs"},  {4, "firmware and more\n"},
                                                 {5, ""},        {9, std::string(100, 'n')}};
    for (const auto &[number, name] : names) {
        board::writeFile("/sys/class/block/mtdblock" + std::to_string(number) + "/device/name", name);
    }
    const std::string data(1000, 'd'), bad = header("no number");
    const std::string kernel = section("2.bin", "1234"), root = section("3.bin", "5678");
    const Staged none, kernelOnly = {{"kernel.img", "1234"}}, rootOnly = {{"rootfs.img", "5678"}};
    const Staged both = {{"kernel.img", "1234"}, {"rootfs.img", "5678"}};
    // The size that the walk is told; 0 for the image's own.
    const std::tuple<const char *, std::string, Staged, size_t> cases[] = {
        // clang-format off
        {"two sections", kernel + root, both, 0},
        {"the first word of the partition's name", section("4.x", "f"), {{"firmware.img", "f"}}, 0},
        {"no such device behind one", section("2.bin", "x") + section("8.bin", "y"), {{"kernel.img", "y"}}, 0},
        {"a device without a name", section("3.bin", "x") + section("5.bin", "y"), {{"rootfs.img", "y"}}, 0},
        {"a long partition name", section("9.bin", "x"), {{std::string(31, 'n') + ".img", "x"}}, 0},
        {"a name without a dot ends the walk", section("2bin", "") + root, none, 0},
        {"a negative number ends the walk", section("-2.bin", "") + root, none, 0},
        {"no number is 0", section(".bin", "x"), {{"boot.img", "x"}}, 0},
        {"a path in the name", section("2./../../etc/x", "1234"), kernelOnly, 0},
        {"64 characters without a NUL", "4 2." + std::string(60, 's') + "1234", kernelOnly, 0},
        {"cut off in its data", section("2.bin", data).substr(0, 500), none, 0},
        {"cut off behind another", section("3.bin", data) + section("2.bin", data).substr(0, 500),
         {{"rootfs.img", data}, {"kernel.img", data.substr(0, 436)}}, 0},
        {"cut off in its header", kernel + header("1 3.bin").substr(0, 63), kernelOnly, 0},
        // What remains is counted at 32 bits and wraps; which sections fit depends on it.
        {"fits exactly", kernel, kernelOnly, 68},
        {"one byte too long", kernel, none, 67},
        {"a copied section takes its header alone", kernel + root, both, 132},
        {"too long: its length is taken, its data read as headers", header("100 2.bin") + root, rootOnly, 130},
        {"too long by more than remains: that wraps, and all that follows fits",
         header("200 2.bin") + header("1000 3.bin") + "5678", rootOnly, 100},
        {"the largest length adds one to what remains", header("4294967295 2.bin") + root, rootOnly, 67},
        {"and not two", header("4294967295 2.bin") + root, none, 66},
        {"a length above 32 bits is the largest", header("99999999999 2.bin") + root, rootOnly, 4000},
        {"an unreadable header takes the last length", kernel + bad + root, both, 136},
        {"until nothing fits", kernel + bad + root, kernelOnly, 135},
        {"a header with a length alone keeps the last length", kernel + header("9999999") + root, both, 136},
        {"what cannot be staged takes its length too", section("6.bin", kernel), none, 199}};
    // clang-format on
    for (const auto &[what, sections, staged, size] : cases) {
        EXPECT_EQ(split(sections, size > 0 ? size : 60 + sections.size()), staged) << what;
    }
    EXPECT_EQ(write2tmp("/tmp/none", 1000), 0);
}

constexpr char kAcme[] = "Vendor: ACME Product: AP-1 Version: 1.02.03 Mark: 00012003";

TEST_F(Firmware, AProductIsShown) {
    const std::string v21(21, 'V'), nines(60, '9');
    // Without an end of its own a text runs on into what follows; what follows still starts at its place.
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
        std::vector<char> record(kProductBlockSize, '?');
        getProduct(nullptr, source.data(), record.data());
        EXPECT_EQ(std::string(source.begin(), source.end()), bytes) << "the source stays as it was";
        board::writeFile("/tmp/block", bytes + "and more");
        getProduct("/tmp/block", nullptr, nullptr);
        EXPECT_THAT(board::log(), ElementsAre(logged, logged));
        board::clearLog();
    }
    // A file that is short, or not there, leaves the static record as it was.
    board::writeFile("/tmp/short", "NEWVENDOR!");
    getProduct("/tmp/short", productBlock().data(), nullptr);
    getProduct("/tmp/none", nullptr, nullptr);
    getProduct("/tmp/none", productBlock().data(), nullptr);
    const std::string mixed = "Vendor: NEWVENDOR!" + nines.substr(0, 32);
    EXPECT_THAT(board::log(), ElementsAre(testing::StartsWith(mixed), testing::StartsWith(mixed), kAcme));
}

constexpr char kImage[] = "/tmp/image";
constexpr char kWriteKernel[] = "/sbin/mtd -qq write /tmp/kernel.img kernel > /dev/null 2>&1";
constexpr char kWriteRootfs[] = "/sbin/mtd -qq write /tmp/rootfs.img rootfs > /dev/null 2>&1";
constexpr char kUpgrade[] = "sysupgrade -c -d 3 /tmp/firmware.img > /dev/null 2>&1 &";

TEST_F(Firmware, AnImageIsInstalledWhenTheBoardHasBooted) {
    const std::string bytes = sealed(productBlock() + section("2.bin", "the kernel") + section("3.bin", "the root"));
    board::writeFile(kImage, bytes);
    const pid_t writer = board::fork([] { EXPECT_EQ(writeImage(kImage), 0); });
    ASSERT_TRUE(board::waitFor(20, [] { return board::log().size() >= 2; }));
    EXPECT_EQ(board::log()[1], "[writeImage] wait boot") << "it looks more than once";
    const board::NamedProcess telnetd("telnetd");
    EXPECT_EQ(board::wait(writer), 0);
    EXPECT_EQ(board::readFile(kImage), bytes.substr(0, bytes.size() - 33)) << "the trailer is cut off";
    EXPECT_EQ(board::readFile("/tmp/kernel.img") + board::readFile("/tmp/rootfs.img"), "the kernelthe root");
    const std::string digest = bytes.substr(bytes.size() - 33, 32);
    std::vector<std::string> log = board::log();
    // Each flashing command is logged once for itself and once by the shell runner.
    while (log[0] == log[1]) log.erase(log.begin());
    EXPECT_THAT(log, ElementsAre("[writeImage] wait boot", "chksum = " + digest + ".", "buffer = " + digest + ".",
                                 kAcme, "system_info(Vendor: ACME, Product: AP-2, mark: 00012001)",
                                 " image_info(Vendor: ACME, Product: AP-1, mark: 00012003)", kAcme, kWriteKernel,
                                 kWriteKernel, kWriteRootfs, kWriteRootfs));
    // Whatever an earlier image staged is flashed again; without system information there are no identities to show.
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
    const std::string good = sealed(productBlock() + section("2.bin", "kernel"));
    std::string flipped = good, upper = good;
    flipped[130] = static_cast<char>(flipped[130] ^ 1);
    for (size_t i = upper.size() - 33; i < upper.size(); ++i) upper[i] = static_cast<char>(toupper(upper[i]));
    std::string lastDigit = good;
    lastDigit[good.size() - 2] = 'x';
    const std::string noTrailer = "[writeImage] fail!! get check md5sum len != 33 (len=";
    const std::string noProduct = "[writeImage] fail!! get product len != 60 (len=";
    const std::tuple<std::string, std::string, size_t> cases[] = {
        {flipped, "buffer = ", 33},
        {upper, "buffer = ", 33},
        {lastDigit, "buffer = ", 33},
        {std::string(33, 'x'), "buffer = ", 33},
        {"", noTrailer + "0)", 0},
        {std::string(32, 'x'), noTrailer + "32)", 0},
        {sealed(std::string(59, 'x')), noProduct + "59)", 33}};
    for (const auto &[bytes, logged, cut] : cases) {
        board::writeFile(kImage, bytes);
        EXPECT_EQ(writeImage(kImage), -1) << logged;
        EXPECT_EQ(board::readFile(kImage), bytes.substr(0, bytes.size() - cut)) << logged;
        EXPECT_THAT(board::log().back(), HasSubstr(logged));
        EXPECT_FALSE(board::exists("/tmp/kernel.img")) << logged;
    }
    EXPECT_EQ(writeImage("/tmp/none"), -1);
}

}  // namespace
