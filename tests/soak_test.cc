// Long runs: 1,000 sessions after each other, and a session of 100,000 commands. What they use at the end is what they
// used at the start.

#include <algorithm>
#include <filesystem>

#include "tests/service.h"

using station::Milliseconds;
using station::Session;

namespace {

constexpr Milliseconds kSoon{20000};

size_t entriesOf(const std::string &folder) {
    namespace fs = std::filesystem;
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

size_t linesOf(const std::string &file) {
    const std::string text = board::readFile(file);
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

class Soak : public board::ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        // What is freed goes back at once, so that memory can be compared. Leaks of a session are searched elsewhere.
        setenv("ASAN_OPTIONS", "quarantine_size_mb=0:thread_local_quarantine_size_kb=0:detect_leaks=0", 1);
        board::writeFile("/dev/mtd5", std::string(65536, '\x55'));
        // The background ping of each start would be still there at the next.
        std::filesystem::remove("/bin/ping");
        board::writeFile("/bin/ping", "#!/bin/sh\n");
        std::filesystem::permissions("/bin/ping", std::filesystem::perms::owner_all);
    }

    static void ask(Session &session, const std::string &command, const std::string &payload = {}) {
        session.sendCommand(command);
        session.sendBytes(payload);
        session.receiveReply(kSoon);
    }

    static void askEverything(Session &session) {
        const std::string script = "#!/bin/sh\ntrue\n";
        ask(session, "SHELL " + std::to_string(script.size()), script);
        ask(session, "FW CONFIG 3", "abc");
        for (const char *command : {"MAC 00:11:22:33:44:55", "COUNTRY US", "INFO", "VERSION 0"}) ask(session, command);
    }
};

TEST_F(Soak, AThousandSessions) {
    const size_t processes = entriesOf("/proc");  // beside what never changes
    std::vector<size_t> before;
    for (int i = 0; i < 1000; ++i) {
        Session session = startSession();
        ask(session, "PING");
        if (i % 10 == 0) askEverything(session);
        ask(session, "BYE");
        session.expectClose(kSoon);
        ASSERT_TRUE(hasEnded());
        if (i % 100 == 0) board::clearLog();
        const std::vector<size_t> now = {entriesOf("/tmp"), linesOf("/proc/sysvipc/shm"), linesOf("/proc/sysvipc/sem"),
                                         linesOf("/proc/net/unix")};
        if (i == 0) before = now;
        ASSERT_EQ(now, before) << "files, shared memory, semaphores, sockets; session " << i;
    }
    EXPECT_TRUE(board::waitFor(5, [=] { return entriesOf("/proc") == processes; })) << entriesOf("/proc");
}

TEST_F(Soak, AHundredThousandCommands) {
    Session session = startSession();
    const std::string process = "/proc/" + std::to_string(servicePid());
    const auto memory = [&] {
        const std::string status = board::readFile(process + "/status");
        return std::stol(status.substr(status.find("VmRSS:") + 6));
    };
    long before = 0;
    size_t descriptors = 0;
    for (int i = 0; i < 100000; ++i) {
        ask(session, i % 3 == 0 ? "PING" : i % 3 == 1 ? "WAITING" : "nonsense");
        if (i % 500 == 0) askEverything(session);
        if (i % 1000 == 0) board::clearLog();
        if (i != 1000) continue;
        before = memory();
        descriptors = entriesOf(process + "/fd");
    }
    EXPECT_LE(memory(), before + 512) << "kB";
    EXPECT_EQ(entriesOf(process + "/fd"), descriptors);
}

}  // namespace
