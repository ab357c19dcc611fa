#include "playback/ffwd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

#include "core/log.h"
#include "core/paths.h"
#include "core/process.h"
#include "playback/pipe.h"
#include "playback/playback.h"
#include "ripping/wav.h"

namespace {

long long fileLength(FILE* f) {
    struct stat st;
    return fstat(fileno(f), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

// kbit/s of the file, from file bytes against the PCM bytes (1411.2 kbit/s)
// they decoded to.
int bitrateOf(long long fileBytes, long long pcmBytes) {
    return pcmBytes > 0 ? static_cast<int>(fileBytes * 1411.2 / pcmBytes) : 0;
}

uint32_t le32(const unsigned char* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Walks the RIFF chunks to the audio. Leaves dataStart at -1 for anything
// that is not a plain RIFF/WAVE file with a "data" chunk.
void findWavAudio(FeedTrack& t, long long length) {
    int fd = fileno(t.file);
    unsigned char head[12];
    if (pread(fd, head, 12, 0) != 12 || memcmp(head, "RIFF", 4) || memcmp(head + 8, "WAVE", 4))
        return;
    int blockAlign = 0;
    long long at = 12;
    while (at + 8 <= length) {
        unsigned char chunk[24];
        if (pread(fd, chunk, 8, at) != 8) return;
        long long size = le32(chunk + 4);
        if (!memcmp(chunk, "fmt ", 4) && size >= 16 && pread(fd, chunk + 8, 16, at + 8) == 16)
            blockAlign = chunk[8 + 12] | (chunk[8 + 13] << 8);
        if (!memcmp(chunk, "data", 4)) {
            t.dataStart = at + 8;
            // A header still counting (0 or all ones) or a file cut short
            // ends with the file.
            long long end = at + 8 + size;
            t.dataEnd = (size == 0 || size == 0xFFFFFFFFLL || end > length) ? length : end;
            if (blockAlign > 0 && blockAlign <= 4096) t.blockAlign = blockAlign;
            return;
        }
        at += 8 + size + (size & 1);
    }
}

}  // namespace

int trackFileType(const std::string& path) {
    std::string lower = path;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    static const char* const kinds[] = {".wav", ".flac", ".mp3", ".m4a"};
    for (int i = 0; i < 4; i++)
        if (lower.find(kinds[i]) != std::string::npos) return i + 1;
    return FILE_OTHER;
}

FeedTrack::~FeedTrack() {
    if (file) fclose(file);
    if (stopFd >= 0) close(stopFd);
}

void FeedTrack::requestStop() {
    enable = 0;
    if (stopFd < 0) return;
    uint64_t one = 1;
    if (write(stopFd, &one, sizeof one) < 0) {
        // Already signalled (the counter cannot overflow from this).
    }
}

FetchFeeder::FetchFeeder() {
    channels_[0].ffwdPipeName = "/tmp/ffwdPipe0";
    channels_[1].ffwdPipeName = "/tmp/ffwdPipe1";
}

FetchFeeder& fetchFeeder() {
    // Never destroyed: a feeder thread may outlive the exit path.
    static FetchFeeder* feeder = new FetchFeeder;
    return *feeder;
}

void FetchFeeder::stopFeeder(int channel) {
    std::shared_ptr<FeedTrack> old;
    {
        std::lock_guard<std::mutex> hold(channelMutex_);
        old = channels_[channel].track;
    }
    if (!old) return;
    old->requestStop();
    for (int i = 0; i < 3 && old->exists; i++)
        usleep(100000);
}

int FetchFeeder::prepareFfwdFetch(int channel, const std::string& path) {
    stopFeeder(channel);
    auto track = std::make_shared<FeedTrack>();
    track->fifoPath = hostPath(channels_[channel].ffwdPipeName);
    track->stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (mkfifo(track->fifoPath.c_str(), 0666) != 0 && errno != EEXIST) {
        kzLog("prepareFfwdFetch error creating %s Error %d -> %s\n", track->fifoPath.c_str(), errno,
              strerror(errno));
        return 0;
    }
    track->file = fopen(path.c_str(), "rbe");
    if (!track->file) {
        kzLog("startFfwdFetch () cannot open %s\n", path.c_str());
        return 0;
    }
    if (trackFileType(path) == FILE_WAV) findWavAudio(*track, fileLength(track->file));
    std::lock_guard<std::mutex> hold(channelMutex_);
    channels_[channel].track = std::move(track);
    return 1;
}

int FetchFeeder::startFfwdFetch2(int channel) {
    FeederChannel& c = channels_[channel];
    std::shared_ptr<FeedTrack> track;
    {
        std::lock_guard<std::mutex> hold(channelMutex_);
        track = c.track;
    }
    if (!track || !track->file) return 0;
    PipeSlot& slot = decoderPipes().slot(c.playPipe);
    c.trackFileLength = fileLength(track->file);
    c.ffmpegConsumed = 0;
    slot.ffmpegProduced = 0;
    c.ffmpegEstimatedBitrate = 0;
    slot.ffmpegBitrateStartup = 1;
    track->enable = 1;
    track->exists = 1;
    try {
        std::thread(&FetchFeeder::ffwdThreadCode3, this, channel, track).detach();
    } catch (const std::system_error&) {
        kzLog("startFfwdFetch2 failed to create thread\n");
        track->exists = 0;
        return 0;
    }
    return 1;
}

size_t FetchFeeder::readBlock(FeedTrack& t, char* block, size_t size) {
    if (t.dataStart < 0) return fread(block, 1, size, t.file);
    long long at = ftello(t.file);
    if (at < 0 || at >= t.dataEnd) return 0;
    // The headers alone, then whole frames: every block ends on a frame, so
    // a seek that lands on a frame keeps the decoder in step (a half frame
    // before the jump would shift every sample after it).
    long long want = at < t.dataStart ? t.dataStart - at
                                      : static_cast<long long>(size) / t.blockAlign * t.blockAlign;
    want = std::min({want, static_cast<long long>(size), t.dataEnd - at});
    size_t n = fread(block, 1, static_cast<size_t>(want), t.file);
    // The data chunk's byte count, wherever it falls in this block.
    for (long long b = t.dataStart - 4; b < t.dataStart; b++)
        if (b >= at && b < at + static_cast<long long>(n)) block[b - at] = static_cast<char>(0xFF);
    return n;
}

void FetchFeeder::ffwdThreadCode3(int channel, std::shared_ptr<FeedTrack> track) {
    nameThread(channel == 0 ? "kz-feeder0" : "kz-feeder1");
    kzLog("ffwdThreadCode3 started channel = %d\n", channel);
    FeederChannel& c = channels_[channel];
    int slotNumber = c.playPipe;
    PipeSlot& slot = decoderPipes().slot(slotNumber);

    // The decoder opens its input when it gets round to it; until then a
    // non-blocking open finds no reader.
    int fd = -1;
    while (track->enable) {
        fd = open(track->fifoPath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) break;
        if (errno != ENXIO) {
            kzLog("ffwdThreadCode error opening %s Error %d -> %s\n", track->fifoPath.c_str(),
                  errno, strerror(errno));
            break;
        }
        // A decoder that died before opening will never read.
        if (!decoderPipes().pipeRunning(slotNumber)) break;
        usleep(openPollMs * 1000);
    }

    if (fd >= 0) {
        char block[4096];
        long long burst = 0;
        bool broken = false;
        while (track->enable && !broken) {
            size_t n;
            {
                std::lock_guard<std::mutex> hold(track->fileMutex);
                n = track->file ? readBlock(*track, block, sizeof block) : 0;
            }
            if (n == 0) break;
            size_t done = 0;
            while (done < n && track->enable) {
                ssize_t w = write(fd, block + done, n - done);
                if (w > 0) {
                    done += w;
                    burst += w;
                    if (!slot.ffmpegBitrateStartup) c.ffmpegConsumed += w;
                } else if (w < 0 && errno == EAGAIN) {
                    // The decoder is ahead of real time by a full fifo: what
                    // went in since the last full one against what came out.
                    if (!slot.ffmpegBitrateStartup && burst > 0)
                        c.ffmpegEstimatedBitrate = bitrateOf(burst, slot.ffmpegProduced);
                    burst = 0;
                    // Back the moment the decoder takes some: a fixed nap
                    // here starved 96 kHz/32-bit files. A stop wakes the
                    // wait too; looking ten times a second for one was most
                    // of this thread's time while a track played.
                    struct pollfd wait[2] = {{fd, POLLOUT, 0}, {track->stopFd, POLLIN, 0}};
                    poll(wait, track->stopFd >= 0 ? 2 : 1, track->stopFd >= 0 ? 1000 : 100);
                } else {
                    // EPIPE: the decoder has gone (ended, failed or killed).
                    broken = true;
                    break;
                }
            }
        }
    }

    kzLog("ffwdThreadCode %d finished\n", channel);
    if (fd >= 0) close(fd);
    {
        std::lock_guard<std::mutex> hold(track->fileMutex);
        if (track->file) fclose(track->file);
        track->file = nullptr;
    }
    kzLog("ffwdThreadCode %d deleting pipe\n", channel);
    {
        // A newer track of this channel already uses the same fifo name.
        std::lock_guard<std::mutex> hold(channelMutex_);
        if (c.track == track) unlink(track->fifoPath.c_str());
    }
    track->exists = 0;
}

int FetchFeeder::startTrackDecoder(int channel, const std::string& path) {
    FeederChannel& c = channels_[channel];
    c.channelFileExt = trackFileType(path);
    int slot;
    if (c.channelFileExt == FILE_M4A) {
        stopFeeder(channel);
        slot = startPipePlay(path);
    } else {
        if (!prepareFfwdFetch(channel, path)) return -1;
        slot = startPipePlay(hostPath(c.ffwdPipeName));
    }
    if (slot < 0) {
        kzLog("startPlayingTrack () couldnt get a pipe - ignoring\n");
        return -1;
    }
    c.playPipe = slot;
    if (c.channelFileExt != FILE_M4A && !startFfwdFetch2(channel)) {
        // Its decoder would wait on an input that never comes.
        killPipe(slot);
        return -1;
    }
    if (c.channelFileExt == FILE_WAV) {
        // Reading a fifo, the decoder cannot tell a WAV file's length (it
        // says "Duration: N/A"); the header can. A decoder that does learn
        // it later only says the same again.
        int seconds = WavFileSeconds(path.c_str());
        if (seconds > 0 && getPipeDuration(slot) == 0) setPipeDuration(slot, seconds);
    }
    return slot;
}

void FetchFeeder::setSkipping(int channel) {
    int type = channels_[channel].channelFileExt;
    // Uncompressed and FLAC decoders read little ahead of what they emit.
    int seconds = (type == FILE_WAV || type == FILE_FLAC) ? 2 : 6;
    decoderPipes().setSkipping(seconds * kSecondBytes);
}

int FetchFeeder::seek(int channel, int position) {
    kzLog("seek (%d)\n", position);
    FeederChannel& c = channels_[channel];
    std::shared_ptr<FeedTrack> track;
    int slot;
    {
        std::lock_guard<std::recursive_mutex> play(playMutex());
        if (c.channelFileExt == FILE_M4A) {
            kzLog("Cannot ffwd m4a files\n");
            return 0;
        }
        {
            std::lock_guard<std::mutex> hold(channelMutex_);
            track = c.track;
        }
        slot = c.playPipe;
        if (!track || !track->exists || !track->file || slot < 0) {
            kzLog("seek - ffwdthread already finished\n");
            return 0;
        }
        setSkipping(channel);
        clearPipe(slot);
    }
    {
        std::lock_guard<std::mutex> hold(track->fileMutex);
        if (!track->file) {
            kzLog("seek - ffwdthread already finished\n");
            return 0;
        }
        long long length = fileLength(track->file);
        long long target = static_cast<long long>(position) * length / 1000;
        kzLog("length %d seeking to %d\n", static_cast<int>(length), static_cast<int>(target));
        if (track->dataStart >= 0) {
            // Whole frames of the audio itself: a 32-bit stereo frame is 8
            // bytes, and chunks before the audio need not be a multiple of 4.
            long long into = std::max(0LL, target - track->dataStart);
            target = track->dataStart + into / track->blockAlign * track->blockAlign;
        } else {
            target &= ~3LL;
        }
        fseeko(track->file, static_cast<off_t>(target), SEEK_SET);
    }
    setPipeTime(slot, position);
    return 1;
}

int FetchFeeder::estimateBitrate(int channel) {
    FeederChannel& c = channels_[channel];
    if (c.playPipe < 0) return 0;
    PipeSlot& slot = decoderPipes().slot(c.playPipe);
    if (slot.ffmpegBitrateStartup) return 0;
    double rate = slot.ffmpegProduced > 0 ? c.ffmpegConsumed * 1411.2 / slot.ffmpegProduced : 0.0;
    if (isPlaying()) kzLog("Computed bitrate %f\n", rate);
    return static_cast<int>(rate);
}

int FetchFeeder::trackTimeToEOF(int channel) {
    FeederChannel& c = channels_[channel];
    int slot = c.playPipe;
    if (slot < 0) return 0;
    // An ".m4a" has no feeder; its decoder's life tells instead.
    if (c.channelFileExt == FILE_M4A) return pipeTimeToEOF(slot);
    std::shared_ptr<FeedTrack> track;
    {
        std::lock_guard<std::mutex> hold(channelMutex_);
        track = c.track;
    }
    if (track && track->exists) return 1000;
    // A small file is fed in a moment, long before its decoder has produced
    // much: until the decoder is done, what waits in the ring is not what is
    // left of the track.
    return pipeTimeToEOF(slot);
}

int prepareFfwdFetch(int channel, const std::string& path) {
    return fetchFeeder().prepareFfwdFetch(channel, path);
}
int startFfwdFetch2(int channel) {
    return fetchFeeder().startFfwdFetch2(channel);
}
int seek(int channel, int position) {
    return fetchFeeder().seek(channel, position);
}
void setSkipping(int channel) {
    fetchFeeder().setSkipping(channel);
}
int estimateBitrate(int channel) {
    return fetchFeeder().estimateBitrate(channel);
}
