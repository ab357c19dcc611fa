#include "playback/control.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "core/events.h"
#include "core/files.h"
#include "core/frontpanel.h"
#include "core/log.h"
#include "core/ui.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/playlists.h"
#include "library/settings.h"
#include "library/sorting.h"
#include "playback/cd.h"
#include "playback/ffwd.h"
#include "playback/output.h"
#include "playback/pipe.h"
#include "playback/playback.h"
#include "playback/smartbuffer.h"
#include "web/web.h"

namespace {

struct PlayChannel {
    int source = SRC_IDLE;
    FILE* pcmf = nullptr;
    int playPipe = -1;
    int nearEOF = 0;
    long long trackFileLength = 0;
    int trackId = INVALID_ID;
};

struct PlayState {
    PlayChannel channel[2];
    int32_t mix = 0;
    int32_t mixstep = 0;
    // The second channel's period while crossfading, in either format.
    alignas(8) uint8_t segueBuffer[76800];
    int32_t fade = 0;
    int32_t fadeStep = 0;
    int fadeWait = 0;
    bool fading = false;
    void (*fadeCode)() = nullptr;
    std::atomic<int> playingVariable{0};
    std::atomic<long long> samplesIntoTrack{0};
    int randomMode = 0;
    int dropout = 0;
    int selectedSource = SEL_HDD;
    long long internetRadioSamplesPlayed = 0;
    RadioHooks radio;
    std::atomic<bool> paused{false};
    int repeatMode = REPEAT_NONE;
    // The track that played when queued tracks took over: when the queue
    // is empty, playing goes on from it as it would have.
    int queueReturnId = INVALID_ID;
};

PlayState& S() {
    // Never destroyed: other threads may still use it while the process ends.
    static PlayState& s = *new PlayState;
    return s;
}

using Lock = std::lock_guard<std::recursive_mutex>;

bool busy(int ch) {
    return S().channel[ch].source != SRC_IDLE;
}

// The idle value: 16-bit words of 1, whatever the format.
void fillIdle(uint8_t* dest, int bytes) {
    for (int i = 0; i + 1 < bytes; i += 2) {
        dest[i] = 1;
        dest[i + 1] = 0;
    }
}

// Adds with wrap-around and clamps as the crossfade and the fade do: a
// negative result means it ran past an end.
int32_t step(int32_t value, int32_t by) {
    int32_t v = static_cast<int32_t>(static_cast<uint32_t>(value) + static_cast<uint32_t>(by));
    if (v < 0) v = by < 0 ? 0 : kMixFull;
    return v;
}

void stopChannelLocked(int ch) {
    PlayChannel& c = S().channel[ch];
    if (c.source == SRC_PIPE || c.source == SRC_VIDEO) {
        fetchFeeder().stopFeeder(ch);
        if (c.playPipe >= 0) decoderPipes().stopPipe(c.playPipe);
    }
    if (c.pcmf) fclose(c.pcmf);
    if (c.source == SRC_CD) requestStopCDReader();
    // Only asks: the stream's thread may be in the middle of a write.
    if (c.source == SRC_RADIO && S().radio.stop) S().radio.stop();
    c = PlayChannel();
    if (!busy(0) && !busy(1)) S().playingVariable = 0;
}

// Fills dst with the channel's next frames; returns how many it really had.
int getChannelSamples(int ch, uint8_t* dst, int frames) {
    PlayChannel& c = S().channel[ch];
    const int fb = outputFrameBytes();
    const size_t bytes = static_cast<size_t>(frames) * fb;
    int n = 0;
    switch (c.source) {
        case SRC_WAV:
            if (c.pcmf) n = static_cast<int>(fread(dst, fb, static_cast<size_t>(frames), c.pcmf));
            if (n == 0) {
                memset(dst, 0, bytes);
                stopChannelLocked(ch);
                return 0;
            }
            break;
        case SRC_CD:
            n = fb == 8 ? getCDSamples(reinterpret_cast<int32_t*>(dst), frames)
                        : getCDSamples(reinterpret_cast<int16_t*>(dst), frames);
            if (n == 0) {
                memset(dst, 0, bytes);
                stopChannelLocked(ch);
                return 0;
            }
            break;
        case SRC_PIPE:
        case SRC_VIDEO:
            n = c.playPipe >= 0 ? decoderPipes().getPipeSamples(c.playPipe, dst, frames) : 0;
            if (n >= frames) {
                S().dropout = 0;
            } else {
                S().dropout++;
                if (c.source == SRC_VIDEO && S().dropout == 10) {
                    kzLog("New Next mechanism at end of Youtube track\n");
                    addEvent(74);
                }
            }
            // A decoder that has finished and delivered everything ends the
            // channel's track.
            if (n == 0 && c.playPipe >= 0 && !decoderPipes().pipeRunning(c.playPipe) &&
                decoderPipes().getPipeOccupancy(c.playPipe) == 0 &&
                !decoderPipes().isPipeStarting(c.playPipe)) {
                memset(dst, 0, bytes);
                // A track that ended before it asked for its successor (a
                // file that would not decode, or a very short one): go on
                // to the next now.
                if (!c.nearEOF) addEvent(74);
                stopChannelLocked(ch);
                return 0;
            }
            break;
        case SRC_RADIO: {
            PlayState& s = S();
            n = s.radio.samples ? s.radio.samples(dst, frames) : 0;
            if (n <= 0) {
                // The stream never ends here: a dry spell is a dropout for
                // the radio code to mend, and silence meanwhile.
                s.internetRadioSamplesPlayed = 0;
                if (s.dropout == 0 && s.radio.dropout) s.radio.dropout();
                s.dropout++;
                n = 0;
            } else {
                s.dropout = 0;
                long long before = s.internetRadioSamplesPlayed;
                s.internetRadioSamplesPlayed += n;
                if (before < 500000 && s.internetRadioSamplesPlayed >= 500000 &&
                    s.radio.playedEnough)
                    s.radio.playedEnough();
            }
            break;
        }
        default:
            break;
    }
    if (n < 0) n = 0;
    if (n < frames)
        memset(dst + static_cast<size_t>(n) * fb, 0, static_cast<size_t>(frames - n) * fb);
    return n;
}

void mixSegue(uint8_t* dest, const uint8_t* secondary, int frames) {
    if (outputFrameBytes() == 8)
        outputmix(reinterpret_cast<int32_t*>(dest), reinterpret_cast<const int32_t*>(secondary),
                  frames);
    else
        outputmix(reinterpret_cast<int16_t*>(dest), reinterpret_cast<const int16_t*>(secondary),
                  frames);
}

template <typename Sample>
void swapSides(Sample* samples, int frames) {
    for (int f = 0; f < frames; f++)
        std::swap(samples[2 * f], samples[2 * f + 1]);
}

}  // namespace

