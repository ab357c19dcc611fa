#include "playback/playback.h"

#include "core/log.h"
#include "playback/control.h"
#include "playback/output.h"

void initPlay() {
    resetPlayback();
    if (!initAlsaPlayback(getSamples)) kzLog("*********** No USB DAC **********\n");
    kzLog("Alsa init complete\n");
}

bool punchThru() {
    return false;
}
