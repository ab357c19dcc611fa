// The audio output: one thread that asks the playback callback for one period
// at a time and plays it on the ALSA device (KZ_PCM, "default" unless told),
// with the volume and the bass/treble filters applied on the way. A device
// that does not pace itself (the null and file PCMs) is paced on the clock,
// so time runs as it would on the box.
#pragma once

#include <cstdint>

#include "playback/tone.h"

// Fills frames in the output's sample format: 16-bit stereo (4 bytes a
// frame) or, in high resolution, 32-bit stereo (8 bytes a frame).
using OutputCallback = void (*)(void* dest, int frames);

constexpr int kOutputPeriodFrames = 1024;
constexpr int kOutputRate = 44100;
constexpr int kHighResolutionRate = 96000;

// 16-bit stereo at 44100 Hz unless high resolution (32-bit stereo at 96000
// Hz) is chosen. The output thread follows a change at its next period by
// opening the device again; the decoders are told separately (see
// setHighResolution in playback.h).
void setOutputHighResolution(bool on);
bool isHighResolution();
int outputRate();
int outputFrameBytes();

// Starts the output thread. Returns 1 when the device opened (or none is
// needed: Snapcast only); 0 when it did not, in which case the thread keeps
// trying and plays once it can.
int initAlsaPlayback(OutputCallback callback);
// True while a device is open and being fed.
bool isOutputOpen();
// Periods handed to the device so far.
long outputPeriods();
// Underruns the device reported, or (for a device paced on the clock) periods
// that came later than a period after their time.
long outputUnderruns();

ToneControl& toneControl();

// volume 0..64. device: 0 the wired output, 1 the USB DAC (each remembered in
// the settings), anything else: apply to the current output only.
void setVolume(int volume, int device);
int getCurrentVolume();
// 0: the bass and treble of the settings; 1: more bass; 2: more treble.
void setToneControlFromPreset(int preset);
void setBassTreble(int bass, int treble);
// 0 internal, 1 USB DAC, 2 HDMI. Off the box all of them are KZ_PCM.
void switchAlsaPlaybackDevice(int device);
// 1 when a USB DAC is attached.
int isUSBdac();
void minimise_alsa_playback_buffer();
void startAuxInThread();
void startPlayingAux();
void stopAuxRecording();