bool isLastTrackOfAlbum(int t) {
    if (t < 0 || t >= getTrackCount()) return true;
    std::vector<int> tracks = albumTrackOrder(getParentAlbum(t));
    return tracks.empty() || tracks.back() == t;
}

namespace {

int playTrackIndex(int t) {
    if (t < 0 || t >= getTrackCount()) return 0;
    lib().currentID = trackToID(t);
    return startPlayingTrack(getTrackPath(t));
}

void stopCode() {
    stopPlayNoMute();
    addEvent(20);
}

}  // namespace

std::recursive_mutex& playMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

void resetPlayback() {
    Lock g(playMutex());
    for (int ch = 0; ch < 2; ch++)
        stopChannelLocked(ch);
    PlayState& s = S();
    s.mix = s.mixstep = 0;
    s.fade = s.fadeStep = s.fadeWait = 0;
    s.fading = false;
    s.fadeCode = nullptr;
    s.playingVariable = 0;
    s.samplesIntoTrack = 0;
    s.randomMode = 0;
    s.dropout = 0;
    s.paused = false;
    s.repeatMode = REPEAT_NONE;
    s.queueReturnId = INVALID_ID;
}

void getSamples(void* out, int frames) {
    PlayState& s = S();
    uint8_t* dest = static_cast<uint8_t*>(out);
    const int fb = outputFrameBytes();
    if (punchThru() && punchBuffer()) {
        // A slot is 4 bytes: a high-resolution frame takes two.
        if (smartGetSamplesS2(punchBuffer(), frames * fb / 4, dest)) return;
        if (clearPunchThru()) {
            kzLog("mute (PunchThru)\n");
            refreshUI();
        }
    }
    if (fb == 8 ? getWebSamples(reinterpret_cast<int32_t*>(dest), frames)
                : getWebSamples(reinterpret_cast<int16_t*>(dest), frames))
        return;
    if (!s.playingVariable || s.paused) {
        fillIdle(dest, frames * fb);
        return;
    }
    s.samplesIntoTrack += frames;
    Lock g(playMutex());
    frames = std::min(frames, static_cast<int>(sizeof s.segueBuffer) / fb);
    const bool b0 = busy(0), b1 = busy(1);
    if (b0 != b1) {
        int ch = b0 ? 0 : 1;
        int source = s.channel[ch].source;
        int n = getChannelSamples(ch, dest, frames);
        if (n == 0 && source != SRC_IDLE && !isPlaylistPlaying() && isClassical() &&
            !hasQueuedTracks() && isLastTrackOfAlbum(idToTrack(lib().currentID))) {
            addEvent(87);
        }
        startNext(ch);
    } else if (b0 && b1 &&
               (getSegueMode() != 0 || (!s.channel[0].nearEOF && !s.channel[1].nearEOF))) {
        getChannelSamples(0, dest, frames);
        getChannelSamples(1, s.segueBuffer, frames);
        mixSegue(dest, s.segueBuffer, frames);
        if (s.mixstep <= 0 && s.mix <= 0) {
            stopChannelLocked(1);
        } else if (s.mixstep > 0 && s.mix > 0x7FFEFFFF) {
            stopChannelLocked(0);
        }
    } else if (b0 && b1) {
        // Segue off: the old track plays to its last frame and the new one
        // takes over within the same period.
        int oldCh = s.mixstep <= 0 ? 1 : 0;
        int newCh = 1 - oldCh;
        int n = getChannelSamples(oldCh, dest, frames);
        if (n < frames) {
            kzLog(oldCh == 1 ? "getSamples () switching stopChannel (1)\n"
                             : "getSamples () switching - stopChannel(0)\n");
            getChannelSamples(newCh, dest + static_cast<size_t>(n) * fb, frames - n);
            stopChannelLocked(oldCh);
            s.samplesIntoTrack = frames - n;
        }
    } else {
        fillIdle(dest, frames * fb);
    }
    if (s.fading) {
        if (fb == 8)
            fadeInOut(reinterpret_cast<int32_t*>(dest), frames);
        else
            fadeInOut(reinterpret_cast<int16_t*>(dest), frames);
    }
    // Left and right change places on the line out while a plug is in the
    // headphone socket, when the setting asks for it.
    if (getSwapSetting() && isHeadphonePlugIn()) {
        if (fb == 8)
            swapSides(reinterpret_cast<int32_t*>(dest), frames);
        else
            swapSides(reinterpret_cast<int16_t*>(dest), frames);
    }
}

