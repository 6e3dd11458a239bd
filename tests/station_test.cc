// The station against boards that misbehave, and plans that cannot be run.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "station/line/run.h"
#include "station/plan/plan.h"
#include "station/wire/listener.h"

using namespace std::string_literals;
using station::Milliseconds;
using station::Session;
using station::SessionError;
using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

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

class PlanTest : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/plan-test.XXXXXX";
        folder_ = mkdtemp(name);
    }
    void TearDown() override { fs::remove_all(folder_); }

    fs::path write(const std::string &name, const std::string &content) const {
        std::ofstream(folder_ / name) << content;
        return folder_ / name;
    }

    fs::path folder_;
};

TEST_F(PlanTest, StepsAreSentAndJudged) {
    write("payload.bin", "12345");
    const station::Plan plan =
        station::loadPlan(write("plan.yaml", "- {send: 'FW KERNEL {size}', upload: payload.bin, expect: OK}\n"
                                             "- {send: INFO, match: '^PI[N]G', bare: true}\n"
                                             "- {send: BYE, expect: BYE, closes: true, timeout: 2.5}\n"));
    ASSERT_EQ(plan.steps.size(), 3U);
    EXPECT_EQ(plan.name, "plan");
    EXPECT_EQ(plan.steps[2].timeout, Milliseconds(2500));

    Pair pair;
    bool connected = true;
    pair.boardSends(frame("OK"));
    EXPECT_TRUE(station::runStep(pair.session(), plan.steps[0], connected).passed());
    EXPECT_EQ(pair.boardReceives(69), frame("FW KERNEL 5") + "12345");
    pair.boardSends(frame("nothing"));
    const station::StepResult wrong = station::runStep(pair.session(), plan.steps[1], connected);
    EXPECT_FALSE(wrong.passed());
    EXPECT_EQ(wrong.failure, "expected a match of \"^PI[N]G\", got \"nothing\"");
    EXPECT_EQ(pair.boardReceives(4), "INFO");
    EXPECT_TRUE(connected) << "a wrong reply does not end the session";
    std::thread board([&] {
        pair.boardReceives(64);
        pair.boardSends(frame("BYE"));
        pair.hangUp();
    });
    const station::StepResult last = station::runStep(pair.session(), plan.steps[2], connected);
    board.join();
    EXPECT_EQ(last.failure, "");
    EXPECT_FALSE(connected);
}

TEST_F(PlanTest, FaultsAreNamedWithTheirPlace) {
    const struct {
        const char *plan, *fault;
    } cases[] = {
        {"- {send: PING}\n", "plan.yaml:1:3: a command needs \"expect\" or \"match\""},
        {"- {expect: OK}\n", "plan.yaml:1:3: a step needs \"send\", \"script\" or \"verify\""},
        {"- send: PING\n  expect: OK\n  timeuot: 3\n", "plan.yaml:3:3: unknown key \"timeuot\""},
        {"- {send: PING, expect: OK, match: OK}\n", "exclude each other"},
        {"- {send: PING, match: '(['}\n", "plan.yaml:1:23: bad expression"},
        {"- {send: PING, expect: OK, upload: none.bin}\n", "plan.yaml:1:36: no file"},
        {"- {send: PING, expect: OK, timeout: soon}\n", "expected a number of seconds"},
        {"- {send: PING, expect: OK, timeout: -1}\n", "time limit"},
        {"- {send: PING, expect: OK, bare: maybe}\n", "expected true or false"},
        {"- {send: PING, expect: [OK]}\n", "expected a text"},
        {"- {send: '', expect: OK}\n", "empty command"},
        {"- {send: '12345678901234567890123456789012345678901234567890123456789012345', expect: OK}\n",
         "at most 64 bytes"},
        {"send: PING\n", "a plan is a list of steps"},
        {"", "a plan is a list of steps"},
        {"- PING\n", "a step is a map of keys"},
        {"- {send: PING\n", "plan.yaml:2:1"},
        {"- {send: PING, expct: OK}\n- {send: PING}\n", "plan.yaml:1:16: unknown key \"expct\" in a \"send\" step\n"},
        {"- {send: PING, expct: OK}\n- {send: PING}\n", "plan.yaml:2:3: a command needs"},
        {"- {send: PING, expect: OK, expect: OK}\n", "plan.yaml:1:28: \"expect\" stands twice"},
        {"- {verify: plan.yaml}\n", "needs \"partition\""},
        {"- {verify: plan.yaml, partition: -1}\n", "not negative"},
        {"- {script: none.sh}\n", "no file"},
        {"- {script: plan.yaml, expect: OK}\n", "unknown key \"expect\" in a \"script\" step"},
        {"- {script: plan.yaml, status: 256}\n", "between 0 and 255"},
    };
    for (const auto &test : cases) {
        try {
            station::loadPlan(write("plan.yaml", test.plan));
            ADD_FAILURE() << "accepted: " << test.plan;
        } catch (const station::PlanError &error) {
            EXPECT_THAT(error.what(), HasSubstr(test.fault)) << test.plan;
        }
    }
    EXPECT_THROW(station::loadPlan(folder_ / "none.yaml"), station::PlanError);
}

}  // namespace
