#include "identity/mac.h"

#include <unistd.h>

#include <filesystem>
#include <map>

#include "daemon/board.h"
#include "identity/country.h"
#include "support/configuration.h"
#include "tests/native_board.h"

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr size_t kPartition = 65536;
constexpr char kDevice[] = "/dev/mtdblock6";
constexpr char kPing[] = "/bin/ping -c 30 192.168.1.2 > /dev/null 2>&1 &";

// The checksum word by its definition: all 16-bit words of the block, in the processor's order, give 0xFFFF.
bool checksumHolds(const std::string &flash) {
    uint16_t sum = 0;
    for (size_t i = 0x5000; i < 0x5000 + 2116; i += 2) {
        uint16_t word;
        flash.copy(reinterpret_cast<char *>(&word), 2, i);
        sum = static_cast<uint16_t>(sum ^ word);
    }
    return sum == 0xFFFF;
}

class Identity : public board::NativeBoardTest {
protected:
    void SetUp() override {
        NativeBoardTest::SetUp();
        wireTotal = 0;
        board::writeFile(kDevice, initialFlash());
        board::writeFile(kDefaultConfiguration, "#& 1\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\n");
        init_configuration();
        add_configuration("SYSTEM_ART_PART", "6");
    }

    // Any bytes, with a valid calibration block.
    static std::string initialFlash() {
        std::string bytes(kPartition, '\0');
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 37 + i / 255);
        bytes[0x5002] = bytes[0x5003] = '\xFF';
        char sum[2] = {};
        for (size_t i = 0; i < 2116; ++i) sum[i % 2] = static_cast<char>(sum[i % 2] ^ bytes[0x5000 + i]);
        bytes.replace(0x5002, 2, sum, 2);
        EXPECT_TRUE(checksumHolds(bytes));
        return bytes;
    }

    static std::string flash() { return board::readFile(kDevice); }

    // Where the flash differs from the initial one: offset and the run of bytes there.
    static std::map<size_t, std::string> changes() {
        const std::string before = initialFlash();
        const std::string after = flash();
        EXPECT_EQ(after.size(), before.size()) << "neither emptied nor grown";
        std::map<size_t, std::string> runs;
        for (size_t i = 0; i < after.size(); ++i) {
            if (after[i] == before[i]) continue;
            if (!runs.empty() && runs.rbegin()->first + runs.rbegin()->second.size() == i) {
                runs.rbegin()->second += after[i];
            } else {
                runs[i] = after[i];
            }
        }
        return runs;
    }

    static std::string stored(const char *key) {
        const char *const value = RETURN_DEF_STR(key);
        return value != nullptr ? value : "(none)";
    }
};

TEST_F(Identity, AddressesAreReadInBothForms) {
    const std::pair<const char *, const char *> cases[] = {
        {"00:11:22:33:44:55", "00:11:22:33:44:55"},
        {"aB:cD:eF:0a:1b:2C", "AB:CD:EF:0A:1B:2C"},
        {"1122334455", "00:00:42:E5:76:F7"},
        {"001122334455", "00:00:42:E5:76:F7"},
        {"12ab34", "00:00:00:00:00:0C"},
        {"", "00:00:00:00:00:00"},
        {"281474976710655", "FF:FF:FF:FF:FF:FF"},
        {"281474976710657", "00:00:00:00:00:01"},
        {"-1", "FF:FF:FF:FF:FF:FF"},
        {"00:11:22", "00:11:22:00:00:00"},
        {"::::::", "00:00:00:00:00:00"},
        {"zz:1z:z1:-1:12:34", "00:01:00:FF:12:34"},
    };
    add_configuration("SYSTEM_MAC_ARGS", "6 1 0 1_0");
    for (const auto &[text, address] : cases) {
        EXPECT_EQ(setMac(text), 0) << text;
        EXPECT_EQ(stored("PORT1_ORIG_MAC"), address) << text;
    }
}

TEST_F(Identity, SlotsGetOneAddressAfterAnother) {
    add_configuration("SYSTEM_MAC_ARGS", "6 2 2 2_6 1_0x0 70_100 60_5006 49_200 59_300 50_1002");
    wireTotal = 1;
    EXPECT_EQ(setMac("FF:FF:FF:FF:FF:FD"), 0);
    const std::string now = flash();
    const std::pair<size_t, std::string> slots[] = {
        {0x6, "\xFF\xFF\xFF\xFF\xFF\xFD"s}, {0x0, "\xFF\xFF\xFF\xFF\xFF\xFE"s}, {0x100, "\xFF\xFF\xFF\xFF\xFF\xFF"s},
        {0x5006, "\0\0\0\0\0\0"s},          {0x200, "\0\0\0\0\0\1"s},           {0x300, "\0\0\0\0\0\2"s},
        {0x1002, "\0\0\0\0\0\3"s}};
    std::string expected = initialFlash();
    for (const auto &[offset, bytes] : slots) expected.replace(offset, 6, bytes);
    EXPECT_NE(now.substr(0x5002, 2), expected.substr(0x5002, 2)) << "the checksum had to change";
    expected.replace(0x5002, 2, now.substr(0x5002, 2));
    EXPECT_EQ(now, expected);
    EXPECT_TRUE(checksumHolds(now));
    EXPECT_EQ(stored("PORT2_ORIG_MAC"), "FF:FF:FF:FF:FF:FD");
    EXPECT_EQ(stored("PORT49_ORIG_MAC"), "00:00:00:00:00:01");
    EXPECT_EQ(stored("PORT70_ORIG_MAC"), "(none)");
    EXPECT_EQ(stored("WIFI_2.4G_MAC"), "00:00:00:00:00:03") << "the last of two";
    EXPECT_EQ(stored("WIFI_5G_MAC"), "00:00:00:00:00:00");
    EXPECT_THAT(board::logTexts(), ElementsAre("set ethernet MAC: FF:FF:FF:FF:FF:FD, ftell=0xc",
                                               "set ethernet MAC: FF:FF:FF:FF:FF:FE, ftell=0x6",
                                               "set wireless(5G) MAC: 00:00:00:00:00:00, ftell=0x500c",
                                               "set ethernet MAC: 00:00:00:00:00:01, ftell=0x206",
                                               "set wireless(2.4G) MAC: 00:00:00:00:00:02, ftell=0x306",
                                               "set wireless(2.4G) MAC: 00:00:00:00:00:03, ftell=0x1008",
                                               "/sbin/ifconfig eth0 192.168.1.1 > /dev/null 2>&1", kPing));
}

