// The event queue: the one way other threads wake the main (user-interface)
// thread. Codes are small integers; a full queue drops, it never blocks.
#pragma once

#include <time.h>

#include <condition_variable>
#include <mutex>

#include "core/clock.h"

enum EventCode {
    EVENT_NONE = 0,
    EVENT_PREV = 2,
    EVENT_BAD_DISC = 3,
    EVENT_OK = 5,
    EVENT_NEXT = 8,
    EVENT_UP = 9,
    EVENT_DOWN = 10,
    EVENT_TICK = 11,
    EVENT_REFRESH = 12,
    EVENT_IP_CHECK = 14,
    EVENT_DISC_NOT_READY = 15,
    EVENT_DISC_READY = 16,
};

// A one-shot signal with a time-out: a signal given before the wait is kept.
struct waitlock {
    std::mutex mutex;
    std::condition_variable cond;
    int flag = 0;
};

void waitlock_init(waitlock& lock);
void waitlock_signal(waitlock& lock);
// Returns 1 when signalled (and clears the signal), 0 when ms passed first.
int waitlock_wait(waitlock& lock, int ms, Clock& clock = wallClock());

// Adds ms to t. The carry is taken only when the nanoseconds exceed a second,
// so exactly 1000000000 is left as it is.
void addMilliseconds(timespec& t, int ms);

// "s.mmm": the last digit of the wall-clock seconds and the milliseconds.
const char* timestamp();

class EventQueue {
  public:
    static constexpr int kSlots = 10;

    explicit EventQueue(Clock& clock = wallClock());

    // uiQInit: empty queue, no posted refresh, the tick rhythm starts now.
    void init();
    void addEvent(int code);
    void orEvent(int code);
    void clearEvents();
    void postRefresh();
    int getUpDownEvents();
    // The next code; EVENT_TICK once a second when nothing else comes.
    int waitEvent();

    int length();

  private:
    void appendLocked(int code);

    Clock& clock_;
    waitlock uiLock_;
    int uiQ_[kSlots] = {};
    int uiQIn_ = 0;
    int uiQOut_ = 0;
    int uiQLen_ = 0;
    bool postedRefresh_ = false;
    timespec lastTimeout_ = {};
};

// The process-wide queue of the main loop.
EventQueue& uiQ();
void uiQInit();
void addEvent(int code);
void orEvent(int code);
void clearEvents();
void postRefresh();
int getUpDownEvents();
int waitEvent();

// Codes that count as somebody using the appliance.
bool isUserEvent(int code);
bool isUp(int code);
bool isDown(int code);
bool isPushOK(int code);
bool isBack(int code);
bool isPrev(int code);
bool isAnyNext(int code);
bool isUserNext(int code);
