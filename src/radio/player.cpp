#include "radio/player.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <set>
#include <system_error>

#include "core/events.h"
#include "core/log.h"
#include "core/process.h"
#include "library/settings.h"
#include "playback/control.h"
#include "playback/pipe.h"
#include "radio/fetch.h"
#include "radio/icy.h"
#include "radio/playlist.h"

namespace {

constexpr size_t kSniffBytes = 2048;
constexpr size_t kPlaylistBytes = 1 << 20;
constexpr size_t kSegmentBytes = 32 << 20;
constexpr int kMaxDepth = 5;
// An HLS variant for a music server: the best at or under this.
constexpr long kHlsBandwidth = 320000;

bool isTextType(const std::string& type) {
    return type.compare(0, 5, "text/") == 0 || type.find("html") != std::string::npos ||
           type.find("json") != std::string::npos || type == "application/xml";
}

}  // namespace

struct RadioPlayer::Session {
    Station station;
    std::atomic<bool> stop{false};
    std::mutex waitMutex;
    std::condition_variable wake;
    std::set<std::string> visited;
    // The decoder being written to.
    int slot = -1;
    int fd = -1;
    pid_t slotPid[DecoderPipes::kSlots] = {0, 0};
    long long written = 0;

    // Sleeps up to seconds; false when asked to stop meanwhile.
    bool nap(double seconds) {
        std::unique_lock<std::mutex> lock(waitMutex);
        return !wake.wait_for(lock, std::chrono::duration<double>(seconds),
                              [this] { return stop.load(); });
    }
};

RadioPlayer& radioPlayer() {
    // Never destroyed: the mixer may ask for samples while the process ends.
    static RadioPlayer& p = *new RadioPlayer;
    return p;
}

RadioPlayer::~RadioPlayer() {
    stop();
}

void RadioPlayer::play(const Station& station) {
    std::lock_guard<std::mutex> turn(controlMutex_);
    stopLocked();
    auto s = std::make_shared<Session>();
    s->station = station;
    {
        std::lock_guard<std::mutex> g(mutex_);
        station_ = station;
        title_.clear();
        streamType_.clear();
        state_ = RadioState::Connecting;
        session_ = s;
    }
    tries_ = 0;
    kzLog("Radio: playing %s <%s>\n", station.name.c_str(), station.url.c_str());
    try {
        thread_ = std::thread([this, s] {
            nameThread("kz-radio");
            run(s);
        });
    } catch (const std::system_error&) {
        kzLog("Radio: stream failed: %s\n", station.name.c_str());
        std::lock_guard<std::mutex> g(mutex_);
        session_.reset();
        state_ = RadioState::Failed;
    }
}

void RadioPlayer::requestStop() {
    std::shared_ptr<Session> s;
    {
        std::lock_guard<std::mutex> g(mutex_);
        s = session_;
    }
    if (!s) return;
    s->stop = true;
    std::lock_guard<std::mutex> g(s->waitMutex);
    s->wake.notify_all();
}

void RadioPlayer::stop() {
    std::lock_guard<std::mutex> turn(controlMutex_);
    stopLocked();
}

void RadioPlayer::stopLocked() {
    requestStop();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
    std::lock_guard<std::mutex> g(mutex_);
    session_.reset();
    if (state_ != RadioState::Failed) state_ = RadioState::Idle;
}

void RadioPlayer::restart() {
    Station s = station();
    if (s.url.empty()) return;
    play(s);
}

Station RadioPlayer::station() const {
    std::lock_guard<std::mutex> g(mutex_);
    return station_;
}

std::string RadioPlayer::title() const {
    std::lock_guard<std::mutex> g(mutex_);
    return title_.empty() ? station_.name : title_;
}

RadioState RadioPlayer::state() const {
    std::lock_guard<std::mutex> g(mutex_);
    return state_;
}

bool RadioPlayer::active() const {
    std::lock_guard<std::mutex> g(mutex_);
    return session_ && !session_->stop;
}

std::string RadioPlayer::streamType() const {
    std::lock_guard<std::mutex> g(mutex_);
    return streamType_;
}

