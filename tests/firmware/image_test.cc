// Firmware images: received, staged partition by partition, checked and installed.

#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "firmware/product_block.h"
#include "firmware/upgrade.h"
#include "firmware/upload.h"
#include "tests/firmware/image_bytes.h"
#include "tests/native_board.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using image_bytes::header, image_bytes::padded, image_bytes::productBlock, image_bytes::section;
using testing::ElementsAre, testing::HasSubstr;

namespace {

class Images : public board::NativeBoardTest {
protected:
    void SetUp() override {
        NativeBoardTest::SetUp();
        const std::pair<int, std::string> names[] = {{6, "no/file"}, {2, "kernel\n"},
                                                     {3, "rootfs"},  {4, "firmware and more\n"},
                                                     {5, ""},        {9, std::string(100, 'n')}};
        for (const auto &[number, name] : names) {
            board::writeFile("/sys/class/block/mtdblock" + std::to_string(number) + "/device/name", name);
        }
    }
};

constexpr char kFile[] = "/tmp/fabtestd.file";

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

TEST_F(Images, AreReceivedToTheByte) {
    std::string payload;
    for (int i = 0; i < 9000; ++i) payload += static_cast<char>(i * 7 % 251);
    for (const size_t size : {1, 1499, 1500, 1501, 3001, 9000}) {
        const std::string announced = payload.substr(0, size);
        EXPECT_EQ(receive(static_cast<int32_t>(size), announced + "PING"), "PING");
        EXPECT_EQ(board::readFile(kFile), announced) << size;
        EXPECT_EQ(receive(10000, announced), "") << "the station closes early";
        EXPECT_EQ(board::readFile(kFile), announced) << size;
    }
    for (const int size : {0, -1, INT32_MIN}) {
        board::writeFile(kFile, "old");
        EXPECT_EQ(receive(size, "PING"), "PING") << size;
        EXPECT_TRUE(board::exists(kFile) && fs::is_empty(kFile)) << size;
    }
    EXPECT_EQ(board::logTextsWithoutLines()[0], "[saveFile] filename=/tmp/fabtestd.file, size=1");
}

TEST_F(Images, AreTakenFromTheStreamWhenTheDiskIsFull) {
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=64k"), 0);
    EXPECT_EQ(receive(200000, std::string(200000, 'x') + "PING"), "PING");
    EXPECT_LE(board::readFile(kFile).size(), 65536U);
    umount("/tmp");
}

using Staged = std::map<std::string, std::string>;

// Splits an image of these sections, telling the walk this size, and returns the staged files by name.
Staged split(const std::string &sections, size_t size) {
    board::writeFile("/tmp/image", productBlock() + sections);
    EXPECT_EQ(write2tmp("/tmp/image", static_cast<uint32_t>(size)), 0);
    Staged staged;
    for (const auto &entry : fs::directory_iterator("/tmp")) {
        if (!entry.is_regular_file()) continue;
        const std::string name = entry.path().filename();
        if (name != "image") staged[name] = board::readFile(entry.path());
        fs::remove(entry);
    }
    return staged;
}

TEST_F(Images, AreStagedByTheirPartitionsName) {
    const std::string data(1000, 'd'), bad = header("no number");
    const std::string kernel = section("2.bin", "1234"), root = section("3.bin", "5678");
    const Staged none, kernelOnly = {{"kernel.img", "1234"}}, rootOnly = {{"rootfs.img", "5678"}};
    const Staged both = {{"kernel.img", "1234"}, {"rootfs.img", "5678"}};
    // The size that the walk is told; 0 for the image's own.
    const std::tuple<const char *, std::string, Staged, size_t> cases[] = {
        // clang-format off
        {"two sections", kernel + root, both, 0},
        {"the first word of the partition's name", section("4.x", "f"), {{"firmware.img", "f"}}, 0},
        {"the same twice", section("2.a", "one") + section("2.b", "two"), {{"kernel.img", "two"}}, 0},
        {"no such device", section("7.bin", "x") + section("8.bin", "y"), {{".img", "y"}}, 0},
        {"no such device behind one", section("2.bin", "x") + section("8.bin", "y"), {{"kernel.img", "y"}}, 0},
        {"a device without a name", section("3.bin", "x") + section("5.bin", "y"), {{"rootfs.img", "y"}}, 0},
        {"a long partition name", section("9.bin", "x"), {{std::string(31, 'n') + ".img", "x"}}, 0},
        {"a name without a dot ends the walk", section("2bin", "x") + root, none, 0},
        {"a negative number ends the walk", section("-2.bin", "x") + root, none, 0},
        {"no number is 0", section(".bin", "x"), {{".img", "x"}}, 0},
        {"blanks before and between", header("  4 \t 2.bin") + "1234", kernelOnly, 0},
        {"no blank", header("4x2.bin") + "data", {{".img", "data"}}, 0},
        {"a path in the name", section("2./../../etc/x", "1234"), kernelOnly, 0},
        {"64 characters without a NUL", "4 2." + std::string(60, 's') + "1234", kernelOnly, 0},
        {"64 digits", std::string(64, '9') + kernel, kernelOnly, 0},
        {"cut off in its data", section("2.bin", data).substr(0, 500), none, 0},
        {"cut off behind another", section("3.bin", data) + section("2.bin", data).substr(0, 500),
         {{"rootfs.img", data}, {"kernel.img", data.substr(0, 436)}}, 0},
        {"cut off in its header", kernel + header("1 3.bin").substr(0, 63), kernelOnly, 0},
        // What remains is counted at 32 bits and wraps; which sections fit depends on it.
        {"fits exactly", kernel, kernelOnly, 68},
        {"one byte too long", kernel, none, 67},
        {"below a header everything fits", kernel, kernelOnly, 63},
        {"a copied section takes its header alone", kernel + root, both, 132},
        {"too long: its length is taken, its data read as headers", header("100 2.bin") + root, rootOnly, 130},
        {"too long by more than remains: that wraps, and all that follows fits",
         header("200 2.bin") + header("1000 3.bin") + "5678", rootOnly, 100},
        {"the largest length adds one to what remains", header("4294967295 2.bin") + root, rootOnly, 67},
        {"and not two", header("4294967295 2.bin") + root, none, 66},
        {"a length above 32 bits is the largest", header("99999999999 2.bin") + root, rootOnly, 4000},
        {"a negative length is a large one", header("-1 2.bin") + root, rootOnly, 4000},
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

// Ten thousand mutations of a good image: nothing is read or written out of bounds, no file appears outside /tmp, and
// what was staged is the same on every processor: the number is that of a little-endian 64-bit run.
TEST_F(Images, AreStagedTheSameEverywhere) {
    const std::string good = section("2.bin", std::string(700, 'k')) + section("3.rootfs", std::string(300, 'r')) +
                             section("4.bin", "firmware");
    std::mt19937 random(3);
    uint64_t digest = 14695981039346656037U;
    for (int round = 0; round < 10000; ++round) {
        std::string mutated = good;
        for (unsigned change = random() % 4 + 1; change > 0; --change) {
            const size_t headers[] = {0, 764, 1128};
            const size_t inHeader = headers[random() % 3] + random() % 12, anywhere = random() % good.size();
            const size_t position = random() % 2 == 0 ? inHeader : anywhere;
            if (position >= mutated.size()) continue;
            const char bytes[] = {static_cast<char>(random()), "0123456789.- \0"[random() % 14]};
            mutated[position] = bytes[random() % 2];
            if (random() % 3 == 0) mutated.resize(position);
        }
        for (const auto &[name, content] : split(mutated, 60 + mutated.size())) {
            for (const char c : name + content) digest = (digest ^ static_cast<unsigned char>(c)) * 1099511628211U;
        }
    }
    EXPECT_EQ(digest, 13624913926605358957U);
    for (const auto &entry : fs::directory_iterator("/")) EXPECT_FALSE(entry.is_regular_file()) << entry;
}

constexpr char kAcme[] = "Vendor: ACME\nProduct: AP-1\nVersion: 1.02.03\nMark: 00012003";

TEST_F(Images, ShowTheirProduct) {
    const std::string v21(21, 'V'), nines(60, '9');
    // Without an end of its own a text runs on into what follows; what follows still starts at its place.
    const std::pair<std::string, std::string> cases[] = {
        {productBlock(), kAcme},
        {padded("A", 21, '\0') + padded("B", 20, '\0') + "12x34y56 abc       ",
         "Vendor: A\nProduct: B\nVersion: 12.34.56\nMark: abc     "},
        {padded("A B", 21) + padded("C D", 20) + "1 .ab. 7 12345678  ",
         "Vendor: A\nProduct: C\nVersion: 1.00.07\nMark: 12345678"},
        {v21 + productBlock().substr(21), "Vendor: " + v21 + "AP-1\nProduct: AP-1\nVersion: 1.02.03\nMark: 00012003"},
        {nines, "Vendor: " + nines.substr(0, 43) + "\nProduct: " + nines.substr(0, 22) +
                    "\nVersion: 99.99.99\nMark: 99999999"}};
    for (const auto &[bytes, logged] : cases) {
        const std::vector<char> source(bytes.begin(), bytes.end());
        std::vector<char> record(kProductBlockSize, '?');
        getProduct(nullptr, source.data(), record.data());
        EXPECT_EQ(std::string(source.begin(), source.end()), bytes) << "the source stays as it was";
        board::writeFile("/tmp/block", bytes + "and more");
        getProduct("/tmp/block", nullptr, nullptr);
        EXPECT_THAT(board::logTexts(), ElementsAre(logged, logged));
        SetUp();
    }
}

TEST_F(Images, LeaveTheStaticProductWhereTheyAreShort) {
    board::writeFile("/tmp/short", "NEWVENDOR!");
    getProduct(nullptr, nullptr, nullptr);
    getProduct(nullptr, productBlock().data(), nullptr);
    getProduct("/tmp/short", productBlock().data(), nullptr);
    getProduct("/tmp/none", nullptr, nullptr);
    getProduct("/tmp/none", productBlock().data(), nullptr);
    const std::string mixed = "Vendor: NEWVENDOR!\nProduct: AP-1\nVersion: 1.02.03\nMark: 00012003";
    EXPECT_THAT(board::logTexts(),
                ElementsAre("Vendor: \nProduct: \nVersion: 0.00.00\nMark: ", kAcme, mixed, mixed, kAcme));
}

constexpr char kImage[] = "/tmp/image";
constexpr char kWriteKernel[] = "/sbin/mtd -qq write /tmp/kernel.img kernel > /dev/null 2>&1";
constexpr char kWriteRootfs[] = "/sbin/mtd -qq write /tmp/rootfs.img rootfs > /dev/null 2>&1";
constexpr char kUpgrade[] = "sysupgrade -c -d 3 /tmp/firmware.img > /dev/null 2>&1 &";

// The bytes with their trailer: the MD5 digest as md5sum prints it.
std::string sealed(const std::string &bytes) {
    board::writeFile("/tmp/sealed", bytes);
    EXPECT_EQ(system("/usr/bin/md5sum /tmp/sealed | cut -c 1-32 > /tmp/digest"), 0);
    return bytes + board::readFile("/tmp/digest");
}

TEST_F(Images, AreFlashedWhenTheBoardHasBooted) {
    const std::string bytes = sealed(productBlock() + section("2.bin", "the kernel") + section("3.bin", "the root"));
    board::writeFile(kImage, bytes);
    board::writeFile("/etc/system.info", padded("OTHER                AP-9                02.00.00 00123456", 76));
    board::writeFile("/etc/html.info", "& 123000\nname value\n");
    board::writeFile("/etc/entry.info", "& 456\nname value\n");
    const pid_t writer = board::fork([] { EXPECT_EQ(writeImage(kImage), 0); });
    ASSERT_TRUE(board::waitForLog("[writeImage", 5));
    const board::NamedProcess telnetd("telnetd");
    EXPECT_EQ(board::wait(writer), 0);
    EXPECT_EQ(board::readFile(kImage), bytes.substr(0, bytes.size() - 33)) << "the trailer is cut off";
    EXPECT_EQ(board::readFile("/tmp/kernel.img") + board::readFile("/tmp/rootfs.img"), "the kernelthe root");
    const std::string digest = bytes.substr(bytes.size() - 33, 32);
    // Each flashing command is logged once for itself and once by the shell runner.
    EXPECT_THAT(board::logTextsWithoutLines(),
                ElementsAre("[writeImage] wait boot", "chksum = " + digest + ".", "buffer = " + digest + ".", kAcme,
                            "system_info(Vendor: OTHER, Product: AP-9, mark: 00123456)",
                            " image_info(Vendor: ACME, Product: AP-1, mark: 00012003)", kAcme, kWriteKernel,
                            kWriteKernel, kWriteRootfs, kWriteRootfs));
}

// Whatever an earlier image staged is flashed again; without system information there are no identities to show.
TEST_F(Images, OfAnEarlierUpgradeAreFlashedAgain) {
    const board::NamedProcess telnetd("telnetd");
    board::writeFile("/tmp/kernel.img", "older");
    board::writeFile(kImage, sealed(productBlock() + header("50 4.bin") + "cut short"));
    EXPECT_EQ(writeImage(kImage), 0);
    std::vector<std::string> log = board::logTextsWithoutLines();
    log.erase(log.begin(), log.begin() + 2);
    EXPECT_THAT(log, ElementsAre(kAcme, kWriteKernel, kWriteKernel, kUpgrade, kUpgrade));
    SetUp();
    board::writeFile(kImage, sealed(productBlock()));
    EXPECT_EQ(writeImage(kImage), 0);
    EXPECT_NE(CheckFileDoUpgrade(), 0) << "there is no staged firmware";
}

TEST_F(Images, ThatAreBadAreRefusedAndStillCut) {
    const board::NamedProcess telnetd("telnetd");
    const std::string good = sealed(productBlock() + section("2.bin", "kernel"));
    std::string flipped = good, upper = good;
    flipped[130] = static_cast<char>(flipped[130] ^ 1);
    for (size_t i = upper.size() - 33; i < upper.size(); ++i) upper[i] = static_cast<char>(toupper(upper[i]));
    const std::string noTrailer = "[writeImage] fail!! get check md5sum len != 33 (len=";
    const std::string noProduct = "[writeImage] fail!! get product len != 60 (len=";
    const std::tuple<std::string, std::string, size_t> cases[] = {
        {flipped, "buffer = ", 33},
        {upper, "buffer = ", 33},
        {std::string(200, 'x'), "buffer = ", 33},
        {std::string(33, 'x'), "buffer = ", 33},
        {"", noTrailer + "0)", 0},
        {std::string(32, 'x'), noTrailer + "32)", 0},
        {sealed(""), noProduct + "0)", 33},
        {sealed(std::string(59, 'x')), noProduct + "59)", 33}};
    for (const auto &[bytes, logged, cut] : cases) {
        board::writeFile(kImage, bytes);
        EXPECT_EQ(writeImage(kImage), -1) << logged;
        EXPECT_EQ(board::readFile(kImage), bytes.substr(0, bytes.size() - cut)) << logged;
        EXPECT_THAT(board::logTextsWithoutLines().back(), HasSubstr(logged));
        EXPECT_FALSE(board::exists("/tmp/kernel.img")) << logged;
    }
    EXPECT_EQ(writeImage("/tmp/none"), -1);
}

}  // namespace
