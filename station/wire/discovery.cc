#include "station/wire/discovery.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>

namespace station {
namespace {

constexpr size_t kMacSize = 6;
constexpr size_t kSource = 6;
constexpr size_t kEtherType = 12;
constexpr size_t kPayload = 14;
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

std::string receiveFrame(int socket, Clock::time_point deadline) {
    while (waitFor(socket, POLLIN, deadline)) {
        std::string frame(65536, '\0');
        const ssize_t length = recv(socket, frame.data(), frame.size(), 0);
        if (length <= 0) continue;
        frame.resize(static_cast<size_t>(length));
        return frame;
    }
    return {};
}

// A packet socket on a network interface.
class InterfaceLink : public FrameLink {
public:
    explicit InterfaceLink(const std::string &name)
        : socket_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL))) {
        if (socket_.descriptor() < 0) throw SessionError(describeError("cannot open a packet socket"));
        ifreq request{};
        name.copy(request.ifr_name, sizeof request.ifr_name - 1);
        if (ioctl(socket_.descriptor(), SIOCGIFHWADDR, &request) < 0)
            throw SessionError(describeError("interface " + name));
        address_ = macAt({request.ifr_hwaddr.sa_data, kMacSize}, 0);
        sockaddr_ll bound{};
        bound.sll_family = AF_PACKET;
        bound.sll_protocol = htons(ETH_P_ALL);
        bound.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
        if (bind(socket_.descriptor(), reinterpret_cast<const sockaddr *>(&bound), sizeof bound) != 0) {
            throw SessionError(describeError("interface " + name));
        }
    }

    void send(const std::string &frame) override {
        if (::send(socket_.descriptor(), frame.data(), frame.size(), 0) < 0)
            throw SessionError(describeError("sending"));
    }
    std::string receive(Clock::time_point deadline) override { return receiveFrame(socket_.descriptor(), deadline); }
    Mac address() const override { return address_; }

private:
    Socket socket_;
    Mac address_ = 0;
};

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

class DatagramLink : public FrameLink {
public:
    DatagramLink(uint16_t local, uint16_t remote) : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in here = loopback(local);
        const sockaddr_in there = loopback(remote);
        if (bind(socket_.descriptor(), reinterpret_cast<const sockaddr *>(&here), sizeof here) != 0 ||
            connect(socket_.descriptor(), reinterpret_cast<const sockaddr *>(&there), sizeof there) != 0) {
            throw SessionError(describeError("the datagram link"));
        }
    }

    // Ignores a failure: the other end may not be there yet.
    void send(const std::string &frame) override { ::send(socket_.descriptor(), frame.data(), frame.size(), 0); }
    std::string receive(Clock::time_point deadline) override { return receiveFrame(socket_.descriptor(), deadline); }
    Mac address() const override { return kDatagramStation; }

private:
    Socket socket_;
};

std::string makeRequest(Mac destination, Mac source, size_t size) {
    std::string frame = bytesOf(destination) + bytesOf(source);
    frame += kRequestType;
    for (size_t i = frame.size(); i < size; ++i) frame += static_cast<char>(i);
    return frame;
}

bool isAnswer(const std::string &frame) {
    return frame.size() >= kPayload && frame.compare(kEtherType, kAnswerType.size(), kAnswerType) == 0;
}

// Returns the answer that a board of this address must give to a request.
std::string expectedAnswer(const std::string &request, Mac board) {
    const std::string to = request.substr(macAt(request, 0) == kBroadcast ? 0 : kSource, kMacSize);
    return to + bytesOf(board) + std::string(kAnswerType) + request.substr(kPayload, kLongestAnswer - kPayload);
}

// Returns the next frame of the answers' EtherType; empty: none came before the deadline.
std::string receiveAnswer(FrameLink &link, Clock::time_point deadline) {
    for (;;) {
        std::string frame = link.receive(deadline);
        if (frame.empty() || isAnswer(frame)) return frame;
    }
}

}  // namespace

std::unique_ptr<FrameLink> openLink(const std::string &name) {
    if (!name.starts_with("udp:")) return std::make_unique<InterfaceLink>(name);
    unsigned local = 0, remote = 0;
    int length = 0;
    const int fields = std::sscanf(name.c_str(), "udp:%5u:%5u%n", &local, &remote, &length);
    if (fields != 2 || name.c_str()[length] != '\0' || std::max(local, remote) > UINT16_MAX) {
        throw SessionError(fmt::format("\"{}\" is not udp:LOCAL:REMOTE", name));
    }
    return std::make_unique<DatagramLink>(static_cast<uint16_t>(local), static_cast<uint16_t>(remote));
}

Mac discover(FrameLink &link, Mac destination, size_t size, Milliseconds limit) {
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
