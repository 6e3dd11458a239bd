// The station against boards that misbehave.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "station/wire/listener.h"

using namespace std::string_literals;
using station::Milliseconds;
using station::Session;
using station::SessionError;
using testing::HasSubstr;

namespace {

// A connected pair: the station's session and the board's bare socket.
class Pair {
public:
    Pair() : listener_("127.0.0.1", 0), board_(socket(AF_INET, SOCK_STREAM, 0)), session_(connect()) {}
    ~Pair() { hangUp(); }

    Session &session() { return session_; }
    void boardSends(const std::string &bytes) {
        ASSERT_EQ(send(board_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    std::string boardReceives(size_t length) {
        std::string bytes(length, '?');
        bytes.resize(static_cast<size_t>(recv(board_, bytes.data(), length, MSG_WAITALL)));
        return bytes;
    }
    void hangUp() {
        if (board_ >= 0) close(board_);
        board_ = -1;
    }

private:
    Session connect() {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(listener_.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(board_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return listener_.accept(Milliseconds(5000));
    }

    station::Listener listener_;
    int board_;
    Session session_;
};

std::string frame(std::string text) {
    text.resize(std::max<size_t>(64, text.size() + 1), '\0');
    return text;
}

TEST(Reply, ItsFrameMustBeExact) {
    const std::string exactly64(64, 'a');
    const std::string longer(65, 'b');
    const struct {
        const char *what;
        std::string bytes, text, failure;
    } cases[] = {
        {"short text", frame("OK"), "OK", ""},
        {"63 characters", frame(std::string(63, 'c')), std::string(63, 'c'), ""},
        {"64 characters without a NUL", exactly64, exactly64, ""},
        {"65 characters and a NUL", longer + '\0', longer, ""},
        {"the longest", frame(std::string(1499, 'd')), std::string(1499, 'd'), ""},
        {"no padding", "OK"s, "", "ended after 2 bytes"},
        {"text and NUL alone", "OK\0"s, "", "ended after 3 bytes"},
        {"65 bytes", frame("OK") + '\0', "", "1 bytes behind"},
        {"a NUL behind 64 characters", exactly64 + '\0', "", "1 bytes behind"},
        {"rubbish in the padding", "OK\0x"s + std::string(60, '\0'), "", "not filled with NUL"},
        {"two frames", frame("OK") + frame("OK"), "", "64 bytes behind"},
        {"padding behind a long text", longer + "\0\0"s, "", "1 bytes behind"},
        {"a long text without an end", std::string(200, 'e'), "", "ended after 200"},
        {"too long", frame(std::string(1500, 'f')), "", "1501 bytes"},
        {"nothing", "", "", "no reply within"},
    };
    for (const auto &test : cases) {
        Pair pair;
        pair.boardSends(test.bytes);
        try {
            EXPECT_EQ(pair.session().receiveReply(Milliseconds(400)), test.text) << test.what;
            EXPECT_EQ(test.failure, "") << test.what;
        } catch (const SessionError &error) {
            EXPECT_THAT(error.what(), HasSubstr(test.failure)) << test.what;
            EXPECT_NE(test.failure, "") << test.what << ": " << error.what();
        }
    }
}

TEST(Reply, MayArriveInPieces) {
    Pair pair;
    std::thread board([&] {
        for (const char c : frame(std::string(70, 'x'))) {
            pair.boardSends(std::string(1, c));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    EXPECT_EQ(pair.session().receiveReply(Milliseconds(5000)), std::string(70, 'x'));
    board.join();
}

TEST(Command, IsPaddedUnlessBare) {
    Pair pair;
    pair.session().sendCommand("PING");
    EXPECT_EQ(pair.boardReceives(64), frame("PING"));
    pair.session().sendBytes("PING");
    EXPECT_EQ(pair.boardReceives(4), "PING");
    EXPECT_THROW(pair.session().sendCommand(std::string(65, 'x')), SessionError);
}

}  // namespace
