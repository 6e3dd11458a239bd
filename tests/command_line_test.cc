// The command line as an operator meets it: the real binary, one mode at a time.

#include <filesystem>

#include "support/configuration.h"
#include "tests/service.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

class CommandLine : public board::ServiceTest {
protected:
    // Runs a mode and returns what it printed; the status is 0 whatever happens.
    static std::string printedBy(const std::vector<std::string> &arguments) {
        const board::Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.status, 0);
        return outcome.output;
    }
};

TEST_F(CommandLine, UsageIsPrintedForAnythingElse) {
    const char *const usage =
        "fabtestd command:\n\nfabtestd [daemon | qconly | info | switch | domcheck | country | image | kernel | rootfs "
        "| config]\n\tdaemon - normal\n\tqconly - recv packet 0x55aa & run QC Client\n\tinfo - get "
        "Information\n\tswitch "
        "- reset switch & set QC ip\n\tdomcheck - rewrite DOMCheck\n\tmac - set mac\n\tcountry XX - set "
        "Country\n\timage "
        "filename - write image\n\tkernel filename - write kernel\n\trootfs filename - write rootfs\n\tconfig filename "
        "- write config\n\n\n";
    const std::vector<std::string> cases[] = {{}, {"foo"}, {""}, {"daemon "}, {"Daemon"}, {"help", "me"}};
    for (const auto &arguments : cases) EXPECT_EQ(printedBy(arguments), usage);
}

TEST_F(CommandLine, ArgumentsAreChecked) {
    board::writeFile("/tmp/a", "");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"image", "/nonexistent"}, "fabtestd image filename\n\n"},
        {{"image"}, "fabtestd image filename\n\n"},
        {{"image", "/tmp/a", "b"}, "fabtestd image filename\n\n"},
        {{"kernel"}, "fabtestd kernel filename\n\n"},
        {{"rootfs", "/nonexistent"}, "fabtestd rootfs filename\n\n"},
        {{"config", "/tmp/a", "/tmp/a"}, "fabtestd config filename\n\n"},
        {{"mac"}, "fabtestd mac mac\n\n"},
        {{"mac", "1", "2"}, "fabtestd mac mac\n\n"},
        {{"mac", "00:11:22:33:44:5"}, ""},
        {{"mac", "00:11:22:33:44:555"}, ""},
    };
    for (const auto &[arguments, printed] : cases) EXPECT_EQ(printedBy(arguments), printed);
    EXPECT_THAT(board::logTexts(), IsEmpty()) << "nothing was done";
}

TEST_F(CommandLine, TestPreparesTheBoardOnce) {
    board::writeFile("/dev/mtd2", "");
    EXPECT_EQ(printedBy({"test"}), "");
    EXPECT_THAT(board::logTexts(),
                ElementsAre("/bin/cp -a /dev/ /tmp/ > /dev/null 2>&1", "/bin/cp /bin/busybox /tmp/ > /dev/null 2>&1",
                            "/bin/ln -s busybox /tmp/echo > /dev/null 2>&1",
                            "/bin/ln -s busybox /tmp/reboot > /dev/null 2>&1"));
    EXPECT_TRUE(board::exists("/tmp/dev/mtd2"));
    EXPECT_EQ(std::filesystem::read_symlink("/tmp/reboot"), "busybox");
    EXPECT_EQ(board::readFile("/tmp/busybox"), board::readFile("/bin/busybox"));
    printedBy({"test"});
    EXPECT_EQ(board::logTexts().size(), 4U) << "a second time copies nothing";
}

// The modes of the console find what others have set in the table; the service loads it anew.
TEST_F(CommandLine, OnlyTheServiceReloadsTheTable) {
    open_configuration();
    for (const char *mode : {"test", "switch", "info", "mac", "country"}) {
        add_configuration("RECORDED", "yes");
        printedBy(mode == std::string("mac") ? std::vector<std::string>{"mac", "1"} : std::vector<std::string>{mode});
        EXPECT_EQ(if_exist("RECORDED"), 1) << mode;
    }
    start("daemon");
    ASSERT_TRUE(board::waitForLog("connecting 1", 10));
    EXPECT_EQ(if_exist("RECORDED"), 0);
}

