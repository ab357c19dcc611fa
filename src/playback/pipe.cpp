#include "playback/pipe.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "core/events.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/process.h"
#include "playback/playback.h"

namespace {

// The stop key held: the user interface answers with an allStop.
constexpr int kEventAllStop = 6;

void makeNamedFifo(const std::string& path, const char* problemFormat) {
    if (mkfifo(path.c_str(), 0666) != 0 && errno != EEXIST)
        kzLog(problemFormat, path.c_str(), errno, strerror(errno));
}

// One detached thread per slot for the life of the process. Opening blocks
// until a child opens the fifo for writing; its end of stream sends us back
// to wait for the next child.
void FFThreadCode(PipeSlot* slot, int number) {
    nameThread(number == 0 ? "kz-progress0" : "kz-progress1");
    char line[200];
    for (;;) {
        int fd = open(slot->ffsoPipe.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            usleep(100000);
            continue;
        }
        FILE* in = fdopen(fd, "r");
        if (!in) {
            close(fd);
            continue;
        }
        while (FFGetLine(in, line, sizeof line) >= 0)
            parseFFmpegLine(line, *slot);
        fclose(in);
    }
}

bool readClock(const char* text, int& seconds) {
    int h, m, s;
    if (sscanf(text, "%d:%d:%d", &h, &m, &s) != 3) return false;
    seconds = (h * 60 + m) * 60 + s;
    return true;
}

// Decoders of an earlier run of this root that outlived it (it was killed
// before the kernel could be told to take them along) still hold our fifos;
// they are known by the slot fifo they write to.
void killLeftoverDecoders(const std::vector<std::string>& fifos) {
    DIR* proc = opendir("/proc");
    if (!proc) return;
    while (dirent* e = readdir(proc)) {
        char* end;
        long pid = strtol(e->d_name, &end, 10);
        if (*end || pid <= 1 || pid == getpid()) continue;
        std::ifstream in("/proc/" + std::string(e->d_name) + "/cmdline", std::ios::binary);
        std::string arg;
        while (std::getline(in, arg, '\0')) {
            if (std::find(fifos.begin(), fifos.end(), arg) == fifos.end()) continue;
            kzLog("Killing leftover decoder %ld\n", pid);
            kill(static_cast<pid_t>(pid), SIGKILL);
            break;
        }
    }
    closedir(proc);
}

}  // namespace

int FFGetLine(FILE* in, char* line, int max) {
    int n = 0;
    int c;
    while ((c = getc(in)) != EOF) {
        if (c == '\n' || c == '\r') break;
        if (n < max - 1) line[n++] = static_cast<char>(c);
    }
    line[n] = 0;
    if (c == EOF && n == 0) return -1;
    return n;
}

void parseFFmpegLine(const char* line, PipeSlot& slot) {
    int seconds;
    if (const char* p = strstr(line, "time=")) {
        // A progress line; fractions of a second are of no interest.
        if (readClock(p + 5, seconds)) slot.pipeTime = seconds;
    }
    if (const char* p = strstr(line, "Duration: ")) {
        if (readClock(p + 10, seconds)) slot.pipeDuration = seconds;
    }
    if (const char* p = strstr(line, "bitrate: ")) {
        int kbps;
        if (sscanf(p + 9, "%d", &kbps) == 1) slot.pipeBitrate = kbps;
    }
}

DecoderPipes& decoderPipes() {
    // Never destroyed: the parser threads use it until the process is gone.
    static DecoderPipes* pipes = new DecoderPipes;
    return *pipes;
}