void outputmix(int16_t* primary, const int16_t* secondary, int frames) {
    PlayState& s = S();
    for (int f = 0; f < frames; f++) {
        int32_t g = s.mix >> 17;
        for (int c = 0; c < 2; c++) {
            int32_t out = primary[2 * f + c];
            out = out + (((secondary[2 * f + c] - out) * g) >> 14);
            primary[2 * f + c] = static_cast<int16_t>(out);
        }
        s.mix = step(s.mix, s.mixstep);
    }
}

void outputmix(int32_t* primary, const int32_t* secondary, int frames) {
    PlayState& s = S();
    for (int f = 0; f < frames; f++) {
        int64_t g = s.mix >> 17;
        for (int c = 0; c < 2; c++) {
            // The difference of two full-scale samples needs 33 bits; the
            // top 16 of it carry the mix, as 16-bit audio would.
            int64_t out = primary[2 * f + c];
            out += ((static_cast<int64_t>(secondary[2 * f + c]) - out) >> 16) * g * 4;
            primary[2 * f + c] =
                static_cast<int32_t>(std::clamp<int64_t>(out, INT32_MIN, INT32_MAX));
        }
        s.mix = step(s.mix, s.mixstep);
    }
}

void fadeIn(void (*done)()) {
    Lock g(playMutex());
    S().fade = 0;
    S().fadeStep = 97388;
    S().fadeCode = done;
    S().fadeWait = 0;
    S().fading = true;
}

