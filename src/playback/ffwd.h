// The fetch feeder: for library files the decoder does not read the file
// itself but a fifo that one feeder thread per playback channel fills from
// the file. A seek then only moves the feeder's file position and throws away
// the decoded audio that was already on its way.
#pragma once

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

enum TrackFileType { FILE_WAV = 1, FILE_FLAC = 2, FILE_MP3 = 3, FILE_M4A = 4, FILE_OTHER = 5 };

// ".wav", ".flac", ".mp3", ".m4a" anywhere in the path, any case, first match
// in that order.
int trackFileType(const std::string& path);

// One track's feeding: shared by the channel and its thread, so a feeder that
// is slow to notice a stop keeps its own file and flags.
struct FeedTrack {
    std::string fifoPath;
    std::mutex fileMutex;  // the thread's reads against a seek's move
    FILE* file = nullptr;  // closed (null) once the feeder has finished
    std::atomic<int> enable{0};
    std::atomic<int> exists{0};
    // Made readable by a stop, so the thread waiting for the decoder to
    // take more wakes at once instead of looking every so often.
    int stopFd = -1;
    void requestStop();
    // A WAV's audio: where it starts and ends in the file and its frame size.
    // The decoder stops after the byte count its header gives, which is
    // wrong once a seek has moved the file; the feeder sends that count as
    // "unknown" and ends the feed where the audio ends instead, so chunks
    // after the audio are never decoded as sound. dataStart < 0: not a WAV
    // the feeder understands, fed as it is.
    long long dataStart = -1;
    long long dataEnd = -1;
    int blockAlign = 4;
    ~FeedTrack();
};

struct FeederChannel {
    std::string ffwdPipeName;
    std::shared_ptr<FeedTrack> track;
    std::atomic<long long> trackFileLength{0};
    // File bytes written to the decoder after its start-up phase.
    std::atomic<long long> ffmpegConsumed{0};
    std::atomic<int> ffmpegEstimatedBitrate{0};
    std::atomic<int> channelFileExt{0};
    std::atomic<int> playPipe{-1};  // the decoder slot playing this channel
};

class FetchFeeder {
  public:
    static constexpr int kChannels = 2;
    // PCM of a second at 44100 Hz: decoded audio already under way when a
    // seek lands, more for compressed files whose decoder reads ahead.
    static constexpr int kSecondBytes = 176400;

    FetchFeeder();
    FetchFeeder(const FetchFeeder&) = delete;
    FetchFeeder& operator=(const FetchFeeder&) = delete;

    // Starts the decoder for a library track on a channel: ".m4a" by path
    // (an index after the audio cannot be read from a fifo), every other
    // file through the feeder. Returns the slot, or -1.
    int startTrackDecoder(int channel, const std::string& path);

    int prepareFfwdFetch(int channel, const std::string& path);
    int startFfwdFetch2(int channel);
    void stopFeeder(int channel);

    // position in thousandths of the file; 1 when the feeder was moved.
    int seek(int channel, int position);
    void setSkipping(int channel);
    int estimateBitrate(int channel);
    // Seconds until the channel's track ends, 1000 while that is not known.
    int trackTimeToEOF(int channel);

    FeederChannel& channel(int i) { return channels_[i]; }
    // Milliseconds between attempts to open the decoder's input.
    int openPollMs = 100;

  private:
    void ffwdThreadCode3(int channel, std::shared_ptr<FeedTrack> track);
    // The next block of what the decoder is to see; 0 at its end.
    static size_t readBlock(FeedTrack& t, char* block, size_t size);

    FeederChannel channels_[kChannels];
    std::mutex channelMutex_;  // which track is current, against a leaving thread
};

FetchFeeder& fetchFeeder();

int prepareFfwdFetch(int channel, const std::string& path);
int startFfwdFetch2(int channel);
int seek(int channel, int position);
void setSkipping(int channel);
int estimateBitrate(int channel);
