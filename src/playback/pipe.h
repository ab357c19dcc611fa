// The two decoder slots. Each runs an ffmpeg child that writes raw PCM into
// the slot's named fifo and its progress into a second fifo, read by a parser
// thread; the mixer drains the PCM into the slot's Fifo without ever
// blocking. Two slots let the next track's decoder start while the current
// one still plays.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "playback/fifo.h"

struct PipeSlot {
    std::string pipeName;  // the PCM fifo
    std::string ffsoPipe;  // the child's standard error
    int pf = -1;           // our non-blocking read end of the PCM fifo
    std::atomic<pid_t> pipePid{0};
    std::atomic<int> pipeStarting{0};
    // Set by the radio code on a dropout, cleared by the next good read.
    std::atomic<int> pipeUnderrunFlag{0};
    std::atomic<int> pipeReopenFlag{0};
    // Written by the parser thread, in seconds (bitrate in kb/s).
    std::atomic<int> pipeTime{0};
    std::atomic<int> pipeDuration{0};
    std::atomic<int> pipeBitrate{0};
    std::atomic<long long> pipeSamples{0};  // frames handed to the mixer
    // PCM bytes read from the child, for estimating the file's bitrate.
    std::atomic<long long> ffmpegProduced{0};
    std::atomic<int> ffmpegBitrateStartup{0};
    Fifo fifo;

    // Guards the reaping of pipePid so that the mixer, the feeder and the
    // user interface may all ask whether the child still runs.
    std::mutex childMutex;
    pid_t reapedPid = 0;
};

// One line of the child's standard error: "time=" (elapsed), "Duration: "
// (only when all of h:m:s are there) and "bitrate: ".
void parseFFmpegLine(const char* line, PipeSlot& slot);
// A line ends at a line feed or a carriage return (each progress update is a
// line). Keeps at most max - 1 characters and drops the rest of the line.
// Returns the length, or -1 at the end of the stream.
int FFGetLine(FILE* in, char* line, int max);

class DecoderPipes {
  public:
    static constexpr int kSlots = 2;
    static constexpr int kFifoBytes = 1000000;
    static constexpr int kBitrateStartupBytes = 300000;
    // The ring is refilled from the decoder only once it holds less than
    // five seconds at 44100 Hz: more than any next-track threshold (at most
    // 4 s, counted in whole seconds), so a decoder's end is always seen with
    // the same time left as when the ring was kept full. High resolution
    // and radio keep the ring topped up every period.
    static constexpr int kRefillBelow = 5 * 176400;

    DecoderPipes() = default;
    DecoderPipes(const DecoderPipes&) = delete;
    DecoderPipes& operator=(const DecoderPipes&) = delete;

    // Creates the fifos under the current host root and starts the parser
    // threads; later calls only reset the slots.
    void init();

    int startPipePlay(const std::string& input);
    int getPipeSamples(int slot, void* dst, int frames);
    int pipeRunning(int slot);

    void killPipe(int slot);
    void stopPipe(int slot);
    void stopPipe2(int slot);
    // Stops the slot's decoder only while it is still the child pid: the
    // slot may have gone to another track since.
    void stopPipeOf(int slot, pid_t pid);
    void stopBothPipes();
    void killFfmpegs();
    void deleteZombies();
    void flushPipe(int slot);
    void reopenPipe(int slot);
    void clearFfmpegPipe(int slot);
    void clearPipe(int slot);
    void rePreFill(int slot);

    int startRadioPipe2(FILE** out);
    int startRadioPipe(const std::string& path, FILE** out);
    std::string getRadioPipeName();

    int pipeTimeToEOF(int slot);
    int timeInPipe(int slot);
    int getPipeTime(int slot);
    int getPipeTimeLeft(int slot);
    int getPipeTimeLeft2(int slot);
    int getPipeDuration(int slot);
    void setPipeDuration(int slot, int seconds);
    void setPipeTime(int slot, int thousandths);
    int getPipeBitrate(int slot);
    int getPipeOccupancy(int slot);
    double getFifoPercentage(int slot);
    int isPipeStarting(int slot);

    // The discard after a seek: decoded PCM that was already under way.
    void setSkipping(int bytes);
    int isSkipping(int bytes);
    void clearSkipping();
    void waitForNotSkipping();

    PipeSlot& slot(int i) { return slots_[i]; }
    std::mutex& pipeMutex() { return pipeMutex_; }
    int pipeToggle() const { return pipeToggle_; }
    int pipeOpenFailCount() const { return pipeOpenFailCount_; }

    // Inputs owned by the settings and the source selection.
    std::atomic<bool> highResolution{false};
    std::atomic<bool> radioSelected{false};
    std::atomic<bool> radioPreFill{false};
    // How many 100 ms polls a start waits for its slot's old child (tests
    // shorten the 6 s).
    int startWaitPolls = 60;

  private:
    int frameBytes() const { return highResolution ? 8 : 4; }
    int bytesPerSecond() const { return highResolution ? 384000 : 176400; }
    int sampleRate() const { return highResolution ? 96000 : 44100; }
    pid_t spawnDecoder(int slot, const std::string& input);
    // True while the ring holds enough that reading the decoder can wait.
    bool fullEnough(int slot);
    void drain(int slot, int wanted);
    void forgetChild(int slot, bool terminate);
    void closePf(int slot);
    std::string radioPipePath(int n);

    PipeSlot slots_[kSlots];
    bool threadsStarted_ = false;
    int pipeToggle_ = 0;
    int pipeOpenFailCount_ = 0;
    std::mutex pipeMutex_;
    int radioPipeNumber_ = 0;
    // The next decoder reads a live stream (set under pipeMutex_).
    bool streamInput_ = false;

    // Children that were stopped or forgotten and still need reaping, with
    // when they were let go.
    struct Zombie {
        pid_t pid;
        std::chrono::steady_clock::time_point since;
        bool terminated;
    };
    std::mutex zombieMutex_;
    std::vector<Zombie> zombies_;

    std::atomic<int> skipping_{0};
    std::atomic<long long> skipDataCount_{0};
    std::mutex skippingMutex_;
    std::condition_variable skippingCondition_;
};

DecoderPipes& decoderPipes();

int startPipePlay(const std::string& input);
int getPipeSamples(int slot, void* dst, int frames);
int pipeRunning(int slot);
void killPipe(int slot);
void stopPipe(int slot);
void stopPipe2(int slot);
void stopBothPipes();
void flushPipe(int slot);
void reopenPipe(int slot);
void clearFfmpegPipe(int slot);
void clearPipe(int slot);
void clearFifoForPipe(int slot);
void rePreFill(int slot);
int startRadioPipe2(FILE** out);
int startRadioPipe(const std::string& path, FILE** out);
std::string getRadioPipeName();
int pipeTimeToEOF(int slot);
int timeInPipe(int slot);
int getPipeTime(int slot);
void setPipeTime(int slot, int thousandths);
int getPipeTimeLeft(int slot);
int getPipeTimeLeft2(int slot);
int getPipeDuration(int slot);
void setPipeDuration(int slot, int seconds);
int getPipeBitrate(int slot);
int getPipeOccupancy(int slot);
double getFifoPercentage(int slot);
int isPipeStarting(int slot);
int isSkipping(int bytes);
void clearSkipping();
void waitForNotSkipping();
