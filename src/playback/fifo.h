// The byte ring of a decoder slot. It has no lock: the one caller that fills
// it from the decoder's pipe also empties it, and fills it in place (read
// straight into the run that fifoContiguous hands out) to save a copy.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

class Fifo {
  public:
    Fifo() = default;
    explicit Fifo(int capacity) { make(capacity); }
    Fifo(const Fifo&) = delete;
    Fifo& operator=(const Fifo&) = delete;

    void make(int capacity);
    void clear();
    int capacity() const { return capacity_; }
    int space() const { return capacity_ - used_.load(); }
    // Read from other threads for the time and fill displays.
    int used() const { return used_.load(); }
    double percentage() const { return capacity_ ? used_.load() * 100.0 / capacity_ : 0.0; }
    // The free run at the write position: at most to the end of the storage
    // and at most the free space.
    int contiguous(uint8_t** out);
    // Commits n bytes written into the run that contiguous() gave.
    void add(int n);
    // Takes n bytes (n <= used()).
    void get(int n, void* dst);

  private:
    std::unique_ptr<uint8_t[]> storage_;
    int capacity_ = 0;
    uint8_t* start_ = nullptr;
    uint8_t* end_ = nullptr;
    uint8_t* writePos_ = nullptr;
    uint8_t* readPos_ = nullptr;
    std::atomic<int> used_{0};
};

void makeFifo(Fifo& f, int capacity);
void clearFifo(Fifo& f);
int fifoSpace(Fifo& f);
int fifoUsed(Fifo& f);
int fifoContiguous(Fifo& f, uint8_t** out);
void fifoAdd(Fifo& f, int n);
void fifoGet(Fifo& f, int n, void* dst);
