#pragma once
// The socket that boards connect to.

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>

#include "station/wire/session.h"

namespace station {

constexpr char kDefaultAddress[] = "192.168.1.2";
constexpr uint16_t kDefaultPort = 55688;

// The station cannot listen. The text says what to do about it.
struct ListenError : SessionError {
    using SessionError::SessionError;
};

class Listener {
public:
    // Listens at the address; with an interface, on that alone: boards that all have one address can then be cabled to
    // one interface each, and all interfaces of this machine can have the station's address. Port 0 takes a free one.
    // Throws ListenError when the socket cannot be bound; but with `patient`, an interface that is missing or has not
    // the address yet is left to renew().
    Listener(const std::string &address, uint16_t port, const std::string &interface = {}, bool patient = false);

    uint16_t port() const { return ntohs(bound_.sin_port); }
    const std::string &interface() const { return interface_; }  // empty for none
    int descriptor() const { return socket_.descriptor(); }

    // Returns the next connection. Throws SessionError when none comes within the limit.
    Session accept(Milliseconds limit) const;
    // Returns the next connection that waits in the kernel, if any. Throws ListenError when the process or the system
    // has no room for it: it waits on.
    std::optional<Session> take() const;

    // Listens again after the interface has come back, as an unplugged adapter does. Returns false while it is missing.
    bool renew();
    // Opens the socket to boards, or closes it: attempts to connect are then dropped without an answer, so that boards
    // repeat them. A connection whose handshake has begun is completed all the same, and take() finds it.
    void admit(bool boards);
    // Returns true when no connection waits and no handshake is under way.
    bool quiet() const;

private:
    bool handshaking() const;

    std::string interface_;
    sockaddr_in bound_;
    Socket socket_;
    bool admits_ = true;
};

}  // namespace station
