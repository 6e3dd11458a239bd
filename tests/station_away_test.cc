// The station that is not there, in every way that a line knows: the daemon tries for ever, logs every attempt with its
// reason, and serves the station when it comes.

#include "tests/service.h"

using station::Milliseconds;

namespace {

constexpr int kAttempts = 5;
constexpr char kRefused[] = "Connection refused";
constexpr char kSilence[] = "Operation now in progress";
constexpr char kUnreachable[] = "No route to host";
constexpr char kNoNetwork[] = "Network is unreachable";

// What is done at the station's end of the cable and at the board's, and how the attempts fail from then on.
struct Change {
    const char *station, *board, *reason;
};

constexpr char kNothing[] = "true";
constexpr char kNoAddress[] = "ip addr del 192.168.1.2/24 dev station";
constexpr char kForget[] = "ip neigh flush dev eth0 nud all";
constexpr char kKnown[] = "ip neigh replace 192.168.1.2 dev eth0 lladdr 02:00:00:00:00:02 nud permanent";

// Address resolution gives up after some 30 ms, at either end.
constexpr Change kPresent = {
    "ip link set station down arp on address 02:00:00:00:00:02 up; ip addr flush dev station;"
    "ip addr add 192.168.1.2/24 dev station; ip ntable change name arp_cache dev station retrans 5;"
    "cd /proc/sys/net/ipv4; echo 0 > ip_forward; echo 0 > icmp_ratelimit; echo 0 > conf/station/send_redirects",
    "ip link set eth0 up; ip neigh flush dev eth0 nud all; ip ntable change name arp_cache dev eth0 retrans 5", ""};

const std::pair<const char *, std::vector<Change>> kCases[] = {
    {"refuses", {{kNothing, kNothing, kRefused}}},
    {"drops silently", {{kNoAddress, kKnown, kSilence}}},
    {"answers no address resolution", {{"ip link set station arp off", kForget, kUnreachable}}},
    {"is called unreachable by what stands in front of it",
     {{"ip addr flush dev station; ip addr add 192.168.1.3/24 dev station; echo 1 > /proc/sys/net/ipv4/ip_forward",
       kKnown, kUnreachable}}},
    {"has its cable pulled and put back",
     {{"ip link set station down", kNothing, kUnreachable}, {"ip link set station up", kNothing, kRefused}}},
    {"is on an interface that is switched off", {{kNothing, "ip link set eth0 down", kNoNetwork}}},
    {"comes up late",
     {{"ip link set station down", kNothing, kUnreachable},
      {"ip link set station up arp off", kForget, kUnreachable},
      {kNoAddress, kKnown, kSilence},
      {"ip link set station arp on; ip addr add 192.168.1.2/24 dev station", kForget, kRefused}}},
};

class StationAway : public board::ServiceTest {
protected:
    static void apply(const Change &change) {
        const auto run = [](const std::string &lines) {
            EXPECT_EQ(system(("set -e; ip() { /usr/bin/ip \"$@\"; }; " + lines).c_str()), 0) << lines;
        };
        board::inStationNetwork([&] { run(change.station); });
        run(change.board);
    }

    // The log of the connection so far.
    static std::vector<std::string> lines() {
        std::vector<std::string> lines = board::logTexts();
        std::erase_if(lines, [](const std::string &line) { return !line.starts_with("connecting "); });
        return lines;
    }

    // The lines must be numbered from 1 without a gap; returns the number of the last attempt.
    static int lastAttempt(const std::vector<std::string> &lines) {
        for (size_t i = 0; i < lines.size(); ++i) {
            const std::string start = "connecting " + std::to_string(i / 2 + 1);
            EXPECT_EQ(lines[i].substr(0, lines[i].find(" (")), start);
            EXPECT_EQ(lines[i].size() > start.size(), i % 2 == 1);
        }
        return static_cast<int>((lines.size() + 1) / 2);
    }

    static void expectAttempts(const char *reason) {
        const int before = lastAttempt(lines());
        const int last = before + kAttempts;
        ASSERT_TRUE(board::waitForLog("connecting " + std::to_string(last) + " (", 60))
            << testing::PrintToString(lines());
        const std::vector<std::string> seen = lines();
        lastAttempt(seen);
        for (int attempt = before + 1; attempt <= last; ++attempt) {
            EXPECT_EQ(seen[static_cast<size_t>(2 * attempt - 1)],
                      "connecting " + std::to_string(attempt) + " (" + reason + ")");
        }
    }
};

TEST_F(StationAway, IsTriedForEverAndServedWhenItComes) {
    for (const auto &[name, changes] : kCases) {
        SCOPED_TRACE(name);
        SetUp();
        setenv("HURRY", "10", 1);  // the kernel's own answers come well within the limit of an attempt
        apply(kPresent);
        start("daemon");
        ASSERT_TRUE(board::waitForLog("connecting 1", 10));
        for (const Change &change : changes) {
            apply(change);
            expectAttempts(change.reason);
        }
        apply(kPresent);
        {
            station::Session session = listenAsStation().accept(Milliseconds(20000));
            session.sendCommand("PING");
            EXPECT_EQ(session.receiveReply(Milliseconds(20000)), "PING 2");
        }
        EXPECT_EQ(lines().size() % 2, 1U) << "the last attempt has not failed";
        lastAttempt(lines());
        TearDown();
    }
}

}  // namespace