void fadeOut(void (*done)()) {
    Lock g(playMutex());
    S().fade = kMixFull;
    S().fadeStep = -97388;
    S().fadeCode = done;
    S().fadeWait = 0;
    S().fading = true;
}

namespace {

void finishFade() {
    PlayState& s = S();
    s.fading = false;
    void (*code)() = s.fadeCode;
    s.fadeCode = nullptr;
    if (code) code();
}

// scale(sample, g) gives the sample at gain g / 32768.
template <typename Sample, typename Scale>
void fadeFrames(Sample* samples, int frames, Scale scale) {
    PlayState& s = S();
    const size_t frameBytes = 2 * sizeof(Sample);
    if (s.fadeWait > 0) {
        memset(samples, 0, static_cast<size_t>(frames) * frameBytes);
        if (--s.fadeWait == 0) finishFade();
        return;
    }
    for (int f = 0; f < frames; f++) {
        int32_t g = s.fade >> 16;
        samples[2 * f] = scale(samples[2 * f], g);
        samples[2 * f + 1] = scale(samples[2 * f + 1], g);
        s.fade = step(s.fade, s.fadeStep);
        if (s.fadeStep > 0 && s.fade > 0x7FFEFFFF) {
            finishFade();
            return;
        }
        if (s.fadeStep < 0 && s.fade == 0) {
            memset(samples + 2 * (f + 1), 0, static_cast<size_t>(frames - f - 1) * frameBytes);
            s.fadeWait = 7;
            return;
        }
    }
}

}  // namespace

void fadeInOut(int16_t* samples, int frames) {
    fadeFrames(samples, frames,
               [](int16_t v, int32_t g) { return static_cast<int16_t>((v * g) >> 15); });
}

void fadeInOut(int32_t* samples, int frames) {
    // Scaled down first: a 32-bit sample times the gain would not fit.
    fadeFrames(samples, frames, [](int32_t v, int32_t g) { return (v >> 15) * g; });
}

int getSegueStep() {
    // At 96000 Hz a crossfade of about the same length takes more frames.
    if (isHighResolution()) return getSegueMode() == 1 ? 9000 : 36000;
    return getSegueMode() == 1 ? 20000 : 80000;
}
int getSegueThreshold() {
    return getSegueMode() == 2 ? 2 : 4;
}

int prepareSegue2() {
    Lock g(playMutex());
    PlayState& s = S();
    const bool b0 = busy(0), b1 = busy(1);
    if (!b0 && !b1) {
        s.mix = 0;
        s.mixstep = 0;
        return 0;
    }
    if (b0 && !b1) {
        s.mix = 0;
        s.mixstep = getSegueStep();
        return 1;
    }
    if (!b0 && b1) {
        s.mix = kMixFull;
        s.mixstep = -getSegueStep();
        return 0;
    }
    kzLog("********Cannot Segue while both channels playing****\n");
    if (s.mixstep <= 0) {
        s.mixstep = getSegueStep();
        return 1;
    }
    s.mixstep = -getSegueStep();
    return 0;
}

