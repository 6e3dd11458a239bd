// The real program on the native board, as the station and the operator use it.

#include <poll.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/socket.h>

#include <cstring>
#include <fstream>
#include <iomanip>
#include <regex>
#include <sstream>

#include "daemon/board.h"
#include "support/configuration.h"
#include "tests/service.h"

using namespace std::string_literals;
using station::Mac, station::Milliseconds, station::Session;
using testing::Contains, testing::HasSubstr, testing::Not;

namespace {

// Plays the sessions of docs/protocol.md and of tests/sessions, which have more kinds of lines.
class Sessions : public ServiceTest {
protected:
    Session &session() {
        if (!session_) session_.emplace(startSession());
        return *session_;
    }

    bool receiveMore() {
        char part[2048];
        const ssize_t length = arrives(20000) ? recv(session().descriptor(), part, sizeof part, 0) : 0;
        if (length > 0) received_.append(part, static_cast<size_t>(length));
        return length > 0;
    }

    bool arrives(int milliseconds) {
        pollfd reply = {session().descriptor(), POLLIN, 0};
        return poll(&reply, 1, milliseconds) > 0;
    }

    // Receives exactly these bytes; with `afterOthers`, everything up to and including them. Returns whether they came.
    bool take(const std::string &bytes, bool afterOthers) {
        for (;;) {
            const size_t at = received_.find(bytes);
            if (at == 0 || (afterOthers && at != std::string::npos)) {
                received_.erase(0, at + bytes.size());
                return true;
            }
            if ((!afterOthers && received_.size() >= bytes.size()) || !receiveMore()) return false;
        }
    }

    // Returns the bytes of "1b" or "00*60", or of the file after a '@'.
    static std::string bytesOf(const std::string &token) {
        if (token[0] == '@') return board::readFile(token.substr(1));
        const size_t star = token.find('*');
        const size_t count = star == std::string::npos ? 1 : std::stoul(token.substr(star + 1));
        return std::string(count, static_cast<char>(std::stoi(token, nullptr, 16)));
    }

    // Returns the pieces of a line between "...". A '+' pads a piece to a frame.
    static std::vector<std::string> piecesOf(const std::string &line) {
        std::vector<std::string> pieces(1);
        std::istringstream tokens(line);
        for (std::string token; !(tokens >> std::ws).eof();) {
            const bool text = tokens.peek() == '"';
            tokens >> std::quoted(token);
            if (!text && token == "...") {
                pieces.emplace_back();
            } else if (!text && token == "+") {
                pieces.back().resize(64, '\0');
            } else {
                pieces.back() += text ? token : bytesOf(token);
            }
        }
        return pieces;
    }

    bool expectReply(const std::string &line) {
        if (line == " close") return received_.empty() && arrives(20000) && !receiveMore();
        if (line == " nothing") return !arrives(300);
        const std::vector<std::string> pieces = piecesOf(line);
        for (size_t i = 0; i < pieces.size(); ++i) {
            if (!take(pieces[i], i > 0)) return false;
        }
        return true;
    }

    void send(const std::string &line) {
        if (line == " reset") resetAtEnd(session());
        if (line == " reset" || line == " close") {
            session_.reset();
        } else {
            session().sendBytes(piecesOf(line)[0]);
        }
    }

    // Repeats the signal: the command may not be waiting for it yet.
    void signalUntilReplied(int signal) {
        for (int i = 0; i < 100 && !arrives(100); ++i) kill(service_, signal);
    }

    // Returns whether the text is the next one in the log; after "...", whether it is a later one.
    bool isLogged(const std::string &text) {
        const bool later = text.starts_with(" ... ");
        const std::string wanted = text.substr(later ? 5 : 1);
        return board::waitFor(10, [&] {
            const std::vector<std::string> log = board::log();
            const size_t last = later ? log.size() : std::min(log.size(), logged_ + 1);
            for (size_t i = logged_; i < last; ++i) {
                if (log[i] == wanted) return logged_ = i + 1, true;
            }
            return false;
        });
    }

