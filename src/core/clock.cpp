#include "core/clock.h"

#include <chrono>

long long diffMs(const timespec& a, const timespec& b) {
    return (static_cast<long long>(b.tv_sec) - a.tv_sec) * 1000LL +
           (static_cast<long long>(b.tv_nsec) - a.tv_nsec) / 1000000LL;
}

timespec WallClock::now() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return t;
}

bool WallClock::waitUntil(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                          const timespec& deadline) {
    const long long first = diffMs(now(), deadline);
    long long remaining = first;
    for (;;) {
        if (remaining <= 0) return true;
        // The deadline moved away: the clock was set back. End the wait as
        // if it had passed, so the caller can start afresh from the present.
        if (remaining > first + 1000) return true;
        auto slice = std::chrono::milliseconds(remaining < 1000 ? remaining : 1000);
        if (cond.wait_for(lock, slice) == std::cv_status::no_timeout) return false;
        remaining = diffMs(now(), deadline);
    }
}

WallClock& wallClock() {
    static WallClock clock;
    return clock;
}
