#include "station/wire/listener.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

namespace station {
namespace {

sockaddr_in addressOf(const std::string &address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &result.sin_addr) != 1) {
        throw SessionError(fmt::format("{} is not an IPv4 address", address));
    }
    return result;
}

}  // namespace

Listener::Listener(const std::string &address, uint16_t port, const std::vector<std::string> &interfaces) {
    const sockaddr_in bound = addressOf(address, port);
    for (const std::string &interface : interfaces.empty() ? std::vector<std::string>{""} : interfaces) {
        Socket &socket = sockets_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int on = 1;
        setsockopt(socket.descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const auto length = static_cast<socklen_t>(interface.size());
        if ((length > 0 &&
             setsockopt(socket.descriptor(), SOL_SOCKET, SO_BINDTODEVICE, interface.data(), length) != 0) ||
            bind(socket.descriptor(), reinterpret_cast<const sockaddr *>(&bound), sizeof bound) != 0 ||
            listen(socket.descriptor(), SOMAXCONN) != 0) {
            throw SessionError(describeError(fmt::format("cannot listen on {}:{} {}", address, port, interface)));
        }
    }
}

uint16_t Listener::port() const {
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    getsockname(sockets_.front().descriptor(), reinterpret_cast<sockaddr *>(&bound), &length);
    return ntohs(bound.sin_port);
}

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
    const std::optional<size_t> ready = waiting(Clock::now() + limit);
    if (!ready) throw SessionError("no board connected");
    const int board = accept4(sockets_[*ready].descriptor(), nullptr, nullptr, SOCK_CLOEXEC);
    if (board < 0) throw SessionError(describeError("accepting a board failed"));
    const int on = 1;
    setsockopt(board, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return Session(Socket(board));
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
