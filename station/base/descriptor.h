#pragma once
// Open descriptors and waiting for them, the text of a system error, and the machine's name.

#include <string>
#include <string_view>

#include "station/base/time.h"

namespace station {

// Owns an open descriptor, or none (-1), and closes it.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    ~Descriptor();
    Descriptor(Descriptor &&other) noexcept;
    Descriptor &operator=(Descriptor &&other) noexcept;
    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

// Returns the milliseconds until the deadline as poll() takes them: rounded up, 0 when it has passed.
int pollLimit(Clock::time_point deadline);

// Waits until one of the events (POLLIN, POLLOUT) occurs. Returns false when none did before the deadline.
bool waitFor(int descriptor, short events, Clock::time_point deadline);

// Returns "WHAT: " and the text of errno.
std::string describeError(std::string_view what);

// Returns the machine's host name; "station" when it has none.
std::string hostName();

}  // namespace station
