// The service under faults: failing calls of the C library, a station that leaves at any step, missing parts of the
// board, signals at any time, and thousands of sessions. The service goes on or ends with status 0; it never hangs.
// Every byte of the flash is unchanged, erased or as sent.

#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "support/configuration.h"
#include "tests/service.h"

namespace fs = std::filesystem;
using station::Milliseconds, station::Session, station::SessionError;
using testing::HasSubstr, testing::MatchesRegex;

namespace {

struct Step {
    std::string command, payload, reply;  // the reply is a regular expression
};

class Faults : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        for (const char *variable : {"FAIL_CALL", "LIST_CALLS"}) unsetenv(variable);
    }

    // Returns every command that has an operation of its own. Payloads for partitions contain only 0xAA and 0xFF.
    static const std::vector<Step> &everyCommand() {
        static const std::string image = board::sealed(board::productBlock() + board::section("2.bin", "\xAA"));
        static const std::string script = "#!/bin/sh\necho printed\n", data(100000, '\xAA');
        static const std::vector<Step> commands = {
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
        return commands;
    }

    // Returns the service's next connection, or nothing once the service has ended. Repeats the discovery frame.
    std::optional<Session> acceptUnlessItEnds(const station::Listener &listener) {
        std::optional<Session> session;
        board::waitFor(60, [&] {
            link_->send(frame(station::kBroadcast, "\x55\xAA"));
            return (session = listener.take()) || serviceStatus(0) != board::kRuns;
        });
        return session;
    }

    // Runs all commands while the session lasts. Returns the number of correct replies; after a fault the two sides may
    // be out of step.
    static size_t serve(Session &session, Milliseconds limit) {
        size_t right = 0;
        try {
            for (const Step &step : everyCommand()) {
                session.sendCommand(step.command);
                session.sendBytes(step.payload);
                const std::string reply = session.receiveReply(limit);
                EXPECT_GT(reply[0], '\033') << "a report without its beginning";
                right += testing::Matches(MatchesRegex(step.reply))(reply);
            }
        } catch (const SessionError &) {
        }
        return right;
    }

    // Runs discovery and session, repeatedly while the service connects again. Returns the number of correct replies.
    size_t runService(Milliseconds limit) {
        size_t right = 0;
        const station::Listener listener = listen();
        start("qconly");
        while (std::optional<Session> session = acceptUnlessItEnds(listener)) right += serve(*session, limit);
        EXPECT_EQ(serviceStatus(), 0);
        return right;
    }

    static std::vector<std::string> listedCalls() {
        std::ifstream list("/var/calls");
        return {std::istream_iterator<std::string>(list), {}};
    }

    // Checks that each byte is unchanged, erased, or as the session writes it, also over a block that was not erased.
    static void expectNothingElseOnTheFlash() {
        for (const int number : {2, 3, 5}) {
            const std::string content = board::readFile("/flash/mtd" + std::to_string(number));
            EXPECT_EQ(content.size(), kPartition) << number;
            const auto other = [](char c) { return c != 'U' && c != '\xFF' && c != '\xAA' && c != '\0'; };
            EXPECT_EQ(std::count_if(content.begin(), content.end(), other), 0) << number;
            EXPECT_EQ(content.find('\xAA', number == 5 ? 0 : 100000), std::string::npos) << number;
        }
        std::string outside = board::readFile("/flash/mtd6");
        ASSERT_EQ(outside.size(), kPartition);
        for (const size_t slot : {0x0, 0x6, 0x1002, 0x5006}) outside.replace(slot, 6, 6, 'U');
        for (const size_t word : {0x1F0, 0x5002}) outside.replace(word, 2, 2, 'U');
        EXPECT_EQ(outside.find_first_not_of('U'), std::string::npos) << "addresses, their checksum and the country";
    }

    const board::NamedProcess telnetd_{"telnetd"};
};

// The instances share the calling places between them.
constexpr size_t kShards = 6;
class EveryCall : public Faults, public testing::WithParamInterface<size_t> {};

