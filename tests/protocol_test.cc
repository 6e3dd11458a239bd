// Replays the sessions of docs/protocol.md, byte for byte, against the daemon on the native board.

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <fstream>
#include <iomanip>
#include <optional>
#include <sstream>

#include "tests/service.h"

namespace {

std::string contentOf(const std::string &path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

std::string boardFile(const std::string &name) { return contentOf(SOURCES "/board/rootfs/" + name); }

// Read before the test goes onto the board, where the sources are not.
const std::string kDocument = contentOf(SOURCES "/docs/protocol.md");
const std::string kSettings = boardFile("etc/.config");
const std::pair<const char *, std::string> kBoardFiles[] = {
    {"/etc/system.info", boardFile("etc/system.info")}, {"/etc/html.info", boardFile("etc/html.info")},
    {"/etc/entry.info", boardFile("etc/entry.info")},   {"/etc/swconfig/switch0", boardFile("etc/swconfig/switch0")},
    {"/sbin/swconfig", boardFile("sbin/swconfig")},     {"/dev/mtdblock6", std::string(65536, '\xFF')},
};

// The bytes of "1b" or "00*60".
std::string hexBytes(const std::string &token) {
    const size_t star = token.find('*');
    const size_t count = star == std::string::npos ? 1 : std::stoul(token.substr(star + 1));
    return std::string(count, static_cast<char>(std::stoi(token, nullptr, 16)));
}

class Protocol : public board::ServiceTest {
protected:
    // The board of docs/board-configuration.md, and its connection.
    void SetUp() override {
        ServiceTest::SetUp();
        configure(kSettings);
        for (const auto &[path, content] : kBoardFiles) board::writeFile(path, content);
        system("chmod 755 /sbin/swconfig; /usr/bin/ip link add wlan0 type veth peer name wlan1 2> /dev/null");
        received_.clear();
        session_.emplace(startSession());
        const timeval limit = {20, 0};
        setsockopt(session_->descriptor(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }

    bool receiveMore() {
        char part[2048];
        const ssize_t length = recv(session_->descriptor(), part, sizeof part, 0);
        if (length > 0) received_.append(part, static_cast<size_t>(length));
        return length > 0;
    }

    // Takes what the board sends: these bytes at once, or behind others.
    bool take(const std::string &bytes, bool behindOthers) {
        for (;;) {
            const size_t at = received_.find(bytes);
            if (at == 0 || (behindOthers && at != std::string::npos)) {
                received_.erase(0, at + bytes.size());
                return true;
            }
            if ((!behindOthers && received_.size() >= bytes.size()) || !receiveMore()) return false;
        }
    }

    // As often as it takes: the command may not have come to wait for it yet.
    void signalUntilReplied(int signal) {
        pollfd reply = {session_->descriptor(), POLLIN, 0};
        for (int i = 0; i < 100 && poll(&reply, 1, 100) == 0; ++i) signalService(signal);
    }

    bool replay(const std::string &line) {
        if (line == "< close") return received_.empty() && !receiveMore();
        if (line == "> close") return session_.reset(), true;
        if (line[0] == '!') return signalUntilReplied(line == "! SIGUSR1" ? SIGUSR1 : SIGUSR2), true;
        if (line[0] != '>' && line[0] != '<') return false;
        std::istringstream tokens(line.substr(1));
        std::string token, sent;
        bool behindOthers = false;
        while (!(tokens >> std::ws).eof()) {
            const bool text = tokens.peek() == '"';
            tokens >> std::quoted(token);
            const bool others = std::exchange(behindOthers, token == "...");
            if (behindOthers) continue;
            if (!text) token = hexBytes(token);
            if (line[0] == '>') sent += token;
            if (line[0] == '<' && !take(token, others)) return false;
        }
        session_->sendBytes(sent);
        return true;
    }

    std::optional<station::Session> session_;
    std::string received_;
};

TEST_F(Protocol, SessionsGoAsTheDocumentSays) {
    const board::NamedProcess telnetd("telnetd");
    std::istringstream document(kDocument);
    int sessions = 0;
    for (std::string line; std::getline(document, line);) {
        if (line != "```session") continue;
        if (sessions++ > 0) SetUp();
        while (std::getline(document, line) && line != "```") {
            ASSERT_TRUE(replay(line)) << line << "\ngot " << testing::PrintToString(received_);
        }
        EXPECT_TRUE(hasEnded());
    }
    EXPECT_GT(sessions, 0);
}

}  // namespace
