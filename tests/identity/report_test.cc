#include "identity/report.h"

#include <sys/mount.h>

#include <cstring>
#include <filesystem>

#include "daemon/board.h"
#include "identity/ethernet_link.h"
#include "support/configuration.h"
#include "tests/fake_devices.h"
#include "tests/firmware/image_bytes.h"
#include "tests/native_board.h"

using testing::HasSubstr;
using testing::Not;

namespace {

const std::string kLine = "\033[1;37;40m";
const std::string kEnd = "\033[0m\n";
const std::string kBanner = "\033[1;37;41m>>>>>>> ERROR <<<<<<<";
const std::string kO = "O";
const std::string kX = "\033[1;37;41mX\033[1;37;40m";

int memoryTotal() { return std::stoi(board::readFile("/proc/meminfo").substr(strlen("MemTotal:"))); }

class Report : public board::NativeBoardTest {
protected:
    void SetUp() override {
        NativeBoardTest::SetUp();
        memset(systemProduct, 0, sizeof systemProduct);
        wireTotal = 2;
        wirelessTotal = 2;
        support_freq = 3;
        fake_link::links = {{"good", {}}, {"slow", {true, 100, 1, true}}, {"down", {false, 1000, 1, true}}};
        board::writeFile("/etc/system.info", image_bytes::productBlock() + std::string(16, ' '));
        board::writeFile("/etc/html.info", "& 12000\nname value\n");
        board::writeFile("/etc/entry.info", "& 3\nname value\n");
        board::writeFile("/dev/mtdblock6", "US");
        board::writeFile(kDefaultConfiguration, "#& 1\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\n");
        init_configuration();
        add_configuration("SYSTEM_COUNTRY_ARGS", "6 0");
        add_configuration("PORT1_ORIG_MAC", "00:11:22:33:44:5a");
        add_configuration("WIFI_2.4G_MAC", "00:11:22:33:44:5b");
    }

    static std::string report(int pingFlag) {
        char buffer[kReportSize + 1];
        memset(buffer, '?', sizeof buffer);
        getInfo(buffer, pingFlag);
        EXPECT_EQ(buffer[kReportSize], '?') << "written past the buffer";
        return buffer;
    }

    // The rows of the port table.
    static std::string portTable(const std::string &text) {
        const size_t start = text.find("Duplex \033[0m\n");
        if (start == std::string::npos) return "";
        const size_t rows = start + strlen("Duplex \033[0m\n");
        return text.substr(rows, text.rfind(kLine) - rows);
    }

