#pragma once
// The wish that the line stop: steps that run end, nothing new is begun.

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace station {

class Stop {
public:
    void request() {
        {
            const std::lock_guard lock(mutex_);
            requested_ = true;
        }
        changed_.notify_all();
    }
    bool requested() const {
        const std::lock_guard lock(mutex_);
        return requested_;
    }
    // Waits so long, or until the stop is requested: true then.
    bool wait(std::chrono::milliseconds duration) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, duration, [&] { return requested_; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    bool requested_ = false;
};

}  // namespace station
