// The PCM ring between one producer thread and one consumer thread. It moves
// 4-byte slots (one 16-bit stereo frame; half a 32-bit frame in high
// resolution, where callers pass twice their frame counts). The put and get
// families differ only in what they do when the ring is too full or too
// empty: drop and latch, drop and log, block, or take what is there.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

class SmartBuffer {
  public:
    static constexpr int kSlotBytes = 4;

    explicit SmartBuffer(int size);
    SmartBuffer(const SmartBuffer&) = delete;
    SmartBuffer& operator=(const SmartBuffer&) = delete;

    // Empty, priming, no overrun latch, no pending release.
    void clear();
    // Makes one blocked (or the next) putW or getW give up.
    void releasePendingPut();
    void signal();
    bool enoughSpace(int n);
    void sleepUntilReady(int n);

    void put(int n, const void* src);   // smartPutSamples: drop and latch
    void putW(int n, const void* src);  // smartPutSamplesW: block until it fits
    void putS(int n, const void* src);  // smartPutSamplesS: drop, signal
    int putNF(int n, const void* src);  // smartPutSamplesNF: what fits
    void dumbPut(int n, const void* src);

    int get(int n, void* dst);    // smartGetSamples: live sources, prime to half
    int getS(int n, void* dst);   // smartGetSamplesS: prime to three quarters
    int getS2(int n, void* dst);  // smartGetSamplesS2: as getS, drops the rest on underrun
    int getW(int n, void* dst);   // smartGetSamplesW: block until n are there
    int dumbGet(int n, void* dst);
    int getAvailable(int n, void* dst);
    int getAvailable2(int n, void* dst);

    int size() const { return size_; }
    int used() const { return used_.load(); }
    bool priming();
    bool overrunLatched() const { return overrun_.load() != 0; }

  private:
    int getPriming(int n, void* dst, bool discardOnUnderrun, const char* underrunText,
                   const char* clearedText);
    void resetLocked();
    void copyIn(const void* src, int n);
    void copyOut(void* dst, int n);
    // Takes n slots and clears the overrun latch when that leaves the ring at
    // most half full. Returns true when the latch was set.
    bool takeLocked(int n, void* dst);

    std::mutex lock_;
    std::condition_variable wakeup_;
    const int size_;
    std::unique_ptr<uint8_t[]> storage_;
    uint8_t* const start_;
    uint8_t* const end_;
    uint8_t* writePos_;
    uint8_t* readPos_;
    // Atomic because a few paths read them without the lock by design.
    std::atomic<int> used_{0};
    int underrun_ = 1;
    std::atomic<int> overrun_{0};
    std::atomic<int> release_{0};
};

// Diagnostics, kept without a lock: overruns of put, underruns of get, slots
// asked of get, slots accepted by any put, and the fill that get last saw.
extern std::atomic<int> tvOverrun;
extern std::atomic<int> tvUnderrun;
extern std::atomic<long long> tvSmbOut;
extern std::atomic<long long> tvSmbIn;
extern std::atomic<int> tvOccupancy;

// Sizes, in slots, of the buffers the appliance creates.
constexpr int kFlacBufferSlots = 20000;  // each of the two FLAC channels
constexpr int kWebBufferSlots = 500000;
// The punch-through ring is deliberately smaller in high resolution.
constexpr int punchBufferSlots(bool highRes) {
    return highRes ? 80000 : 160000;
}
constexpr int auxBufferSlots(bool highRes) {
    return highRes ? 160000 : 20000;
}
constexpr int bluetoothBufferSlots(bool highRes) {
    return highRes ? 500000 : 100000;
}
// The GA31N drive reads in longer bursts and needs the bigger ring.
constexpr int cdBufferSlots(bool ga31nDrive) {
    return ga31nDrive ? 100000 : 40000;
}

// A new, cleared buffer; resets the diagnostics counters.
std::unique_ptr<SmartBuffer> createSmartBuffer(int size);
void clearSmartBuffer(SmartBuffer* b);
void releasePendingPutSamples(SmartBuffer* b);
void smartRelease(SmartBuffer* b);
bool enoughSpace(SmartBuffer* b, int n);
void sleepUntilReady(SmartBuffer* b, int n);

void smartPutSamples(SmartBuffer* b, int n, const void* src);
void smartPutSamplesW(SmartBuffer* b, int n, const void* src);
void smartPutSamplesS(SmartBuffer* b, int n, const void* src);
int smartPutSamplesNF(SmartBuffer* b, int n, const void* src);
void dumbPutSamples(SmartBuffer* b, int n, const void* src);

int smartGetSamples(SmartBuffer* b, int n, void* dst);
int smartGetSamplesS(SmartBuffer* b, int n, void* dst);
int smartGetSamplesS2(SmartBuffer* b, int n, void* dst);
int smartGetSamplesW(SmartBuffer* b, int n, void* dst);
int dumbGetSamples(SmartBuffer* b, int n, void* dst);
int smartGetAvailableSamples(SmartBuffer* b, int n, void* dst);
int smartGetAvailableSamples2(SmartBuffer* b, int n, void* dst);