std::string RadioPlayer::statusText() const {
    switch (state()) {
        case RadioState::Connecting:
            return "Connecting";
        case RadioState::Streaming: {
            int slot = playSlot_;
            if (slot < 0 || decoderPipes().isPipeStarting(slot)) return "Buffering";
            return "Playing";
        }
        case RadioState::Reconnecting:
            return "Reconnecting";
        case RadioState::Failed:
            return "Stream failed";
        default:
            return "";
    }
}

void RadioPlayer::setAudioTap(AudioTap tap) {
    std::lock_guard<std::mutex> g(mutex_);
    tap_ = std::move(tap);
}

void RadioPlayer::setEndHook(std::function<void()> hook) {
    std::lock_guard<std::mutex> g(mutex_);
    endHook_ = std::move(hook);
}

void RadioPlayer::setState(RadioState state) {
    std::lock_guard<std::mutex> g(mutex_);
    state_ = state;
}

void RadioPlayer::beginStream(const std::string& type, const std::string& icyName) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        streamType_ = type;
        if (station_.name.empty() && !icyName.empty()) station_.name = cleanStreamText(icyName);
        state_ = RadioState::Streaming;
        // The recorder hears that a new stream (with headers of its own) begins.
        if (tap_) tap_(nullptr, 0);
    }
    addEvent(99);
}

void RadioPlayer::setTitle(const std::string& title) {
    kzLog("Radio: title %s\n", title.c_str());
    std::lock_guard<std::mutex> g(mutex_);
    title_ = title;
}

int RadioPlayer::samples(void* dst, int frames) {
    int slot = playSlot_;
    int n = slot >= 0 ? decoderPipes().getPipeSamples(slot, dst, frames) : 0;
    if (n <= 0) {
        // The old decoder has given all it had: the reconnection's takes over.
        int next = nextSlot_.exchange(-1);
        if (next >= 0) {
            playSlot_ = next;
            n = decoderPipes().getPipeSamples(next, dst, frames);
        }
    }
    return n;
}

void RadioPlayer::dropout() {
    int slot = playSlot_;
    if (slot < 0 || !decoderPipes().pipeRunning(slot)) return;
    // The stream is still open but slow: silence until the cushion is back.
    PipeSlot& p = decoderPipes().slot(slot);
    p.pipeUnderrunFlag = 1;
    p.pipeReopenFlag = 1;
    decoderPipes().rePreFill(slot);
}

void RadioPlayer::playedEnough() {
    tries_ = 0;
}

bool RadioPlayer::startDecoder(Session& s) {
    endDecoder(s);
    // A reconnection's decoder that never got to play is of no more use.
    int pending = nextSlot_.exchange(-1);
    if (pending >= 0) decoderPipes().stopPipeOf(pending, s.slotPid[pending]);
    decoderPipes().radioPreFill = isPrefill();
    FILE* out = nullptr;
    int slot = startRadioPipe2(&out);
    if (slot < 0) return false;
    if (!out) {
        kzLog("Radio: the decoder did not open %s\n", getRadioPipeName().c_str());
        return false;
    }
    s.fd = dup(fileno(out));
    fclose(out);
    if (s.fd < 0) return false;
    fcntl(s.fd, F_SETFD, FD_CLOEXEC);
    fcntl(s.fd, F_SETFL, fcntl(s.fd, F_GETFL) | O_NONBLOCK);
    s.slot = slot;
    s.slotPid[slot] = decoderPipes().slot(slot).pipePid;
    s.written = 0;
    int playing = playSlot_;
    if (playing < 0 || playing == slot) {
        playSlot_ = slot;
    } else {
        nextSlot_ = slot;
    }
    return true;
}

void RadioPlayer::endDecoder(Session& s) {
    // The decoder reads to the end of what it was given and exits.
    if (s.fd >= 0) close(s.fd);
    s.fd = -1;
}

void RadioPlayer::releaseSlots(Session& s) {
    endDecoder(s);
    for (int i = 0; i < DecoderPipes::kSlots; i++)
        decoderPipes().stopPipeOf(i, s.slotPid[i]);
    playSlot_ = -1;
    nextSlot_ = -1;
}

