#include "playback/output.h"

void setVolume(int, int) {}
void setToneControlFromPreset(int) {}
void setBassTreble(int, int) {}
void switchAlsaPlaybackDevice(int) {}
int isUSBdac() {
    return 0;
}
void minimise_alsa_playback_buffer() {}
void startAuxInThread() {}
void startPlayingAux() {}
void stopAuxRecording() {}