int prepareSegue() {
    Lock g(playMutex());
    if (busy(0) && busy(1)) {
        kzLog("********Cannot Segue while both channels playing****\n");
        stopChannelLocked(0);
        S().mix = kMixFull;
        S().mixstep = -getSegueStep();
        return 0;
    }
    return prepareSegue2();
}

int whichSegue() {
    return busy(0) && !busy(1) ? 1 : 0;
}
int inSegue() {
    return busy(0) && busy(1) ? 1 : 0;
}

int timeToEOF(int ch) {
    const PlayChannel& c = S().channel[ch];
    switch (c.source) {
        case SRC_FLAC:
            return c.playPipe >= 0 ? decoderPipes().pipeTimeToEOF(c.playPipe) : 1000;
        case SRC_WAV:
            return static_cast<int>(
                (c.trackFileLength / outputFrameBytes() - S().samplesIntoTrack) / outputRate());
        case SRC_PIPE:
            return fetchFeeder().trackTimeToEOF(ch);
        default:
            return 1000;
    }
}

void startNext(int ch) {
    PlayChannel& c = S().channel[ch];
    if (!S().playingVariable || c.nearEOF || c.source == SRC_IDLE) return;
    if (timeToEOF(ch) <= getSegueThreshold()) {
        c.nearEOF = 1;
        addEvent(74);
        kzLog("NEXTEVENT in startNext (%d)\n", ch);
    }
}

int getChannelSource(int ch) {
    return S().channel[ch].source;
}

const char* getSourceType(int ch) {
    switch (S().channel[ch].source) {
        case SRC_WAV:
            return "WAV";
        case SRC_MP3:
            return "MP3";
        case SRC_FLAC:
            return "FLAC";
        case SRC_RADIO:
            return "Radio";
        case SRC_CD:
            return "CD";
        case SRC_PIPE:
            return "PIPE";
        case SRC_BROWSER:
            return "Browser";
        default:
            return "UNKNOWN";
    }
}

int32_t getMix() {
    return S().mix;
}
int32_t getMixStep() {
    return S().mixstep;
}
bool isFading() {
    return S().fading;
}

// Tracks are started from the main loop and from the web listener alike. Two
// starts at once would share one channel's feeder and decoder slot, so they
// take turns; the output thread never waits for this lock.
namespace {
std::mutex& startMutex() {
    static std::mutex& m = *new std::mutex;
    return m;
}
}  // namespace

int startPlayingTrack(const std::string& path) {
    std::lock_guard<std::mutex> turn(startMutex());
    if (inSegue()) stopPlayNoMute();
    int ch = prepareSegue2();
    {
        Lock g(playMutex());
        if (busy(ch)) stopChannelLocked(ch);
    }
    // Starting a decoder may wait for an old child: not under the lock the
    // output thread needs every period.
    int slot = fetchFeeder().startTrackDecoder(ch, path);
    if (slot < 0) {
        kzLog("startPlayingTrack () cannot play %s\n", path.c_str());
        return 0;
    }
    Lock g(playMutex());
    S().paused = false;
    PlayChannel& c = S().channel[ch];
    c.source = SRC_PIPE;
    c.playPipe = slot;
    c.nearEOF = 0;
    c.trackId = lib().currentID;
    S().samplesIntoTrack = 0;
    S().dropout = 0;
    S().playingVariable = 1;
    kzInfo("startPlayingTrack () %s on channel %d\n", path.c_str(), ch);
    return 1;
}

