// The addresses and the country code in the calibration partition, and the report.

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cstring>
#include <fstream>

#include "daemon/board.h"
#include "identity/country.h"
#include "identity/mac.h"
#include "identity/report.h"
#include "support/configuration.h"
#include "tests/board.h"

using namespace std::string_literals;
using testing::ElementsAre, testing::EndsWith, testing::HasSubstr, testing::StartsWith;

// Reports the link that the interface's name describes: "u" is up with 1000 Mbit/s and full duplex, "u100d0" with 100
// Mbit/s and half duplex, "d" is down, and "g" does not report its settings.
extern "C" int __wrap_ioctl(int, unsigned long, ifreq *request) {
    char state = '\0';
    uint16_t speed = 1000;
    uint8_t duplex = 1;
    sscanf(request->ifr_name, "%c%hud%hhu", &state, &speed, &duplex);
    auto *const link = reinterpret_cast<ethtool_value *>(request->ifr_data);
    auto *const settings = reinterpret_cast<ethtool_cmd *>(request->ifr_data);
    if (strchr("udg", state) == nullptr) return -1;
    if (link->cmd == ETHTOOL_GLINK) {
        link->data = state != 'd';
        return 0;
    }
    if (link->cmd != ETHTOOL_GSET || state == 'g') return -1;
    settings->speed = speed;
    settings->duplex = duplex;
    return 0;
}

namespace {

constexpr size_t kBlock = 0x5000;  // the calibration block; its second word is the checksum
constexpr size_t kChecksum = kBlock + 2;
const std::string kDevice = "/dev/mtdblock6", kInitial(65536, 'x');

std::string flash() { return board::readFile(kDevice); }

class Identity : public board::BoardTest {
protected:
    void SetUp() override {
        BoardTest::SetUp();
        configure("SYSTEM_ART_PART = 6\nSYSTEM_COUNTRY_ARGS = \"6 1f0\"\nPORT1_ORIG_MAC = 00:11:22:33:44:5a\n"
                  "WIFI_2.4G_MAC = 00:11:22:33:44:5b\n");
        init_configuration();
        board::writeFile(kDevice, kInitial);
        wireTotal = wirelessTotal = 2;
        support_freq = 3;
        board::writeFile("/etc/system.info", board::padded(board::productBlock(), 76));
        board::writeFile("/etc/entry.info", "& 3\nname value\n");
    }

    // Returns whether the exclusive-or of the block's 16-bit words, in the processor's byte order, is 0xFFFF.
    static bool checksumHolds() {
        uint16_t words[2116 / 2] = {}, sum = 0;
        flash().copy(reinterpret_cast<char *>(words), sizeof words, kBlock);
        for (const uint16_t word : words) sum = static_cast<uint16_t>(sum ^ word);
        return sum == 0xFFFF;
    }

    static int setMacWith(const char *arguments, const char *address) {
        add_configuration("SYSTEM_MAC_ARGS", arguments);
        return setMac(address);
    }

