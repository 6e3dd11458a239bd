#pragma once
// The layer-2 handshake with a board that waits in the mode "qconly" and has no connection yet: a frame of EtherType
// 0x55AA, which the board answers three times with EtherType 0xAA55.

#include <string>
#include <utility>

#include "station/base/mac.h"
#include "station/wire/session.h"

namespace station {

constexpr Mac kBroadcast = 0xFFFFFFFFFFFF;

// Carries whole Ethernet frames.
class FrameLink {
public:
    // `socket` carries a frame per message. `address`: this end's.
    FrameLink(Socket socket, Mac address) : socket_(std::move(socket)), address_(address) {}
    void send(const std::string &frame) const;
    // Returns the next frame that arrives before the deadline; empty when none does.
    std::string receive(Clock::time_point deadline) const;
    Mac address() const { return address_; }

private:
    Socket socket_;
    Mac address_;
};

// Opens a link by its name: a network interface of this machine, as root; or "udp:LOCAL:REMOTE", the virtual board's
// link, with one frame per datagram between these two ports of the loopback address. Throws ListenError.
FrameLink openLink(const std::string &name);

// Sends a request of `size` bytes, 14 to 1514, to `destination`, once a second until it is answered, and checks the
// three answers byte for byte; they have at most 1024 bytes. Returns the board's address. Throws SessionError when
// there is no answer in time, or a wrong one.
Mac discover(const FrameLink &link, Mac destination, size_t size, Milliseconds limit);

}  // namespace station
