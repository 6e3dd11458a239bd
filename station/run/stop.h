#pragma once
// The request to stop the line: running steps end, and nothing new begins.

#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>

#include "station/base/descriptor.h"

namespace station {

// May be used by any thread.
class Stop {
public:
    void request() {
        requested_ = true;
        eventfd_write(event_.descriptor(), 1);
    }
    bool requested() const { return requested_; }
    // Waits for this time, or until the stop is requested. Returns whether it has been.
    bool wait(Milliseconds duration) const {
        return waitFor(event_.descriptor(), POLLIN, Clock::now() + duration) || requested();
    }

private:
    std::atomic<bool> requested_ = false;
    const Descriptor event_{eventfd(0, EFD_CLOEXEC)};
};

}  // namespace station
