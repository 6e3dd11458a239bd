#pragma once
// Where boards connect.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "station/wire/session.h"

namespace station {

constexpr char kDefaultAddress[] = "192.168.1.2";
constexpr uint16_t kDefaultPort = 55688;

class Listener {
public:
    // Listens at the address; with `interfaces`, on each of these apart, so that boards that all have one address can
    // be cabled to one interface each, and every interface of this machine can have the station's. Port 0 takes a free
    // one. Throws SessionError when that cannot be had.
    Listener(const std::string &address, uint16_t port, const std::vector<std::string> &interfaces = {});

    uint16_t port() const;

    // The next board, within the limit; throws SessionError when none connects.
    Session accept(Milliseconds limit);

    // True when a board is waiting to be accepted; false when `session` has something to receive and nothing came here
    // for `grace` after that, or at the deadline.
    bool waitForBoard(const Session &session, Clock::time_point deadline, Milliseconds grace) const;

private:
    // The index of a socket at which a board is waiting, before the deadline.
    std::optional<size_t> waiting(Clock::time_point deadline) const;

    std::vector<Socket> sockets_;
};

}  // namespace station
