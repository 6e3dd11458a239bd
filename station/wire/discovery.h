#pragma once
// The layer-2 handshake with a board that waits in the mode "qconly" and has no connection yet: a frame of EtherType
// 0x55AA, which the board answers three times with EtherType 0xAA55.

#include <memory>
#include <string>

#include "station/base/mac.h"
#include "station/wire/session.h"

namespace station {

constexpr Mac kBroadcast = 0xFFFFFFFFFFFF;
constexpr size_t kShortestRequest = 14;   // bytes of a frame: the header alone
constexpr size_t kLongestRequest = 1514;  // the answer has 1024 bytes, which is all that the board keeps

// Carries whole Ethernet frames.
class FrameLink {
public:
    virtual ~FrameLink() = default;
    virtual void send(const std::string &frame) = 0;
    // Returns the next frame that arrives before the deadline; empty when none does.
    virtual std::string receive(Clock::time_point deadline) = 0;
    virtual Mac address() const = 0;  // this end's
};

// Opens a link by its name: a network interface of this machine, as root; or "udp:LOCAL:REMOTE", the virtual board's
// link, with one frame per datagram between these two ports of the loopback address. Throws SessionError.
std::unique_ptr<FrameLink> openLink(const std::string &name);

// Sends a request of `size` bytes to `destination`, once a second until it is answered, and checks the three answers
// byte for byte. Returns the board's address. Throws SessionError when there is no answer in time, or a wrong one.
Mac discover(FrameLink &link, Mac destination, size_t size, Milliseconds limit);

}  // namespace station
