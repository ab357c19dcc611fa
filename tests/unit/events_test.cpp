#include "core/events.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/keys.h"

namespace {

// A wall clock that only moves when a test moves it, or when the queue waits
// for a deadline that has not come yet (the wait then "lasts" until it).
class ManualClock : public Clock {
  public:
    timespec t{1000000, 0};
    int waits = 0;
    timespec now() override { return t; }
    bool waitUntil(std::condition_variable&, std::unique_lock<std::mutex>&,
                   const timespec& deadline) override {
        waits++;
        if (diffMs(t, deadline) > 0) t = deadline;
        return true;
    }
    void advanceMs(int ms) { addMilliseconds(t, ms); }
};

long long ms(const timespec& t) {
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

TEST(EventQueue, KeepsTenCodesInOrderAndDropsTheRest) {
    ManualClock clock;
    EventQueue q(clock);
    for (int code = 100; code < 111; code++)
        q.addEvent(code);
    EXPECT_EQ(q.length(), 10);
    for (int code = 100; code < 110; code++)
        EXPECT_EQ(q.waitEvent(), code);
    // The eleventh was lost; the empty queue now ticks.
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);

    // The ring wraps: indices keep working after many passes.
    for (int round = 0; round < 25; round++) {
        q.addEvent(round);
        q.addEvent(round + 1000);
        EXPECT_EQ(q.waitEvent(), round);
        EXPECT_EQ(q.waitEvent(), round + 1000);
    }
    q.addEvent(5);
    q.clearEvents();
    EXPECT_EQ(q.length(), 0);
}

TEST(EventQueue, OrEventQueuesACodeOnce) {
    ManualClock clock;
    EventQueue q(clock);
    q.orEvent(7);
    q.orEvent(7);
    q.addEvent(8);
    q.orEvent(8);
    EXPECT_EQ(q.length(), 2);
    EXPECT_EQ(q.waitEvent(), 7);
    // Once taken, the code can be queued again.
    q.orEvent(7);
    EXPECT_EQ(q.waitEvent(), 8);
    EXPECT_EQ(q.waitEvent(), 7);
    // orEvent on a full queue drops like addEvent.
    for (int i = 0; i < 10; i++)
        q.addEvent(i);
    q.orEvent(133);
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(q.waitEvent(), i);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);
}

TEST(EventQueue, PostedAndQueuedRefreshAreDeliveredOnce) {
    ManualClock clock;
    EventQueue q(clock);
    q.postRefresh();
    EXPECT_EQ(q.waitEvent(), EVENT_REFRESH);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);

    q.addEvent(EVENT_REFRESH);
    q.postRefresh();
    EXPECT_EQ(q.waitEvent(), EVENT_REFRESH);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);

    // A posted refresh waits behind queued codes.
    q.addEvent(5);
    q.postRefresh();
    EXPECT_EQ(q.waitEvent(), 5);
    EXPECT_EQ(q.waitEvent(), EVENT_REFRESH);
    // clearEvents leaves a posted refresh alone.
    q.postRefresh();
    q.clearEvents();
    EXPECT_EQ(q.waitEvent(), EVENT_REFRESH);
}

TEST(EventQueue, UpDownBurstStopsAtTheFirstOtherCode) {
    ManualClock clock;
    EventQueue q(clock);
    for (int code : {9, 9, 10, 5, 9})
        q.addEvent(code);
    EXPECT_EQ(q.getUpDownEvents(), 1);
    EXPECT_EQ(q.waitEvent(), 5);
    EXPECT_EQ(q.getUpDownEvents(), 1);
    EXPECT_EQ(q.getUpDownEvents(), 0);
    for (int code : {10, 10, 10})
        q.addEvent(code);
    EXPECT_EQ(q.getUpDownEvents(), -3);
    EXPECT_EQ(q.length(), 0);
}

TEST(EventQueue, TicksKeepASteadyRhythmAndRestartAfterClockSteps) {
    ManualClock clock;
    EventQueue q(clock);
    const long long start = ms(clock.t);

    // The first call ticks at once, then one tick per second on the dot.
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(q.waitEvent(), EVENT_TICK);
        EXPECT_EQ(ms(clock.t) - start, i * 1000);
    }
    // Events between ticks do not move the deadlines.
    clock.advanceMs(300);
    q.addEvent(1);
    EXPECT_EQ(q.waitEvent(), 1);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);
    EXPECT_EQ(ms(clock.t) - start, 5000);

    // Falling behind by up to a second keeps the rhythm...
    clock.advanceMs(1900);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);
    EXPECT_EQ(ms(clock.t) - start, 6900);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);
    EXPECT_EQ(ms(clock.t) - start, 7000);

    // ...a step forward of more than a second ticks at once and restarts it.
    clock.advanceMs(5500);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);
    EXPECT_EQ(ms(clock.t) - start, 12500);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);
    EXPECT_EQ(ms(clock.t) - start, 13500);

    // A step back of more than a second does too (no hour-long wait).
    clock.t.tv_sec -= 3600;
    const long long back = ms(clock.t);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);
    EXPECT_EQ(ms(clock.t), back);
    EXPECT_EQ(q.waitEvent(), EVENT_TICK);
    EXPECT_EQ(ms(clock.t), back + 1000);
}

