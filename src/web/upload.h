// The body of a web request (FastCGI STDIN): a multipart/form-data file
// upload written into the music folder, or a browser's audio stream (a WAV
// header, then 16-bit stereo frames) handed to the web audio buffer.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

class StdinParser {
  public:
    // Where the browser's frames go, and how full that buffer is (slots).
    struct AudioSink {
        std::function<bool()> enabled;
        std::function<void(const uint8_t* frames, int count)> put;
        std::function<int()> held;
        int capacity = 0;
    };

    StdinParser();
    ~StdinParser();

    // The "upload" command: files for artist (empty: photos) follow.
    void armUpload(const std::string& artist);
    // The "blob" command: a WAV stream follows.
    void armAudio();
    // A small text body (at most kMaxText bytes, the rest is dropped): done
    // gets all of it once the body has ended, and never for a body cut off.
    static constexpr size_t kMaxText = 65536;
    void armText(std::function<void(const std::string& text)> done);
    // One STDIN record; length 0 ends the stream.
    void process(const uint8_t* data, int len);
    // The connection ended: an open upload file is closed.
    void connectionEnded();

    int state() const { return state_; }
    // An upload's files are coming in.
    bool receivingFiles() const { return state_ >= 1 && state_ <= 6; }
    bool uploadFailed = false;
    // Run instead of adding an uploaded file to the library, when set.
    std::function<void(const std::string& path)> completion;
    AudioSink audio;
    int latencyMs = 1000;
    bool audioRunning = false;
    // From the stream's WAV header; the output thread reads the rate to play
    // the stream at its own speed.
    int channels = 0;
    std::atomic<int> sampleRate{0};

  private:
    void byte(uint8_t c);
    void headerLine();
    void finishFile();
    void writeFile(const uint8_t* p, size_t n);
    void flushFile();
    void audioBytes(const uint8_t* p, int len);

    int state_ = 0;
    std::string text_;
    std::function<void(const std::string&)> textDone_;
    std::string artist_;
    std::string boundary_;
    size_t match_ = 0;
    std::string line_;
    std::string album_, fileName_, path_;
    FILE* file_ = nullptr;
    long fileLength_ = 0;
    std::string pending_;  // file bytes not yet written
    uint8_t wavHeader_[44];
    int headerHave_ = 0;
    uint8_t partial_[4];
    int partialHave_ = 0;
};

// Adds music/artist/album/file to the library.
void addUploadedFileToDB(const std::string& artist, const std::string& album,
                         const std::string& file);
