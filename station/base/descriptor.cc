#include "station/base/descriptor.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

namespace station {

Descriptor::~Descriptor() {
    if (descriptor_ >= 0) close(descriptor_);
}

Descriptor::Descriptor(Descriptor &&other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept {
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

std::string describeError(std::string_view what) { return fmt::format("{}: {}", what, strerror(errno)); }

std::string hostName() {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0' ? name.data() : "station";
}

}  // namespace station