    // Sends the command padded to a frame and, unless the line itself has a '+', again as bare text.
    bool exchange(const std::string &line) {
        const size_t arrow = line.find(" -> ");
        const std::string command = line.substr(0, arrow), reply = line.substr(arrow + 4) + " +";
        for (const char *filling : {" +", ""}) {
            if (*filling != '\0' && command.find(" +") != std::string::npos) continue;
            session().sendBytes(piecesOf(command + filling)[0]);
            if (!expectReply(reply)) return false;
        }
        return true;
    }

    bool play(const std::string &line, const std::string &printed) {
        const std::string rest = line.substr(1);
        if (line[0] == '>') return send(rest), true;
        if (line[0] == '<') return expectReply(rest);
        if (line[0] == '!') return signalUntilReplied(rest == " SIGUSR1" ? SIGUSR1 : SIGUSR2), true;
        if (line[0] == '=') return isLogged(rest);
        if (line[0] != '$') return exchange(line);
        EXPECT_EQ(board::run(". /src/tests/sessions/shell\n" + rest), printed) << line;
        return true;
    }

    // Plays every session between a line that starts with `begin` and a line `end`; ignores all other lines.
    void playAll(const std::string &path, const std::string &begin, const std::string &end) {
        const board::NamedProcess telnetd("telnetd");
        std::ifstream document(path);
        int sessions = 0;
        for (std::string line, printed; std::getline(document, line);) {
            if (!line.starts_with(begin)) continue;
            SCOPED_TRACE(path + ", session " + std::to_string(++sessions) + line.substr(begin.size()));
            SetUp();
            received_.clear();
            logged_ = 0;
            while (std::getline(document, line) && line != end) {
                for (printed.clear(); document.peek() == '|'; printed += "\n") {
                    std::string part;
                    std::getline(document, part);
                    printed += part.substr(std::min<size_t>(2, part.size()));
                }
                ASSERT_TRUE(play(line, printed)) << line << "\ngot " << testing::PrintToString(received_) << "\nlogged "
                                                 << testing::PrintToString(board::log());
            }
            session_.reset();
            EXPECT_NE(serviceStatus(), board::kRuns);
        }
        EXPECT_GT(sessions, 0);
    }

    std::optional<Session> session_;
    std::string received_;
    size_t logged_ = 0;  // number of log texts up to the last expected one
};

TEST_F(Sessions, OfTheDocument) { playAll("/src/docs/protocol.md", "```session", "```"); }

TEST_F(Sessions, OfTheTests) { playAll("/src/tests/sessions/sessions", "session", ""); }

class Modes : public ServiceTest {};

// Storing an address takes a turn of its own. Signals interrupt the wait and must not prolong it.
TEST_F(Modes, AProcessThatKeepsItsTurnIsWaitedForOnce) {
    sembuf taken = {0, 1, SEM_UNDO}, givenBack = {0, -1, SEM_UNDO};
    const int turn = semget(kConfigurationKey, 1, IPC_CREAT | 0777);
    init_configuration();
    add_configuration("OTHER", "recorded");
    ASSERT_EQ(semop(turn, &taken, 1), 0);
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // these signals would kill the leak check
    const pid_t waiter = board::fork([] { execlp("fabtestd", "fabtestd", "mac", "02:00:00:00:00:01", nullptr); });
    int status = board::kRuns;
    for (int signals = 0; signals < 2000 && status == board::kRuns; ++signals) {
        for (const int signal : {SIGSTOP, SIGCONT}) kill(waiter, signal);
        status = board::wait(waiter, 0.005);
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(semop(turn, &givenBack, 1), 0);
    EXPECT_THAT(board::log(), Contains(HasSubstr("keeps its turn")).Times(1));
    EXPECT_STREQ(RETURN_DEF_STR("PORT1_ORIG_MAC"), "02:00:00:00:00:01");
    EXPECT_STREQ(RETURN_DEF_STR("OTHER"), "recorded") << "set by another program before";
}

TEST_F(Modes, AHandlerLeavesTheErrorNumberAlone) {
    handleResetSignals();
    board::stopLog();
    for (const int signal : {SIGUSR2, SIGUSR1}) {
        errno = ERANGE;
        raise(signal);
        EXPECT_EQ(errno, ERANGE) << "without a log daemon";
        EXPECT_EQ(factoryResetFlag, signal == SIGUSR2 ? 2 : 0);
    }
    board::startLog();
}

class Discovery : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        name_ = board::run("ip -o link show eth0 | sed 's/.*ether //'").substr(0, 17);
        board_ = station::parseMac(name_).value();
    }