bool RadioPlayer::decodedAnything(Session& s, int slot) {
    if (slot < 0) return false;
    DecoderPipes& pipes = decoderPipes();
    auto produced = [&] {
        return pipes.slot(slot).pipeSamples > 0 || pipes.getPipeOccupancy(slot) > 0 ||
               pipes.slot(slot).ffmpegProduced > 0;
    };
    // The decoder has had all the stream gave: it either decodes some of it
    // or gives up, usually within a second. One that waits on, unread (a
    // reconnection's, behind the old one), is taken to be decoding.
    for (int i = 0; i < 60 && !s.stop; i++) {
        if (produced()) return true;
        if (!pipes.pipeRunning(slot) || s.slotPid[slot] != pipes.slot(slot).pipePid)
            return produced();
        s.nap(0.05);
    }
    return true;
}

bool RadioPlayer::writeAudio(Session& s, const char* data, size_t length) {
    AudioTap tap;
    {
        std::lock_guard<std::mutex> g(mutex_);
        tap = tap_;
    }
    while (length > 0) {
        if (s.stop || s.fd < 0) return false;
        ssize_t w = write(s.fd, data, length);
        if (w > 0) {
            if (tap) tap(data, static_cast<size_t>(w));
            data += w;
            length -= static_cast<size_t>(w);
            s.written += w;
            continue;
        }
        if (w < 0 && errno == EINTR) continue;
        if (w < 0 && errno == EAGAIN) {
            // The decoder is full (the player's cushion is): wait for room,
            // but not on a decoder that has gone.
            pollfd p{s.fd, POLLOUT, 0};
            poll(&p, 1, 200);
            if (!decoderPipes().pipeRunning(s.slot)) return false;
            continue;
        }
        return false;
    }
    return true;
}

