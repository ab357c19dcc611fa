#include "playback/snapcast.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <system_error>
#include <thread>

#include "core/files.h"
#include "core/log.h"
#include "core/paths.h"
#include "library/library.h"

// How the fifo is opened. snapserver's pipe source opens its end without
// blocking, finds no writer, sees end of file, closes and tries again 100 ms
// later, so its read end exists only for moments: a non-blocking open for
// writing fails with ENXIO whether the server runs or not. A blocking open
// does work (the kernel counts a writer waiting in open(), so the server's
// next look finds one and stays), but may wait forever, so it runs on a
// thread of its own, the "opener", and hands the descriptor over when it
// returns. While it waits the state is "waiting for the Snapcast server".
//
// The opener holds an O_PATH descriptor of the fifo and opens it through
// /proc/self/fd, so that it can always be woken: by a reader that we open
// on that very fifo, even once the path names another file or none.
struct SnapcastFeed::Opener {
    std::mutex mutex;
    int anchor = -1;
    dev_t device = 0;
    ino_t inode = 0;
    bool done = false;
    bool abandoned = false;
    int fd = -1;
    int error = 0;
    int wakeFd = -1;
    ~Opener() {
        for (int f : {anchor, fd, wakeFd}) {
            if (f >= 0) ::close(f);
        }
    }
};

namespace {

using Clock = std::chrono::steady_clock;

std::string throughProc(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

// Opens the anchored fifo, through /proc when there is one, else by path.
int openAnchored(int anchor, const std::string& path, int flags) {
    int fd = ::open(throughProc(anchor).c_str(), flags | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) fd = ::open(path.c_str(), flags | O_CLOEXEC);
    return fd;
}

const char* formatName(bool high) {
    return high ? "96000:32:2" : "44100:16:2";
}

}  // namespace

SnapcastFeed::SnapcastFeed(std::string fifo, std::chrono::milliseconds retry)
    : path_(std::move(fifo)), retry_(retry) {}

SnapcastFeed::~SnapcastFeed() {
    closeFifo();
    stopOpener();
}

std::string SnapcastFeed::state() const {
    if (mode_ == SnapcastMode::Off) return "off";
    std::lock_guard<std::mutex> g(stateMutex_);
    switch (state_) {
        case State::Off:
            return "starting";
        case State::Waiting:
            return "waiting for the Snapcast server at " + path_;
        case State::Playing:
            return "playing into " + path_ + " (" + detail_ + ")";
        case State::NotFifo:
            return path_ + " is not a fifo";
        case State::Failed:
            return detail_;
    }
    return "";
}

void SnapcastFeed::setState(State state, const std::string& detail) {
    {
        std::lock_guard<std::mutex> g(stateMutex_);
        if (state == state_ && detail == detail_) return;
        state_ = state;
        detail_ = detail;
    }
    // Once per change, never once per period: a server that stays away for
    // a day is one line.
    if (state == State::Off)
        kzLog("Snapcast: off\n");
    else
        kzLog("Snapcast: %s\n", this->state().c_str());
}

void SnapcastFeed::write(const uint8_t* period, int bytes, bool idle, bool high) {
    if (mode_ == SnapcastMode::Off) {
        closeFifo();
        stopOpener();
        setState(State::Off);
        return;
    }
    const auto now = Clock::now();
    if (fd_ < 0 && !connect(now, high)) return;
    if (high != high_) {
        // The server reads the format it was configured for; the log says
        // which one is being sent now.
        high_ = high;
        setState(State::Playing, formatName(high));
    }
    if (!flushPending()) {
        if (fd_ >= 0 && !idle) dropped_++;
        return;
    }
    // The player's idle output (words of 1, not digital silence) is left
    // out rather than sent: the pipe source fills a gap with silence for up
    // to its dryout time (2 s unless told) and then marks the stream idle,
    // so a pause or a gap between tracks is silent in every room, and a
    // stopped player leaves the server and the rooms idle instead of
    // encoding and sending silence for hours. It picks the stream up again
    // as soon as music comes.
    if (idle) return;
    ssize_t n;
    do {
        n = ::write(fd_, period, bytes);
    } while (n < 0 && errno == EINTR);
    if (n == bytes) return;
    if (n >= 0) {
        // A period longer than the pipe's atomic size may go in part. The
        // rest goes first next time: cutting it would shift every later
        // sample off its frame for good.
        pending_.assign(period + n, period + bytes);
        return;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        // The server is behind (or its clock slower than the device's):
        // the rooms lose this period, the local output loses nothing.
        dropped_++;
        return;
    }
    lost(now);
}

bool SnapcastFeed::flushPending() {
    while (!pending_.empty()) {
        ssize_t n = ::write(fd_, pending_.data(), pending_.size());
        if (n > 0) {
            pending_.erase(pending_.begin(), pending_.begin() + n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) lost(Clock::now());
        return false;
    }
    return true;
}

// The reader went away (EPIPE: the daemon ignores SIGPIPE, see
// installSignalHandling) or the fifo failed: close it and open it again
// after a while.
void SnapcastFeed::lost(Clock::time_point now) {
    const int error = errno;
    closeFifo();
    retryAt_ = now + retry_;
    if (error == EPIPE)
        setState(State::Waiting);
    else
        setState(State::Failed, "cannot write " + path_ + ": " + strerror(error));
}

void SnapcastFeed::closeFifo() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    pending_.clear();
}

bool SnapcastFeed::connect(Clock::time_point now, bool high) {
    if (opener_) {
        std::unique_lock<std::mutex> g(opener_->mutex);
        if (!opener_->done) {
            g.unlock();
            // A fifo removed or replaced while the opener waits on it would
            // keep the opener waiting forever on a file no server can open.
            if (now >= checkAt_) {
                checkAt_ = now + retry_;
                struct stat st;
                if (stat(path_.c_str(), &st) != 0 || st.st_dev != opener_->device ||
                    st.st_ino != opener_->inode) {
                    stopOpener();
                    retryAt_ = now;
                }
            }
            return false;
        }
        int fd = opener_->fd;
        int error = opener_->error;
        opener_->fd = -1;
        g.unlock();
        opener_.reset();
        if (fd < 0 || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) < 0) {
            if (fd >= 0) ::close(fd);
            setState(State::Failed, "cannot open " + path_ + ": " + strerror(error));
            retryAt_ = now + retry_;
            return false;
        }
        fd_ = fd;
        high_ = high;
        setState(State::Playing, formatName(high));
        return true;
    }
    if (now < retryAt_) return false;
    retryAt_ = now + retry_;
    struct stat st;
    if (stat(path_.c_str(), &st) != 0) {
        if (errno != ENOENT || mkfifo(path_.c_str(), 0666) != 0) {
            setState(State::Failed, "cannot make " + path_ + ": " + strerror(errno));
            return false;
        }
    } else if (!S_ISFIFO(st.st_mode)) {
        // Someone else's file: never written, never replaced.
        setState(State::NotFifo);
        return false;
    }
    if (!startOpener()) return false;
    checkAt_ = now + retry_;
    setState(State::Waiting);
    return false;
}