TEST(EventQueue, FloodFromManyThreadsNeverBlocksAndLosesOnlyOverflow) {
    EventQueue q;  // the real wall clock
    constexpr int kThreads = 8, kPerThread = 20000;
    std::atomic<bool> stop{false};
    std::atomic<long> taken{0};
    std::thread reader([&] {
        while (!stop.load()) {
            int code = q.waitEvent();
            if (code != EVENT_TICK) taken++;
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; t++) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; i++) {
                if (i % 2) {
                    q.addEvent(200 + t);
                } else {
                    q.orEvent(300 + t);
                }
                if (i % 1000 == 0) q.postRefresh();
            }
        });
    }
    for (auto& w : writers)
        w.join();
    q.addEvent(1);  // wakes the reader if it sleeps
    stop = true;
    q.addEvent(1);
    reader.join();
    EXPECT_GT(taken.load(), 0);
    EXPECT_LE(taken.load(), long{kThreads} * kPerThread + 2 + kThreads * kPerThread / 1000);
    EXPECT_LE(q.length(), EventQueue::kSlots);
}

TEST(Waitlock, SignalIsKeptUntilWaitedForAndTimesOut) {
    waitlock lock;
    waitlock_init(lock);
    ManualClock clock;
    EXPECT_EQ(waitlock_wait(lock, 50, clock), 0);
    EXPECT_EQ(clock.waits, 1);

    waitlock_signal(lock);
    EXPECT_EQ(waitlock_wait(lock, 50, clock), 1);
    // The signal was consumed.
    EXPECT_EQ(waitlock_wait(lock, 50, clock), 0);

    // Across threads, on the real clock.
    std::thread t([&] { waitlock_signal(lock); });
    EXPECT_EQ(waitlock_wait(lock, 10000), 1);
    t.join();
    EXPECT_EQ(waitlock_wait(lock, 20), 0);
}

TEST(AddMilliseconds, CarriesOnlyAboveOneSecond) {
    timespec t{10, 999000000};
    addMilliseconds(t, 1);
    // Exactly 1000000000 nanoseconds is left uncarried.
    EXPECT_EQ(t.tv_sec, 10);
    EXPECT_EQ(t.tv_nsec, 1000000000);

    t = {10, 999000000};
    addMilliseconds(t, 2);
    EXPECT_EQ(t.tv_sec, 11);
    EXPECT_EQ(t.tv_nsec, 1000000);

    t = {10, 500000000};
    addMilliseconds(t, 2750);
    EXPECT_EQ(t.tv_sec, 13);
    EXPECT_EQ(t.tv_nsec, 250000000);

    t = {0, 0};
    addMilliseconds(t, 1000);
    EXPECT_EQ(t.tv_sec, 1);
    EXPECT_EQ(t.tv_nsec, 0);
}

TEST(Timestamp, IsOneDigitPointThreeDigits) {
    std::string s = timestamp();
    ASSERT_EQ(s.size(), 5u);
    EXPECT_TRUE(isdigit(s[0]));
    EXPECT_EQ(s[1], '.');
    EXPECT_TRUE(isdigit(s[2]) && isdigit(s[3]) && isdigit(s[4]));
}

TEST(EventCodes, UserEventsAndKeyPredicates) {
    for (int code : {0, 11, 12, 13, 14, 49, 53, 74, 105})
        EXPECT_FALSE(isUserEvent(code)) << code;
    for (int code : {1, 2, 3, 5, 6, 8, 15, 16, 20, 78, 80, 87, 106, 107, 133, 163})
        EXPECT_TRUE(isUserEvent(code)) << code;

    EXPECT_TRUE(isUp(9) && isUp(44) && !isUp(10));
    EXPECT_TRUE(isDown(10) && isDown(36) && !isDown(9));
    EXPECT_TRUE(isPushOK(5) && isPushOK(40) && !isPushOK(8));
    EXPECT_TRUE(isBack(2) && isBack(43) && isBack(106) && !isBack(22));
    EXPECT_TRUE(isPrev(2) && isPrev(22) && isPrev(106) && !isPrev(43));
    EXPECT_TRUE(isAnyNext(8) && isAnyNext(24) && isAnyNext(74) && !isAnyNext(107));
    EXPECT_TRUE(isUserNext(8) && isUserNext(24) && isUserNext(107) && !isUserNext(74));
}

TEST(Keys, TranslateBothShiftStates) {
    std::string row;
    for (int k = 16; k <= 25; k++)
        row += static_cast<char>(translateKey(k, false));
    EXPECT_EQ(row, "qwertyuiop");
    row.clear();
    for (int k = 2; k <= 13; k++) {
        int e = translateKey(k, true);
        row += e == 163 ? std::string("£") : std::string(1, static_cast<char>(e));
    }
    EXPECT_EQ(row, "!\"£$%^&*()_+");
    EXPECT_EQ(translateKey(40, false), '\'');
    EXPECT_EQ(translateKey(41, false), '`');
    EXPECT_EQ(translateKey(40, true), '@');
    EXPECT_EQ(translateKey(53, true), '?');
    EXPECT_EQ(translateKey(57, true), ' ');
    // F2..F6 and F8 are events, unshifted only.
    EXPECT_EQ(translateKey(60, false), 2);
    EXPECT_EQ(translateKey(66, false), 7);
    EXPECT_EQ(translateKey(65, false), '?');
    EXPECT_EQ(translateKey(60, true), '?');
    // Keys missing from a list give the question mark.
    EXPECT_EQ(translateKey(41, true), '?');
    EXPECT_EQ(translateKey(1, false), '?');
    EXPECT_EQ(translateKey(0, false), '?');

    EXPECT_EQ(adcEvents[0], 120);
    EXPECT_EQ(adcEvents[7], 106);
    EXPECT_EQ(adcHeldEvents[2], 113);
    EXPECT_EQ(adcHeldEvents[7], 118);
}

}  // namespace