    Mac board_ = 0;
    std::string name_;  // the same address in the form of the log
};

TEST_F(Discovery, AnswersThreeTimesAndThenConnects) {
    for (const size_t size : {14, 60, 1024, 1025, 1514}) {
        for (const Mac destination : {station::kBroadcast, board_}) {
            SetUp();
            station::Listener listener = listen();
            start("qconly");
            ASSERT_TRUE(board::waitForLog("wait 0x55aa"));
            EXPECT_EQ(station::discover(*link_, destination, size, kSoon), board_) << size;
            {
                Session session = accept(listener);
                EXPECT_EQ(ask(session, "PING"), "PING 2");
            }
            TearDown();
        }
    }
}

TEST_F(Discovery, IgnoresWhatIsNotForTheBoard) {
    start("qconly");
    // Send until the listener logs a frame.
    const Mac third = 0x029900000001;
    ASSERT_TRUE(board::waitFor(20, [&] {
        link_->send(frame(third, "\x55\xAA"));
        return board::waitForLog("dest mac = 02:99:00:00:00:01", 0.2);
    }));
    for (int i = 0; i < 2000; ++i) {
        link_->send(frame(station::kBroadcast, "\xAA\x55"));                        // another board's answer
        link_->send(frame(board_, "\x08\x06", 60 + static_cast<size_t>(i % 900)));  // any other traffic
    }
    // Much longer than the listener's limit of two seconds, which HURRY shortens.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_THAT(board::log(), Not(Contains(HasSubstr("connecting"))));
    EXPECT_EQ(station::discover(*link_, board_, 60, kSoon), board_);
    ASSERT_TRUE(board::waitForLog("connecting 1"));
    EXPECT_THAT(board::log(), Contains("dest mac = " + name_).Times(1)) << "addresses of requests only";
    EXPECT_THAT(board::log(), Not(Contains("dest mac = ff:ff:ff:ff:ff:ff")));
    EXPECT_THAT(board::log(), testing::IsSupersetOf({"my_mac = " + name_, "run_fabtestd = 1"s}));
}

TEST_F(Discovery, WithoutTheInterfaceTheConnectionStartsAtOnce) {
    board::run("ip link set eth0 down; ip link set eth0 name lan0; ip link set lan0 up");
    station::Listener listener = listen();
    start("qconly");
    board::run("ip addr add 192.168.1.1/24 dev lan0 2> /dev/null || true");
    {
        Session session = accept(listener);
        // The output of a script is discarded, but it is open.
        const std::string script = "#!/bin/sh\necho printed && echo printed >&2 && echo both > /tmp/printed\n";
        ask(session, "SHELL " + std::to_string(script.size()), script);
        EXPECT_EQ(board::readFile("/tmp/printed"), "both\n");
    }
    EXPECT_THAT(board::log(), Not(Contains(HasSubstr("mac ="))));
    board::run("ip link set lan0 down; ip link set lan0 name eth0");
}

class StationAway : public ServiceTest {};

// The daemon closes descriptors 0 to 2. glibc keeps the log's socket only while a log daemon is there. Without one the
// connection gets descriptor 0, and the service ends silently.
TEST_F(StationAway, WithoutASystemLogDescriptorZeroEndsTheService) {
    station::Listener listener = listen();
    board::stopLog();
    start("daemon");
    EXPECT_NO_THROW(accept(listener).expectClose(kSoon));
    board::startLog();
    EXPECT_EQ(serviceStatus(), 0);
}

