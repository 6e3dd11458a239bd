#include "firmware/upgrade.h"

#include <unistd.h>

#include <filesystem>
#include <thread>

#include "tests/firmware/image_bytes.h"
#include "tests/native_board.h"

using image_bytes::section;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;

namespace {

constexpr char kImage[] = "/tmp/image";
constexpr char kWriteKernel[] = "/sbin/mtd -qq write /tmp/kernel.img kernel > /dev/null 2>&1";
constexpr char kWriteRootfs[] = "/sbin/mtd -qq write /tmp/rootfs.img rootfs > /dev/null 2>&1";
constexpr char kUpgrade[] = "sysupgrade -c -d 3 /tmp/firmware.img > /dev/null 2>&1 &";

class WriteImage : public board::NativeBoardTest {
protected:
    void SetUp() override {
        NativeBoardTest::SetUp();
        for (const auto &[number, name] : {std::pair(2, "kernel"), {3, "rootfs"}, {4, "firmware"}}) {
            board::writeFile("/sys/class/block/mtdblock" + std::to_string(number) + "/device/name", name);
        }
    }

    // The MD5 digest of a text as md5sum prints it.
    static std::string digestOf(const std::string &bytes) {
        board::writeFile("/tmp/digested", bytes);
        EXPECT_EQ(system("/usr/bin/md5sum /tmp/digested | cut -c 1-32 > /tmp/digest"), 0);
        return board::readFile("/tmp/digest").substr(0, 32);
    }

    static std::string image(const std::string &sections) {
        const std::string bytes = image_bytes::productBlock() + sections;
        return bytes + digestOf(bytes) + "\n";
    }

    const board::NamedProcess telnetd_{"telnetd"};
};

TEST_F(WriteImage, AGoodImageIsStagedAndFlashed) {
    const std::string bytes = image(section("2.bin", "the kernel") + section("3.bin", "the root"));
    board::writeFile(kImage, bytes);
    board::writeFile("/etc/system.info",
                     "OTHER                AP-9                02.00.00 00123456" + std::string(18, ' '));
    board::writeFile("/etc/html.info", "& 123000\nname value\n");
    board::writeFile("/etc/entry.info", "& 456\nname value\n");
    EXPECT_EQ(writeImage(kImage), 0);
    EXPECT_EQ(board::readFile(kImage), bytes.substr(0, bytes.size() - 33)) << "the trailer is cut off";
    EXPECT_EQ(board::readFile("/tmp/kernel.img"), "the kernel");
    const std::string digest = bytes.substr(bytes.size() - 33, 32);
    const std::string product = "Vendor: ACME\nProduct: AP-1\nVersion: 1.02.03\nMark: 00012003";
    // Each flashing command is logged once for itself and once by the shell runner.
    EXPECT_THAT(board::logTextsWithoutLines(),
                ElementsAre("chksum = " + digest + ".", "buffer = " + digest + ".", product,
                            "system_info(Vendor: OTHER, Product: AP-9, mark: 00123456)",
                            " image_info(Vendor: ACME, Product: AP-1, mark: 00012003)", product, kWriteKernel,
                            kWriteKernel, kWriteRootfs, kWriteRootfs));
}

TEST_F(WriteImage, WithoutSystemInformationItIsInstalledAllTheSame) {
    board::writeFile(kImage, image(section("4.bin", "whole")));
    EXPECT_EQ(writeImage(kImage), 0);
    EXPECT_THAT(board::logTextsWithoutLines(), Not(Contains(HasSubstr("system_info"))));
    EXPECT_THAT(board::logTextsWithoutLines(), IsSupersetOf({kUpgrade, kUpgrade}));
    EXPECT_THAT(board::logTextsWithoutLines(), Not(Contains(kWriteKernel)));
}

// A kernel that an earlier image staged is written again by one that has none.
TEST_F(WriteImage, StagedImagesStayAndAreFlashedAgain) {
    board::writeFile("/tmp/kernel.img", "older");
    board::writeFile(kImage, image(section("3.bin", "root")));
    EXPECT_EQ(writeImage(kImage), 0);
    EXPECT_THAT(board::logTextsWithoutLines(), IsSupersetOf({kWriteKernel, kWriteRootfs}));
    EXPECT_EQ(board::readFile("/tmp/kernel.img"), "older");
}

TEST_F(WriteImage, ABadImageIsRefusedAndStillCut) {
    std::string flipped = image(section("2.bin", "kernel"));
    flipped[130] = static_cast<char>(flipped[130] ^ 1);
    std::string upper = image(section("2.bin", "kernel"));
    for (size_t i = upper.size() - 33; i < upper.size(); ++i) upper[i] = static_cast<char>(toupper(upper[i]));
    const struct {
        const char *what;
        std::string bytes;
    } cases[] = {
        {"one flipped bit", flipped},
        {"an upper-case digest", upper},
        {"no digest", std::string(200, 'x')},
        {"33 bytes", std::string(33, 'x')},
    };
    for (const auto &test : cases) {
        board::writeFile(kImage, test.bytes);
        EXPECT_EQ(writeImage(kImage), -1) << test.what;
        EXPECT_EQ(board::readFile(kImage), test.bytes.substr(0, test.bytes.size() - 33)) << test.what;
        EXPECT_THAT(board::logTextsWithoutLines().back(), HasSubstr("buffer = ")) << test.what;
        EXPECT_FALSE(board::exists("/tmp/kernel.img")) << test.what;
    }
}

TEST_F(WriteImage, ShortFilesAreRefused) {
    for (const size_t length : {0, 1, 32}) {
        board::writeFile(kImage, std::string(length, 'x'));
        EXPECT_EQ(writeImage(kImage), -1);
        EXPECT_EQ(board::logTextsWithoutLines().back(),
                  "[writeImage] fail!! get check md5sum len != 33 (len=" + std::to_string(length) + ")");
        EXPECT_EQ(board::readFile(kImage).size(), length) << "nothing was cut off";
    }
    for (const size_t length : {0, 59}) {
        const std::string bytes(length, 'x');
        board::writeFile(kImage, bytes + digestOf(bytes) + "\n");
        EXPECT_EQ(writeImage(kImage), -1);
        EXPECT_EQ(board::logTextsWithoutLines().back(),
                  "[writeImage] fail!! get product len != 60 (len=" + std::to_string(length) + ")");
    }
    EXPECT_EQ(writeImage("/tmp/none"), -1);
}

TEST_F(WriteImage, AnImageWithoutSectionsIsAccepted) {
    board::writeFile(kImage, image(""));
    EXPECT_EQ(writeImage(kImage), 0);
    EXPECT_NE(CheckFileDoUpgrade(), 0) << "there is no staged firmware";
}

class Boot : public board::NativeBoardTest {};

TEST_F(Boot, IsWaitedFor) {
    const pid_t writer = board::fork([] { EXPECT_EQ(writeImage("/tmp/none"), -1); });
    ASSERT_TRUE(board::waitForLog("wait boot", 5));
    const board::NamedProcess telnetd("telnetd");
    EXPECT_EQ(board::wait(writer), 0);
    EXPECT_EQ(board::logTextsWithoutLines()[0], "[writeImage] wait boot");
}

}  // namespace