int startPlayingRaw(const std::string& path) {
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) {
        kzLog("startPlayingRaw () cannot open %s\n", path.c_str());
        return 0;
    }
    fseek(f, 0, SEEK_END);
    long long length = ftell(f);
    fseek(f, 0, SEEK_SET);
    std::lock_guard<std::mutex> turn(startMutex());
    if (inSegue()) stopPlayNoMute();
    int ch = prepareSegue2();
    Lock g(playMutex());
    if (busy(ch)) stopChannelLocked(ch);
    PlayChannel& c = S().channel[ch];
    c.source = SRC_WAV;
    c.pcmf = f;
    c.trackFileLength = length;
    S().samplesIntoTrack = 0;
    S().playingVariable = 1;
    return 1;
}

int startPlayingCD(int index) {
    std::lock_guard<std::mutex> turn(startMutex());
    stopPlayNoMute();
    if (!startCDReader(index)) return 0;
    Lock g(playMutex());
    PlayChannel& c = S().channel[0];
    c.source = SRC_CD;
    S().mix = 0;
    S().mixstep = 0;
    S().samplesIntoTrack = 0;
    S().playingVariable = 1;
    return 1;
}

int startPlayingLocalID(int id) {
    if (idIsTrack(id)) return playTrackIndex(idToTrack(id));
    if (idIsAlbum(id)) {
        int a = idToAlbum(id);
        if (a < 0 || a >= getAlbumCount()) return 0;
        std::vector<int> tracks = albumTrackOrder(a);
        if (tracks.empty()) {
            kzLog("startPlayingLocalID () album %d has no tracks\n", a);
            return 0;
        }
        return playTrackIndex(tracks.front());
    }
    if (idIsArtist(id)) {
        int r = idToArtist(id);
        for (int a = 0; a < getAlbumCount(); a++) {
            if (getAlbumArtist(a) == r && !albumTrackOrder(a).empty()) {
                return startPlayingLocalID(albumToID(a));
            }
        }
        kzLog("startPlayingLocalID () artist %d has no tracks\n", r);
        return 0;
    }
    kzLog("startPlayingLocalID () cannot play %d\n", id);
    return 0;
}

int startPlayingID(int id) {
    if (idIsUSBTrack(id)) {
        int t = idToUSBTrack(id);
        if (t < 0 || t >= getUSBTrackcount()) return 0;
        lib().currentID = id;
        return startPlayingTrack(getUSBTrackPath(t));
    }
    return startPlayingLocalID(id);
}

namespace {

// What follows track t by the play mode, when nothing is queued and it does
// not repeat itself.
int playNextByMode(int t) {
    if (S().randomMode) {
        int next = shuffleNext(t);
        return next >= 0 ? playTrackIndex(next) : 0;
    }
    std::vector<int> tracks = albumTrackOrder(getParentAlbum(t));
    auto it = std::find(tracks.begin(), tracks.end(), t);
    if (it != tracks.end() && it + 1 != tracks.end()) return playTrackIndex(*(it + 1));
    if (S().repeatMode == REPEAT_ALBUM && !tracks.empty()) return playTrackIndex(tracks.front());
    // After an album's last track comes the next album's first.
    for (int a = getParentAlbum(t) + 1; a < getAlbumCount(); a++) {
        std::vector<int> next = albumTrackOrder(a);
        if (!next.empty()) return playTrackIndex(next.front());
    }
    return 0;
}

int startNextTrack(bool afterEnd) {
    if (S().channel[0].source == SRC_CD) {
        int next = getCDTrackIndex() + 1;
        return next < getCDTrackCount() ? startPlayingCD(next) : 0;
    }
    int queued = takeQueuedTrack();
    if (queued >= 0) {
        // The first queued track remembers where playing would have gone on.
        if (S().queueReturnId == INVALID_ID) S().queueReturnId = lib().currentID;
        kzLog("Playing queued track %d\n", queued);
        return playTrackIndex(queued);
    }
    if (S().queueReturnId != INVALID_ID) {
        lib().currentID = S().queueReturnId;
        S().queueReturnId = INVALID_ID;
    }
    // A track that ends in repeat-track mode plays again, in a playlist too.
    if (afterEnd && S().repeatMode == REPEAT_TRACK && idIsTrack(lib().currentID))
        return playTrackIndex(idToTrack(lib().currentID));
    if (isPlaylistPlaying()) {
        int next = playlistNextTrack();
        if (next >= 0) return playTrackIndex(next);
        stopPlaylistPlayback();
        return 0;
    }
    int t = idToTrack(lib().currentID);
    if (!idIsTrack(lib().currentID) || t >= getTrackCount()) return 0;
    return playNextByMode(t);
}

}  // namespace

