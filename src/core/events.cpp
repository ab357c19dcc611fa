#include "core/events.h"

void waitlock_init(waitlock& lock) {
    std::lock_guard<std::mutex> g(lock.mutex);
    lock.flag = 0;
}

void waitlock_signal(waitlock& lock) {
    std::lock_guard<std::mutex> g(lock.mutex);
    lock.flag = 1;
    lock.cond.notify_one();
}

int waitlock_wait(waitlock& lock, int ms, Clock& clock) {
    timespec deadline = clock.now();
    addMilliseconds(deadline, ms);
    std::unique_lock<std::mutex> g(lock.mutex);
    while (!lock.flag) {
        if (clock.waitUntil(lock.cond, g, deadline)) {
            if (lock.flag) break;
            return 0;
        }
    }
    lock.flag = 0;
    return 1;
}

void addMilliseconds(timespec& t, int ms) {
    t.tv_sec += ms / 1000;
    t.tv_nsec += (ms % 1000) * 1000000L;
    if (t.tv_nsec > 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec %= 1000000000L;
    }
}

const char* timestamp() {
    static thread_local char timeInMs[6];
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    unsigned ms = static_cast<unsigned>((t.tv_nsec + 500000L) / 1000000L);
    if (ms > 999) ms = 999;
    unsigned digit = static_cast<unsigned>(t.tv_sec % 10);
    timeInMs[0] = static_cast<char>('0' + digit);
    timeInMs[1] = '.';
    timeInMs[2] = static_cast<char>('0' + ms / 100);
    timeInMs[3] = static_cast<char>('0' + ms / 10 % 10);
    timeInMs[4] = static_cast<char>('0' + ms % 10);
    timeInMs[5] = 0;
    return timeInMs;
}

EventQueue::EventQueue(Clock& clock) : clock_(clock) {
    init();
}

void EventQueue::init() {
    waitlock_init(uiLock_);
    std::lock_guard<std::mutex> g(uiLock_.mutex);
    uiQIn_ = uiQOut_ = uiQLen_ = 0;
    postedRefresh_ = false;
    lastTimeout_ = clock_.now();
}

void EventQueue::appendLocked(int code) {
    if (uiQLen_ < kSlots) {
        uiQ_[uiQIn_] = code;
        uiQIn_ = (uiQIn_ + 1) % kSlots;
        uiQLen_++;
    }
}

void EventQueue::addEvent(int code) {
    std::lock_guard<std::mutex> g(uiLock_.mutex);
    appendLocked(code);
    uiLock_.cond.notify_one();
}

void EventQueue::orEvent(int code) {
    std::lock_guard<std::mutex> g(uiLock_.mutex);
    for (int i = 0, j = uiQOut_; i < uiQLen_; i++, j = (j + 1) % kSlots) {
        if (uiQ_[j] == code) return;
    }
    appendLocked(code);
    uiLock_.cond.notify_one();
}

void EventQueue::clearEvents() {
    std::lock_guard<std::mutex> g(uiLock_.mutex);
    uiQIn_ = uiQOut_ = uiQLen_ = 0;
}

void EventQueue::postRefresh() {
    std::lock_guard<std::mutex> g(uiLock_.mutex);
    postedRefresh_ = true;
}

int EventQueue::getUpDownEvents() {
    std::lock_guard<std::mutex> g(uiLock_.mutex);
    int sum = 0;
    while (uiQLen_ > 0) {
        int code = uiQ_[uiQOut_];
        if (code == EVENT_UP) {
            sum++;
        } else if (code == EVENT_DOWN) {
            sum--;
        } else {
            break;
        }
        uiQOut_ = (uiQOut_ + 1) % kSlots;
        uiQLen_--;
    }
    return sum;
}

int EventQueue::waitEvent() {
    std::unique_lock<std::mutex> g(uiLock_.mutex);
    long long delta = diffMs(lastTimeout_, clock_.now());
    if (delta > 1000 || delta < -1000) lastTimeout_ = clock_.now();

    if (uiQLen_ == 0 && postedRefresh_) {
        postedRefresh_ = false;
        return EVENT_REFRESH;
    }
    while (uiQLen_ == 0) {
        if (clock_.waitUntil(uiLock_.cond, g, lastTimeout_)) {
            addMilliseconds(lastTimeout_, 1000);
            return EVENT_TICK;
        }
    }
    int code = uiQ_[uiQOut_];
    uiQOut_ = (uiQOut_ + 1) % kSlots;
    uiQLen_--;
    if (code == EVENT_REFRESH) postedRefresh_ = false;
    return code;
}

int EventQueue::length() {
    std::lock_guard<std::mutex> g(uiLock_.mutex);
    return uiQLen_;
}

EventQueue& uiQ() {
    // Never destroyed: other threads may still use it while the process ends.
    static EventQueue& queue = *new EventQueue;
    return queue;
}

void uiQInit() {
    uiQ().init();
}
void addEvent(int code) {
    uiQ().addEvent(code);
}
void orEvent(int code) {
    uiQ().orEvent(code);
}
void clearEvents() {
    uiQ().clearEvents();
}
void postRefresh() {
    uiQ().postRefresh();
}
int getUpDownEvents() {
    return uiQ().getUpDownEvents();
}
int waitEvent() {
    return uiQ().waitEvent();
}

bool isUserEvent(int code) {
    switch (code) {
        case 0:
        case 11:
        case 12:
        case 13:
        case 14:
        case 49:
        case 53:
        case 74:
        case 105:
            return false;
        default:
            return true;
    }
}

bool isUp(int code) {
    return code == 9 || code == 44;
}
bool isDown(int code) {
    return code == 10 || code == 36;
}
bool isPushOK(int code) {
    return code == 5 || code == 40;
}
bool isBack(int code) {
    return code == 2 || code == 43 || code == 106;
}
bool isPrev(int code) {
    return code == 2 || code == 22 || code == 106;
}
bool isAnyNext(int code) {
    return code == 8 || code == 24 || code == 74;
}
bool isUserNext(int code) {
    return code == 8 || code == 24 || code == 107;
}
