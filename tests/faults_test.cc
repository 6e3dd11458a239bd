// The service when something fails under it: every call of the C library, the station at every step of a session, parts
// of the board that are not there, signals at any time. It ends or goes on; it never hangs, crashes or leaks (which
// TearDown would find in the sanitizers' reports), and the flash holds nothing but what was there, what was sent, or
// erased bytes.

#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "image/md5.h"
#include "station/wire/discovery.h"
#include "tests/firmware/image_bytes.h"
#include "tests/service.h"

using namespace std::string_literals;
using station::Milliseconds;
using station::Session;
using station::SessionError;
using testing::HasSubstr;

namespace {

constexpr Milliseconds kSoon{20000};
constexpr size_t kPartition = 1 << 18;

struct Step {
    std::string command, payload, reply;  // an expression
};

class Faults : public board::ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        for (const char *variable : {"FAIL_CALL", "LIST_CALLS"}) unsetenv(variable);
        makeFlash();
        board::writeFile("/sys/class/block/mtdblock2/device/name", "kernel");
        board::writeFile("/etc/system.info", image_bytes::productBlock() + std::string(16, ' '));
        board::writeFile("/etc/html.info", "& 12003\nname value\n");
        board::writeFile("/etc/entry.info", "& 12003\nname value\n");
        const std::string settings = board::readFile("/etc/.config") +
                                     "SYSTEM_ART_PART = 6\nSYSTEM_COUNTRY_ARGS = \"6 100\"\nSYSTEM_CHECK_ETH_STATUS = "
                                     "\"eth0_ethtool_0 switch0_swconfig_1\"\nWIFI_24G_DEVICE = eth0\n";
        configure(settings);
        if (!link_) board::inStationNetwork([&] { link_ = station::openLink("station"); });
    }

    static void makeFlash() {
        for (const int number : {2, 3, 5}) makePartition(number, std::string(kPartition, '\x55'));
        board::writeFile("/dev/mtdblock6", std::string(kPartition, '\x55'));
    }

    // Every command with an operation of its own; what it writes to a partition is 0xAA and 0xFF alone.
    static std::vector<Step> everyCommand() {
        std::string image = image_bytes::productBlock() + image_bytes::section("2.bin", "\xAA");
        board::writeFile("/var/image", image);
        image += fwimage::md5OfFile("/var/image") + "\n";
        const std::string script = "#!/bin/sh\necho printed\n";
        const std::string data(100000, '\xAA');
        return {
            {"VERSION " + std::to_string(image.size()), image, "OK"},
            {"FW IMAGE " + std::to_string(image.size()), image, "OK"},
            {"FW KERNEL 100000", data, "OK"},
            {"FW ROOTFS 100000", data, "OK"},
            {"FW CONFIG 0", "", "OK"},
            {"SHELL " + std::to_string(script.size()), script, "SHELL.*"},
            {"PING", "", "PING [02]"},
            {"MAC 00:11:22:33:44:FD", "", "MAC [0-4]"},
            {"COUNTRY US", "", "OK"},
            {"WAITING", "", "OK"},
            {"REBOOT", "", "OK"},
            {"INFO", "", "INFO .*"},
            {"nonsense", "", "UNKNOWN"},
            {"BYE", "", "BYE"},
        };
    }

    // The service's next connection; none when it has ended.
    std::optional<Session> acceptUnlessItEnds(station::Listener &listener) {
        for (int tries = 0; servicePid() >= 0 && tries < 200; ++tries) {
            link_->send(discoveryRequest());
            try {
                return listener.accept(Milliseconds(100));
            } catch (const SessionError &) {
            }
        }
        return std::nullopt;
    }

    std::string discoveryRequest() const {
        const station::Mac source = link_->address();
        return std::string(6, '\xFF') + std::string(source.begin(), source.end()) + "\x55\xAA" + std::string(46, 'x');
    }

    // As far as it goes: after a fault the two may be out of step. Returns how many replies were as they should be.
    static size_t serve(Session &session) {
        size_t right = 0;
        try {
            for (const Step &step : everyCommand()) {
                session.sendCommand(step.command);
                session.sendBytes(step.payload);
                right += testing::Matches(testing::MatchesRegex(step.reply))(session.receiveReply(Milliseconds(3000)));
            }
        } catch (const SessionError &) {
        }
        return right;
    }

    // Discovery and the whole session, again for as long as the service comes back.
    size_t runService() {
        size_t right = 0;
        station::Listener listener = listenAsStation();
        start("qconly");
        while (std::optional<Session> session = acceptUnlessItEnds(listener)) right += serve(*session);
        EXPECT_TRUE(hasEnded()) << testing::PrintToString(board::logTexts());
        return right;
    }

    // Each byte is as it was, erased, or what the session writes there; or that on top of what could not be erased.
    static void expectNothingElseOnTheFlash() {
        for (const int number : {2, 3, 5}) {
            if (!board::exists("/tmp/dev/mtd" + std::to_string(number))) continue;
            const std::string content = partition(number);
            EXPECT_EQ(content.size(), kPartition) << number;
            const size_t written = number == 5 ? 0 : 100000;
            EXPECT_EQ(content.find_first_not_of("\x55\xFF\xAA\0"s), std::string::npos) << number;
            EXPECT_EQ(content.find('\xAA', written), std::string::npos) << number;
        }
        const std::string calibration = board::readFile("/dev/mtdblock6");
        ASSERT_EQ(calibration.size(), kPartition);
        std::string outside = calibration;
        for (const size_t slot : {0x0, 0x6, 0x1002, 0x5006}) outside.replace(slot, 6, 6, '\x55');
        for (const size_t word : {0x100, 0x5002}) outside.replace(word, 2, 2, '\x55');
        EXPECT_EQ(outside.find_first_not_of('\x55'), std::string::npos)
            << "nothing but addresses, their checksum and the country";
    }

    const board::NamedProcess telnetd_{"telnetd"};
    std::unique_ptr<station::FrameLink> link_;
};