int startPlayingNext() {
    return startNextTrack(false);
}

int startPlayingNextAfterEnd() {
    return startNextTrack(true);
}

int startPlayingPrev() {
    if (S().channel[0].source == SRC_CD) {
        int index = getCDTrackIndex();
        return startPlayingCD(index > 0 ? index - 1 : 0);
    }
    int t = idToTrack(lib().currentID);
    if (!idIsTrack(lib().currentID) || t >= getTrackCount()) return 0;
    // A few seconds in, "previous" means this track from its start.
    if (isPlaying() && getTimeIntoTrack() > 3) return playTrackIndex(t);
    if (isPlaylistPlaying()) {
        int prev = playlistPrevTrack();
        return playTrackIndex(prev >= 0 ? prev : t);
    }
    std::vector<int> tracks = albumTrackOrder(getParentAlbum(t));
    auto it = std::find(tracks.begin(), tracks.end(), t);
    if (it != tracks.end() && it != tracks.begin()) return playTrackIndex(*(it - 1));
    return playTrackIndex(t);
}

void playStop() {
    if (isPlaying() && S().paused) {
        // Nothing sounds: a fade would never run its course.
        stopCode();
    } else if (isPlaying()) {
        fadeOut(stopCode);
    } else if (S().selectedSource == SEL_RADIO && S().radio.resume) {
        S().radio.resume();
    } else {
        startPlayingID(lib().currentID);
    }
}

void stopPlayNoMute() {
    Lock g(playMutex());
    for (int ch = 0; ch < 2; ch++)
        stopChannelLocked(ch);
    S().paused = false;
    S().fading = false;
    S().fadeWait = 0;
    S().playingVariable = 0;
}

void stopPlay() {
    stopPlayNoMute();
}

void stopChannel(int ch) {
    Lock g(playMutex());
    stopChannelLocked(ch);
}

bool isPlaying() {
    return S().playingVariable != 0;
}

int currentChannel() {
    if (busy(0) && busy(1)) return S().mixstep > 0 ? 1 : 0;
    return busy(1) ? 1 : 0;
}

int getSelectedSource() {
    return S().selectedSource;
}

void selectSourceRaw(int source) {
    kzLog("selectSourceRaw ()\n");
    if (source != S().selectedSource) {
        stopPlayNoMute();
        if (S().selectedSource == SEL_CD) stopCDReader();
        decoderPipes().radioSelected = source == SEL_RADIO;
        // The radio plays only while it is the source.
        if (source != SEL_RADIO && S().radio.stop) S().radio.stop();
    }
    S().selectedSource = source;
}

void setRadioHooks(const RadioHooks& hooks) {
    Lock g(playMutex());
    S().radio = hooks;
}

int startRadioChannel() {
    std::lock_guard<std::mutex> turn(startMutex());
    Lock g(playMutex());
    PlayState& s = S();
    for (int ch = 0; ch < 2; ch++)
        if (s.channel[ch].source != SRC_RADIO) stopChannelLocked(ch);
    s.channel[1] = PlayChannel();
    PlayChannel& c = s.channel[0];
    c.source = SRC_RADIO;
    c.nearEOF = 0;
    s.mix = 0;
    s.mixstep = 0;
    s.fading = false;
    s.fadeWait = 0;
    s.samplesIntoTrack = 0;
    s.dropout = 0;
    s.internetRadioSamplesPlayed = 0;
    s.playingVariable = 1;
    return 1;
}

