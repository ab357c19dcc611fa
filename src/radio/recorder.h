// Recording the radio: the stream's own bytes (no re-encoding) go to a file
// under "Radio Recordings/<station>/" in the library. MP3 is kept as it
// came; other streams (AAC, HLS transport, Ogg Vorbis or Opus) are moved
// into an .m4a by copying their packets, since the library plays MP3, M4A,
// FLAC and WAV. The finished file joins the library as a track.
#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

class Recorder {
  public:
    // Starts recording the station's stream of the given type under root.
    // false, with why, when it cannot.
    bool start(const std::string& root, const std::string& station, const std::string& streamType,
               std::string* why);
    // Ends the recording and adds the file to the library. Returns the
    // library file's path, "" when nothing was recorded.
    std::string stop();

    // Every audio byte of the stream, as the decoder gets it; data null
    // means a new stream begins (a reconnection).
    void tap(const char* data, size_t length);

    // 0 is no limit.
    void setLimit(int seconds);
    int limit() const;
    bool recording() const;
    int duration() const;
    std::string path() const;  // the file the recording becomes

  private:
    std::string finish(const std::string& part, const std::string& final, bool copyAsIs);
    void keepOggHeaders(const char* data, size_t length);

    mutable std::mutex mutex_;
    FILE* file_ = nullptr;
    std::string partPath_;
    std::string finalPath_;
    std::string artist_, album_;
    bool copyAsIs_ = false;
    bool ogg_ = false;
    std::chrono::steady_clock::time_point started_;
    int limit_ = 0;
    bool limitPosted_ = false;
    // An Ogg stream's header pages, which a recording that starts later
    // must begin with.
    std::string oggHeaders_;
    std::string oggPending_;
    bool oggHeadersDone_ = false;
};

Recorder& recorder();
