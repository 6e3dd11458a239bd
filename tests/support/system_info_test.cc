#include "support/system_info.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "tests/native_board.h"

using testing::ElementsAre;

namespace {

class SystemInfo : public board::NativeBoardTest {
protected:
    void SetUp() override {
        NativeBoardTest::SetUp();
        memset(html_fmt, 0, sizeof html_fmt);
        memset(entry_num, 0, sizeof entry_num);
        unsetenv("REMOTE_USER_PRIVILEGE");
    }

    static std::string record(const std::string &mark) {
        std::string text = "ACME";
        text.resize(50, ' ');
        text += mark;
        text.resize(kSystemInfoSize, ' ');
        return text;
    }

    // The entries that were written, from a table with one more behind it that must stay as it is.
    static std::vector<std::string> read(const std::string &content, uint32_t column, int entries = 5, int size = 8) {
        board::writeFile("/tmp/table", content);
        std::vector<char> table(static_cast<size_t>((entries + 1) * size), '\0');
        memset(&table[static_cast<size_t>(entries * size)], '?', static_cast<size_t>(size));
        const int count = read_parameter("/tmp/table", table.data(), entries, size, column);
        EXPECT_EQ(table[static_cast<size_t>(entries * size)], '?') << "written past the table";
        std::vector<std::string> values;
        for (int i = 0; i < count; ++i) values.emplace_back(&table[static_cast<size_t>(i * size)]);
        return values;
    }
};

TEST_F(SystemInfo, AColumnIsReadBelowItsHeader) {
    const std::string header = "& 1000 2000 3000\n";
    EXPECT_THAT(read(header + "name a b\nname a\nother c d e\n", 0x2000), ElementsAre("b", "d"));
    EXPECT_THAT(read("early a b\n" + header + "# no a b\n1 a b\n\n_x a b\nZ a b\nz a b", 0x2000),
                ElementsAre("b", "b"));
    EXPECT_THAT(read(header + "name \"a blank\" long-value-cut\n", 0x1000), ElementsAre("a blank"));
    EXPECT_THAT(read(header + "name \"a blank\" long-value-cut\n", 0x2000), ElementsAre("long-va"));
    EXPECT_THAT(read(header + "name a b c\n", 0x4000), ElementsAre());
    EXPECT_THAT(read("& 1\nname a\n& 2\nname b\n", 2), ElementsAre("b")) << "a later header";
    EXPECT_THAT(read("& 1\nname a\n& 2\nname b\n", 1), ElementsAre("a", "b")) << "a header behind is no end";
    EXPECT_THAT(read("&\n& 0x10 AbC\nname a b\n", 0xABC), ElementsAre("b"));
    EXPECT_THAT(read("& 1\na 1\na 2\na 3\n& 1\na 4\n", 1, 2), ElementsAre("1", "2")) << "a full table";
    EXPECT_THAT(read("& 1 2\nname \"open b\nname a b\n", 2), ElementsAre("b"));
    EXPECT_EQ(read_parameter("/tmp/none", nullptr, 1, 1, 1), 0);
}

TEST_F(SystemInfo, TheMarkSelectsTheColumnsOfBothTables) {
    board::writeFile("/etc/system.info", record("00123456"));
    board::writeFile("/etc/html.info", "& 123000 456000\nx html other\n");
    board::writeFile("/etc/entry.info", "& 123 456\nx other " + std::string(40, 'e') + "\n");
    char bytes[kSystemInfoSize];
    EXPECT_EQ(my_systemInfo(bytes), 0);
    EXPECT_EQ(std::string(bytes, sizeof bytes), record("00123456"));
    EXPECT_STREQ(html_fmt[0], "html");
    EXPECT_EQ(entry_num[0], std::string(19, 'e'));
    EXPECT_STREQ(getenv("REMOTE_USER_PRIVILEGE"), "15");
}

TEST_F(SystemInfo, WhatIsMissingIsAFailureWithThePrivilegeSet) {
    char bytes[kSystemInfoSize] = "";
    const auto fails = [&](const char *what) {
        unsetenv("REMOTE_USER_PRIVILEGE");
        EXPECT_EQ(my_systemInfo(bytes), -1) << what;
        EXPECT_STREQ(getenv("REMOTE_USER_PRIVILEGE"), "15") << what;
    };
    fails("no record");
    board::writeFile("/etc/system.info", record("00123456").substr(0, 75));
    fails("a short record");
    board::writeFile("/etc/system.info", record("00123456"));
    board::writeFile("/etc/entry.info", "& 456\nx entry\n");
    fails("no html.info");
    EXPECT_STREQ(entry_num[0], "") << "entry.info is then not read";
    EXPECT_EQ(std::string(bytes, 4), "ACME");
    board::writeFile("/etc/html.info", "& 123000\nx html\n");
    board::writeFile("/etc/entry.info", "& 457\nx entry\n");
    fails("no column in entry.info");
    EXPECT_STREQ(html_fmt[0], "html");
    // Digits up to the record's end and beyond: the number is out of range, its masks still select.
    board::writeFile("/etc/system.info", record(std::string(26, 'f')));
    board::writeFile("/etc/html.info", "& fff000\nx html\n");
    board::writeFile("/etc/entry.info", "& fff\nx entry\n");
    EXPECT_EQ(my_systemInfo(bytes), 0);
}

TEST_F(SystemInfo, TheRecordIsSavedWhole) {
    save_systemInfo(record("1").data());
    EXPECT_EQ(board::readFile("/etc/sysconfig/.firewall/system.info"), record("1"));
    std::filesystem::remove_all("/etc/sysconfig");
    save_systemInfo(record("1").data());
}

}  // namespace