bool SnapcastFeed::startOpener() {
    auto o = std::make_shared<Opener>();
    o->anchor = ::open(path_.c_str(), O_PATH | O_CLOEXEC);
    struct stat st;
    if (o->anchor < 0 || fstat(o->anchor, &st) != 0) {
        setState(State::Failed, "cannot open " + path_ + ": " + strerror(errno));
        return false;
    }
    if (!S_ISFIFO(st.st_mode)) {
        setState(State::NotFifo);
        return false;
    }
    o->device = st.st_dev;
    o->inode = st.st_ino;
    // Started from the output thread: a thread that cannot be made fails
    // the feed, never the output.
    try {
        std::thread([o, path = path_] {
            int fd = openAnchored(o->anchor, path, O_WRONLY);
            int error = errno;
            std::lock_guard<std::mutex> g(o->mutex);
            o->done = true;
            o->error = error;
            if (o->abandoned) {
                if (fd >= 0) ::close(fd);
            } else {
                o->fd = fd;
            }
        }).detach();
    } catch (const std::system_error& e) {
        setState(State::Failed, std::string("cannot start a thread: ") + e.what());
        return false;
    }
    opener_ = std::move(o);
    return true;
}

void SnapcastFeed::stopOpener() {
    if (!opener_) return;
    std::lock_guard<std::mutex> g(opener_->mutex);
    opener_->abandoned = true;
    // A reader of our own wakes the opener, whether it is in open() already
    // or about to be; it keeps that reader until it is gone.
    if (!opener_->done && opener_->wakeFd < 0)
        opener_->wakeFd = openAnchored(opener_->anchor, path_, O_RDONLY | O_NONBLOCK);
    opener_.reset();
}

// The process-wide feed and its setting.

namespace {

constexpr const char* kModeNames[] = {"off", "also", "only"};

std::string fifoPath() {
    const char* env = getenv("KZ_SNAPCAST_FIFO");
    return env && *env ? env : hostPath("/tmp/snapfifo");
}

std::string modePath() {
    const std::string& local = getLocalPath();
    return local.empty() ? "" : local + "/kzsnapcast";
}

bool modeFromName(const char* name, SnapcastMode* mode) {
    for (int i = 0; i < 3; i++) {
        if (name && strcmp(name, kModeNames[i]) == 0) {
            *mode = static_cast<SnapcastMode>(i);
            return true;
        }
    }
    return false;
}

}  // namespace

SnapcastFeed& snapcastFeed() {
    // Never destroyed: the output thread writes to it until the process ends.
    static SnapcastFeed& feed = *new SnapcastFeed(fifoPath());
    return feed;
}

bool setSnapcastMode(const char* name) {
    SnapcastMode mode;
    if (!modeFromName(name, &mode)) return false;
    if (mode == snapcastFeed().mode()) return true;
    snapcastFeed().setMode(mode);
    kzLog("Snapcast mode %s\n", name);
    std::string path = modePath();
    if (!path.empty()) writeSettingWord(path, "snapcast", name);
    return true;
}

const char* snapcastModeName() {
    return kModeNames[static_cast<int>(snapcastFeed().mode())];
}

std::string snapcastState() {
    return snapcastFeed().state();
}

bool snapcastOnly() {
    return snapcastFeed().mode() == SnapcastMode::Only;
}

void loadSnapcastMode() {
    std::string path = modePath();
    std::string word = path.empty() ? "" : readSettingWord(path, "snapcast");
    if (word.empty()) return;
    SnapcastMode mode;
    if (!modeFromName(word.c_str(), &mode)) {
        kzLog("%s not understood; Snapcast stays %s\n", path.c_str(), snapcastModeName());
        return;
    }
    snapcastFeed().setMode(mode);
    if (mode != SnapcastMode::Off) kzLog("Snapcast mode %s\n", word.c_str());
}
