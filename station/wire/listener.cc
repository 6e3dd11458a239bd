#include "station/wire/listener.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

namespace station {
namespace {

sockaddr_in addressOf(const std::string &address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &result.sin_addr) != 1) {
        throw ListenError(fmt::format("{} is not an IPv4 address", address));
    }
    return result;
}

// How soon a board is missed that disappears silently. After three seconds of silence the kernel probes it, and repeats
// that every three seconds: a board that was restarted answers with a reset. One that is off or unplugged is given up
// half a minute after its last sign of life. So is a board that takes nothing of an upload for that long: boards take
// everything that comes, even what they have no room for.
void watchPeer(int socket) {
    const int on = 1, seconds = 3, patience = 30000;
    setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &seconds, sizeof seconds);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof seconds);
    setsockopt(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, &patience, sizeof patience);
}

void setLeastTtl(int socket, int ttl) { setsockopt(socket, IPPROTO_IP, IP_MINTTL, &ttl, sizeof ttl); }

// Returns a socket at the address, or none (-1), with errno. On a cable of its own, few connections wait in the kernel.
Socket socketAt(const sockaddr_in &bound, const std::string &interface, bool listens = true) {
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1, made = socket.descriptor();
    setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto length = static_cast<socklen_t>(interface.size());
    if ((length > 0 && setsockopt(made, SOL_SOCKET, SO_BINDTODEVICE, interface.data(), length) != 0) ||
        bind(made, reinterpret_cast<const sockaddr *>(&bound), sizeof bound) != 0 ||
        (listens && listen(made, length > 0 ? 8 : SOMAXCONN) != 0)) {
        return Socket(-1);
    }
    return socket;
}

}  // namespace

std::string hintFor(int error, const std::string &address, const std::string &interface) {
    static const std::map<int, std::string_view> kHints = {
        {EADDRNOTAVAIL, "no interface has the address: ip addr add {0}/24 dev {1}"},
        {EADDRINUSE, "another station runs here, or: ss -ltnp shows who has the port"},
        {ENODEV, "there is no interface {1}: ip link shows those there are"},
        {EACCES, "ports below 1024 are root's"},
    };
    const auto hint = kHints.find(error);
    if (hint == kHints.end()) return strerror(error);
    return fmt::format(fmt::runtime(hint->second), address, interface.empty() ? "INTERFACE" : interface);
}

int tryAddress(const std::string &address, uint16_t port, const std::string &interface) {
    return socketAt(addressOf(address, port), interface, false).descriptor() < 0 ? errno : 0;
}

Listener::Listener(const std::string &address, uint16_t port, const std::string &interface, bool patient)
    : interface_(interface), bound_(addressOf(address, port)), socket_(socketAt(bound_, interface)) {
    const bool later = patient && !interface.empty() && (errno == ENODEV || errno == EADDRNOTAVAIL);
    if (descriptor() < 0 && !later) {
        const std::string hint = hintFor(errno, address, interface);
        throw ListenError(fmt::format("cannot listen on {}:{}{}{}: {}", address, port, interface.empty() ? "" : "%",
                                      interface, hint));
    }
    socklen_t length = sizeof bound_;
    getsockname(descriptor(), reinterpret_cast<sockaddr *>(&bound_), &length);
}

std::optional<Session> Listener::take() const {
    sockaddr_in from{};  // a board that has reset the connection is not named by it any more
    socklen_t length = sizeof from;
    const int board = accept4(descriptor(), reinterpret_cast<sockaddr *>(&from), &length, SOCK_CLOEXEC);
    if (board < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
        throw ListenError(describeError("cannot accept a board"));
    }
    if (board < 0) return std::nullopt;  // none waits, or it has gone again
    const int on = 1;
    setsockopt(board, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setLeastTtl(board, 0);  // inherited from the listener
    watchPeer(board);
    return Session(Socket(board), from);
}

// To the kernel an interface that comes back is a new one, while the socket stays bound to the old one.
bool Listener::renew() {
    if (interface_.empty() || boundTo(descriptor()) == interface_) return true;
    Socket fresh = socketAt(bound_, interface_);
    if (fresh.descriptor() < 0) return false;
    socket_ = std::move(fresh);
    setLeastTtl(descriptor(), admits_ ? 0 : 255);
    return true;
}

// The kernel drops segments whose time to live is below the socket's least. With 255 these are all segments of boards,
// whose system starts from 64. Connections that have begun are not checked. Setting it needs no privilege.
void Listener::admit(bool boards) {
    if (std::exchange(admits_, boards) != boards) setLeastTtl(descriptor(), boards ? 0 : 255);
}

// A handshake that ends between the two looks is found by the second.
bool Listener::quiet() const {
    if (handshaking()) return false;
    pollfd polled{descriptor(), POLLIN, 0};
    return poll(&polled, 1, 0) == 0;
}

// Asks the kernel for connections to this port whose handshake has begun. It answers in a third of a millisecond, where
// reading /proc/net/tcp takes five; a kernel without the module tcp_diag knows of none.
bool Listener::handshaking() const {
    const Descriptor kernel(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    struct {
        nlmsghdr header;
        inet_diag_req_v2 question;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.question.sdiag_family = AF_INET;
    request.question.sdiag_protocol = IPPROTO_TCP;
    request.question.idiag_states = 1U << TCP_SYN_RECV;
    request.question.id.idiag_sport = bound_.sin_port;
    if (send(kernel.descriptor(), &request, sizeof request, 0) < 0) return false;
    alignas(nlmsghdr) std::array<char, 16384> answer;
    const ssize_t length = recv(kernel.descriptor(), answer.data(), answer.size(), 0);
    const auto *const first = reinterpret_cast<const nlmsghdr *>(answer.data());
    return length >= static_cast<ssize_t>(sizeof *first) && first->nlmsg_type == SOCK_DIAG_BY_FAMILY;
}

}  // namespace station
