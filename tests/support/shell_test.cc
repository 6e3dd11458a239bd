#include "support/shell.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "tests/native_board.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(M, HoldsThirtyTwoResultsOf511Characters) {
    std::vector<char *> results;
    for (int i = 0; i < 32; ++i) results.push_back(M("%d", i));
    for (int i = 0; i < 32; ++i) EXPECT_EQ(results[static_cast<size_t>(i)], std::to_string(i));
    EXPECT_EQ(M("again"), results[0]);
    EXPECT_EQ(M("%s", std::string(600, 'x').c_str()), std::string(511, 'x'));
}

class MySystem : public board::NativeBoardTest {};

TEST_F(MySystem, RunsAndLogsTheLine) {
    EXPECT_EQ(my_system("echo %s > /tmp/out", "a"), 0);
    EXPECT_EQ(board::readFile("/tmp/out"), "a\n");
    EXPECT_EQ(WEXITSTATUS(my_system("exit 3")), 3);
    const auto messages = board::logMessages();
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].text, "echo a > /tmp/out\n");
    EXPECT_EQ(messages[0].priority, LOG_USER | LOG_ALERT);
}

TEST_F(MySystem, DebugModeShowsWhatTheCommandPrints) {
    board::writeFile("/var/debug", "");
    const std::string longLine(300, 'x');
    const struct {
        std::string line;
        std::vector<std::string> log;
    } cases[] = {
        {"echo a > /dev/null", {"echo a 2>&1", "      msg: a"}},
        {"echo a >/tmp/f; echo b > /dev/null", {"echo a 2>&1", "      msg: a"}},
        {"echo a /dev/null", {"echo a /dev/null", "      msg: a /dev/null"}},
        {"echo /dev/null >", {"echo /dev/null 2>&1", "      msg: /dev/null"}},
        {"echo one; echo two", {"echo one; echo two", "      msg: one", "      msg: two"}},
        {"printf ab", {"printf ab", "      msg: a"}},
        // A piece of 255 characters loses its last one, like every piece.
        {"echo " + longLine,
         {"echo " + longLine, "      msg: " + longLine.substr(0, 254), "      msg: " + longLine.substr(0, 45)}},
    };
    for (const auto &test : cases) {
        SetUp();
        board::writeFile("/var/debug", "");
        EXPECT_EQ(my_system("%s", test.line.c_str()), -1);
        EXPECT_EQ(board::logTexts(), test.log) << test.line;
    }
}

class MyConnect : public board::NativeBoardTest {
protected:
    static sockaddr_in address(const char *host, uint16_t port) {
        sockaddr_in result = {};
        result.sin_family = AF_INET;
        result.sin_port = htons(port);
        inet_aton(host, &result.sin_addr);
        return result;
    }

    static int tryConnect(int socket, const sockaddr_in &to, int seconds) {
        return my_connect_t(socket, reinterpret_cast<const sockaddr *>(&to), sizeof to, seconds);
    }

    static bool isBlocking(int socket) { return (fcntl(socket, F_GETFL) & O_NONBLOCK) == 0; }
};

TEST_F(MyConnect, LeavesTheSocketBlockingOnlyOnSuccess) {
    const int listening = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in here = address("127.0.0.1", 0);
    socklen_t length = sizeof here;
    ASSERT_EQ(bind(listening, reinterpret_cast<sockaddr *>(&here), sizeof here), 0);
    getsockname(listening, reinterpret_cast<sockaddr *>(&here), &length);

    const int client = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(tryConnect(client, here, 1), -1) << "nobody listens yet";
    EXPECT_TRUE(board::kEmulated || errno == ECONNREFUSED) << strerror(errno);
    EXPECT_FALSE(isBlocking(client));

    ASSERT_EQ(listen(listening, 1), 0);
    const int second = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(tryConnect(second, here, 0), 0);
    EXPECT_TRUE(isBlocking(second));
    for (const int descriptor : {listening, client, second}) close(descriptor);

    EXPECT_EQ(tryConnect(-1, here, 1), -1);
}

TEST_F(MyConnect, GivesUpAtTheTimeLimit) {
    // The station's network swallows what goes to an address it was told to drop.
    ASSERT_EQ(system("/bin/ip link set eth0 up; /bin/ip addr add 192.168.1.1/24 dev eth0"), 0);
    board::inStationNetwork([] { ASSERT_EQ(system("/usr/bin/ip route add blackhole 10.9.9.9"), 0); });
    ASSERT_EQ(system("/bin/ip route add 10.9.9.9 via 192.168.1.2"), 0);
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(tryConnect(client, address("10.9.9.9", 80), 1), -1);
    EXPECT_EQ(errno, EINPROGRESS);
    EXPECT_FALSE(isBlocking(client));
    close(client);
}

}  // namespace
