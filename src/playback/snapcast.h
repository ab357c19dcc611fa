// Multi-room playback through Snapcast: the output thread hands each period,
// after volume and tone, to a snapserver's pipe source (a named fifo), so
// every room's snapclient plays what the box plays. The box's own speakers
// can play too ("also") or be left out ("only").
//
// Local playback never waits for Snapcast: the fifo is written without
// blocking, and what does not fit is dropped.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

enum class SnapcastMode { Off, Also, Only };

// One feed into one fifo. The output thread calls write() once a period;
// setMode() and state() may come from any thread.
class SnapcastFeed {
  public:
    // retry: how long to wait after a failure (no fifo, the server gone)
    // before trying again.
    explicit SnapcastFeed(std::string fifo,
                          std::chrono::milliseconds retry = std::chrono::seconds(2));
    ~SnapcastFeed();
    SnapcastFeed(const SnapcastFeed&) = delete;
    SnapcastFeed& operator=(const SnapcastFeed&) = delete;

    void setMode(SnapcastMode mode) { mode_ = mode; }
    SnapcastMode mode() const { return mode_; }
    const std::string& path() const { return path_; }
    // "off", "waiting for the Snapcast server at <fifo>", "playing into
    // <fifo> (44100:16:2)", or what is wrong with the fifo.
    std::string state() const;

    // One period of interleaved stereo, 16-bit at 44100 Hz or (high) 32-bit
    // at 96000 Hz. idle: the player's idle output, which is not sent.
    void write(const uint8_t* period, int bytes, bool idle, bool high);
    // Periods that found the fifo full and were dropped.
    long dropped() const { return dropped_; }

  private:
    enum class State { Off, Waiting, Playing, NotFifo, Failed };
    struct Opener;
    void setState(State state, const std::string& detail = "");
    bool connect(std::chrono::steady_clock::time_point now, bool high);
    bool startOpener();
    void stopOpener();
    bool flushPending();
    void lost(std::chrono::steady_clock::time_point now);
    void closeFifo();

    const std::string path_;
    const std::chrono::milliseconds retry_;
    std::atomic<SnapcastMode> mode_{SnapcastMode::Off};
    std::atomic<long> dropped_{0};

    // The output thread's own: the open fifo, a period's unwritten tail, and
    // the opener it is waiting on.
    int fd_ = -1;
    bool high_ = false;
    std::vector<uint8_t> pending_;
    std::shared_ptr<Opener> opener_;
    std::chrono::steady_clock::time_point retryAt_{};
    std::chrono::steady_clock::time_point checkAt_{};

    mutable std::mutex stateMutex_;
    State state_ = State::Off;
    std::string detail_;
};

// The process-wide feed, into KZ_SNAPCAST_FIFO when set, else the mapped
// "/tmp/snapfifo".
SnapcastFeed& snapcastFeed();

// "off", "also" or "only"; false for any other name. A change is kept in
// kzsnapcast beside kzdb.
bool setSnapcastMode(const char* name);
const char* snapcastModeName();
std::string snapcastState();
// Start-up: the mode kept in kzsnapcast; off when there is none.
void loadSnapcastMode();
// True when the local ALSA device is left out ("only").
bool snapcastOnly();