void DecoderPipes::init() {
    if (isHostMode()) mkdir(hostPath("/tmp").c_str(), 0755);
    if (!threadsStarted_)
        killLeftoverDecoders({hostPath("/tmp/kzpipe1"), hostPath("/tmp/kzpipe2")});
    for (int i = 0; i < kSlots; i++) {
        PipeSlot& s = slots_[i];
        if (!threadsStarted_) {
            s.pipeName = hostPath(i == 0 ? "/tmp/kzpipe1" : "/tmp/kzpipe2");
            s.ffsoPipe = hostPath(i == 0 ? "/tmp/ffso1" : "/tmp/ffso2");
        }
        makeNamedFifo(s.pipeName, "Problem opening %s Error %d -> %s\n");
        makeNamedFifo(s.ffsoPipe, "Problem opening %s Error %d -> %s\n");
        closePf(i);
        s.pipeStarting = 0;
        s.pipeUnderrunFlag = 0;
        s.pipeReopenFlag = 0;
        s.pipePid = 0;
        if (s.fifo.capacity() != kFifoBytes) makeFifo(s.fifo, kFifoBytes);
        clearFifo(s.fifo);
        if (!threadsStarted_) std::thread(FFThreadCode, &s, i).detach();
    }
    threadsStarted_ = true;
    pipeToggle_ = 0;
    // A writer on a fifo whose reader went away gets EPIPE instead of dying.
    signal(SIGPIPE, SIG_IGN);
    pipeOpenFailCount_ = 0;
}

void DecoderPipes::closePf(int slot) {
    PipeSlot& s = slots_[slot];
    if (s.pf >= 0) close(s.pf);
    s.pf = -1;
}

