// What the service meets on its board: the log daemons, another process that is stuck, signals close together, an
// interface that is not there.

#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "support/configuration.h"
#include "tests/service.h"

using station::Milliseconds;
using station::Session;
using testing::HasSubstr;

namespace {

constexpr Milliseconds kSoon{20000};

class Surroundings : public board::ServiceTest {
protected:
    static std::string ask(Session &session, const std::string &command, const std::string &payload = {}) {
        session.sendCommand(command);
        session.sendBytes(payload);
        return session.receiveReply(kSoon);
    }
};

// A log daemon that reads only when it is asked to.
class SlowLog {
public:
    SlowLog() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        board::removeSystemLog();
        sockaddr_un address = {AF_UNIX, "/dev/log"};
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        const timeval limit = {20, 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~SlowLog() {
        close(socket_);
        unlink("/dev/log");
        board::restoreSystemLog();
    }

    void fill() const {
        const int sender = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = {AF_UNIX, "/dev/log"};
        while (sendto(sender, "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&address), sizeof address) > 0) {
        }
        close(sender);
    }

    // What arrives up to the message that contains `part`.
    std::string readUntil(const char *part) const {
        char text[1024] = "";
        while (strstr(text, part) == nullptr) {
            const ssize_t length = recv(socket_, text, sizeof text - 1, 0);
            if (length < 0) return "";
            text[length] = '\0';
        }
        return text;
    }

private:
    int socket_;
};

// One log daemon takes 16 characters behind the priority for a time when the last one is a blank; the other one looks
// at more of them.
std::string shownByOne(const std::string &text) { return text.size() > 16 && text[15] == ' ' ? text.substr(16) : text; }
std::string shownByOther(const std::string &text) {
    return text.size() > 16 && text[3] == ' ' && text[6] == ' ' && text[9] == ':' ? shownByOne(text) : text;
}

// While the log daemon is slow, the release comes before the reset's handler is through: it is the later one.
TEST_F(Surroundings, SignalsCloseTogetherKeepTheirOrderAndTheirLines) {
    Session session = startSession();
    EXPECT_EQ(ask(session, "PING"), "PING 2");
    {
        const SlowLog log;
        session.sendCommand("FACTORY RESET");
        log.readUntil("cmd=FACTORY RESET");
        waitUntilItSleeps();
        log.fill();
        signalService(SIGUSR2);
        const std::string status = "/proc/" + std::to_string(servicePid()) + "/status";
        ASSERT_TRUE(board::waitFor(10, [&] {
            return board::readFile(status).find("SigBlk:\t0000000000000000") == std::string::npos;
        })) << "the handler runs";
        signalService(SIGUSR1);
        for (const char *signal : {"(SIGUSR2)", "(SIGUSR1)"}) {
            const std::string text = log.readUntil(signal);
            ASSERT_EQ(text.substr(0, 3), "<9>") << signal;
            const std::string line = std::string("Factory Reset Signal ") + signal + "\n";
            EXPECT_THAT(shownByOne(text.substr(3)), HasSubstr(line));
            EXPECT_THAT(shownByOther(text.substr(3)), HasSubstr(line));
        }
    }
    EXPECT_EQ(session.receiveReply(kSoon), "WAITING FACTORY RESET");
    EXPECT_EQ(ask(session, "WAITING"), "OK");
}

// Its standard output goes nowhere, but it has one.
TEST_F(Surroundings, ScriptsHaveAnOutputWithoutTheInterfaceOfTheDiscovery) {
    ASSERT_EQ(system("/bin/ip link set eth0 down; /bin/ip link set eth0 name lan0; /bin/ip link set lan0 up"), 0);
    station::Listener listener = listenAsStation();
    start("qconly");
    Session session = listener.accept(kSoon);
    const std::string script = "#!/bin/sh\necho printed && echo printed >&2 && echo both > /tmp/printed\n";
    ask(session, "SHELL " + std::to_string(script.size()), script);
    EXPECT_EQ(board::readFile("/tmp/printed"), "both\n");
    EXPECT_EQ(system("/bin/ip link set lan0 down; /bin/ip link set lan0 name eth0"), 0);
}

// Every address that is recorded is a turn of its own.
TEST_F(Surroundings, AProcessThatKeepsItsTurnIsWaitedForOnce) {
    sembuf taken = {0, 1, SEM_UNDO};
    ASSERT_EQ(semop(semget(kConfigurationKey, 1, IPC_CREAT | 0777), &taken, 1), 0);
    board::writeFile("/dev/mtdblock6", std::string(65536, '\xFF'));
    EXPECT_EQ(run({"mac", "02:00:00:00:00:01"}).status, 0);
    sembuf givenBack = {0, -1, SEM_UNDO};
    EXPECT_EQ(semop(semget(kConfigurationKey, 1, 0777), &givenBack, 1), 0);
    std::vector<std::string> texts = board::logTexts();
    std::erase_if(texts, [](const std::string &text) { return !text.starts_with("configuration:"); });
    EXPECT_THAT(texts, testing::ElementsAre(HasSubstr("keeps its turn")));
    EXPECT_STREQ(RETURN_DEF_STR("PORT1_ORIG_MAC"), "02:00:00:00:00:01");
}

}  // namespace
