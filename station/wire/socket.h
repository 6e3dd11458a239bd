#pragma once
// What sessions and listeners share: an open socket, waiting for it, and how a failure is told.

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>

namespace station {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// What went wrong on the connection, in words for the line engineer.
struct SessionError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// An open socket. Movable, closed at the end of its life.
class Socket {
public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    ~Socket();
    Socket(Socket &&other) noexcept;
    Socket &operator=(Socket &&other) noexcept;
    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

// Milliseconds until the deadline, 0 when it has passed, as poll takes them.
int pollLimit(Clock::time_point deadline);

// True when one of the events (POLLIN, POLLOUT) is there before the deadline.
bool waitFor(int descriptor, short events, Clock::time_point deadline);

// The interface that a socket is bound to; empty for none, and for one that has gone.
std::string boundTo(int socket);

// "WHAT: " and the text of errno.
std::string describeError(std::string_view what);

}  // namespace station
