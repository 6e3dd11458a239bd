#include "firmware/partition.h"

#include <algorithm>

#include "tests/fake_devices.h"
#include "tests/native_board.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr size_t kBlock = 65536;
constexpr size_t kSize = 64 * kBlock;
constexpr char kData[] = "/tmp/data";

std::string pattern(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 31 + i / 257);
    return bytes;
}

class WritePartitions : public board::NativeBoardTest {
protected:
    void SetUp() override {
        NativeBoardTest::SetUp();
        fake_mtd::reset();
        for (const int number : {2, 3, 4, 5}) fake_mtd::create(number, old());
    }

    static std::string old() { return std::string(kSize, '\x55'); }

    // The whole partition after `length` bytes of the pattern were written.
    static std::string flashed(size_t length) { return pattern(length) + std::string(kSize - length, '\xFF'); }

    // The log without the operation's name.
    static std::vector<std::string> progress() {
        std::vector<std::string> texts = board::logTextsWithoutLines();
        for (std::string &text : texts) {
            EXPECT_TRUE(text.starts_with("[writePartitions] ")) << text;
            text.erase(0, text.find(' ') + 1);
        }
        return texts;
    }

    static size_t countRequests(const std::string &word) {
        return static_cast<size_t>(
            std::count_if(fake_mtd::requests.begin(), fake_mtd::requests.end(),
                          [&](const std::string &request) { return request.starts_with(word); }));
    }
};

TEST_F(WritePartitions, ErasesTheWholePartitionAndWritesTheFile) {
    const struct {
        size_t length;
        std::vector<std::string> written;  // progress lines of the writing
    } cases[] = {
        {0, {}},
        {1, {}},
        {kBlock, {}},
        {16 * kBlock - 1, {"1 MB"}},
        {16 * kBlock + 1, {"1 MB"}},
        {kSize, {"1 MB", "2 MB", "3 MB", "4 MB"}},
    };
    for (const auto &test : cases) {
        SetUp();
        board::writeFile(kData, pattern(test.length));
        writePartitions(3, kData, nullptr, 0);
        EXPECT_TRUE(fake_mtd::content(3) == flashed(test.length)) << test.length;
        std::vector<std::string> expected = {"partition_num = 3",
                                             "file size = " + std::to_string(test.length),
                                             "erase size = 4194304, erase block = 65536",
                                             "1 MB",
                                             "2 MB",
                                             "3 MB",
                                             "4 MB",
                                             "write to partition"};
        expected.insert(expected.end(), test.written.begin(), test.written.end());
        expected.push_back("done");
        EXPECT_EQ(progress(), expected) << test.length;
        EXPECT_EQ(countRequests("unlock"), 64U);
        EXPECT_EQ(countRequests("erase"), 64U);
        EXPECT_LE(fake_mtd::largestWrite, kBlock);
    }
    for (size_t i = 0; i < 64; ++i) {
        EXPECT_EQ(fake_mtd::requests[2 * i], "unlock " + std::to_string(i * kBlock));
        EXPECT_EQ(fake_mtd::requests[2 * i + 1], "erase " + std::to_string(i * kBlock));
    }
}

TEST_F(WritePartitions, OtherGeometriesCountTheirOwnBlocks) {
    fake_mtd::eraseSize = 131072;
    board::writeFile(kData, pattern(16 * 131072 + 5));
    writePartitions(2, kData, nullptr, 0);
    EXPECT_TRUE(fake_mtd::content(2) == flashed(16 * 131072 + 5));
    EXPECT_THAT(progress(),
                ElementsAre("partition_num = 2", "file size = 2097157", "erase size = 4194304, erase block = 131072",
                            "1 MB", "2 MB", "write to partition", "1 MB", "done"));
    SetUp();
    fake_mtd::create(2, "");
    writePartitions(2, "/dev/null", nullptr, 0);
    EXPECT_EQ(countRequests("erase"), 0U) << "a partition without a size";
    EXPECT_EQ(progress().back(), "done");
}

