#pragma once
// The request that the line stop: running steps end, nothing new is begun.

#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>

#include "station/base/descriptor.h"

namespace station {

// May be used from any thread.
class Stop {
public:
    void request() {
        requested_ = true;
        eventfd_write(event_.descriptor(), 1);
    }
    bool requested() const { return requested_; }
    // Waits so long, or until the stop is requested. Returns whether it is.
    bool wait(Milliseconds duration) const {
        return waitFor(event_.descriptor(), POLLIN, Clock::now() + duration) || requested();
    }

private:
    std::atomic<bool> requested_ = false;
    const Descriptor event_{eventfd(0, EFD_CLOEXEC)};
};

}  // namespace station
