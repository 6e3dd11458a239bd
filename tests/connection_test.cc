// The daemon as the station meets it: the real binary on the native board, the station's library at the other end of
// the cable.

#include <signal.h>
#include <sys/socket.h>

#include <filesystem>
#include <optional>
#include <thread>

#include "support/configuration.h"
#include "tests/service.h"

using station::Milliseconds;
using station::Session;
using station::SessionError;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr Milliseconds kSoon{10000};

class Connection : public board::ServiceTest {
protected:
    // The daemon's log from the line that names its socket on.
    static std::vector<std::string> sessionLog() {
        std::vector<std::string> texts = board::logTexts();
        auto start = texts.begin();
        while (start != texts.end() && !start->starts_with("Socketid")) ++start;
        return {start, texts.end()};
    }
};

TEST_F(Connection, EveryCommandGetsItsReplyInItsFrame) {
    Session session = startSession();
    const struct {
        std::string command, reply;
    } cases[] = {
        {"PING", "PING 2"},          {"PINGPONG", "PING 2"},   {"ping", "UNKNOWN"},
        {"MAC", "UNKNOWN"},          {"WAITING", "OK"},        {"MAC x", "MAC 4"},
        {"COUNTRY ", "OK"},          {"FW", "UNKNOWN"},        {"WAITING FACTORY RESET", "OK"},
        {" PING", "UNKNOWN"},        {"FW KERNEL", "UNKNOWN"}, {"\x80\xFF\xFE", "UNKNOWN"},
        {"FACTORY RESE", "UNKNOWN"}, {"%s%n%d", "UNKNOWN"},    {std::string(64, 'x'), "UNKNOWN"},
    };
    for (const auto &test : cases) {
        session.sendCommand(test.command);
        EXPECT_EQ(session.receiveReply(kSoon), test.reply) << test.command;
        session.sendBytes(test.command);
        EXPECT_EQ(session.receiveReply(kSoon), test.reply) << test.command << ", bare";
    }
    session.sendBytes("BYEBYE");
    EXPECT_EQ(session.receiveReply(kSoon), "BYE");
    session.expectClose(kSoon);
    EXPECT_TRUE(hasEnded());
}

TEST_F(Connection, ASessionIsLoggedStepByStep) {
    Session session = startSession();
    session.sendBytes("PING");
    session.receiveReply(kSoon);
    session.sendCommand("BYE");
    session.receiveReply(kSoon);
    session.expectClose(kSoon);
    EXPECT_THAT(sessionLog(), ElementsAre("Socketid = 3", "====== ParseCmd len=4, cmd=PING ======",
                                          "====== send pkbuf=PING 2 ======", "====== send pktlen=64 ======",
                                          "====== ParseCmd len=64, cmd=BYE ======", "====== send pkbuf=BYE ======",
                                          "====== send pktlen=64 ======", "closeSocket (Socketid = 3)"));
    for (const board::LogMessage &message : board::logMessages()) EXPECT_EQ(message.priority, 9) << message.text;
}

TEST_F(Connection, TheDaemonTriesUntilAStationListens) {
    start("daemon");
    ASSERT_TRUE(board::waitForLog("connecting 3", 20));
    EXPECT_THAT(board::logTexts(), AllOf(Contains("connecting 1"), Contains("connecting 1 (Connection refused)"),
                                         Contains("connecting 2"), Contains("connecting 2 (Connection refused)")));
    station::Listener listener = listenAsStation();
    Session session = listener.accept(kSoon);
    session.sendCommand("PING");
    EXPECT_EQ(session.receiveReply(kSoon), "PING 2");
}

// The station has gone before the reply: the send fails, which must not end the process by a signal, and the next
// receive ends it in order.
TEST_F(Connection, AReplyToAStationThatHasGoneIsOnlyLogged) {
    std::optional<Session> session = startSession();
    session->sendCommand("FACTORY RESET");
    ASSERT_TRUE(board::waitForLog("cmd=FACTORY RESET", 5));
    waitUntilItSleeps();
    session->reset();
    session.reset();
    signalService(SIGUSR2);
    EXPECT_TRUE(hasEnded());
    EXPECT_THAT(
        sessionLog(),
        ElementsAre("Socketid = 3", HasSubstr("cmd=FACTORY RESET"), "Factory Reset Signal (SIGUSR2)",
                    "====== send pkbuf=WAITING FACTORY RESET ======", "fabtestd(send)", "closeSocket (Socketid = 3)"));
}

