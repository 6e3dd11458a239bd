#include "station/line/seat.h"

namespace station {

void Seat::reconnect(Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    awaits_ = true;
    wake_();
    changed_.wait_until(lock, deadline, [&] { return returned_.has_value(); });
    awaits_ = false;
    if (!returned_) throw SessionError("the board did not connect again in time");
    session_ = std::move(returned_);
    returned_.reset();
}

bool Seat::awaits() const {
    const std::lock_guard lock(mutex_);
    return awaits_ && !returned_;
}

bool Seat::welcome(Session &session) {
    const std::lock_guard lock(mutex_);
    if (!awaits_ || returned_) return false;
    returned_ = std::move(session);
    changed_.notify_all();
    return true;
}

}  // namespace station
