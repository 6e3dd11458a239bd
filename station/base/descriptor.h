#pragma once
// An open descriptor, waiting for it, and how a failure of the system is told.

#include <string>
#include <string_view>

#include "station/base/time.h"

namespace station {

// Movable, closed at the end of its life; -1 for none.
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

// Returns true when one of the events (POLLIN, POLLOUT) is there before the deadline.
bool waitFor(int descriptor, short events, Clock::time_point deadline);

// Returns "WHAT: " and the text of errno.
std::string describeError(std::string_view what);

}  // namespace station