TEST_F(CommandLine, SwitchAddressesThePorts) {
    board::writeFile("/tmp/busybox", "");
    const struct {
        const char *macArguments;
        std::vector<std::string> addresses;
    } cases[] = {
        {"x 4 2 1_0", {"eth0 192.168.1.1", "eth1 192.168.2.1", "eth2 192.168.3.1", "eth3 192.168.4.1"}},
        {"x 2", {"eth0 192.168.1.1", "eth1 192.168.2.1"}},
        {"x", {}},
        {"x  1", {"eth0 192.168.1.1"}},
        {"x -1 2", {}},
        {"x many 2", {}},
    };
    for (const auto &test : cases) {
        NativeBoardTest::SetUp();
        board::writeFile("/tmp/busybox", "");
        configure("#& 1\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\nSYSTEM_MAC_ARGS = \"" + std::string(test.macArguments) +
                  "\"\n");
        EXPECT_EQ(printedBy({"switch"}), "");
        std::vector<std::string> expected;
        for (const std::string &address : test.addresses) {
            expected.push_back("/sbin/ifconfig " + address + " > /dev/null 2>&1");
        }
        expected.push_back("/bin/ping -c 30 192.168.1.2 > /dev/null 2>&1 &");
        EXPECT_EQ(board::logTexts(), expected) << test.macArguments;
    }
}

TEST_F(CommandLine, CountryTellsTheOldAndTheNew) {
    configure("#& 1\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\nSYSTEM_COUNTRY_ARGS = \"6 100\"\n");
    board::writeFile("/dev/mtdblock6", std::string(65536, 'U'));
    EXPECT_EQ(printedBy({"country", "DE"}), "Country: UU -> DE\n");
    EXPECT_EQ(printedBy({"country", "F"}), "Country: DE -> F\n");
    EXPECT_EQ(printedBy({"country", "USA"}), "Country: F -> US\n");
    EXPECT_EQ(printedBy({"country"}), "Country: US\n");
}

// The seven commands of a pair.
std::vector<std::string> swapOf(const std::string &a, const std::string &b) {
    return {"/sbin/ifconfig " + a + " down",
            "/sbin/ifconfig " + b + " down",
            "/bin/ip link set dev " + a + " name eth_temp",
            "/bin/ip link set dev " + b + " name " + a,
            "/bin/ip link set dev eth_temp name " + b,
            "/sbin/ifconfig " + a + " up",
            "/sbin/ifconfig " + b + " up"};
}

TEST_F(CommandLine, PortChangeSwapsPairsUntilOneIsMalformed) {
    const struct {
        const char *pairs;
        std::vector<std::pair<std::string, std::string>> swapped;
    } cases[] = {
        {"lan0_lan1", {{"lan0", "lan1"}}},
        {"lan0_lan1 lan2_lan3", {{"lan0", "lan1"}, {"lan2", "lan3"}}},
        {"lan0lan1 lan2_lan3", {}},
        {"lan0_lan1 lan2lan3", {{"lan0", "lan1"}}},
        {"lan0_lan1 bad lan2_lan3", {{"lan0", "lan1"}}},
        {"lan0_lan1 ", {{"lan0", "lan1"}}},
        {"lan0_lan1_x", {{"lan0", "lan1_x"}}},
        {"", {}},
    };
    for (const auto &test : cases) {
        SetUp();
        configure("#& 1\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\nSYSTEM_PORT_CHANGE = \"" + std::string(test.pairs) +
                  "\"\n");
        printedBy({"port_change"});
        std::vector<std::string> expected;
        for (const auto &[a, b] : test.swapped) {
            for (const std::string &command : swapOf(a, b)) expected.push_back(command);
        }
        EXPECT_EQ(board::logTexts(), expected) << test.pairs;
    }
    SetUp();
    printedBy({"port_change"});
    EXPECT_THAT(board::logTexts(), IsEmpty()) << "no key, nothing to do";
}

TEST_F(CommandLine, PortChangeReallySwapsTheNames) {
    ASSERT_EQ(system("/usr/bin/ip link add eth1 address 02:00:00:00:00:01 type veth peer name eth9"), 0);
    configure("#& 1\nSYSTEM_BRAND = B\nSYSTEM_MODEL = M\nSYSTEM_PORT_CHANGE = \"eth0_eth1\"\n");
    printedBy({"port_change"});
    EXPECT_EQ(system("/usr/bin/ip -o link show eth0 | grep -q 02:00:00:00:00:01"), 0);
    EXPECT_NE(system("/usr/bin/ip -o link show eth1 | grep -q 02:00:00:00:00:01"), 0);
}

}  // namespace
