#pragma once
// Where boards connect.

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "station/wire/session.h"

namespace station {

constexpr char kDefaultAddress[] = "192.168.1.2";
constexpr uint16_t kDefaultPort = 55688;

// The station cannot listen; says what to do about it.
struct ListenError : SessionError {
    using SessionError::SessionError;
};

class Listener {
public:
    // Listens at the address; with `interfaces`, on each of these apart, so that boards that all have one address can
    // be cabled to one interface each, and every interface of this machine can have the station's. Port 0 takes a free
    // one. Throws ListenError when that cannot be had; but `patient` leaves interfaces that are not there, or have not
    // the address yet, to renew().
    Listener(const std::string &address, uint16_t port, const std::vector<std::string> &interfaces = {},
             bool patient = false);

    uint16_t port() const;

    // The next board, within the limit; throws SessionError when none connects.
    Session accept(Milliseconds limit);

    // True when a board is waiting to be accepted; false when `session` has something to receive and nothing came here
    // for `grace` after that, or at the deadline.
    bool waitForBoard(const Session &session, Clock::time_point deadline, Milliseconds grace) const;

    // For who waits for boards beside other things: the sockets, one an interface or a single one.
    size_t sockets() const { return sockets_.size(); }
    int descriptor(size_t socket) const { return sockets_[socket].descriptor(); }
    // Listens when the socket's interface has come, also when it had been there before, as an adapter that was
    // unplugged. False while it has not: nobody can connect there.
    bool renew(size_t socket);
    // The next board that waits at a socket, if any. Throws SessionError when it cannot be accepted: it waits on.
    std::optional<Session> take(size_t socket) const;
    // Opens a socket to boards, or refuses them without a word, so that they try again by themselves: they neither wait
    // nor lose a connection. Those whose connection has begun are let in all the same, and take() finds them.
    void admit(size_t socket, bool boards) const;
    // True when nobody is at any socket, nor on the way to it. Once all refuse it stays so.
    bool quiet() const;
    // That the socket is bound to; empty for none.
    const std::string &interface(size_t socket) const { return interfaces_[socket]; }

private:
    bool handshaking() const;
    // The index of a socket at which a board is waiting, before the deadline.
    std::optional<size_t> waiting(Clock::time_point deadline) const;

    std::vector<std::string> interfaces_;
    std::vector<Socket> sockets_;
    sockaddr_in bound_{};
};

}  // namespace station