// Ways in which a station is away: commands for its end of the cable and for the board's.
constexpr char kPresentStation[] =
    "ip link set station down arp on address 02:00:00:00:00:02 up; ip addr flush dev station;"
    "ip addr add 192.168.1.2/24 dev station; ip ntable change name arp_cache dev station retrans 5;"
    "cd /proc/sys/net/ipv4; echo 0 > ip_forward; echo 0 > icmp_ratelimit; echo 0 > conf/station/send_redirects";
constexpr char kPresentBoard[] =
    "ip link set eth0 up; ip neigh flush dev eth0 nud all; ip ntable change name arp_cache dev eth0 retrans 5";
constexpr char kNoAddress[] = "ip addr del 192.168.1.2/24 dev station";
constexpr char kForget[] = "ip neigh flush dev eth0 nud all";
constexpr char kKnown[] = "ip neigh replace 192.168.1.2 dev eth0 lladdr 02:00:00:00:00:02 nud permanent";
constexpr std::string_view kTooLate = "(Operation now in progress)";

TEST_F(StationAway, IsTriedForEverAndServedWhenItComes) {
    const struct {
        const char *station, *board;
        std::string_view reason;
    } cases[] = {
        {"true", "true", "(Connection refused)"},
        {kNoAddress, kKnown, kTooLate},
        {"ip link set station arp off", kForget, "(No route to host)"},
        {"ip addr flush dev station; ip addr add 192.168.1.3/24 dev station; echo 1 > /proc/sys/net/ipv4/ip_forward",
         kKnown, "(No route to host)"},
        {"ip link set station down", "true", "(No route to host)"},
        {"true", "ip link set eth0 down", "(Network is unreachable)"},
    };
    const auto apply = [](const std::string &station, const std::string &board) {
        const std::string ip = "set -e; ip() { /usr/bin/ip \"$@\"; }; ";
        board::inStationNetwork([&] { board::run(ip + station); });
        board::run(ip + board);
    };
    // Returns two lines per attempt; the second has the reason of the failure.
    const auto attempts = [] {
        std::vector<std::string> lines = board::log();
        std::erase_if(lines, [](const std::string &line) { return !line.starts_with("connecting "); });
        return lines;
    };
    setenv("HURRY", "20", 1);  // slow enough for the kernel to answer within the timeout of an attempt
    setenv("LIST_WAITS", "/var/waits", 1);
    apply(kPresentStation, kPresentBoard);
    start("daemon");
    for (const auto &[station, board, reason] : cases) {
        apply(station, board);
        // Skip the attempt in progress, then wait for two new ones. Those that the kernel answered too late do not
        // count.
        size_t line = attempts().size() / 2 * 2 + 5;
        ASSERT_TRUE(board::waitFor(60, [&] {
            const std::vector<std::string> lines = attempts();
            while (line < lines.size() && reason != kTooLate && lines[line].ends_with(kTooLate)) line += 2;
            return line < lines.size();
        })) << reason;
        EXPECT_THAT(attempts()[line], testing::EndsWith(reason));
        apply(kPresentStation, kPresentBoard);
    }
    const std::vector<std::string> lines = attempts();
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].substr(0, lines[i].find(" (")), "connecting " + std::to_string(i / 2 + 1));
        EXPECT_EQ(lines[i].find(" (") != std::string::npos, i % 2 == 1);
    }
    // A pause follows each attempt, and some attempts lasted until their timeout.
    const std::string waits = board::readFile("/var/waits");
    EXPECT_THAT(waits, testing::MatchesRegex("10000000\n1000000\n(3000000\n)+"));
    EXPECT_GT(std::count(waits.begin(), waits.end(), '\n'), lines.size() / 2 + 4);
    Session session = accept(listen());
    EXPECT_EQ(ask(session, "PING"), "PING 2");
}

}  // namespace