    static std::string report(int pingFlag) {
        std::vector<char> buffer(kReportSize);
        getInfo(buffer.data(), pingFlag);
        return buffer.data();
    }
};

TEST_F(Identity, AddressesAreReadInBothForms) {
    const std::pair<const char *, const char *> cases[] = {
        {"aB:cD:eF:0a:1b:2C", "AB:CD:EF:0A:1B:2C"}, {"zz:1z:z1:-1:12:34", "00:01:00:FF:12:34"},
        {"00:11:22", "00:11:22:00:00:00"},          {"::::::", "00:00:00:00:00:00"},
        {"001122334455", "00:00:42:E5:76:F7"},      {"12ab34", "00:00:00:00:00:0C"},
        {"281474976710657", "00:00:00:00:00:01"},   {"-1", "FF:FF:FF:FF:FF:FF"}};
    for (const auto &[text, address] : cases) {
        EXPECT_EQ(setMacWith("6 1 0 1_0", text), 0) << text;
        EXPECT_STREQ(RETURN_DEF_STR("PORT1_ORIG_MAC"), address) << text;
    }
}

TEST_F(Identity, SlotsGetOneAddressAfterAnother) {
    wireTotal = 1;
    EXPECT_EQ(setMacWith("6 2 2 2_6 1_0x0 70_c 60_12 49_18 59_1e 50_24", "FF:FF:FF:FF:FF:FD"), 0);
    const std::string slots = "\xFF\xFF\xFF\xFF\xFF\xFE\xFF\xFF\xFF\xFF\xFF\xFD\xFF\xFF\xFF\xFF\xFF\xFF"
                              "\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0\0\0\2\0\0\0\0\0\3"s;
    EXPECT_EQ(flash().replace(kChecksum, 2, "xx"), slots + kInitial.substr(slots.size()));
    EXPECT_TRUE(checksumHolds());
    EXPECT_STREQ(RETURN_DEF_STR("WIFI_2.4G_MAC"), "00:00:00:00:00:03") << "the last of two";
    EXPECT_THAT(board::log(), ElementsAre("set ethernet MAC: FF:FF:FF:FF:FF:FD, ftell=0xc",
                                          "set ethernet MAC: FF:FF:FF:FF:FF:FE, ftell=0x6",
                                          "set wireless(5G) MAC: 00:00:00:00:00:00, ftell=0x18",
                                          "set ethernet MAC: 00:00:00:00:00:01, ftell=0x1e",
                                          "set wireless(2.4G) MAC: 00:00:00:00:00:02, ftell=0x24",
                                          "set wireless(2.4G) MAC: 00:00:00:00:00:03, ftell=0x2a",
                                          HasSubstr("ifconfig eth0"), HasSubstr("ping")));
}

TEST_F(Identity, TheChecksumIsRepairedForA5GSlotAlone) {
    setMacWith("6 1 1 1_5010 50_5020", "1");
    EXPECT_FALSE(checksumHolds());
    add_configuration("SYSTEM_ART_PART", "7");
    setMacWith("6 1 1 69_0", "1");
    EXPECT_FALSE(checksumHolds()) << "another partition, which does not exist";
    add_configuration("SYSTEM_ART_PART", "6");
    for (const size_t byte : {kChecksum, kChecksum + 1, kBlock, kBlock + 2115}) {
        board::writeFile(kDevice, flash().replace(byte, 1, "y"));
        setMac("1");
        EXPECT_TRUE(checksumHolds()) << byte;
    }
}

// The slot list, the result, the number of written addresses, and the number of log lines after them: the ping.
TEST_F(Identity, SlotListsOfAnyShape) {
    const std::tuple<const char *, int, int, size_t> cases[] = {
        {"6 2 2", 0, 0, 1},      {"6 2 2   ", 0, 0, 1},           {"6", 0, 0, 1},          {"6 2 2 1_0   ", 0, 1, 1},
        {"6 2 2 bad", -1, 0, 0}, {"6 2 2 1_0  2_10", 0, 2, 1},    {"6 2 2 1_", 0, 1, 1},   {"6 2 2 1_0 bad", -1, 1, 0},
        {"6 2 2 _0", 0, 1, 1},   {"6 2 2 1_0 bad 2_10", 0, 2, 1}, {"7 2 2 1_0", -1, 0, 0}, {"x 2 2 1_0", -1, 0, 0}};
    for (const auto &[arguments, result, slots, commands] : cases) {
        SetUp();
        wireTotal = 0;
        std::filesystem::remove("/dev/mtdblock0");
        EXPECT_EQ(setMacWith(arguments, "1"), result) << arguments;
        const std::string after = flash();
        EXPECT_EQ(std::count(after.begin(), after.end(), 'x'), 65536 - 6 * slots) << arguments;
        EXPECT_EQ(board::log().size(), slots + commands) << arguments;
    }
    EXPECT_FALSE(board::exists("/dev/mtdblock7")) << "must not be created";
    del_configuration("SYSTEM_MAC_ARGS");
    EXPECT_EQ(setMac("1"), -1);
}

TEST_F(Identity, TheCountryIsTwoBytesOnTheFlash) {
    std::string expected = kInitial, code;
    for (std::string text : {"US"s, "\xFF\x01"s, "D\0"s, "USA"s}) {
        EXPECT_EQ(CountryRW(1, text.data()), 0);
        EXPECT_EQ(flash(), expected.replace(0x1F0, 2, text, 0, 2));
        EXPECT_EQ(CountryRW(0, (code = "##!!").data()), 0);
        EXPECT_EQ(code, text.substr(0, 2) + "\0!"s);
    }
    add_configuration("SYSTEM_COUNTRY_ARGS", "7 0");
    for (const char *missing : {"the partition", "the setting"}) {
        for (const int mode : {1, 0}) EXPECT_EQ(CountryRW(mode, (code = "##!").data()), 0) << missing;
        EXPECT_EQ(code, "##!") << missing;
        del_configuration("SYSTEM_COUNTRY_ARGS");
    }
    EXPECT_FALSE(board::exists("/dev/mtdblock7"));
}

std::string line(const std::string &text) { return "\033[1;37;40m" + text + "\033[0m\n"; }

std::string when(bool holds, const std::string &text) { return holds ? text : ""; }

const std::string kBanner = "\033[1;37;41m>>>>>>> ERROR <<<<<<<", kRule = line(std::string(52, '='));
const std::string kTableHead = "\n" + line(" PortNum | Link | Speed | Duplex ");

// Returns a row of the port table. The verdicts on link, speed and duplex are such as "OXO".
std::string row(int port, const std::string &verdicts) {
    const auto shown = [&](size_t i) { return verdicts[i] == 'O' ? "O" : "\033[1;37;41mX\033[1;37;40m"; };
    return line("    " + std::to_string(port) + "    |   " + shown(0) + "  |   " + shown(1) + "   |    " + shown(2) +
                "   ");
}

TEST_F(Identity, TheReportIsExactUnderEveryCombinationOfFlags) {
    CountryRW(1, "US"s.data());
    const int memory = std::stoi(board::readFile("/proc/meminfo").substr(strlen("MemTotal:")));
    for (int flags = 0; flags < 256; ++flags) {
        const bool ping = flags & 1, fitted24 = flags & 2, fitted5 = flags & 4, present24 = flags & 8;
        const bool present5 = flags & 16, enough = flags & 32, portsPass = flags & 64, radios = flags & 128;
        support_freq = (fitted24 ? 1 : 0) | (fitted5 ? 2 : 0);
        wirelessTotal = radios ? 2 : 0;
        // A radio is present if either key matches. An empty value matches every line and would hide the other radio.
        add_configuration("WIFI_24G_DEV", present24 && fitted5 ? "eth0" : "missing0");
        add_configuration("WIFI_24G_DEVICE", present24 && !fitted5 ? "" : "missing0");
        add_configuration("WIFI_5G_DEV", present5 && fitted24 ? "lo:" : "missing1");
        add_configuration("WIFI_5G_DEVICE", present5 && !fitted24 ? "" : "missing1");
        add_configuration("SYSTEM_MEMORY_MINIMUM", std::to_string(enough ? memory - 1 : memory).c_str());
        add_configuration("SYSTEM_CHECK_ETH_STATUS", portsPass ? "none" : "u100_ethtool_0 u_ethtool_0");
        const bool bad24 = radios && !present24, bad5 = radios && !present5;
        const std::string failed = when(fitted24 && bad24, "2.4G ERROR ") + when(fitted5 && bad5, "5G ERROR ") +
                                   when(!portsPass, "Ethernet ERROR ") + when(!enough, "Memory ERROR ");
        const std::string addresses =
            when(fitted24, line(" Wireless 2.4G MAC: 00:11:22:33:44:5B " + when(bad24, kBanner))) +
            when(fitted5, line(" Wireless   5G MAC: NONE " + when(bad5, kBanner)));
        ASSERT_EQ(report(ping), "INFO " + when(ping, failed) + "\n" + kRule + line(" Vendor: ACME ") +
                                    line(" Product: AP-1 ") + line(" Version: 1.02.03 ") +
                                    line(" Memory: " + std::to_string(memory) + " kB " + when(!enough, kBanner)) +
                                    when(radios, line(" Country: US ")) + line(" Wire MAC 1: 00:11:22:33:44:5a ") +
                                    line(" Wire MAC 2: none ") + when(radios, addresses) +
                                    when(!portsPass, kTableHead + row(1, "OXO") + row(2, "OOO")) + kRule)
            << "flags " << flags;
    }
}

TEST_F(Identity, PortsAreExaminedByTheirEntry) {
    board::writeFile("/etc/swconfig/switch0", R"(Global attributes: link:
	link: port:0 link:up speed:1000baseT full-duplex txflow
	link: port:1 link:down
link: port:2 link:up speed:1000baseT half-duplex
link: port:3 link:up speed:999baseT full-duplex
link: noport link:up speed:1000baseT full-duplex
link: port:4 link:up
link: port:5 up speed:1000baseT full-duplex
carrier: port:6 carrier:up speed:1000baseT full-duplex
link: port:7 link:up speed:-1 full-duplex
link: a-token-of-more-than-31-characters:8 link:up speed:1000baseT full-duplex)");
    const std::string longest = "2" + std::string(31, 'x');  // one character too long for a field
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"", {"u_ethtool_0", "u2500_ethtool_", "u10000_ethtool_", "u_ethtool_0  ", " u_ethtool_0", ""}},
        {"", {"switch0_swconfig_0", "switch0_swconfig_10", "switch0_swconfig_8"}},
        {"OOX", {"u1000d0_ethtool_0", "switch0_swconfig_2", "switch0_swconfig_23", "switch0_swconfig_" + longest}},
        {"OXO", {"u100_ethtool_0", "switch0_swconfig_3", "switch0_swconfig_13", "switch0_swconfig_7"}},
        {"OXX", {"u2000d255_ethtool_0", "switch0_swconfig_4"}},
        {"XXX", {"d_ethtool_0", "g_ethtool_0", "none_ethtool_0", "u---------------_ethtool_0", "u_x_0", "u"}},
        {"XXX", {"x u_ethtool_0", "u_ethtool u_ethtool_0", "switch0_swconfig_1", "switch0_swconfig_5"}},
        {"XXX", {"switch0_swconfig_6", "switch1_swconfig_0"}},
        {"OOO", {"u_ethtool_0 x"}}};
    wireTotal = 1;
    wirelessTotal = 0;
    for (const auto &[verdicts, entries] : cases) {
        const std::string table = when(*verdicts != '\0', kTableHead + row(1, verdicts));
        for (const std::string &entry : entries) {
            add_configuration("SYSTEM_CHECK_ETH_STATUS", entry.c_str());
            EXPECT_THAT(report(1), EndsWith(line(" Wire MAC 1: 00:11:22:33:44:5a ") + table + kRule)) << entry;
        }
    }
    // The word holds eight entries of four bits: the ninth wraps around onto the first.
    wireTotal = 3;
    add_configuration("SYSTEM_CHECK_ETH_STATUS", "d_x_ u_ethtool_ d_x_ d_x_ d_x_ d_x_ d_x_ d_x_ u_ethtool_ d_x_");
    EXPECT_THAT(report(0), EndsWith(kTableHead + row(1, "OOO") + row(2, "OOO") + row(3, "XXX") + kRule));
    wireTotal = 9;
    add_configuration("SYSTEM_CHECK_ETH_STATUS", "u100_ethtool_0");
    EXPECT_THAT(report(0), HasSubstr(row(9, "XXX"))) << "a port without an entry";
}

