// Playing one internet radio station: a thread resolves the station's
// address (playlists, HLS), fetches the stream, takes out its ICY titles and
// writes the audio into a decoder's radio fifo; the mixer reads the decoded
// samples through samples(). Dropouts refill the decoder's cushion; a lost
// stream is reconnected with growing waits until it has failed for about two
// minutes.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "library/settings.h"

// A station is what the settings keep for a preset: name, address, logo.
using Station = RadioStation;

enum class RadioState { Idle, Connecting, Streaming, Reconnecting, Failed };

class RadioPlayer {
  public:
    using AudioTap = std::function<void(const char* data, size_t length)>;

    RadioPlayer() = default;
    RadioPlayer(const RadioPlayer&) = delete;
    RadioPlayer& operator=(const RadioPlayer&) = delete;
    ~RadioPlayer();

    // Stops what plays and starts the station's thread.
    void play(const Station& station);
    // Ends the stream and waits for its thread.
    void stop();
    // Asks the stream to end without waiting (any thread, under any lock).
    void requestStop();
    // Reconnects the same station from the start.
    void restart();

    // The mixer's side.
    int samples(void* dst, int frames);
    void dropout();
    void playedEnough();

    Station station() const;
    // The stream's title, or the station's name until one comes.
    std::string title() const;
    // "Connecting", "Buffering", "Playing", "Reconnecting", "Stream failed", or
    // "" with no station.
    std::string statusText() const;
    RadioState state() const;
    bool active() const;
    // What the stream carries: its Content-Type ("audio/mpeg", "video/mp2t"
    // for HLS transport segments), "" before the audio starts.
    std::string streamType() const;

    // Called with every audio byte written to the decoder (recording), and
    // with null data when a new stream begins.
    void setAudioTap(AudioTap tap);
    // Called on the stream's thread when it ends for good (failed or stopped).
    void setEndHook(std::function<void()> hook);

    // Waits for reconnection (tests shorten the 1, 2, 4 ... 30 s).
    int firstRetrySeconds = 1;
    int giveUpSeconds = 120;

  private:
    struct Session;
    enum class Outcome { Streamed, Retry, Fatal, Stopped };

    void run(std::shared_ptr<Session> session);
    void runStream(std::shared_ptr<Session> session);
    Outcome playUrl(Session& s, const std::string& url, int depth);
    Outcome playAudio(Session& s, const std::string& url);
    Outcome playHls(Session& s, const std::string& url, std::string text);
    bool startDecoder(Session& s);
    void endDecoder(Session& s);
    bool writeAudio(Session& s, const char* data, size_t length);
    // Whether the slot's decoder made any sound of what it was given.
    bool decodedAnything(Session& s, int slot);
    void setState(RadioState state);
    void setTitle(const std::string& title);
    // Audio starts: its type, the server's name for it, the recorder told.
    void beginStream(const std::string& type, const std::string& icyName);
    void releaseSlots(Session& s);

    void stopLocked();

    // Starting and stopping take turns (the web and the main loop both do).
    std::mutex controlMutex_;
    mutable std::mutex mutex_;
    std::shared_ptr<Session> session_;
    std::thread thread_;
    Station station_;
    std::string title_;
    std::string streamType_;
    RadioState state_ = RadioState::Idle;
    AudioTap tap_;
    std::function<void()> endHook_;

    // The slot the mixer reads, and the next one (a reconnection's decoder
    // waiting for the old one to drain). -1 for none.
    std::atomic<int> playSlot_{-1};
    std::atomic<int> nextSlot_{-1};
    std::atomic<int> tries_{0};
};

RadioPlayer& radioPlayer();
