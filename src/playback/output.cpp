#include "playback/output.h"

#include <alsa/asoundlib.h>
#include <errno.h>
#include <stdarg.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "core/log.h"
#include "core/paths.h"
#include "core/process.h"
#include "library/settings.h"
#include "playback/pipe.h"
#include "playback/snapcast.h"

namespace {

// Periods made at a time for a device paced on the clock: about 93 ms at
// 44100 Hz, less than the 100 ms a real device is set up to hold. One in
// high resolution and for the radio: their decoders are read every period
// and, with a pipe that holds a third of a second, could then only keep up
// (a 96 kHz decoder) or build a stream's cushion more slowly.
constexpr int kPacedPeriods = 4;

std::atomic<bool> deviceOpen{false};
std::atomic<long> periods{0};
std::atomic<long> underruns{0};
std::atomic<int> currentDevice{0};
std::atomic<bool> highResolution{false};
OutputCallback callback = nullptr;

void alsaError(const char* file, int line, const char* function, int err, const char* fmt, ...) {
    (void)file;
    (void)line;
    (void)err;
    char text[200];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    kzInfo("ALSA %s: %s\n", function, text);
}

// An open PCM set up for 16-bit stereo at 44100 Hz, or 32-bit stereo at
// 96000 Hz, closed on destruction.
class Pcm {
  public:
    ~Pcm() { close(); }
    bool open(const std::string& device, bool high) {
        if (snd_pcm_open(&pcm_, device.c_str(), SND_PCM_STREAM_PLAYBACK, 0) < 0) {
            pcm_ = nullptr;
            return false;
        }
        high_ = high;
        if (snd_pcm_set_params(pcm_, high ? SND_PCM_FORMAT_S32_LE : SND_PCM_FORMAT_S16_LE,
                               SND_PCM_ACCESS_RW_INTERLEAVED, 2,
                               high ? kHighResolutionRate : kOutputRate, 1, 100000) < 0) {
            close();
            return false;
        }
        snd_pcm_type_t type = snd_pcm_type(pcm_);
        selfPaced_ = type != SND_PCM_TYPE_NULL && type != SND_PCM_TYPE_FILE;
        return true;
    }
    void close() {
        if (pcm_) snd_pcm_close(pcm_);
        pcm_ = nullptr;
    }
    bool selfPaced() const { return selfPaced_; }
    bool high() const { return high_; }
    // false when the device is gone and must be opened again.
    bool write(const uint8_t* frames, int count) {
        while (count > 0) {
            snd_pcm_sframes_t n = snd_pcm_writei(pcm_, frames, count);
            if (n < 0) {
                // Underruns and suspends are recovered; the stream goes on.
                if (n == -EPIPE) underruns++;
                if (snd_pcm_recover(pcm_, static_cast<int>(n), 1) < 0) return false;
                continue;
            }
            frames += n * (high_ ? 8 : 4);
            count -= static_cast<int>(n);
        }
        return true;
    }

