#include "playback/playback.h"

#include <atomic>

#include "core/log.h"
#include "library/settings.h"
#include "playback/control.h"
#include "playback/output.h"
#include "playback/pipe.h"
#include "playback/smartbuffer.h"
#include "playback/snapcast.h"

namespace {
std::atomic<bool> punchFlag{false};
}  // namespace

void setHighResolution(bool on) {
    setOutputHighResolution(on);
    decoderPipes().highResolution = on;
}

void initPlay() {
    resetPlayback();
    loadRepeatMode();
    loadSnapcastMode();
    setHighResolution(getHires() != 0);
    punchBuffer();
    if (isHighResolution()) kzLog("High resolution output: 32-bit 96000 Hz\n");
    if (!initAlsaPlayback(getSamples)) kzLog("*********** No USB DAC **********\n");
    kzLog("Alsa init complete\n");
}

bool punchThru() {
    return punchFlag;
}
void startPunchThru() {
    punchFlag = true;
}
bool clearPunchThru() {
    bool was = true;
    return punchFlag.compare_exchange_strong(was, false);
}
SmartBuffer* punchBuffer() {
    // Made on first use and kept for the life of the process: the output
    // thread may read it until the very end.
    static SmartBuffer* b = createSmartBuffer(punchBufferSlots(isHighResolution())).release();
    return b;
}