void stopRadioChannel() {
    Lock g(playMutex());
    for (int ch = 0; ch < 2; ch++)
        if (S().channel[ch].source == SRC_RADIO) stopChannelLocked(ch);
}

bool isRadioPlaying() {
    return S().channel[0].source == SRC_RADIO || S().channel[1].source == SRC_RADIO;
}

void selectSource(int source) {
    selectSourceRaw(source);
}
void selectHDD() {
    selectSource(SEL_HDD);
}
void selectCD() {
    selectSource(SEL_CD);
}
void selectAUX() {
    selectSource(SEL_AUX);
}
void selectRADIO() {
    selectSource(SEL_RADIO);
}
void selectWeb() {
    selectSource(SEL_WEB);
}
void setRepeatMode(int mode) {
    S().repeatMode = mode == REPEAT_ALBUM || mode == REPEAT_TRACK ? mode : REPEAT_NONE;
}
int getRepeatMode() {
    return S().repeatMode;
}

// Repeat outlives a restart in a file of its own beside kzdb; random starts
// off, as it always has, and the classical stop is a setting of kzsettings.
namespace {
constexpr const char* kRepeatWords[] = {"none", "album", "track"};

std::string repeatModePath() {
    const std::string& local = getLocalPath();
    return local.empty() ? "" : local + "/kzplaymode";
}
}  // namespace

void loadRepeatMode() {
    std::string path = repeatModePath();
    std::string word = path.empty() ? "" : readSettingWord(path, "repeat");
    if (word.empty()) return;
    for (int mode : {REPEAT_NONE, REPEAT_ALBUM, REPEAT_TRACK}) {
        if (word == kRepeatWords[mode]) {
            setRepeatMode(mode);
            return;
        }
    }
    kzLog("%s not understood; repeat is off\n", path.c_str());
}

bool saveRepeatMode() {
    std::string path = repeatModePath();
    return !path.empty() && writeSettingWord(path, "repeat", kRepeatWords[getRepeatMode()]);
}

const char* playModeName() {
    if (S().randomMode) return "random";
    if (S().repeatMode == REPEAT_TRACK) return "repeat-track";
    if (S().repeatMode == REPEAT_ALBUM) return "repeat-album";
    return isClassical() ? "album" : "continue";
}

void pausePlayback() {
    if (!isPlaying() || S().paused) return;
    kzLog("pause\n");
    S().paused = true;
}

void resumePlayback() {
    if (!S().paused) return;
    kzLog("resume\n");
    S().paused = false;
}

bool isPaused() {
    return S().paused;
}

void setRandomMode(int on) {
    S().randomMode = on;
}
int getRandomMode() {
    return S().randomMode;
}

int getTimeIntoTrack() {
    return static_cast<int>(S().samplesIntoTrack / outputRate());
}

int getDuration() {
    const PlayChannel& c = S().channel[currentChannel()];
    return c.playPipe >= 0 ? decoderPipes().getPipeDuration(c.playPipe) : 0;
}

int getTimeLeft() {
    int left = getDuration() - getTimeIntoTrack();
    return left < 0 ? 0 : left;
}

int getPercentageProgress() {
    int d = getDuration();
    return d > 0 ? std::min(100, getTimeIntoTrack() * 100 / d) : 0;
}

int seek(int position) {
    int ch = currentChannel();
    if (S().channel[ch].source != SRC_PIPE) return 0;
    if (!fetchFeeder().seek(ch, position)) return 0;
    S().samplesIntoTrack = static_cast<long long>(getDuration()) * position / 1000 * outputRate();
    return 1;
}
