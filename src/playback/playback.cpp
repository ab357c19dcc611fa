#include "playback/playback.h"

#include "core/log.h"
#include "library/settings.h"
#include "playback/control.h"
#include "playback/output.h"
#include "playback/pipe.h"

void setHighResolution(bool on) {
    setOutputHighResolution(on);
    decoderPipes().highResolution = on;
}

void initPlay() {
    resetPlayback();
    setHighResolution(getHires() != 0);
    if (isHighResolution()) kzLog("High resolution output: 32-bit 96000 Hz\n");
    if (!initAlsaPlayback(getSamples)) kzLog("*********** No USB DAC **********\n");
    kzLog("Alsa init complete\n");
}

bool punchThru() {
    return false;
}