TEST_F(Connection, TheFactoryResetHandshake) {
    Session session = startSession();
    session.sendCommand("FACTORY RESET");
    ASSERT_TRUE(board::waitForLog("cmd=FACTORY RESET", 5));
    EXPECT_THROW(session.receiveReply(Milliseconds(1500)), SessionError) << "nothing has signalled yet";
    signalService(SIGUSR2);
    EXPECT_EQ(session.receiveReply(kSoon), "WAITING FACTORY RESET");
    session.sendCommand("WAITING");
    ASSERT_TRUE(board::waitForLog("cmd=WAITING", 5));
    EXPECT_THROW(session.receiveReply(Milliseconds(1500)), SessionError) << "not released yet";
    signalService(SIGUSR1);
    EXPECT_EQ(session.receiveReply(kSoon), "OK");

    session.sendCommand("FACTORY RESET");
    ASSERT_TRUE(
        board::waitFor(5, [] { return std::string(board::logTexts().back()).find("RESET ===") != std::string::npos; }));
    waitUntilItSleeps();
    signalService(SIGUSR1);
    EXPECT_EQ(session.receiveReply(kSoon), "WAITING FACTORY RESET") << "the release alone ends the wait as well";

    signalService(SIGUSR2);
    session.sendCommand("WAITING");
    EXPECT_THROW(session.receiveReply(Milliseconds(1500)), SessionError) << "a reset outside a handshake counts";
    signalService(SIGUSR1);
    EXPECT_EQ(session.receiveReply(kSoon), "OK");
}

// The line that says so must not leave descriptor 0 to the connection.
TEST_F(Connection, AFullConfigurationTableIsNoObstacle) {
    std::string text = board::readFile(kDefaultConfiguration);
    for (int i = 0; i < 140; ++i) text += "KEY" + std::to_string(i) + " = x\n";
    configure(text);
    Session session = startSession();
    session.sendCommand("PING");
    EXPECT_EQ(session.receiveReply(kSoon), "PING 2");
}

// The daemon closes descriptors 0 to 2. glibc keeps a socket for the log only while it is connected to one, so without
// a log the connection's socket would be descriptor 0: the service then ends, and says so to nobody.
TEST_F(Connection, WithoutASystemLogDescriptorZeroEndsTheService) {
    station::Listener listener = listenAsStation();
    board::removeSystemLog();
    start("daemon");
    EXPECT_NO_THROW(listener.accept(kSoon).expectClose(kSoon));
    EXPECT_TRUE(hasEnded());
    board::restoreSystemLog();
}

// Nothing a program prints enters the protocol; and it has an output, without which a shell does not even start it.
TEST_F(Connection, ProgramsOfTheBoardRunApartFromTheConnection) {
    station::Listener listener = listenAsStation();
    // The reboot command is a program of the board, run while the connection stands.
    board::writeFile("/tmp/busybox", "");
    board::writeFile("/tmp/reboot",
                     "#!/bin/sh\necho printed && echo printed >&2 && ls -l /proc/self/fd > /tmp/descriptors\n");
    std::filesystem::permissions("/tmp/reboot", std::filesystem::perms::owner_all);
    board::NamedProcess resetProcess("hardware_reset");
    start("daemon");
    Session session = listener.accept(kSoon);
    session.sendCommand("REBOOT");
    EXPECT_EQ(session.receiveReply(kSoon), "OK");
    EXPECT_EQ(resetProcess.waitForEnd(), -SIGTERM);
    EXPECT_THAT(board::readFile("/tmp/descriptors"), AllOf(HasSubstr("/dev/null"), testing::Not(HasSubstr("socket"))));
    session.sendCommand("PING");
    EXPECT_EQ(session.receiveReply(kSoon), "PING 2");
}

}  // namespace