pid_t DecoderPipes::spawnDecoder(int slot, const std::string& input) {
    PipeSlot& s = slots_[slot];
    bool hi = highResolution;
    // One decoding thread: an audio decoder keeps far ahead of real time on
    // one core, and FLAC's frame threads handed every frame between threads
    // (six times the wake-ups for the same samples).
    std::vector<std::string> argv = {"ffmpeg", "-y", "-hide_banner", "-threads", "1", "-i", input,
                                     "-ac", "2", "-acodec", hi ? "pcm_s32le" : "pcm_s16le", "-f",
                                     // A signed codec in the unsigned container, by design:
                                     // the raw muxer only passes the samples through.
                                     hi ? "s32le" : "u16le", "-ar", hi ? "96000" : "44100",
                                     s.pipeName};
    // A live stream gives its first kilobytes at once and the rest in real
    // time: ffmpeg's own format probe would wait seconds for a megabyte.
    if (streamInput_) argv.insert(argv.begin() + 5, {"-formatprobesize", "16384"});
    // Opened here rather than in the child, where a log line could deadlock.
    // Without a reader at this instant (the parser between two children) a
    // write-only open fails; read-write keeps the progress for the parser.
    int err = open(s.ffsoPipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (err < 0 && errno == ENXIO) err = open(s.ffsoPipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (err < 0)
        kzLog("Problem opening %s Error %d -> %s\n", s.ffsoPipe.c_str(), errno, strerror(errno));

    std::string program = ffmpegPath();
    pid_t pid = spawnChild(program, argv, err, false);
    int spawnErrno = errno;
    if (err >= 0) close(err);
    if (pid < 0 && (spawnErrno == EAGAIN || spawnErrno == ENOMEM)) {
        kzLog("Error forking in pipe.c\n");
        return 0;
    }
    if (pid < 0) {
        // Like a child whose exec failed: the slot delivers nothing and the
        // track ends by itself.
        kzLog("startPipePlay cannot run %s: %s\n", program.c_str(), strerror(spawnErrno));
        return 0;
    }
    kzLog("Executing renice -5 -p %d > /dev/null\n", pid);
    setpriority(PRIO_PROCESS, static_cast<id_t>(pid), -5);
    return pid;
}

int DecoderPipes::startPipePlay(const std::string& input) {
    deleteZombies();
    int waited = 0;
    while (waited < startWaitPolls && pipeRunning(pipeToggle_)) {
        usleep(100000);
        waited++;
    }
    if (waited)
        kzLog("startPipePlay waited %d/10ths for pipe %d to stop running\n", waited, pipeToggle_);

    int slot;
    if (!pipeRunning(pipeToggle_)) {
        slot = pipeToggle_;
        pipeToggle_ ^= 1;
    } else {
        kzLog("startPipePlay () pipe %d not free\n", pipeToggle_);
        int other = pipeToggle_ ^ 1;
        if (pipeRunning(other)) {
            pipeOpenFailCount_++;
            kzLog("allStop in startPipePlay\n");
            if (pipeOpenFailCount_ > 4) addEvent(kEventAllStop);
            return -1;
        }
        kzLog("But pipe %d is free - assume something anomolous happened and use it\n", other);
        slot = other;
    }

    PipeSlot& s = slots_[slot];
    clearFifo(s.fifo);
    s.pipeStarting = 1;
    flushPipe(slot);
    reopenPipe(slot);
    s.pipeDuration = 0;
    s.pipeTime = 0;
    s.pipeSamples = 0;
    s.pipeBitrate = 0;

    pid_t pid = spawnDecoder(slot, input);
    {
        std::lock_guard<std::mutex> hold(s.childMutex);
        s.reapedPid = 0;
        s.pipePid = pid;
    }
    pipeOpenFailCount_ = 0;
    kzLog("startPipePlay () pipe=%d pid=%d\n", slot, pid);
    return slot;
}

int DecoderPipes::pipeRunning(int slot) {
    PipeSlot& s = slots_[slot];
    std::lock_guard<std::mutex> hold(s.childMutex);
    pid_t pid = s.pipePid;
    // Once reaped the pid may belong to somebody else: never ask again.
    if (pid == 0 || pid == s.reapedPid) return 0;
    int status = 0;
    pid_t result = waitpid(pid, &status, WNOHANG);
    if (result == 0) return 1;
    if (result == pid) {
        s.reapedPid = pid;
        kzLog("pipeRunning (%d) result %d status %d\n", slot, result, status);
        kzLog(WIFSIGNALED(status) ? "ffmpeg terminated abnormally\n"
                                  : "ffmpeg terminated normally\n");
    }
    return 0;
}

void DecoderPipes::forgetChild(int slot, bool terminate) {
    PipeSlot& s = slots_[slot];
    std::lock_guard<std::mutex> hold(s.childMutex);
    pid_t pid = s.pipePid.exchange(0);
    if (pid == 0 || pid == s.reapedPid) return;
    if (terminate) kill(pid, SIGTERM);
    std::lock_guard<std::mutex> zombies(zombieMutex_);
    zombies_.push_back({pid, std::chrono::steady_clock::now(), terminate});
}

void DecoderPipes::killPipe(int slot) {
    forgetChild(slot, true);
}

void DecoderPipes::stopPipe(int slot) {
    if (!pipeRunning(slot)) return;
    std::lock_guard<std::mutex> hold(pipeMutex_);
    killPipe(slot);
    if (slots_[slot].pf >= 0) flushPipe(slot);
}

void DecoderPipes::stopPipe2(int slot) {
    if (!pipeRunning(slot)) return;
    std::lock_guard<std::mutex> hold(pipeMutex_);
    forgetChild(slot, false);
}

void DecoderPipes::stopPipeOf(int slot, pid_t pid) {
    if (slot < 0 || slot >= kSlots || pid <= 0) return;
    std::lock_guard<std::mutex> hold(pipeMutex_);
    if (slots_[slot].pipePid != pid) return;
    killPipe(slot);
}

void DecoderPipes::stopBothPipes() {
    for (int i = 0; i < kSlots; i++) {
        killPipe(i);
        closePf(i);
    }
}

void DecoderPipes::killFfmpegs() {
    for (int i = 0; i < kSlots; i++)
        killPipe(i);
}

void DecoderPipes::deleteZombies() {
    for (int i = 0; i < kSlots; i++)
        pipeRunning(i);
    std::lock_guard<std::mutex> hold(zombieMutex_);
    auto now = std::chrono::steady_clock::now();
    std::erase_if(zombies_, [&](const Zombie& z) {
        if (waitpid(z.pid, nullptr, WNOHANG) != 0) return true;
        // ffmpeg only notes a SIGTERM while it is blocked opening a fifo
        // that nobody opens from the other side.
        if (z.terminated && now - z.since > std::chrono::seconds(1)) kill(z.pid, SIGKILL);
        return false;
    });
}

void DecoderPipes::flushPipe(int slot) {
    int fd = open(slots_[slot].pipeName.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return;
    char scratch[4096];
    while (read(fd, scratch, sizeof scratch) > 0) {
    }
    close(fd);
}

void DecoderPipes::reopenPipe(int slot) {
    PipeSlot& s = slots_[slot];
    // The new reader first: a decoder that opened the fifo just after our
    // last read must never find it without a reader (it would die of EPIPE).
    int fd = open(s.pipeName.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    closePf(slot);
    s.pf = fd;
}

void DecoderPipes::clearFfmpegPipe(int slot) {
    PipeSlot& s = slots_[slot];
    if (s.pf < 0) return;
    char scratch[4096];
    while (read(s.pf, scratch, sizeof scratch) > 0) {
    }
}

void DecoderPipes::clearPipe(int slot) {
    clearFifo(slots_[slot].fifo);
}

void DecoderPipes::rePreFill(int slot) {
    kzLog("rePrefill (%d)\n", slot);
    slots_[slot].pipeStarting = 1;
}

bool DecoderPipes::fullEnough(int slot) {
    PipeSlot& s = slots_[slot];
    if (fifoUsed(s.fifo) < kRefillBelow || s.pipeStarting || radioSelected || highResolution)
        return false;
    // A decoder that has ended gives its last bytes at once: what waits in
    // the ring is then all that is left, as the next-track request assumes.
    return pipeRunning(slot) != 0;
}

void DecoderPipes::drain(int slot, int wanted) {
    PipeSlot& s = slots_[slot];
    // Topping the ring up every period woke the decoder for every period to
    // write a few kilobytes; refilled in batches it runs about once a second
    // and costs a fraction.
    if (fullEnough(slot)) return;
    bool waited = false;
    for (;;) {
        uint8_t* at;
        int room = fifoContiguous(s.fifo, &at);
        if (room == 0) return;
        ssize_t got = read(s.pf, at, room);
        if (got > 0) {
            s.ffmpegProduced += got;
            if (s.ffmpegBitrateStartup && s.ffmpegProduced > kBitrateStartupBytes) {
                s.ffmpegBitrateStartup = 0;
                s.ffmpegProduced = 0;
            }
            // Dropped by not committing what was read into the ring.
            if (!isSkipping(static_cast<int>(got))) fifoAdd(s.fifo, static_cast<int>(got));
            if (s.pipeStarting) {
                if (radioSelected) {
                    // A stream starts only with a cushion against dropouts.
                    long long percent = radioPreFill ? 90 : 25;
                    if (static_cast<long long>(fifoUsed(s.fifo)) * 100 >
                        s.fifo.capacity() * percent)
                        s.pipeStarting = 0;
                } else {
                    s.pipeStarting = 0;
                }
            }
            if (s.pipeUnderrunFlag || s.pipeReopenFlag) {
                kzLog("getPipeSamples (%d) clearing flags\n", slot);
                s.pipeUnderrunFlag = 0;
                s.pipeReopenFlag = 0;
            }
            continue;
        }
        // 0 is the end of the stream: no writer (yet, or any more).
        if (got == 0 && s.pipeStarting) reopenPipe(slot);
        if (highResolution && !waited && fifoUsed(s.fifo) < wanted && s.pf >= 0) {
            // The 96 kHz decoder on the box runs close to real time.
            waited = true;
            usleep(50000);
            continue;
        }
        return;
    }
}

int DecoderPipes::getPipeSamples(int slot, void* dst, int frames) {
    PipeSlot& s = slots_[slot];
    int frameSize = frameBytes();
    int wanted = frames * frameSize;
    // The ring first: asking the kernel about the child every period, when
    // the ring has plenty, was a system call a period for nothing.
    if (fifoUsed(s.fifo) == 0 && !pipeRunning(slot)) {
        // The child may have written its last bytes after our previous
        // drain and then exited: collect them before calling it the end.
        if (s.pf >= 0) drain(slot, wanted);
        if (fifoUsed(s.fifo) == 0) {
            // A decoder that died before its first byte (a corrupt file, a
            // program that would not run) leaves no cushion to wait for:
            // the slot is finished, not still starting.
            s.pipeStarting = 0;
            return 0;
        }
    }
    if (s.pf < 0) {
        kzLog("getPipeSamples (%d) from unopened pipe\n", slot);
        memset(dst, 0, wanted);
        return 0;
    }
    drain(slot, wanted);
    // A stream that ended before its cushion filled: nothing more will come,
    // so play what there is rather than stay silent for ever.
    if (s.pipeStarting && fifoUsed(s.fifo) > 0 && !pipeRunning(slot)) s.pipeStarting = 0;
    if (s.pipeStarting) {
        memset(dst, 0, wanted);
        return frames;
    }
    int take = std::min(fifoUsed(s.fifo), wanted) / frameSize * frameSize;
    fifoGet(s.fifo, take, dst);
    s.pipeSamples += take / frameSize;
    return take / frameSize;
}

std::string DecoderPipes::radioPipePath(int n) {
    return hostPath("/tmp/radioPipe" + std::to_string(n));
}

std::string DecoderPipes::getRadioPipeName() {
    return radioPipePath(radioPipeNumber_);
}

int DecoderPipes::startRadioPipe(const std::string& path, FILE** out) {
    makeNamedFifo(path, "startRadioPipe Problem opening %s Error %d -> %s\n");
    int slot;
    {
        std::lock_guard<std::mutex> hold(pipeMutex_);
        streamInput_ = true;
        slot = startPipePlay(path);
        streamInput_ = false;
    }
    if (slot < 0) {
        kzLog("startPipePlay () failed\n");
        return -1;
    }
    // Not a blocking open: a decoder that never came up would hold the radio
    // thread for ever.
    int fd;
    while ((fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0 && errno == ENXIO &&
           pipeRunning(slot))
        usleep(10000);
    *out = nullptr;
    if (fd >= 0) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        *out = fdopen(fd, "wb");
        if (!*out) close(fd);
    }
    return slot;
}

int DecoderPipes::startRadioPipe2(FILE** out) {
    unlink(radioPipePath(radioPipeNumber_).c_str());
    radioPipeNumber_++;
    return startRadioPipe(radioPipePath(radioPipeNumber_), out);
}

int DecoderPipes::pipeTimeToEOF(int slot) {
    if (pipeRunning(slot)) return 1000;
    return timeInPipe(slot);
}

int DecoderPipes::timeInPipe(int slot) {
    // The high-resolution divisor is half the real byte rate; the time
    // displays and the next-track request were tuned with it.
    return fifoUsed(slots_[slot].fifo) / bytesPerSecond();
}

int DecoderPipes::getPipeTime(int slot) {
    return static_cast<int>(slots_[slot].pipeSamples / sampleRate());
}

int DecoderPipes::getPipeTimeLeft2(int slot) {
    int left = slots_[slot].pipeDuration - getPipeTime(slot);
    return std::max(left, 0);
}

int DecoderPipes::getPipeTimeLeft(int slot) {
    PipeSlot& s = slots_[slot];
    int left = s.pipeDuration - s.pipeTime + timeInPipe(slot);
    return std::max(left, 0);
}

int DecoderPipes::getPipeDuration(int slot) {
    return slots_[slot].pipeDuration;
}

void DecoderPipes::setPipeDuration(int slot, int seconds) {
    slots_[slot].pipeDuration = seconds;
}

void DecoderPipes::setPipeTime(int slot, int thousandths) {
    double frames =
        static_cast<double>(thousandths) * getPipeDuration(slot) * sampleRate() / 1000.0;
    slots_[slot].pipeSamples = static_cast<long long>(frames);
}

int DecoderPipes::getPipeBitrate(int slot) {
    return slots_[slot].pipeBitrate;
}

int DecoderPipes::getPipeOccupancy(int slot) {
    return fifoUsed(slots_[slot].fifo);
}

double DecoderPipes::getFifoPercentage(int slot) {
    return slots_[slot].fifo.percentage();
}

int DecoderPipes::isPipeStarting(int slot) {
    return slots_[slot].pipeStarting;
}

void DecoderPipes::setSkipping(int bytes) {
    std::lock_guard<std::mutex> hold(skippingMutex_);
    skipDataCount_ = bytes;
    skipping_ = 1;
}

int DecoderPipes::isSkipping(int bytes) {
    if (!skipping_) return 0;
    if ((skipDataCount_ -= bytes) <= 0) skipping_ = 0;
    return 1;
}

void DecoderPipes::clearSkipping() {
    std::lock_guard<std::mutex> hold(skippingMutex_);
    skipping_ = 0;
    skippingCondition_.notify_all();
}

void DecoderPipes::waitForNotSkipping() {
    std::unique_lock<std::mutex> hold(skippingMutex_);
    if (skipping_) skippingCondition_.wait(hold);
}

// The start-up and exit paths know these three by name.
void initPipe() {
    decoderPipes().init();
}
void killFfmpegs() {
    decoderPipes().killFfmpegs();
}
void deleteZombies() {
    decoderPipes().deleteZombies();
}

int startPipePlay(const std::string& input) {
    return decoderPipes().startPipePlay(input);
}
int getPipeSamples(int slot, void* dst, int frames) {
    return decoderPipes().getPipeSamples(slot, dst, frames);
}
int pipeRunning(int slot) {
    return decoderPipes().pipeRunning(slot);
}
void killPipe(int slot) {
    decoderPipes().killPipe(slot);
}
void stopPipe(int slot) {
    decoderPipes().stopPipe(slot);
}
void stopPipe2(int slot) {
    decoderPipes().stopPipe2(slot);
}
void stopBothPipes() {
    decoderPipes().stopBothPipes();
}
void flushPipe(int slot) {
    decoderPipes().flushPipe(slot);
}
void reopenPipe(int slot) {
    decoderPipes().reopenPipe(slot);
}
void clearFfmpegPipe(int slot) {
    decoderPipes().clearFfmpegPipe(slot);
}
void clearPipe(int slot) {
    decoderPipes().clearPipe(slot);
}
void clearFifoForPipe(int slot) {
    decoderPipes().clearPipe(slot);
}
void rePreFill(int slot) {
    decoderPipes().rePreFill(slot);
}
int startRadioPipe2(FILE** out) {
    return decoderPipes().startRadioPipe2(out);
}
int startRadioPipe(const std::string& path, FILE** out) {
    return decoderPipes().startRadioPipe(path, out);
}
std::string getRadioPipeName() {
    return decoderPipes().getRadioPipeName();
}
int pipeTimeToEOF(int slot) {
    return decoderPipes().pipeTimeToEOF(slot);
}
int timeInPipe(int slot) {
    return decoderPipes().timeInPipe(slot);
}
int getPipeTime(int slot) {
    return decoderPipes().getPipeTime(slot);
}
void setPipeTime(int slot, int thousandths) {
    decoderPipes().setPipeTime(slot, thousandths);
}
int getPipeTimeLeft(int slot) {
    return decoderPipes().getPipeTimeLeft(slot);
}
int getPipeTimeLeft2(int slot) {
    return decoderPipes().getPipeTimeLeft2(slot);
}
int getPipeDuration(int slot) {
    return decoderPipes().getPipeDuration(slot);
}
void setPipeDuration(int slot, int seconds) {
    decoderPipes().setPipeDuration(slot, seconds);
}
int getPipeBitrate(int slot) {
    return decoderPipes().getPipeBitrate(slot);
}
int getPipeOccupancy(int slot) {
    return decoderPipes().getPipeOccupancy(slot);
}
double getFifoPercentage(int slot) {
    return decoderPipes().getFifoPercentage(slot);
}
int isPipeStarting(int slot) {
    return decoderPipes().isPipeStarting(slot);
}
int isSkipping(int bytes) {
    return decoderPipes().isSkipping(bytes);
}
void clearSkipping() {
    decoderPipes().clearSkipping();
}
void waitForNotSkipping() {
    decoderPipes().waitForNotSkipping();
}