TEST_F(Faults, EveryCallMayFailOnce) {
    setenv("LIST_CALLS", "/tmp/calls", 1);
    EXPECT_EQ(runService(), everyCommand().size()) << "without a fault";
    unsetenv("LIST_CALLS");
    std::vector<std::string> calls;
    std::ifstream list("/tmp/calls");
    for (std::string call; list >> call;) calls.push_back(call);
    EXPECT_GT(calls.size(), 90U);
    for (const std::string &call : calls) {
        SetUp();
        setenv("FAIL_CALL", call.c_str(), 1);
        SCOPED_TRACE(call);
        runService();
        expectNothingElseOnTheFlash();
        TearDown();
    }
}

// The station goes at every step of the session: before the reply, in the middle of the payload, or after the reply.
TEST_F(Faults, TheStationMayGoAtAnyStep) {
    const std::vector<Step> steps = everyCommand();
    for (size_t last = 0; last < steps.size(); ++last) {
        for (const double sent : {0.0, 0.5, 1.0, 2.0}) {
            SetUp();
            SCOPED_TRACE(steps[last].command + ", " + std::to_string(sent));
            std::optional<Session> session = startSession();
            session->sendCommand("PING");
            session->receiveReply(kSoon);
            for (size_t i = 0; i <= last; ++i) {
                const std::string &payload = steps[i].payload;
                const double share = i < last ? 2.0 : sent;
                session->sendCommand(steps[i].command);
                session->sendBytes(payload.substr(0, static_cast<size_t>(share * static_cast<double>(payload.size()))));
                if (share > 1) session->receiveReply(kSoon);
            }
            if (last % 2 == 0) session->reset();
            session.reset();
            EXPECT_TRUE(hasEnded()) << testing::PrintToString(board::logTexts());
            EXPECT_EQ(board::logTexts().back(), "closeSocket (Socketid = 3)");
            expectNothingElseOnTheFlash();
            TearDown();
        }
    }
}

// The handlers may run while the daemon is inside syslog or the allocator, while it receives and while it flashes.
TEST_F(Faults, BurstsOfSignalsNeitherBlockNorLoseAnything) {
    Session session = startSession();
    std::atomic<int> sent = 0;
    std::thread sender([&] {
        for (; sent < 3000; ++sent) {
            signalService(sent % 2 == 0 ? SIGUSR2 : SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    const std::string data(kPartition, '\xAA');
    do {
        session.sendCommand("PING");
        EXPECT_EQ(session.receiveReply(kSoon), "PING 2");
        makePartition(2, std::string(kPartition, '\x55'));
        session.sendCommand("FW KERNEL " + std::to_string(kPartition));
        for (size_t i = 0; i < kPartition; i += 4096) session.sendBytes(data.substr(i, 4096));
        EXPECT_EQ(session.receiveReply(kSoon), "OK");
        EXPECT_TRUE(partition(2) == data);
    } while (sent < 3000);
    sender.join();
    session.sendCommand("WAITING");
    EXPECT_EQ(session.receiveReply(kSoon), "OK");
}

// Silence is many ends of the wait for a command.
TEST_F(Faults, ASilentStationIsWaitedFor) {
    Session session = startSession();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    session.sendCommand("PING");
    EXPECT_EQ(session.receiveReply(kSoon), "PING 2");
}

// Without a configuration, without /proc, with a full /tmp: every command is answered, none with more than there is.
TEST_F(Faults, ABoardThatLacksPartsServesOn) {
    const struct {
        const char *what;
        void (*take)();
        void (*giveBack)();
        const char *ping, *memory;
    } cases[] = {
        {"configuration", [] { std::filesystem::remove_all("/etc"); }, [] { mkdir("/etc", 0755); }, "PING 0", ""},
        {"/proc", [] { ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0); }, [] { umount("/proc"); }, "PING 2",
         "Memory: 0 kB"},
        {"/tmp",
         [] {
             ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=4k"), 0);
             board::writeFile("/tmp/filled", std::string(4096, 'x'));
         },
         [] { umount("/tmp"); }, "PING 2", ""},
    };
    for (const auto &test : cases) {
        SetUp();
        SCOPED_TRACE(test.what);
        test.take();
        {
            Session session = startSession();
            for (const Step &step : everyCommand()) {
                if (step.command.starts_with("FW IMAGE")) continue;  // waits for processes, which /proc tells
                session.sendCommand(step.command);
                session.sendBytes(step.payload);
                const std::string reply = session.receiveReply(kSoon);
                EXPECT_THAT(reply, testing::MatchesRegex(step.reply)) << step.command;
                const char *const expected = step.command == "PING"   ? test.ping
                                             : step.command == "INFO" ? test.memory
                                                                      : "";
                EXPECT_THAT(reply, HasSubstr(expected));
            }
        }
        test.giveBack();
        EXPECT_TRUE(hasEnded());
        TearDown();
    }
}

}  // namespace