  private:
    snd_pcm_t* pcm_ = nullptr;
    bool selfPaced_ = true;
    bool high_ = false;
};

// Idle output is 16-bit words of 1, in either format: it reaches the device
// as the callback made it.
bool isIdle(const uint8_t* period, int bytes) {
    for (int i = 0; i < bytes; i += 2) {
        if (period[i] != 1 || period[i + 1] != 0) return false;
    }
    return true;
}

void outputThread(Pcm* first) {
    nameThread("kz-output");
    std::unique_ptr<Pcm> pcm(first);
    // Raw bytes: the period holds 16-bit or 32-bit samples as the format says.
    std::unique_ptr<uint8_t[]> storage(new uint8_t[kOutputPeriodFrames * 8 + 8]);
    uint8_t* buffer = storage.get();
    auto next = std::chrono::steady_clock::now();
    for (;;) {
        // Snapcast only: the device is let go (another program may want
        // it) and the clock paces the output, as for a file or null device.
        const bool local = !snapcastOnly();
        if (!local && pcm) {
            kzLog("Alsa device %s closed: playing to Snapcast only\n", pcmDevice().c_str());
            pcm.reset();
            next = std::chrono::steady_clock::now();
        }
        if (pcm && pcm->high() != highResolution) {
            kzLog("Alsa device %s reopened for %s\n", pcmDevice().c_str(),
                  highResolution ? "32-bit 96000 Hz" : "16-bit 44100 Hz");
            pcm.reset();
            auto candidate = std::make_unique<Pcm>();
            if (candidate->open(pcmDevice(), highResolution)) pcm = std::move(candidate);
            next = std::chrono::steady_clock::now();
        }
        if (local && !pcm) {
            // No device: try again each second, and play once one opens.
            deviceOpen = false;
            std::this_thread::sleep_for(std::chrono::seconds(1));
            auto candidate = std::make_unique<Pcm>();
            if (!candidate->open(pcmDevice(), highResolution)) continue;
            kzLog("Alsa device %s opened\n", pcmDevice().c_str());
            pcm = std::move(candidate);
            next = std::chrono::steady_clock::now();
        }
        deviceOpen = pcm != nullptr;
        const bool high = pcm ? pcm->high() : highResolution.load();
        const int bytes = kOutputPeriodFrames * (high ? 8 : 4);
        callback(buffer, kOutputPeriodFrames);
        // Silence stays as the callback made it (the idle value must reach
        // the device unchanged); music gets volume and tone.
        const bool idle = isIdle(buffer, bytes);
        if (!idle) {
            if (high)
                toneControl().process(reinterpret_cast<int32_t*>(buffer), kOutputPeriodFrames);
            else
                toneControl().process(reinterpret_cast<int16_t*>(buffer), kOutputPeriodFrames);
        }
        // The rooms hear what the box's speakers hear, volume and tone
        // included; the feed never blocks.
        snapcastFeed().write(buffer, bytes, idle, high);
        if (pcm && !pcm->write(buffer, kOutputPeriodFrames)) {
            kzLog("Alsa device %s lost\n", pcmDevice().c_str());
            pcm.reset();
            deviceOpen = false;
            continue;
        }
        periods++;
        if (!pcm || !pcm->selfPaced()) {
            const auto period = std::chrono::nanoseconds(
                1000000000LL * kOutputPeriodFrames / (high ? kHighResolutionRate : kOutputRate));
            // next: when everything handed over so far will have been heard.
            next += period;
            auto now = std::chrono::steady_clock::now();
            // A period handed over after its time is what a real device
            // would have heard as an underrun.
            if (now > next + period) underruns++;
            if (now - next > std::chrono::seconds(1)) next = now;
            // Several periods a wake-up, as a device's buffer takes them:
            // waking for each one cost more than making it. The periods
            // themselves, and what is in them, are the same.
            const int ahead = high || decoderPipes().radioSelected ? 1 : kPacedPeriods;
            if (next - now >= ahead * period) std::this_thread::sleep_until(next);
        }
    }
}

}  // namespace

ToneControl& toneControl() {
    // Never destroyed: other threads may still use it while the process ends.
    static ToneControl& tone = *new ToneControl;
    return tone;
}

void setOutputHighResolution(bool on) {
    highResolution = on;
    toneControl().setRate(on ? kHighResolutionRate : kOutputRate);
}

bool isHighResolution() {
    return highResolution;
}

int outputRate() {
    return highResolution ? kHighResolutionRate : kOutputRate;
}

int outputFrameBytes() {
    return highResolution ? 8 : 4;
}

int initAlsaPlayback(OutputCallback cb) {
    callback = cb;
    snd_lib_error_set_handler(alsaError);
    // Snapcast only needs no device, and is not kept from starting by a
    // missing one.
    auto pcm = std::make_unique<Pcm>();
    bool ok = snapcastOnly() || pcm->open(pcmDevice(), highResolution);
    if (snapcastOnly() || !ok) pcm.reset();
    std::thread(outputThread, pcm.release()).detach();
    return ok ? 1 : 0;
}

bool isOutputOpen() {
    return deviceOpen;
}
long outputPeriods() {
    return periods;
}
long outputUnderruns() {
    return underruns;
}

void setVolume(int volume, int device) {
    if (device == 0) setWiredVolume(volume);
    if (device == 1) setHeadphoneVolume(volume);
    toneControl().setVolume(volume);
}

int getCurrentVolume() {
    return toneControl().volume();
}

void setToneControlFromPreset(int preset) {
    switch (preset) {
        case 1:
            setBassTreble(4, 0);
            break;
        case 2:
            setBassTreble(0, 4);
            break;
        default:
            setBassTreble(getBassSetting(), getTrebleSetting());
            break;
    }
}

void setBassTreble(int bass, int treble) {
    toneControl().setBassTreble(bass, treble);
}

void switchAlsaPlaybackDevice(int device) {
    currentDevice = device;
    if (isHostMode()) kzInfo("switchAlsaPlaybackDevice (%d): %s\n", device, pcmDevice().c_str());
}

int isUSBdac() {
    if (isHostMode()) return 0;
    std::ifstream cards("/proc/asound/cards");
    std::string line;
    while (std::getline(cards, line)) {
        if (line.find("USB-Audio") != std::string::npos) return 1;
    }
    return 0;
}

// Aux input and recording belong with the audio input, not built yet.
void minimise_alsa_playback_buffer() {}
void startAuxInThread() {}
void startPlayingAux() {}
void stopAuxRecording() {}
