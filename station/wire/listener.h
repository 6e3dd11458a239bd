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

// Says why the station cannot listen, and what to do about it.
struct ListenError : SessionError {
    using SessionError::SessionError;
};

class Listener {
public:
    // Listens at the address; with `interface`, only on that. One listener per interface serves boards that all have
    // the same address, while each interface of this machine has the station's. Port 0 takes a free one. Throws
    // ListenError when the socket cannot be bound. With `patient`, an interface that is missing or has no address yet
    // is no error: renew() tries it again.
    Listener(const std::string &address, uint16_t port, const std::string &interface = {}, bool patient = false);

    uint16_t port() const { return ntohs(bound_.sin_port); }
    const std::string &interface() const { return interface_; }  // empty for none
    int descriptor() const { return socket_.descriptor(); }

    // Returns the next connection that waits in the kernel, if any. Throws ListenError when the process or the system
    // has no room for it; the connection then keeps waiting.
    std::optional<Session> take() const;

    // Listens again after the interface has come back, for example when its adapter was plugged in again. Returns false
    // while the interface is missing.
    bool renew();
    // Opens the socket to boards, or closes it. While it is closed, the kernel drops attempts to connect without an
    // answer, so that boards repeat them. A handshake that has begun is completed, and take() finds the connection.
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

// Returns the error number for which a listener could not be made there, or 0. Nothing listens meanwhile, and nothing
// is left behind. Throws ListenError for what is not an address.
int tryAddress(const std::string &address, uint16_t port, const std::string &interface);

// Returns what to do about such an error.
std::string hintFor(int error, const std::string &address, const std::string &interface);

}  // namespace station
