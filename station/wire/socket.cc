#include "station/wire/socket.h"

#include <fmt/format.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

namespace station {

Socket::~Socket() {
    if (descriptor_ >= 0) close(descriptor_);
}

Socket::Socket(Socket &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

Socket &Socket::operator=(Socket &&other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

int pollLimit(Clock::time_point deadline) {
    const int64_t left = std::chrono::ceil<Milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, std::numeric_limits<int>::max()));
}

bool waitFor(int descriptor, short events, Clock::time_point deadline) {
    while (Clock::now() < deadline) {
        pollfd waiting = {descriptor, events, 0};
        const int ready = poll(&waiting, 1, pollLimit(deadline));
        if (ready >= 0 || errno != EINTR) return ready > 0;
    }
    return false;
}

std::string boundTo(int socket) {
    std::array<char, IFNAMSIZ> name{};
    socklen_t length = name.size();
    getsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, name.data(), &length);
    return name.data();
}

std::string describeError(std::string_view what) { return fmt::format("{}: {}", what, strerror(errno)); }

}  // namespace station
