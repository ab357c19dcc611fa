#include "playback/cd.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "core/log.h"
#include "core/process.h"
#include "playback/resample.h"
#include "playback/smartbuffer.h"
#include "ripping/cdrom.h"

namespace {

constexpr int kCdBufferSlots = 40000;
constexpr int kSectorsPerRead = 25;
constexpr int kFramesPerSector = kSectorBytes / 4;

std::unique_ptr<SmartBuffer> cdSB;
std::mutex readerMutex;
std::thread reader;
std::atomic<bool> readerRun{false};
std::atomic<bool> readerDone{true};
std::atomic<int32_t> readLsn{0};
// The disc being played. The web thread reads it for the status while a key
// on the front panel may start another track: replaced and read under its
// own lock, never held for long.
std::mutex discMutex;
CdHeader disc;
Upsampler upsampler;  // the output thread's alone

void readerThread(const CdHeader& toc, int first) {
    CdDrive drive;
    std::vector<uint8_t> buf(static_cast<size_t>(kSectorsPerRead) * kSectorBytes);
    int32_t lsn = toc.tracks[first].startLsn;
    int last = first;
    while (last + 1 < toc.numTracks() && toc.tracks[last + 1].audio)
        last++;
    const int32_t end = toc.tracks[last].endLsn;
    while (readerRun && lsn <= end && drive.ok()) {
        int count = std::min<int32_t>(kSectorsPerRead, end - lsn + 1);
        if (!drive.readAudio(buf.data(), lsn, count)) {
            kzLog("CD reader: cannot read sector %d\n", lsn);
            break;
        }
        // A sector at a time: a batch larger than the room left above the
        // consumer's priming mark would wait for ever.
        for (int i = 0; i < count && readerRun; i++) {
            cdSB->putW(kFramesPerSector, buf.data() + static_cast<size_t>(i) * kSectorBytes);
            readLsn = lsn + i + 1;
        }
        lsn += count;
    }
    readerDone = true;
}

}  // namespace

void cdInit() {
    if (!cdSB) cdSB = std::make_unique<SmartBuffer>(kCdBufferSlots);
}

void stopCDReader() {
    std::lock_guard<std::mutex> g(readerMutex);
    readerRun = false;
    if (cdSB) cdSB->releasePendingPut();
    if (reader.joinable()) reader.join();
    if (cdSB) cdSB->clear();
    readerDone = true;
}

void requestStopCDReader() {
    readerRun = false;
    if (cdSB) cdSB->releasePendingPut();
}

void clearChosenCD() {
    stopCDReader();
}

int startCDReader(int index) {
    cdInit();
    stopCDReader();
    CdHeader header;
    {
        CdDrive drive;
        if (!drive.readHeader(&header)) {
            kzLog("startCDReader () no readable disc\n");
            return 0;
        }
    }
    if (index < 0 || index >= header.numTracks() || !header.tracks[index].audio) {
        kzLog("startCDReader () no audio track %d\n", index);
        return 0;
    }
    std::lock_guard<std::mutex> g(readerMutex);
    {
        std::lock_guard<std::mutex> d(discMutex);
        disc = header;
    }
    readLsn = header.tracks[index].startLsn;
    upsampler.reset();
    readerDone = false;
    readerRun = true;
    try {
        reader = std::thread([header, index] {
            nameThread("kz-cdreader");
            readerThread(header, index);
        });
    } catch (const std::system_error&) {
        kzLog("startCDReader () cannot start its reader thread\n");
        readerRun = false;
        readerDone = true;
        return 0;
    }
    return 1;
}

int getCDSamples(int16_t* dst, int frames) {
    if (!cdSB) return 0;
    if (readerDone && cdSB->used() == 0) return 0;
    if (readerDone && cdSB->used() < frames) {
        // The last sectors of the disc: what is left, then silence.
        int n = cdSB->used();
        cdSB->dumbGet(n, dst);
        for (int i = n * 2; i < frames * 2; i++)
            dst[i] = 0;
        return n > 0 ? n : 0;
    }
    if (!cdSB->getS(frames, dst)) {
        for (int i = 0; i < frames * 2; i++)
            dst[i] = 0;
    }
    return frames;
}

int getCDSamples(int32_t* dst, int frames) {
    return upsampler.pull(dst, frames, [](int16_t* d, int n) { return getCDSamples(d, n); });
}

int getCDTrackIndex() {
    if (readerDone && (!cdSB || cdSB->used() == 0)) return -1;
    // What is heard lies behind what was read by what the buffer holds.
    int32_t heard = readLsn - (cdSB ? cdSB->used() / kFramesPerSector : 0);
    std::lock_guard<std::mutex> d(discMutex);
    for (int i = disc.numTracks() - 1; i >= 0; i--) {
        if (heard >= disc.tracks[i].startLsn) return i;
    }
    return -1;
}

int getCDTrackCount() {
    std::lock_guard<std::mutex> d(discMutex);
    return disc.numTracks();
}