RadioPlayer::Outcome RadioPlayer::playUrl(Session& s, const std::string& url, int depth) {
    if (depth > kMaxDepth) {
        kzLog("Radio: playlists nested more than %d deep at %s\n", kMaxDepth, url.c_str());
        return Outcome::Fatal;
    }
    if (!s.visited.insert(url).second) {
        kzLog("Radio: the playlist at %s leads back to itself\n", url.c_str());
        return Outcome::Fatal;
    }
    enum class Mode { Sniff, Collect, Audio, NotAudio, NoDecoder, DecoderGone } mode = Mode::Sniff;
    std::string head;
    PlaylistKind kind = PlaylistKind::None;
    std::string notAudioType;
    std::unique_ptr<IcySplitter> icy;

    auto startAudio = [&](const FetchReply& r) {
        if (isTextType(r.contentType)) {
            notAudioType = r.contentType;
            mode = Mode::NotAudio;
            return false;
        }
        if (!startDecoder(s)) {
            mode = Mode::NoDecoder;
            return false;
        }
        beginStream(r.contentType.empty() ? "audio/mpeg" : r.contentType, r.icyName);
        kzLog("Radio: %s streams %s%s\n", r.effectiveUrl.c_str(),
              r.contentType.empty() ? "(no type)" : r.contentType.c_str(),
              r.metaint ? " with titles" : "");
        icy = std::make_unique<IcySplitter>(
            r.metaint, [&](const char* d, size_t n) { return writeAudio(s, d, n); },
            [&](const std::string& t) { setTitle(t); });
        mode = Mode::Audio;
        return true;
    };
    auto feed = [&](const char* d, size_t n) {
        if (icy->feed(d, n)) return true;
        if (!s.stop) mode = Mode::DecoderGone;
        return false;
    };
    auto decide = [&](const FetchReply& r) {
        kind = sniffPlaylist(r.contentType, r.effectiveUrl, head.data(), head.size());
        if (kind != PlaylistKind::None) {
            mode = Mode::Collect;
            return true;
        }
        if (!startAudio(r)) return false;
        std::string first;
        first.swap(head);
        return feed(first.data(), first.size());
    };

    FetchOptions options;
    options.icy = true;
    FetchReply r =
        fetchStream(url, options, &s.stop, [&](const FetchReply& reply, const char* d, size_t n) {
            switch (mode) {
                case Mode::Sniff:
                    head.append(d, n);
                    return head.size() < kSniffBytes || decide(reply);
                case Mode::Collect:
                    head.append(d, n);
                    return head.size() <= kPlaylistBytes;
                case Mode::Audio:
                    return feed(d, n);
                default:
                    return false;
            }
        });
    if (s.stop) return Outcome::Stopped;
    if (r.status >= 400) {
        endDecoder(s);
        kzLog("Radio: %s answered %ld\n", url.c_str(), r.status);
        return r.status == 408 || r.status == 429 || r.status >= 500 ? Outcome::Retry
                                                                     : Outcome::Fatal;
    }
    if (mode == Mode::Sniff && !head.empty() && r.error.empty()) decide(r);
    if (s.stop) return Outcome::Stopped;
    switch (mode) {
        case Mode::Collect: {
            if (!r.error.empty()) {
                kzLog("Radio: cannot read the playlist at %s: %s\n", url.c_str(), r.error.c_str());
                return head.size() > kPlaylistBytes ? Outcome::Fatal : Outcome::Retry;
            }
            kzLog("Radio: %s is a %s playlist\n", url.c_str(), playlistKindName(kind));
            if (kind == PlaylistKind::HlsMedia) return playHls(s, r.effectiveUrl, head);
            if (kind == PlaylistKind::HlsMaster) {
                std::vector<HlsVariant> variants = parseHlsMaster(head, r.effectiveUrl);
                const HlsVariant* v = pickHlsVariant(variants, kHlsBandwidth);
                if (!v) {
                    kzLog("Radio: the HLS playlist at %s names no stream\n", url.c_str());
                    return Outcome::Fatal;
                }
                return playUrl(s, v->url, depth + 1);
            }
            std::vector<std::string> entries = parsePlaylist(kind, head, r.effectiveUrl);
            if (entries.empty()) {
                kzLog("Radio: the playlist at %s names no stream\n", url.c_str());
                return Outcome::Fatal;
            }
            Outcome last = Outcome::Fatal;
            for (const std::string& e : entries) {
                last = playUrl(s, e, depth + 1);
                if (last != Outcome::Fatal) return last;
            }
            return last;
        }
        case Mode::NotAudio:
            kzLog("Radio: %s sends %s, not audio\n", url.c_str(), notAudioType.c_str());
            return Outcome::Fatal;
        case Mode::NoDecoder:
            kzLog("Radio: no decoder for %s\n", url.c_str());
            return Outcome::Retry;
        case Mode::DecoderGone:
        case Mode::Audio: {
            int slot = s.slot;
            endDecoder(s);
            if (!decodedAnything(s, slot)) {
                kzLog("Radio: the decoder could not read the stream of %s\n", url.c_str());
                return Outcome::Fatal;
            }
            kzLog("Radio: the stream of %s ended: %s\n", url.c_str(),
                  mode == Mode::DecoderGone ? "the decoder stopped"
                  : r.error.empty()         ? "closed by the server"
                                            : r.error.c_str());
            return Outcome::Streamed;
        }
        default:
            break;
    }
    if (!r.error.empty()) {
        kzLog("Radio: cannot reach %s: %s\n", url.c_str(), r.error.c_str());
        if (r.permanent) return Outcome::Fatal;
    } else {
        kzLog("Radio: %s sent nothing\n", url.c_str());
    }
    return Outcome::Retry;
}

