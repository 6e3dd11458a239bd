#include "firmware/partition.h"

#include <fcntl.h>

#include "tests/fake_devices.h"
#include "tests/native_board.h"

using testing::EndsWith;

namespace {

constexpr uint32_t kBlock = 65536;
constexpr size_t kSize = 64 * kBlock;
constexpr char kData[] = "/tmp/data";
const std::string kOld(kSize, '\x55');

std::string pathOf(int partition) { return "/tmp/dev/mtd" + std::to_string(partition); }

std::string pattern(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 31 + i / 257);
    return bytes;
}

// The whole partition after `length` bytes of the pattern were written.
std::string flashed(size_t length) { return pattern(length) + std::string(kSize - length, '\xFF'); }

class WritePartitions : public board::NativeBoardTest {
protected:
    void SetUp() override {
        NativeBoardTest::SetUp();
        for (const int number : {2, 3, 4, 5}) board::writeFile(pathOf(number), kOld);
        fakeFlash = {};
    }

    // The log, with a '|' for each line's end, without the operation that all lines name.
    static std::string progress() {
        std::string joined;
        for (const std::string &text : board::logTextsWithoutLines()) {
            EXPECT_TRUE(text.starts_with("[writePartitions] ")) << text;
            joined += text.substr(text.find(' ') + 1) + "|";
        }
        return joined;
    }
};

TEST_F(WritePartitions, ErasesTheWholePartitionAndWritesTheFile) {
    const std::string erased = "erase size = 4194304, erase block = 65536|1 MB|2 MB|3 MB|4 MB|write to partition|";
    const struct {
        const char *what;
        FakeFlash flash;
        size_t length;
        std::string content, log;  // of the partition; behind the file's size
    } cases[] = {                  // clang-format off
        {"nothing", {}, 0, flashed(0), erased + "done|"},
        {"one byte", {}, 1, flashed(1), erased + "done|"},
        {"one block", {}, kBlock, flashed(kBlock), erased + "done|"},
        {"16 blocks, nearly", {}, 16 * kBlock - 1, flashed(16 * kBlock - 1), erased + "1 MB|done|"},
        {"16 blocks and a byte", {}, 16 * kBlock + 1, flashed(16 * kBlock + 1), erased + "1 MB|done|"},
        {"the whole partition", {}, kSize, flashed(kSize), erased + "1 MB|2 MB|3 MB|4 MB|done|"},
        {"more than it holds", {}, kSize + 1, flashed(kSize), erased + "1 MB|2 MB|3 MB|4 MB|"},
        {"larger blocks", {.eraseSize = 2 * kBlock}, 32 * kBlock + 5, flashed(32 * kBlock + 5),
         "erase size = 4194304, erase block = 131072|1 MB|2 MB|write to partition|1 MB|done|"},
        {"interrupted and short writes", {.interruptEvery = 2, .atOnce = 10000}, 3 * kBlock + 7,
         flashed(3 * kBlock + 7), erased + "done|"},
        {"a failed write", {.failingWrite = 2}, 3 * kBlock, flashed(kBlock), erased},
        {"no geometry", {.failInfo = true}, 1, kOld, ""},
        {"blocks of no size", {.eraseSize = 0}, 1, kOld, ""}};
    // clang-format on
    int number = 0;
    for (const auto &test : cases) {
        SetUp();
        fakeFlash = test.flash;
        const int partition = std::array{2, 3, 5}[number++ % 3];
        board::writeFile(kData, pattern(test.length));
        writePartitions(partition, kData, nullptr, 0);
        EXPECT_TRUE(board::readFile(pathOf(partition)) == test.content) << test.what;
        EXPECT_EQ(progress(), "partition_num = " + std::to_string(partition) +
                                  "|file size = " + std::to_string(test.length) + "|" + test.log)
            << test.what;
        std::vector<std::string> requests;
        for (size_t start = 0; start < kSize && test.content != kOld; start += test.flash.eraseSize) {
            for (const char *request : {"unlock ", "erase "}) requests.push_back(request + std::to_string(start));
        }
        EXPECT_EQ(fakeFlash.requests, requests) << test.what;
    }
}

TEST_F(WritePartitions, WhatIsNotThereIsPassedOver) {
    board::writeFile(kData, pattern(9));
    for (const int number : {4, 0, 1, -1, 6}) {
        writePartitions(number, kData, nullptr, 0);
        EXPECT_THAT(progress(), EndsWith("fail!! partition_num = " + std::to_string(number) +
                                         ", not kernel(2) or rootfs(3) or config(5)|"));
    }
    writePartitions(2, "/tmp/none", nullptr, 0);
    EXPECT_THAT(progress(), EndsWith("|partition_num = 2|"));
    EXPECT_TRUE(board::readFile(pathOf(2)) == kOld && board::readFile(pathOf(4)) == kOld);
    unlink(pathOf(2).c_str());
    writePartitions(2, kData, nullptr, 0);
    EXPECT_FALSE(board::exists(pathOf(2))) << "nothing is created";
    board::writeFile(pathOf(2), "");
    writePartitions(2, "/dev/null", nullptr, 0);
    EXPECT_THAT(fakeFlash.requests, testing::IsEmpty()) << "a partition without a size";
    board::writeFile(pathOf(2), flashed(0));
    fakeFlash.failErase = true;
    writePartitions(2, kData, nullptr, 0);
    EXPECT_TRUE(board::readFile(pathOf(2)) == flashed(9)) << "blocks that cannot be erased";
}

TEST_F(WritePartitions, AnOpenFileIsWrittenFromWhereItStands) {
    board::writeFile(kData, "skipped" + pattern(1000));
    FILE *const file = fopen(kData, "rb");
    fseek(file, 7, SEEK_SET);
    writePartitions(2, nullptr, file, 600);
    EXPECT_TRUE(board::readFile(pathOf(2)) == flashed(600));
    EXPECT_THAT(progress(), testing::StartsWith("partition_num = 2|file size = 600|"));
    EXPECT_EQ(ftell(file), 607) << "it stays open";
    writePartitions(3, nullptr, file, 5000);
    EXPECT_EQ(board::readFile(pathOf(3)).substr(0, 400), pattern(1000).substr(600)) << "it ends before that length";
    EXPECT_THAT(progress(), EndsWith("|done|"));
    rewind(file);
    fakeFlash = {.failingWrite = 1};
    const int descriptor = fileno(file);
    writePartitions(2, nullptr, file, 10);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "it is closed";
}

}  // namespace
