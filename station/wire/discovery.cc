#include "station/wire/discovery.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <re2/re2.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "station/wire/listener.h"

namespace station {
namespace {

constexpr size_t kMacSize = 6, kSource = 6, kEtherType = 12, kPayload = 14;  // bytes, and offsets in a frame
constexpr size_t kLongestAnswer = 1024;
constexpr int kAnswers = 3;
constexpr Milliseconds kRepeat{1000};
constexpr std::string_view kRequestType = "\x55\xAA";
constexpr std::string_view kAnswerType = "\xAA\x55";
constexpr Mac kDatagramStation = 0x020000000002;  // locally administered

Mac macAt(std::string_view frame, size_t offset) {
    Mac mac = 0;
    for (size_t i = 0; i < kMacSize; ++i) mac = mac << 8 | static_cast<uint8_t>(frame[offset + i]);
    return mac;
}

// Throws ListenError if the call has failed.
void require(ssize_t result, const std::string &what) {
    if (result < 0) throw ListenError(describeError(what));
}

FrameLink openInterface(const std::string &name) {
    Socket packets(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL)));
    require(packets.descriptor(), "cannot open a packet socket");
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    require(ioctl(packets.descriptor(), SIOCGIFHWADDR, &request), "interface " + name);
    sockaddr_ll bound{};
    bound.sll_family = AF_PACKET;
    bound.sll_protocol = htons(ETH_P_ALL);
    bound.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
    require(bind(packets.descriptor(), reinterpret_cast<const sockaddr *>(&bound), sizeof bound), "interface " + name);
    return {std::move(packets), macAt({request.ifr_hwaddr.sa_data, kMacSize}, 0)};
}

FrameLink openDatagrams(uint16_t local, uint16_t remote) {
    Socket datagrams(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in here = {AF_INET, htons(local), {htonl(INADDR_LOOPBACK)}, {}};
    const sockaddr_in there = {AF_INET, htons(remote), {htonl(INADDR_LOOPBACK)}, {}};
    require(bind(datagrams.descriptor(), reinterpret_cast<const sockaddr *>(&here), sizeof here), "the datagram link");
    require(connect(datagrams.descriptor(), reinterpret_cast<const sockaddr *>(&there), sizeof there),
            "the datagram link");
    return {std::move(datagrams), kDatagramStation};
}

std::string makeRequest(Mac destination, Mac source, size_t size) {
    std::string frame = bytesOf(destination) + bytesOf(source);
    frame += kRequestType;
    for (size_t i = frame.size(); i < size; ++i) frame += static_cast<char>(i);
    return frame;
}

// Returns the answer that a board of this address must give to a request.
std::string expectedAnswer(const std::string &request, Mac board) {
    const std::string to = request.substr(macAt(request, 0) == kBroadcast ? 0 : kSource, kMacSize);
    return to + bytesOf(board) + std::string(kAnswerType) + request.substr(kPayload, kLongestAnswer - kPayload);
}

// Returns the next frame of the answers' EtherType; empty: none came before the deadline.
std::string receiveAnswer(const FrameLink &link, Clock::time_point deadline) {
    for (;;) {
        std::string frame = link.receive(deadline);
        const bool whole = frame.size() >= kPayload;
        if (frame.empty() || (whole && frame.compare(kEtherType, kAnswerType.size(), kAnswerType) == 0)) return frame;
    }
}

}  // namespace

// The other end of a datagram link may not be there yet.
void FrameLink::send(const std::string &frame) const {
    const ssize_t sent = ::send(socket_.descriptor(), frame.data(), frame.size(), 0);
    if (sent < 0 && errno != ECONNREFUSED) require(sent, "sending");
}

std::string FrameLink::receive(Clock::time_point deadline) const {
    std::string frame(65536, '\0');
    while (waitFor(socket_.descriptor(), POLLIN, deadline)) {
        const ssize_t length = recv(socket_.descriptor(), frame.data(), frame.size(), 0);
        if (length >= 0) return frame.substr(0, static_cast<size_t>(length));
    }
    return {};
}

FrameLink openLink(const std::string &name) {
    static const re2::RE2 kDatagrams("udp:(\\d+):(\\d+)");
    uint16_t local = 0, remote = 0;
    if (re2::RE2::FullMatch(name, kDatagrams, &local, &remote)) return openDatagrams(local, remote);
    return openInterface(name);
}

Mac discover(const FrameLink &link, Mac destination, size_t size, Milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    const std::string request = makeRequest(destination, link.address(), size);
    std::string answer;
    while (answer.empty()) {
        if (Clock::now() >= deadline) throw SessionError("no board answered");
        link.send(request);
        answer = receiveAnswer(link, std::min(deadline, Clock::now() + kRepeat));
    }
    const Mac board = macAt(answer, kSource);
    if (destination != kBroadcast && board != destination) {
        throw SessionError(fmt::format("{} answered instead", formatMac(board)));
    }
    const std::string expected = expectedAnswer(request, board);
    for (int i = 1; i <= kAnswers; ++i) {
        if (i > 1) answer = receiveAnswer(link, Clock::now() + kRepeat);
        if (answer.empty()) throw SessionError(fmt::format("{} answers instead of {}", i - 1, kAnswers));
        if (answer != expected) throw SessionError(fmt::format("answer {} is not what was asked for", i));
    }
    return board;
}

}  // namespace station