RadioPlayer::Outcome RadioPlayer::playHls(Session& s, const std::string& url, std::string text) {
    long long last = -1;
    int failures = 0;
    bool started = false;
    bool sentMap = false;
    for (;;) {
        HlsMedia media = parseHlsMedia(text, url);
        if (media.encrypted) {
            kzLog("Radio: the HLS stream at %s is encrypted\n", url.c_str());
            endDecoder(s);
            return Outcome::Fatal;
        }
        if (!started) {
            if (!startDecoder(s)) return Outcome::Retry;
            beginStream("application/vnd.apple.mpegurl", "");
            started = true;
            // A live stream is joined three segments from its end.
            if (!media.endList && media.segments.size() > 3)
                last = media.segments[media.segments.size() - 4].sequence;
        }
        bool fresh = false;
        for (const HlsSegment& seg : media.segments) {
            if (seg.sequence <= last) continue;
            fresh = true;
            if (!media.mapUrl.empty() && !sentMap) {
                std::string init;
                FetchReply m = fetchAll(media.mapUrl, 20, kSegmentBytes, &s.stop, &init);
                if (s.stop) return Outcome::Stopped;
                if (m.status == 200 && !writeAudio(s, init.data(), init.size())) break;
                sentMap = true;
            }
            std::string body;
            FetchReply sr = fetchAll(seg.url, std::max(20, static_cast<int>(seg.duration * 4)),
                                     kSegmentBytes, &s.stop, &body);
            if (s.stop) return Outcome::Stopped;
            last = seg.sequence;
            if (sr.status != 200 || !sr.error.empty()) {
                kzLog("Radio: HLS segment %s missing (%ld %s), skipped\n", seg.url.c_str(),
                      sr.status, sr.error.c_str());
                continue;
            }
            {
                std::lock_guard<std::mutex> g(mutex_);
                streamType_ = sr.contentType.empty() ? "video/mp2t" : sr.contentType;
            }
            // Packed audio carries a timestamp tag at each segment's start,
            // which in the middle of one long stream is only noise.
            size_t skip =
                id3TagLength(reinterpret_cast<const unsigned char*>(body.data()), body.size());
            if (!writeAudio(s, body.data() + skip, body.size() - skip)) {
                if (s.stop) return Outcome::Stopped;
                kzLog("Radio: the decoder stopped reading the HLS stream of %s\n", url.c_str());
                endDecoder(s);
                return s.written > 0 ? Outcome::Streamed : Outcome::Fatal;
            }
        }
        if (media.endList) {
            kzLog("Radio: the HLS stream at %s has ended\n", url.c_str());
            endDecoder(s);
            return Outcome::Streamed;
        }
        // Reload at the target duration, sooner when nothing was new.
        if (!s.nap(fresh ? media.targetDuration : media.targetDuration / 2))
            return Outcome::Stopped;
        FetchReply pr = fetchAll(url, 10, kPlaylistBytes, &s.stop, &text);
        if (s.stop) return Outcome::Stopped;
        if (pr.status != 200 || !pr.error.empty()) {
            kzLog("Radio: cannot reload the HLS playlist %s (%ld %s)\n", url.c_str(), pr.status,
                  pr.error.c_str());
            if (++failures >= 3) {
                endDecoder(s);
                return s.written > 0 ? Outcome::Streamed : Outcome::Retry;
            }
            continue;
        }
        failures = 0;
        // A playlist that starts over (a restarted encoder) starts us over.
        HlsMedia reloaded = parseHlsMedia(text, url);
        if (!reloaded.segments.empty() && reloaded.segments.back().sequence + 10 < last) last = -1;
    }
}

void RadioPlayer::run(std::shared_ptr<Session> s) {
    runStream(s);
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> g(mutex_);
        hook = endHook_;
    }
    if (hook) hook();
}

void RadioPlayer::runStream(std::shared_ptr<Session> s) {
    using Clock = std::chrono::steady_clock;
    auto failingSince = Clock::now();
    for (;;) {
        s->visited.clear();
        Outcome o = playUrl(*s, s->station.url, 0);
        if (s->stop || o == Outcome::Stopped) break;
        if (o == Outcome::Streamed) failingSince = Clock::now();
        auto failing =
            std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - failingSince).count();
        if (o == Outcome::Fatal || failing >= giveUpSeconds) {
            if (o != Outcome::Fatal)
                kzLog("Radio: giving up on %s after %lld s\n", s->station.url.c_str(),
                      static_cast<long long>(failing));
            kzLog("Radio: stream failed: %s\n", s->station.name.c_str());
            setState(RadioState::Failed);
            break;
        }
        int t = tries_++;
        int wait = std::min(30, firstRetrySeconds << std::min(t, 5));
        setState(RadioState::Reconnecting);
        kzLog("Radio: reconnecting to %s in %d s\n", s->station.url.c_str(), wait);
        if (!s->nap(wait)) break;
    }
    endDecoder(*s);
    if (s->stop) {
        releaseSlots(*s);
        return;
    }
    // A failed stream plays out what it has, then the radio falls silent.
    while (!s->stop) {
        int slot = playSlot_;
        if (slot < 0 ||
            (!decoderPipes().pipeRunning(slot) && decoderPipes().getPipeOccupancy(slot) == 0))
            break;
        s->nap(0.2);
    }
    if (!s->stop) stopRadioChannel();
    releaseSlots(*s);
}
