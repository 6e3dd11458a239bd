#include "station/wire/session.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>

namespace station {
namespace {

// How long to wait for more of a reply that has 64 characters and no NUL.
constexpr Milliseconds kLongReplyGrace{300};

// A board that is there acknowledges one probe of the kernel every three seconds (Listener).
constexpr Milliseconds kLongestSilence{10000};

constexpr const char *kClosed = "the board closed the connection";

bool isTemporary(int error) { return error == EAGAIN || error == EINTR; }

// Throws SessionError about errno. A board that has restarted answers with a reset.
[[noreturn]] void fail(const char *what) {
    throw SessionError(errno == ECONNRESET || errno == EPIPE ? kClosed : describeError(what));
}

// Returns the bytes of the frame at the start of `bytes`, as far as it can be told yet.
size_t frameLength(std::string_view bytes) {
    const size_t end = bytes.find('\0');
    if (end == std::string_view::npos) return bytes.size() == kFrame ? kFrame : bytes.size() + 1;
    return end <= kFrame ? kFrame : end + 1;
}

}  // namespace

std::string boundTo(int socket) {
    std::array<char, IFNAMSIZ> name{};
    socklen_t length = name.size();
    getsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, name.data(), &length);
    return name.data();
}

std::string textOf(const sockaddr_in &address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
}

std::string localAddress(int socket) {
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    getsockname(socket, reinterpret_cast<sockaddr *>(&bound), &length);
    return textOf(bound);
}

void Session::sendCommand(std::string_view text) {
    if (text.size() > kFrame) throw std::invalid_argument(fmt::format("a command has at most {} bytes", kFrame));
    std::string frame(text);
    frame.resize(kFrame, '\0');
    sendBytes(frame);
}

void Session::sendBytes(std::string_view bytes, const Progress &progress) {
    uint64_t done = 0;
    while (done < bytes.size()) {
        if (!waitFor(socket_.descriptor(), POLLOUT, sendDeadline_)) {
            throw SessionError("the board does not take what is sent to it");
        }
        const std::string_view rest = bytes.substr(done);
        // cppcheck-suppress invalidLifetime
        const ssize_t sent = send(socket_.descriptor(), rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && isTemporary(errno)) continue;
        if (sent < 0) fail("sending failed");
        done += static_cast<uint64_t>(sent);
        if (progress) progress(done, bytes.size());
    }
}

Session::Arrival Session::receivePart(std::string &bytes, size_t most) {
    std::array<char, 65536> part;
    const ssize_t received = recv(socket_.descriptor(), part.data(), std::min(part.size(), most), MSG_DONTWAIT);
    if (received < 0 && isTemporary(errno)) return Arrival::kNothing;
    if (received < 0) fail("receiving failed");
    bytes.append(part.data(), static_cast<size_t>(received));
    return received > 0 ? Arrival::kBytes : Arrival::kEnd;
}

Session::Arrival Session::receiveSome(std::string &bytes, Clock::time_point deadline) {
    Arrival arrival = Arrival::kNothing;
    while (arrival == Arrival::kNothing && waitFor(socket_.descriptor(), POLLIN, deadline)) {
        arrival = receivePart(bytes, SIZE_MAX);
    }
    return arrival;
}

std::string Session::receiveReply(Milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    std::string bytes;
    while (bytes.size() < frameLength(bytes) && bytes.size() <= kLongestReply) {
        const Arrival arrival = receiveSome(bytes, deadline);
        if (arrival == Arrival::kBytes) continue;
        if (!bytes.empty()) throw WrongReply(fmt::format("the reply ended after {} bytes", bytes.size()));
        if (arrival == Arrival::kEnd) throw SessionError(kClosed);
        throw SessionError(fmt::format("no reply within {:.1f} s", inSeconds(limit)));
    }
    // 64 characters are a whole frame, or the first of a longer one.
    while (bytes.find('\0') == std::string::npos && bytes.size() <= kLongestReply &&
           receiveSome(bytes, std::min(deadline, Clock::now() + kLongReplyGrace)) == Arrival::kBytes) {
    }
    const size_t length = frameLength(bytes);
    if (length > kLongestReply) throw WrongReply(fmt::format("a reply of {} bytes", length));
    if (bytes.size() < length) throw WrongReply(fmt::format("the reply ended after {} bytes", bytes.size()));
    if (bytes.size() > length) {
        throw WrongReply(fmt::format("{} bytes behind the reply's frame", bytes.size() - length));
    }
    std::string text = bytes.substr(0, std::min(bytes.find('\0'), length));
    if (bytes.find_first_not_of('\0', text.size()) != std::string::npos) {
        throw WrongReply("the reply's frame is not filled with NUL");
    }
    return text;
}

bool Session::gone() const {
    pollfd polled{socket_.descriptor(), POLLRDHUP, 0};
    if (poll(&polled, 1, 0) > 0) return true;
    tcp_info info{};
    socklen_t length = sizeof info;
    getsockopt(socket_.descriptor(), IPPROTO_TCP, TCP_INFO, &info, &length);
    return Milliseconds(info.tcpi_last_ack_recv) > kLongestSilence;
}

void Session::receiveNow(std::string &bytes, size_t most) {
    Arrival arrival = Arrival::kBytes;
    while (bytes.size() < most && arrival == Arrival::kBytes) arrival = receivePart(bytes, most - bytes.size());
    if (arrival == Arrival::kEnd) throw SessionError("closed the connection");
}

void Session::expectClose(Milliseconds limit) {
    if (!waitFor(socket_.descriptor(), POLLIN, Clock::now() + limit)) {
        throw WrongReply("the board left the connection open");
    }
    char byte;
    if (recv(socket_.descriptor(), &byte, 1, MSG_DONTWAIT) > 0)
        throw WrongReply("the board sent more instead of closing");
}

std::string Session::receiveAll(Milliseconds limit, size_t most, uint64_t &cut) {
    const auto deadline = Clock::now() + limit;
    std::string bytes;
    for (Arrival arrival; (arrival = receiveSome(bytes, deadline)) != Arrival::kEnd;) {
        if (arrival == Arrival::kNothing) {
            throw SessionError(fmt::format("the board did not finish within {:.1f} s", inSeconds(limit)));
        }
        cut += bytes.size() - std::min(bytes.size(), most);
        bytes.resize(std::min(bytes.size(), most));
    }
    return bytes;
}

std::string Session::peerAddress() const { return textOf(board_); }

std::string Session::peer() const {
    const std::string bound = interface();
    return fmt::format("{}:{}{}{}", peerAddress(), ntohs(board_.sin_port), bound.empty() ? "" : "%", bound);
}

// The table's columns: address, type, flags, hardware address, mask, interface. After the heading, one line per peer.
std::optional<Mac> Session::hardwareAddress() const {
    std::ifstream table("/proc/thread-self/net/arp");
    const std::string bound = interface();
    std::string line, address, mac, device, other;
    std::getline(table, line);
    while (table >> address >> other >> other >> mac >> other >> device) {
        if (address == peerAddress() && (bound.empty() || device == bound)) return parseMac(mac);
    }
    return std::nullopt;
}

}  // namespace station
