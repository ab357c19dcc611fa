// The wall clock as the event queue and waitlocks see it. The queue's ticks are
// deadlines on the wall clock; tests hand the queue a clock they move by hand.
#pragma once

#include <time.h>

#include <condition_variable>
#include <mutex>

class Clock {
  public:
    virtual ~Clock() = default;
    virtual timespec now() = 0;
    // Waits on cond (lock held) until it is notified, spuriously woken, or the
    // wall clock reaches deadline. Returns true when it ended by time-out.
    virtual bool waitUntil(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                           const timespec& deadline) = 0;
};

// CLOCK_REALTIME. A wait is measured in slices on the monotonic clock and the
// wall clock is read again after each, so a clock set back during a wait ends
// it (as a time-out) instead of stalling it for as long as the step.
class WallClock : public Clock {
  public:
    timespec now() override;
    bool waitUntil(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                   const timespec& deadline) override;
};

WallClock& wallClock();

// Milliseconds from a to b (b - a).
long long diffMs(const timespec& a, const timespec& b);
