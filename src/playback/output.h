// The audio output module (ALSA devices, volumes, tone, aux capture). Not
// built yet: no device is opened.
#pragma once

void setVolume(int volume, int device);
void setToneControlFromPreset(int preset);
void switchAlsaPlaybackDevice(int device);
// 1 when a USB DAC is attached.
int isUSBdac();
void minimise_alsa_playback_buffer();
void startAuxInThread();
void startPlayingAux();
void stopAuxRecording();