// Another process inserts records before the list's while the first switch is queried. The second port must still fail.
TEST_F(Identity, PortsAreExaminedWhileTheTableChanges) {
    std::filesystem::remove("/etc/swconfig/switch0");
    board::run("mkfifo /etc/swconfig/switch0");
    add_configuration("SYSTEM_CHECK_ETH_STATUS", "switch0_swconfig_0 none_ethtool_0");
    const pid_t other = board::fork([] {
        std::ofstream shown("/etc/swconfig/switch0");
        for (const char *key : {"A", "B", "C"}) add_configuration(key, "");
        shown << "link: port:0 link:up speed:1000baseT full-duplex\n";
    });
    EXPECT_THAT(report(1), StartsWith("INFO 2.4G ERROR 5G ERROR Ethernet ERROR "));
    EXPECT_EQ(board::wait(other), 0);
}

// The digits of an expected number are the wired ports, the radio addresses and the radio mask.
TEST_F(Identity, CountsThatAreCutShortLeaveTheRadiosUnread) {
    add_configuration("WIFI_DEV_DEFINE", "3");
    for (const auto &[arguments, counts] : {std::pair("6 4 2 1_0", 423), {"6 4 2", 423}, {"6 4", 400}}) {
        wireTotal = wirelessTotal = support_freq = 0;
        add_configuration("SYSTEM_MAC_ARGS", arguments);
        initialFunc();
        EXPECT_EQ(100 * wireTotal + 10 * wirelessTotal + support_freq, counts) << arguments;
    }
}

TEST_F(Identity, TheProductIsReadOnceAndALongReportIsCut) {
    std::filesystem::rename("/etc/html.info", "/etc/moved");
    initialFunc();  // clears the product
    EXPECT_THAT(report(1), HasSubstr(line(" Vendor:  ") + line(" Product:  ") + line(" Version: 0.00.00 ")));
    std::filesystem::rename("/etc/moved", "/etc/html.info");
    report(0);
    board::writeFile("/etc/system.info", board::padded(board::productBlock("ELSE"), 76));
    wireTotal = 60;
    EXPECT_THAT(report(1), HasSubstr(line(" Vendor: ACME ")));
    EXPECT_EQ(report(1).size(), static_cast<size_t>(kReportSize) - 1);
    getInfo(nullptr, 1);
}

}  // namespace
