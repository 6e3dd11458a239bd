// The discovery handshake on the cable between the native board and the station, frame by frame.

#include "station/wire/discovery.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>
#include <optional>

#include "tests/service.h"

using station::kBroadcast;
using station::Mac;
using station::Milliseconds;
using testing::Contains;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;

namespace {

constexpr Milliseconds kSoon{10000};
constexpr Mac kThird = {0x02, 0x99, 0, 0, 0, 1};

class Discovery : public board::ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        board::inStationNetwork([&] { link_ = station::openLink("station"); });
        ifreq request = {};
        strcpy(request.ifr_name, "eth0");
        const station::Socket any(socket(AF_INET, SOCK_DGRAM, 0));
        ASSERT_EQ(ioctl(any.descriptor(), SIOCGIFHWADDR, &request), 0);
        std::copy_n(request.ifr_hwaddr.sa_data, 6, board_.begin());
    }

    // A frame from the station, filled to `size` bytes.
    std::string frame(const Mac &destination, const std::string &etherType, size_t size = 60) const {
        const Mac source = link_->address();
        std::string bytes(destination.begin(), destination.end());
        bytes.append(source.begin(), source.end());
        bytes += etherType;
        bytes.resize(size, '\x5A');
        return bytes;
    }

    void startListening() {
        start("qconly");
        ASSERT_TRUE(board::waitForLog("wait 0x55aa", 10));
    }

    std::unique_ptr<station::FrameLink> link_;
    Mac board_{};
};

TEST_F(Discovery, AnswersThreeTimesAndThenConnects) {
    for (const size_t size : {14, 60, 1024, 1025, 1514}) {
        for (const Mac &destination : {kBroadcast, board_}) {
            SetUp();
            station::Listener listener = listenAsStation();
            startListening();
            EXPECT_EQ(station::discover(*link_, destination, size, kSoon), board_) << size;
            {
                station::Session session = listener.accept(kSoon);
                session.sendCommand("PING");
                EXPECT_EQ(session.receiveReply(kSoon), "PING 2");
            }
            TearDown();
        }
    }
}

TEST_F(Discovery, IgnoresWhatIsNotForTheBoard) {
    startListening();
    // Until the listener, which tells of itself first, is there.
    ASSERT_TRUE(board::waitFor(10, [&] {
        link_->send(frame(kThird, "\x55\xAA"));
        return board::waitForLog("dest mac = 02:99:00:00:00:01", 0.2);
    }));
    for (int i = 0; i < 2000; ++i) {
        link_->send(frame(kBroadcast, "\xAA\x55"));                                 // another board's answer
        link_->send(frame(board_, "\x08\x06", 60 + static_cast<size_t>(i % 900)));  // any other traffic
    }
    EXPECT_THAT(board::logTexts(), Not(Contains(HasSubstr("connecting"))));
    EXPECT_EQ(station::discover(*link_, board_, 60, kSoon), board_);
    ASSERT_TRUE(board::waitForLog("connecting 1", 10));

    std::string mac = station::formatMac(board_);
    for (char &c : mac) c = static_cast<char>(tolower(c));
    EXPECT_THAT(board::logTexts(), Contains("dest mac = " + mac).Times(1)) << "addresses are logged for requests alone";
    EXPECT_THAT(board::logTexts(), Not(Contains("dest mac = ff:ff:ff:ff:ff:ff")));
    EXPECT_THAT(board::logTexts(), IsSupersetOf({"my_mac = " + mac, std::string("run_fabtestd = 1")}));
}

TEST_F(Discovery, WithoutTheInterfaceTheConnectionStartsAtOnce) {
    ASSERT_EQ(system("/bin/ip link set eth0 down; /bin/ip link set eth0 name lan0; /bin/ip link set lan0 up"), 0);
    station::Listener listener = listenAsStation();
    start("qconly");
    station::Session session = listener.accept(kSoon);
    session.sendCommand("PING");
    EXPECT_EQ(session.receiveReply(kSoon), "PING 2");
    EXPECT_THAT(board::logTexts(), Not(Contains(HasSubstr("mac"))));
}

TEST(MacText, IsReadStrictly) {
    EXPECT_EQ(station::formatMac(station::parseMac("00:1a:2B:3c:4D:ff")), "00:1A:2B:3C:4D:FF");
    for (const char *bad :
         {"", "00:11:22:33:44", "00:11:22:33:44:5", "00:11:22:33:44:555", "00-11-22-33-44-55", "0:11:22:33:44:555"}) {
        EXPECT_THROW(station::parseMac(bad), station::SessionError) << bad;
    }
    for (const char *bad : {"udp:", "udp:1", "udp:1:x", "udp:1:99999", "no-such-interface"}) {
        EXPECT_THROW(station::openLink(bad), station::SessionError) << bad;
    }
}

}  // namespace
