// The audio output module (ALSA devices, volumes, tone, aux capture). Not
// built yet: no device is opened.
#pragma once

void setVolume(int volume, int device);
void setToneControlFromPreset(int preset);
// Bass and treble in 1.5 dB steps, -6 to 6.
void setBassTreble(int bass, int treble);
void switchAlsaPlaybackDevice(int device);
// 1 when a USB DAC is attached.
int isUSBdac();
void minimise_alsa_playback_buffer();
void startAuxInThread();
void startPlayingAux();
void stopAuxRecording();