    static std::string row(int port, const std::string &link, const std::string &speed, const std::string &duplex) {
        return kLine + "    " + std::to_string(port) + "    |   " + link + "  |   " + speed + "   |    " + duplex +
               "   " + kEnd;
    }
};

// Every combination of the ping flag, the radios fitted and present, memory, and ports.
TEST_F(Report, IsExactUnderEveryCombinationOfFlags) {
    const std::string rule = kLine + std::string(52, '=') + kEnd;
    const int memory = memoryTotal();
    for (int flags = 0; flags < 256; ++flags) {
        const bool ping = flags & 1, fitted24 = flags & 2, fitted5 = flags & 4, present24 = flags & 8;
        const bool present5 = flags & 16, enough = flags & 32, portsPass = flags & 64, radios = flags & 128;
        support_freq = (fitted24 ? 1 : 0) | (fitted5 ? 2 : 0);
        wirelessTotal = radios ? 2 : 0;
        add_configuration(flags & 2 ? "WIFI_24G_DEV" : "WIFI_24G_DEVICE", present24 ? "eth0" : "missing0");
        add_configuration(flags & 2 ? "WIFI_24G_DEVICE" : "WIFI_24G_DEV", "");
        add_configuration("WIFI_5G_DEV", present5 ? "lo:" : "missing1");
        add_configuration("SYSTEM_MEMORY_MINIMUM", std::to_string(enough ? memory - 1 : memory).c_str());
        add_configuration("SYSTEM_CHECK_ETH_STATUS", portsPass ? "none" : "slow_ethtool_0 good_ethtool_0");
        const bool ok24 = present24 || !radios, ok5 = present5 || !radios;

        std::string expected = "INFO ";
        if (ping && fitted24 && !ok24) expected += "2.4G ERROR ";
        if (ping && fitted5 && !ok5) expected += "5G ERROR ";
        if (ping && !portsPass) expected += "Ethernet ERROR ";
        if (ping && !enough) expected += "Memory ERROR ";
        expected += "\n" + rule + kLine + " Vendor: ACME " + kEnd + kLine + " Product: AP-1 " + kEnd + kLine +
                    " Version: 1.02.03 " + kEnd + kLine + " Memory: " + std::to_string(memory) + " kB " +
                    (enough ? "" : kBanner) + kEnd;
        if (radios) expected += kLine + " Country: US " + kEnd;
        expected += kLine + " Wire MAC 1: 00:11:22:33:44:5a " + kEnd + kLine + " Wire MAC 2: none " + kEnd;
        if (radios && fitted24) {
            expected += kLine + " Wireless 2.4G MAC: 00:11:22:33:44:5B " + (ok24 ? "" : kBanner) + kEnd;
        }
        if (radios && fitted5) expected += kLine + " Wireless   5G MAC: none " + (ok5 ? "" : kBanner) + kEnd;
        if (!portsPass) {
            expected +=
                "\n" + kLine + " PortNum | Link | Speed | Duplex " + kEnd + row(1, kO, kX, kO) + row(2, kO, kO, kO);
        }
        ASSERT_EQ(report(ping), expected + rule) << "flags " << flags;
    }
}

TEST_F(Report, PortsAreExaminedByTheirEntry) {
    board::writeFile("/sbin/swconfig", "#!/bin/sh\n"
                                       "[ \"$*\" = 'dev switch0 show' ] || exit 1\n"
                                       "echo 'Global attributes: link:'\n"
                                       "printf '\\tlink: port:0 link:up speed:1000baseT full-duplex txflow\\n'\n"
                                       "printf '\\tlink: port:1 link:down\\n'\n"
                                       "echo 'link: port:2 link:up speed:1000baseT half-duplex'\n"
                                       "echo 'link: port:3 link:up speed:100baseT full-duplex'\n"
                                       "echo 'link: noport link:up speed:1000baseT full-duplex'\n"
                                       "echo 'link: port:4 link:up'\n"
                                       "echo 'link: port:5 up speed:1000baseT full-duplex'\n");
    std::filesystem::permissions("/sbin/swconfig", std::filesystem::perms::all);
    fake_link::links["gone"] = {true, 1000, 1, false};
    fake_link::links["half"] = {true, 1000, 0, true};
    fake_link::links["odd"] = {true, 2000, 255, true};
    fake_link::links["fast"] = {true, 10000, 1, true};
    const struct {
        const char *entry;
        std::string rows;  // of port 1; empty when it passes
    } cases[] = {
        {"good_ethtool_0", ""},
        {"fast_ethtool_", ""},
        {"slow_ethtool_0", row(1, kO, kX, kO)},
        {"half_ethtool_0", row(1, kO, kO, kX)},
        {"odd_ethtool_0", row(1, kO, kX, kX)},
        {"down_ethtool_0", row(1, kX, kX, kX)},
        {"gone_ethtool_0", row(1, kX, kX, kX)},
        {"none0_ethtool_0", row(1, kX, kX, kX)},
        {"a-name-of-sixteen_ethtool_0", row(1, kX, kX, kX)},
        {"good_other_0", row(1, kX, kX, kX)},
        {"good", row(1, kX, kX, kX)},
        {"switch0_swconfig_0", ""},
        {"switch0_swconfig_1", row(1, kX, kX, kX)},
        {"switch0_swconfig_2", row(1, kO, kO, kX)},
        {"switch0_swconfig_3", row(1, kO, kX, kO)},
        {"switch0_swconfig_4", row(1, kO, kX, kX)},
        {"switch0_swconfig_5", row(1, kX, kX, kX)},
        {"switch0_swconfig_10", ""},
        {"switch0_swconfig_13", row(1, kO, kX, kO)},
        {"switch1_swconfig_0", row(1, kX, kX, kX)},
        {"good_ethtool_0 ", ""},
        {" good_ethtool_0", ""},
        {"", ""},
    };
    wireTotal = 1;
    for (const auto &test : cases) {
        add_configuration("SYSTEM_CHECK_ETH_STATUS", test.entry);
        EXPECT_EQ(portTable(report(1)), test.rows) << test.entry;
    }
}

// The word holds eight entries of four bits: the ninth falls onto the first.
TEST_F(Report, MorePortsThanTheWordHolds) {
    wireTotal = 3;
    fake_link::links["g"] = {};
    add_configuration("SYSTEM_CHECK_ETH_STATUS", "d_x_ g_ethtool_ d_x_ d_x_ d_x_ d_x_ d_x_ d_x_ g_ethtool_ d_x_");
    EXPECT_EQ(portTable(report(0)), row(1, kO, kO, kO) + row(2, kO, kO, kO) + row(3, kX, kX, kX));
}

TEST_F(Report, ALongReportIsCutToItsBuffer) {
    wireTotal = 60;
    EXPECT_EQ(report(1).size(), static_cast<size_t>(kReportSize) - 1);
    getInfo(nullptr, 1);
}

TEST_F(Report, MissingSourcesAreFailedChecks) {
    std::filesystem::remove("/etc/html.info");
    EXPECT_THAT(report(1),
                HasSubstr(" Vendor:  \033[0m\n\033[1;37;40m Product:  \033[0m\n\033[1;37;40m Version: 0.00.00 "));
    add_configuration("WIFI_24G_DEVICE", "eth0");
    ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
    const std::string text = report(1);
    umount("/proc");
    EXPECT_THAT(text, testing::StartsWith("INFO 2.4G ERROR 5G ERROR Memory ERROR \n"));
    EXPECT_THAT(text, HasSubstr(" Memory: 0 kB " + kBanner));
}

TEST_F(Report, TheProductIsReadOnce) {
    report(0);
    std::filesystem::remove("/etc/system.info");
    EXPECT_THAT(report(0), HasSubstr(" Vendor: ACME "));
}

TEST_F(Report, TheLinkQueryLeavesItsResultsOnFailure) {
    uint32_t speed = 7;
    uint32_t duplex = 7;
    EXPECT_EQ(my_get_ethtool("down", &speed, &duplex), -1);
    EXPECT_EQ(my_get_ethtool("a-name-of-sixteen", &speed, &duplex), -1);
    EXPECT_EQ(speed + duplex, 14U);
    for (const int usual : {10, 100, 1000, 2500, 10000}) {
        fake_link::links["good"].speed = static_cast<uint16_t>(usual);
        EXPECT_EQ(my_get_ethtool("good", &speed, &duplex), 0);
        EXPECT_EQ(speed, static_cast<uint32_t>(usual));
        EXPECT_EQ(duplex, 1U);
    }
}

}  // namespace