TEST_F(Identity, TheChecksumIsLeftAloneWithoutA5GSlot) {
    add_configuration("SYSTEM_MAC_ARGS", "6 1 1 1_5010 50_5020 69_0");
    std::string broken = initialFlash();
    broken[0x5002] = static_cast<char>(broken[0x5002] ^ 1);
    board::writeFile(kDevice, broken);
    add_configuration("SYSTEM_MAC_ARGS", "6 1 1 1_5010 50_5020");
    setMac("1");
    EXPECT_FALSE(checksumHolds(flash()));
    add_configuration("SYSTEM_MAC_ARGS", "6 1 1 69_0");
    add_configuration("SYSTEM_ART_PART", "7");
    setMac("1");
    EXPECT_FALSE(checksumHolds(flash())) << "another partition, which is not there";
    add_configuration("SYSTEM_ART_PART", "6");
    setMac("1");
    EXPECT_TRUE(checksumHolds(flash()));
}

TEST_F(Identity, SlotListsOfAnyShape) {
    const std::string one = "\0\0\0\0\0\1"s;
    const struct {
        const char *arguments;
        int result;
        size_t slots;     // written
        size_t commands;  // logged behind the slots: the ping, when it came so far
    } cases[] = {
        {"6 2 2", 0, 0, 1},
        {"6 2 2 ", 0, 0, 1},
        {"6", 0, 0, 1},
        {"6 2 2 1_0 ", 0, 1, 1},
        {"6 2 2 1_0  2_10", 0, 2, 1},
        {"6 2 2 1_0 bad", -1, 1, 0},
        {"6 2 2 bad", -1, 0, 0},
        {"6 2 2 1_0 bad 2_10", 0, 2, 1},
        {"7 2 2 1_0", -1, 0, 0},
        {"x 2 2 1_0", -1, 0, 0},
        {"6 2 2 1_", 0, 1, 1},
        {"6 2 2 _0", 0, 1, 1},
    };
    for (const auto &test : cases) {
        SetUp();
        add_configuration("SYSTEM_MAC_ARGS", test.arguments);
        EXPECT_EQ(setMac("1"), test.result) << test.arguments;
        EXPECT_EQ(changes().size(), test.slots) << test.arguments;
        EXPECT_EQ(board::logTexts().size(), test.slots + test.commands) << test.arguments;
        EXPECT_FALSE(board::exists("/dev/mtdblock7")) << "nothing is created";
    }
    SetUp();
    EXPECT_EQ(setMac("1"), -1) << "no key";
    EXPECT_THAT(board::logTexts(), IsEmpty());
}

TEST_F(Identity, TheCountryIsTwoBytesOnTheFlash) {
    char code[] = "##!!";
    EXPECT_EQ(CountryRW(0, code), 0);
    EXPECT_STREQ(code, "##!!") << "no key";
    add_configuration("SYSTEM_COUNTRY_ARGS", "6 1f0");
    for (const std::string &text : {"US"s, "de"s, "\xFF\x01"s, "D\0"s, "USA"s}) {
        std::string buffer = text;
        EXPECT_EQ(CountryRW(1, buffer.data()), 0);
        EXPECT_EQ(flash().substr(0x1F0, 2), text.substr(0, 2));
        CountryRW(0, code);
        EXPECT_EQ(std::string(code, 3), text.substr(0, 2) + '\0');
        EXPECT_EQ(code[3], '!');
    }
    EXPECT_EQ(changes().size(), 1U);
    for (const char *arguments : {"7 0", "x"}) {
        add_configuration("SYSTEM_COUNTRY_ARGS", arguments);
        char other[] = "XY";
        EXPECT_EQ(CountryRW(1, other), 0) << arguments;
        EXPECT_EQ(CountryRW(0, other), 0) << arguments;
        EXPECT_STREQ(other, "XY") << arguments;
    }
    EXPECT_EQ(changes().size(), 1U);
    EXPECT_FALSE(board::exists("/dev/mtdblock7"));
}

}  // namespace