TEST_F(WritePartitions, OnlyThreePartitionsMayBeWritten) {
    board::writeFile(kData, "x");
    for (const int number : {4, 0, 1, -1, 6}) {
        SetUp();
        writePartitions(number, kData, nullptr, 0);
        EXPECT_THAT(progress(), ElementsAre("fail!! partition_num = " + std::to_string(number) +
                                            ", not kernel(2) or rootfs(3) or config(5)"));
        EXPECT_TRUE(fake_mtd::content(4) == old());
    }
}

TEST_F(WritePartitions, WhatCannotBeHadLeavesThePartitionUntouched) {
    board::writeFile(kData, "x");
    writePartitions(2, "/tmp/none", nullptr, 0);
    EXPECT_THAT(progress(), ElementsAre("partition_num = 2"));
    fake_mtd::faults.info = true;
    writePartitions(2, kData, nullptr, 0);
    EXPECT_EQ(progress().back(), "file size = 1");
    fake_mtd::faults = {};
    fake_mtd::eraseSize = 0;
    writePartitions(2, kData, nullptr, 0);
    EXPECT_TRUE(fake_mtd::content(2) == old());
    EXPECT_THAT(fake_mtd::requests, IsEmpty());
    unlink("/tmp/dev/mtd2");
    writePartitions(2, kData, nullptr, 0);
    EXPECT_EQ(progress().back(), "file size = 1");
    EXPECT_FALSE(board::exists("/tmp/dev/mtd2"));
}

TEST_F(WritePartitions, InterruptedAndShortWritesAreCompleted) {
    board::writeFile(kData, pattern(3 * kBlock + 7));
    fake_mtd::faults.interruptEvery = 2;
    fake_mtd::faults.atOnce = 10000;
    writePartitions(5, kData, nullptr, 0);
    EXPECT_TRUE(fake_mtd::content(5) == flashed(3 * kBlock + 7));
    EXPECT_EQ(progress().back(), "done");
}

TEST_F(WritePartitions, AFailedWriteEndsItWithoutDone) {
    board::writeFile(kData, pattern(3 * kBlock));
    fake_mtd::faults.failingWrite = 2;
    writePartitions(2, kData, nullptr, 0);
    EXPECT_TRUE(fake_mtd::content(2) == flashed(kBlock));
    EXPECT_EQ(progress().back(), "write to partition");

    SetUp();
    board::writeFile(kData, pattern(kSize + 1));
    writePartitions(2, kData, nullptr, 0);
    EXPECT_TRUE(fake_mtd::content(2) == flashed(kSize)) << "a file longer than the partition";
    EXPECT_EQ(progress().back(), "4 MB");
}

TEST_F(WritePartitions, BlocksThatCannotBeErasedAreWrittenAllTheSame) {
    fake_mtd::create(2, std::string(kSize, '\xFF'));
    board::writeFile(kData, pattern(100));
    fake_mtd::faults.erase = true;
    writePartitions(2, kData, nullptr, 0);
    EXPECT_TRUE(fake_mtd::content(2) == flashed(100));
    EXPECT_EQ(progress().back(), "done");
}

TEST_F(WritePartitions, AnOpenFileIsWrittenFromWhereItStands) {
    board::writeFile(kData, "skipped" + pattern(1000));
    FILE *const file = fopen(kData, "rb");
    fseek(file, 7, SEEK_SET);
    writePartitions(2, nullptr, file, 600);
    EXPECT_TRUE(fake_mtd::content(2) == flashed(600));
    EXPECT_EQ(progress()[1], "file size = 600");
    EXPECT_EQ(ftell(file), 607) << "it stays open";
    writePartitions(3, nullptr, file, 5000);
    EXPECT_EQ(fake_mtd::content(3).substr(0, 400), pattern(1000).substr(600)) << "a file shorter than the length";
    EXPECT_EQ(progress().back(), "done");
    rewind(file);
    fake_mtd::reset();
    fake_mtd::faults.failingWrite = 1;
    writePartitions(2, nullptr, file, 10);  // which closes the file
}

}  // namespace
