#include "playback/smartbuffer.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "core/log.h"

std::atomic<int> tvOverrun{0};
std::atomic<int> tvUnderrun{0};
std::atomic<long long> tvSmbOut{0};
std::atomic<long long> tvSmbIn{0};
std::atomic<int> tvOccupancy{0};

SmartBuffer::SmartBuffer(int size)
    : size_(size),
      storage_(new uint8_t[static_cast<size_t>(size) * kSlotBytes]),
      start_(storage_.get()),
      end_(storage_.get() + static_cast<size_t>(size) * kSlotBytes),
      writePos_(start_),
      readPos_(start_) {
    clear();
}

void SmartBuffer::resetLocked() {
    writePos_ = readPos_ = start_;
    used_ = 0;
}

void SmartBuffer::clear() {
    std::lock_guard<std::mutex> hold(lock_);
    resetLocked();
    underrun_ = 1;
    overrun_ = 0;
    release_ = 0;
}

void SmartBuffer::releasePendingPut() {
    // Without the lock: the flag outlives a missed signal, so a producer that
    // was not waiting yet gives up on its next put instead.
    release_ = 1;
    wakeup_.notify_all();
}

void SmartBuffer::signal() {
    wakeup_.notify_all();
}

bool SmartBuffer::enoughSpace(int n) {
    std::lock_guard<std::mutex> hold(lock_);
    return used_ + n <= size_;
}

void SmartBuffer::sleepUntilReady(int n) {
    if (enoughSpace(n)) return;
    kzLog("sleepUntilReady\n");
    usleep(200000);
}

bool SmartBuffer::priming() {
    std::lock_guard<std::mutex> hold(lock_);
    return underrun_ != 0;
}

void SmartBuffer::copyIn(const void* src, int n) {
    const uint8_t* from = static_cast<const uint8_t*>(src);
    size_t bytes = static_cast<size_t>(n) * kSlotBytes;
    while (bytes > 0) {
        size_t run = std::min(bytes, static_cast<size_t>(end_ - writePos_));
        memcpy(writePos_, from, run);
        from += run;
        bytes -= run;
        writePos_ += run;
        if (writePos_ == end_) writePos_ = start_;
    }
    tvSmbIn += n;
}

void SmartBuffer::copyOut(void* dst, int n) {
    uint8_t* to = static_cast<uint8_t*>(dst);
    size_t bytes = static_cast<size_t>(n) * kSlotBytes;
    while (bytes > 0) {
        size_t run = std::min(bytes, static_cast<size_t>(end_ - readPos_));
        memcpy(to, readPos_, run);
        to += run;
        bytes -= run;
        readPos_ += run;
        if (readPos_ == end_) readPos_ = start_;
    }
}

bool SmartBuffer::takeLocked(int n, void* dst) {
    used_ -= n;
    copyOut(dst, n);
    bool wasLatched = false;
    if (used_ <= size_ / 2) {
        wasLatched = overrun_ != 0;
        overrun_ = 0;
    }
    return wasLatched;
}

void SmartBuffer::put(int n, const void* src) {
    // Latched: everything is dropped, without even taking the lock, until a
    // consumer has brought the ring down to half.
    if (overrun_) return;
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (used_ + n <= size_) {
            used_ += n;
            copyIn(src, n);
            return;
        }
        overrun_ = 1;
        tvOverrun++;
        underrun_ = 0;
    }
    kzLog("smartPutSamples() overrun\n");
}

void SmartBuffer::putW(int n, const void* src) {
    std::unique_lock<std::mutex> hold(lock_);
    while (used_ + n > size_ && !release_)
        wakeup_.wait(hold);
    if (release_) {
        // Released: this batch belongs to a track that is being stopped.
        release_ = 0;
        return;
    }
    used_ += n;
    copyIn(src, n);
    // A blocking get may be waiting for exactly these.
    wakeup_.notify_all();
}

void SmartBuffer::putS(int n, const void* src) {
    std::lock_guard<std::mutex> hold(lock_);
    if (used_ + n <= size_) {
        used_ += n;
        copyIn(src, n);
    }
    wakeup_.notify_all();
}

int SmartBuffer::putNF(int n, const void* src) {
    std::lock_guard<std::mutex> hold(lock_);
    int m = std::min(n, size_ - used_.load());
    if (m <= 0) return 0;
    used_ += m;
    copyIn(src, m);
    return m;
}

void SmartBuffer::dumbPut(int n, const void* src) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (used_ + n <= size_) {
            used_ += n;
            copyIn(src, n);
            return;
        }
    }
    kzLog("dumbPutSamples Overrun\n");
}

