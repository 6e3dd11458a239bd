#include "station/wire/listener.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

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

// What to do when the address, the port or the interface cannot be had.
std::string hintFor(int error, const std::string &address, const std::string &interface) {
    switch (error) {
    case EADDRNOTAVAIL:
        return fmt::format("no interface has the address: ip addr add {}/24 dev {}", address,
                           interface.empty() ? "INTERFACE" : interface);
    case EADDRINUSE:
        return "another station runs here, or: ss -ltnp shows who has the port";
    case ENODEV:
        return fmt::format("there is no interface {}: ip link shows those there are", interface);
    case EACCES:
        return "ports below 1024 are root's";
    default:
        return strerror(error);
    }
}

// How soon a board is missed that has gone without a word: the kernel asks it after so many seconds of silence, and
// then as often. One that was switched off and on says no at once; one that is off, or whose adapter was unplugged, is
// given up half a minute after its last word, also in the middle of an upload, where nothing is asked but sent again,
// ever more seldom. So is one that is there and takes nothing of an upload for so long: boards take all that comes,
// also when they have no room for it.
void watchPeer(int socket) {
    const int on = 1, seconds = 3, patience = 30000;
    setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &seconds, sizeof seconds);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof seconds);
    setsockopt(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, &patience, sizeof patience);
}

void setLeastTtl(int socket, int ttl) { setsockopt(socket, IPPROTO_IP, IP_MINTTL, &ttl, sizeof ttl); }

Socket listenAt(const sockaddr_in &bound, const std::string &interface) {
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    setsockopt(socket.descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto length = static_cast<socklen_t>(interface.size());
    if ((length > 0 && setsockopt(socket.descriptor(), SOL_SOCKET, SO_BINDTODEVICE, interface.data(), length) != 0) ||
        bind(socket.descriptor(), reinterpret_cast<const sockaddr *>(&bound), sizeof bound) != 0 ||
        listen(socket.descriptor(), SOMAXCONN) != 0) {
        return Socket(-1);
    }
    return socket;
}

}  // namespace

Listener::Listener(const std::string &address, uint16_t port, const std::vector<std::string> &interfaces, bool patient)
    : interfaces_(interfaces.empty() ? std::vector<std::string>{""} : interfaces), bound_(addressOf(address, port)) {
    for (const std::string &interface : interfaces_) {
        const Socket &socket = sockets_.emplace_back(listenAt(bound_, interface));
        const bool later = patient && !interface.empty() && (errno == ENODEV || errno == EADDRNOTAVAIL);
        if (socket.descriptor() >= 0 || later) continue;
        const std::string hint = hintFor(errno, address, interface);
        throw ListenError(fmt::format("cannot listen on {}:{}{}{}: {}", address, port, interface.empty() ? "" : "%",
                                      interface, hint));
    }
    socklen_t length = sizeof bound_;
    getsockname(descriptor(0), reinterpret_cast<sockaddr *>(&bound_), &length);
}

uint16_t Listener::port() const { return ntohs(bound_.sin_port); }

std::optional<size_t> Listener::waiting(Clock::time_point deadline) const {
    std::vector<pollfd> polled;
    for (const Socket &socket : sockets_) polled.push_back({socket.descriptor(), POLLIN, 0});
    while (Clock::now() < deadline) {
        if (poll(polled.data(), polled.size(), pollLimit(deadline)) <= 0) continue;
        const auto ready = std::find_if(polled.begin(), polled.end(), [](const pollfd &p) { return p.revents != 0; });
        return static_cast<size_t>(ready - polled.begin());
    }
    return std::nullopt;
}

Session Listener::accept(Milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (const std::optional<size_t> ready = waiting(deadline)) {
        if (std::optional<Session> session = take(*ready)) return std::move(*session);
    }
    throw SessionError("no board connected");
}

std::optional<Session> Listener::take(size_t socket) const {
    const int board = accept4(descriptor(socket), nullptr, nullptr, SOCK_CLOEXEC);
    if (board < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
        throw SessionError(describeError("cannot accept a board"));
    }
    if (board < 0) return std::nullopt;  // it has gone again, or nobody is there
    const int on = 1;
    setsockopt(board, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setLeastTtl(board, 0);  // it inherits what admit() wants of a newcomer
    watchPeer(board);
    return Session(Socket(board));
}

// An interface that comes back is another one to the kernel, and the socket stays bound to the one that has gone.
bool Listener::renew(size_t socket) {
    if (interfaces_[socket].empty() || boundTo(descriptor(socket)) == interfaces_[socket]) return true;
    Socket fresh = listenAt(bound_, interfaces_[socket]);
    if (fresh.descriptor() < 0) return false;
    sockets_[socket] = std::move(fresh);
    return true;
}

// A segment whose time to live is below the socket's least is dropped: with 255 that is every one of a board, whose
// system starts from 64. It is not looked at in connections that have begun, needs no privilege, and is undone at once.
void Listener::admit(size_t socket, bool boards) const { setLeastTtl(descriptor(socket), boards ? 0 : 255); }

// Who finishes his handshake between the two looks is found by the second.
bool Listener::quiet() const {
    if (handshaking()) return false;
    std::vector<pollfd> polled;
    for (const Socket &socket : sockets_) polled.push_back({socket.descriptor(), POLLIN, 0});
    return poll(polled.data(), polled.size(), 0) == 0;
}

// The kernel's table of sockets has the connections that have begun in state 03.
bool Listener::handshaking() const {
    const std::string here = fmt::format(": {:08X}:{:04X} ", bound_.sin_addr.s_addr, port());
    std::ifstream sockets("/proc/net/tcp");
    for (std::string line; std::getline(sockets, line);) {
        const size_t at = line.find(here);
        if (at != std::string::npos && line.compare(at + here.size() + 14, 2, "03") == 0) return true;
    }
    return false;
}

bool Listener::waitForBoard(const Session &session, Clock::time_point deadline, Milliseconds grace) const {
    while (Clock::now() < deadline) {
        pollfd polled[] = {{sockets_.front().descriptor(), POLLIN, 0}, {session.descriptor(), POLLIN, 0}};
        if (poll(polled, 2, pollLimit(deadline)) <= 0) continue;
        return polled[0].revents != 0 || waiting(Clock::now() + grace).has_value();
    }
    return false;
}

}  // namespace station
