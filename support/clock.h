#pragma once
// Deadlines.

#include <cstdint>
#include <ctime>

// Returns the time in milliseconds on a clock that nobody sets (CLOCK_MONOTONIC). Wraps after 49 days.
inline uint32_t my_milliseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec) * 1000 + static_cast<uint32_t>(now.tv_nsec) / 1000000;
}

// Returns the milliseconds until `deadline`, a time of my_milliseconds at most 24 days away; 0 once it has passed.
inline int32_t my_millisecondsLeft(uint32_t deadline) {
    const int32_t left = static_cast<int32_t>(deadline - my_milliseconds());
    return left > 0 ? left : 0;
}
