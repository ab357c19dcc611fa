#include "playback/fifo.h"

#include <algorithm>
#include <cstring>

void Fifo::make(int capacity) {
    storage_.reset(new uint8_t[capacity]);
    capacity_ = capacity;
    start_ = storage_.get();
    end_ = start_ + capacity;
    clear();
}

void Fifo::clear() {
    writePos_ = readPos_ = start_;
    used_ = 0;
}

int Fifo::contiguous(uint8_t** out) {
    *out = writePos_;
    return std::min(static_cast<int>(end_ - writePos_), capacity_ - used_.load());
}

void Fifo::add(int n) {
    used_ += n;
    writePos_ += n;
    if (writePos_ == end_) writePos_ = start_;
}

void Fifo::get(int n, void* dst) {
    uint8_t* to = static_cast<uint8_t*>(dst);
    while (n > 0) {
        int run = std::min(n, static_cast<int>(end_ - readPos_));
        memcpy(to, readPos_, run);
        to += run;
        n -= run;
        readPos_ += run;
        if (readPos_ == end_) readPos_ = start_;
        used_ -= run;
    }
}

void makeFifo(Fifo& f, int capacity) {
    f.make(capacity);
}
void clearFifo(Fifo& f) {
    f.clear();
}
int fifoSpace(Fifo& f) {
    return f.space();
}
int fifoUsed(Fifo& f) {
    return f.used();
}
int fifoContiguous(Fifo& f, uint8_t** out) {
    return f.contiguous(out);
}
void fifoAdd(Fifo& f, int n) {
    f.add(n);
}
void fifoGet(Fifo& f, int n, void* dst) {
    f.get(n, dst);
}