int SmartBuffer::get(int n, void* dst) {
    tvSmbOut += n;
    bool logUnderrun = false, logCleared = false, logOverrunCleared = false;
    int result = 0;
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (used_ - n < 0) {
            logUnderrun = !underrun_;
            underrun_ = 1;
            tvUnderrun++;
        }
        bool silent = false;
        if (underrun_) {
            if (used_ < size_ / 2) {
                // The idle output is a constant 1, the same value the output
                // sends when nothing plays, so a priming source does not click.
                uint16_t* words = static_cast<uint16_t*>(dst);
                std::fill(words, words + static_cast<size_t>(n) * 2, uint16_t{1});
                silent = true;
            } else {
                underrun_ = 0;
                logCleared = true;
            }
        }
        if (!silent) {
            tvOccupancy = used_.load();
            logOverrunCleared = takeLocked(n, dst);
            result = 1;
        }
    }
    if (logUnderrun) kzLog("smartGetSamples () underrun\n");
    // The live get reports its recovery with the blocking get's words.
    if (logCleared) kzLog("smartGetSamplesS () underrun - cleared\n");
    if (logOverrunCleared) kzLog("smartGetSamples() overrun - cleared\n");
    return result;
}

int SmartBuffer::getPriming(int n, void* dst, bool discardOnUnderrun, const char* underrunText,
                            const char* clearedText) {
    bool logUnderrun = false, logCleared = false;
    int result = 0;
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (used_ - n < 0) {
            if (!underrun_) {
                logUnderrun = true;
                // What is left is too little to matter and would only play
                // as a stutter before the priming silence.
                if (discardOnUnderrun) resetLocked();
            }
            underrun_ = 1;
        }
        if (underrun_ && used_ < (size_ * 3) / 4) {
            memset(dst, 0, static_cast<size_t>(n) * kSlotBytes);
        } else {
            if (underrun_) {
                underrun_ = 0;
                logCleared = true;
            }
            takeLocked(n, dst);
            result = 1;
        }
        // Also after silence: the producer may be blocked filling a priming ring.
        wakeup_.notify_all();
    }
    if (logUnderrun) kzLog("%s", underrunText);
    if (logCleared) kzLog("%s", clearedText);
    return result;
}

int SmartBuffer::getS(int n, void* dst) {
    return getPriming(n, dst, false, "smartGetSamplesS () underrun\n",
                      "smartGetSamplesS () underrun - cleared\n");
}

int SmartBuffer::getS2(int n, void* dst) {
    return getPriming(n, dst, true, "smartGetSamplesS2 () underrun\n",
                      "smartGetSamplesS2 () underrun - cleared\n");
}

int SmartBuffer::getW(int n, void* dst) {
    std::unique_lock<std::mutex> hold(lock_);
    while (used_ < n && !release_)
        wakeup_.wait(hold);
    if (release_) {
        release_ = 0;
        return 0;
    }
    used_ -= n;
    copyOut(dst, n);
    // And a blocking put for the room.
    wakeup_.notify_all();
    return 1;
}

int SmartBuffer::dumbGet(int n, void* dst) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (used_ - n >= 0) {
            used_ -= n;
            copyOut(dst, n);
            return 1;
        }
    }
    clear();
    return 0;
}

int SmartBuffer::getAvailable(int n, void* dst) {
    std::lock_guard<std::mutex> hold(lock_);
    int m = std::min(used_.load(), n);
    takeLocked(m, dst);
    return m;
}

int SmartBuffer::getAvailable2(int n, void* dst) {
    if (used_ < n) return 0;
    return getAvailable(n, dst);
}

std::unique_ptr<SmartBuffer> createSmartBuffer(int size) {
    auto b = std::make_unique<SmartBuffer>(size);
    tvOverrun = 0;
    tvUnderrun = 0;
    tvSmbIn = 0;
    tvSmbOut = 0;
    return b;
}

void clearSmartBuffer(SmartBuffer* b) {
    b->clear();
}
void releasePendingPutSamples(SmartBuffer* b) {
    b->releasePendingPut();
}
void smartRelease(SmartBuffer* b) {
    b->signal();
}
bool enoughSpace(SmartBuffer* b, int n) {
    return b->enoughSpace(n);
}
void sleepUntilReady(SmartBuffer* b, int n) {
    b->sleepUntilReady(n);
}
void smartPutSamples(SmartBuffer* b, int n, const void* src) {
    b->put(n, src);
}
void smartPutSamplesW(SmartBuffer* b, int n, const void* src) {
    b->putW(n, src);
}
void smartPutSamplesS(SmartBuffer* b, int n, const void* src) {
    b->putS(n, src);
}
int smartPutSamplesNF(SmartBuffer* b, int n, const void* src) {
    return b->putNF(n, src);
}
void dumbPutSamples(SmartBuffer* b, int n, const void* src) {
    b->dumbPut(n, src);
}
int smartGetSamples(SmartBuffer* b, int n, void* dst) {
    return b->get(n, dst);
}
int smartGetSamplesS(SmartBuffer* b, int n, void* dst) {
    return b->getS(n, dst);
}
int smartGetSamplesS2(SmartBuffer* b, int n, void* dst) {
    return b->getS2(n, dst);
}
int smartGetSamplesW(SmartBuffer* b, int n, void* dst) {
    return b->getW(n, dst);
}
int dumbGetSamples(SmartBuffer* b, int n, void* dst) {
    return b->dumbGet(n, dst);
}
int smartGetAvailableSamples(SmartBuffer* b, int n, void* dst) {
    return b->getAvailable(n, dst);
}
int smartGetAvailableSamples2(SmartBuffer* b, int n, void* dst) {
    return b->getAvailable2(n, dst);
}