TEST_P(EveryCall, MayFailOnce) {
    setenv("LIST_CALLS", "/var/calls", 1);
    EXPECT_EQ(runService(kSoon), everyCommand().size()) << "without a fault";
    const std::vector<std::string> calls = listedCalls();
    EXPECT_GT(calls.size(), 90U);
    for (size_t i = GetParam(); i < calls.size(); i += kShards) {
        SetUp();
        setenv("FAIL_CALL", calls[i].c_str(), 1);
        SCOPED_TRACE(calls[i]);
        runService(Milliseconds(1000));
        expectNothingElseOnTheFlash();
        TearDown();
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, EveryCall, testing::Range<size_t>(0, kShards));

// Covers what the service itself does not do: port_change, reading the output of commands in debug mode, and inserting
// a new record.
TEST_F(Faults, EveryCallOfAModeMayFailOnce) {
    configure("SYSTEM_PORT_CHANGE = lan0_lan1\nSYSTEM_MAC_ARGS = \"6 1 1 1_0\"\nSYSTEM_ART_PART = 6\n");
    board::writeFile("/var/debug", "");
    for (const std::string mode : {"port_change", "mac 1"}) {
        init_configuration();
        board::run("LIST_CALLS=/var/calls fabtestd " + mode + " 2> /dev/null");
        EXPECT_GT(listedCalls().size(), 10U);
        for (const std::string &call : listedCalls()) {
            init_configuration();
            board::run("FAIL_CALL=" + call + " fabtestd " + mode + " 2> /dev/null");
            EXPECT_TRUE(mode == "port_change" || if_exist("SYSTEM_BRAND")) << call;
        }
        board::run("rm -f /var/calls /var/debug");
    }
}

// The station leaves at every step of the session: before the payload, in the middle of it, or after it. The receive
// file then holds what was sent, and the command is carried out with that.
TEST_F(Faults, TheStationMayGoAtAnyStep) {
    for (const auto &[command, payload, reply] : everyCommand()) {
        for (size_t half = 0; half <= 2; half += payload.empty() ? 2 : 1) {
            SetUp();
            SCOPED_TRACE(command + ", " + std::to_string(half) + "/2");
            std::optional<Session> session = startSession();
            const std::string part = payload.substr(0, payload.size() * half / 2);
            ask(*session, "PING");
            session->sendCommand(command);
            session->sendBytes(part);
            if (payload.empty() && half == 2) session->receiveReply(kSoon);
            if (payload.empty() && command.size() % 2 == 0) resetAtEnd(*session);
            session.reset();
            EXPECT_EQ(serviceStatus(), 0);
            EXPECT_EQ(board::log().back(), "closeSocket (Socketid = 3)");
            expectNothingElseOnTheFlash();
            if (payload.empty()) continue;
            const bool cut = command.starts_with("FW IMAGE") && part.size() >= 33;
            EXPECT_EQ(board::readFile("/tmp/fabtestd.file"), part.substr(0, part.size() - (cut ? 33 : 0)));
            const std::string kernel = part + std::string(kPartition - part.size(), '\xFF');
            EXPECT_TRUE(!command.starts_with("FW KERNEL") || board::readFile("/flash/mtd2") == kernel);
        }
    }
}

// The handlers may run while the daemon is in syslog, in the allocator, receiving or flashing.
TEST_F(Faults, BurstsOfSignalsNeitherBlockNorLoseAnything) {
    Session session = startSession();
    std::atomic<int> sent = 0;
    std::thread sender([&] {
        for (; sent < 3000; ++sent) {
            kill(service_, sent % 2 == 0 ? SIGUSR2 : SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    const std::string data(kPartition, '\xAA');
    do {
        EXPECT_EQ(ask(session, "PING"), "PING 2");
        board::writeFile("/flash/mtd2", std::string(kPartition, 'U'));
        session.sendCommand("FW KERNEL " + std::to_string(kPartition));
        for (size_t i = 0; i < kPartition; i += 4096) session.sendBytes(data.substr(i, 4096));
        EXPECT_EQ(session.receiveReply(kSoon), "OK");
        EXPECT_TRUE(board::readFile("/flash/mtd2") == data);
    } while (sent < 3000);
    sender.join();
    // Pending signals are delivered in the order of their numbers, so send the last SIGUSR1 when none is pending.
    EXPECT_EQ(ask(session, "PING"), "PING 2");
    kill(service_, SIGUSR1);
    EXPECT_EQ(ask(session, "WAITING"), "OK");
}

// While the log daemon is slow, the release arrives before the reset's handler has returned. The release must decide.
TEST_F(Faults, SignalsCloseTogetherKeepTheirOrderAndTheirLines) {
    Session session = startSession();
    EXPECT_EQ(ask(session, "PING"), "PING 2");
    session.sendCommand("FACTORY RESET");
    ASSERT_TRUE(board::waitForLog("cmd=FACTORY RESET"));
    const std::string process = "/proc/" + std::to_string(service_);
    const std::string sleeping = std::to_string(SYS_clock_nanosleep) + " ";
    ASSERT_TRUE(board::waitFor(10, [&] { return board::readFile(process + "/syscall").starts_with(sleeping); }));
    const pid_t daemon = board::pidOf("syslogd");
    kill(daemon, SIGSTOP);
    const std::string state = "/proc/" + std::to_string(daemon) + "/stat";
    ASSERT_TRUE(board::waitFor(10, [&] { return board::readFile(state).find(") T") != std::string::npos; }));
    const station::Socket filler(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un log = {AF_UNIX, "/dev/log"};
    while (sendto(filler.descriptor(), "<15>x", 5, 0, reinterpret_cast<const sockaddr *>(&log), sizeof log) > 0) {
    }
    kill(service_, SIGUSR2);
    EXPECT_TRUE(board::waitFor(10, [&] {
        return board::readFile(process + "/status").find("SigBlk:\t0000000000000000") == std::string::npos;
    })) << "the handler runs";
    kill(service_, SIGUSR1);
    kill(daemon, SIGCONT);
    EXPECT_EQ(session.receiveReply(kSoon), "WAITING FACTORY RESET");
    EXPECT_EQ(ask(session, "WAITING"), "OK");
    EXPECT_TRUE(board::waitForLog("(SIGUSR1)"));
    // With an identity, since a log daemon may take a blank at the 16th place for the end of a time stamp.
    EXPECT_EQ(board::run("sed -n 's/.* user.alert \\(.*Signal.*\\)/\\1/p' /var/log/messages"),
              "fabtestd: Factory Reset Signal (SIGUSR2)\nfabtestd: Factory Reset Signal (SIGUSR1)\n");
}

// Without a configuration, or without /proc and with a full /tmp, the service still replies to every command. A silence
// of several receive timeouts changes nothing.
TEST_F(Faults, ABoardThatLacksPartsServesOn) {
    const struct {
        const char *before, *during, *after, *ping, *report;
    } cases[] = {
        {"rm -r /etc/* /etc/.config", "true", "true", "PING 0", ""},
        {"mount -t tmpfs -o size=4k full /tmp; head -c 4096 /dev/zero > /tmp/filled", "mount -t tmpfs none /proc",
         "umount -l /proc /tmp", "PING 2", "Memory: 0 kB"},
    };
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // the leak check needs /proc
    for (const auto &test : cases) {
        SetUp();
        board::run(test.before);
        {
            Session session = startSession();
            board::run(test.during);
            std::this_thread::sleep_for(std::chrono::seconds(1));
            for (const Step &step : everyCommand()) {
                if (step.command.starts_with("FW IMAGE")) continue;  // would wait for a process in /proc for ever
                const std::string reply = ask(session, step.command, step.payload);
                EXPECT_THAT(reply, MatchesRegex(step.reply)) << step.command;
                EXPECT_THAT(reply, HasSubstr(step.command == "PING"   ? test.ping
                                             : step.command == "INFO" ? test.report
                                                                      : ""));
            }
        }
        board::run(test.after);
        EXPECT_EQ(serviceStatus(), 0);
    }
}

// Runs consecutive sessions and then a long one. SOAK multiplies their number. Nothing may be used up.
TEST_F(Faults, NothingIsUsedUp) {
    const int times = getenv("SOAK") != nullptr ? atoi(getenv("SOAK")) : 1;
    // Let the sanitizer return freed memory at once, so that memory use can be compared. Other tests check for leaks.
    setenv("ASAN_OPTIONS", "quarantine_size_mb=0:thread_local_quarantine_size_kb=0:detect_leaks=0", 1);
    const auto askEverything = [](Session &session) {
        for (const Step &step : everyCommand()) {
            if (step.command != "BYE" && !step.command.starts_with("FW I")) ask(session, step.command, step.payload);
        }
    };
    const std::string count = "ls /tmp; grep -c ^ /proc/sysvipc/shm /proc/sysvipc/sem /proc/net/unix";
    std::string before;
    for (int i = 0; i < 30 * times; ++i) {
        Session session = startSession();
        if (i % 10 == 0) askEverything(session);
        ask(session, "BYE");
        session.expectClose(kSoon);
        EXPECT_EQ(serviceStatus(), 0);
        if (i % 10 == 0) board::clearLog();
        if (i == 0) before = board::run(count);
    }
    EXPECT_EQ(board::run(count), before) << "files, shared memory, semaphores, sockets";
    Session session = startSession();
    const std::string process = "/proc/" + std::to_string(service_);
    const auto memory = [&] { return std::stol(board::run("sed -n s/^VmRSS://p " + process + "/status")); };
    long used = 0;
    for (int i = 0; i < 3000 * times; ++i) {
        ask(session, i % 3 == 0 ? "PING" : i % 3 == 1 ? "WAITING" : "nonsense");
        if (i % 500 == 0) askEverything(session);
        if (i == 1000) before = board::run("ls " + process + "/fd");
        if (i == 1000) used = memory();
    }
    EXPECT_LE(memory(), used + 512) << "kB";
    EXPECT_EQ(board::run("ls " + process + "/fd"), before);
}

}  // namespace
