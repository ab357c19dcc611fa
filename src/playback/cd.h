// CD playback: a reader thread copies the disc's audio sectors into the CD
// buffer, from the chosen track to the end of the disc's audio, and the CD
// channel of playback control drains it.
#pragma once

#include <cstdint>

// Creates the CD buffer (once).
void cdInit();
// Forgets the disc being played and stops the reader.
void clearChosenCD();
// Starts reading at track index (0 = the first track); 1 when started.
int startCDReader(int index);
void stopCDReader();
// Asks the reader to stop without waiting for it (safe from the output
// thread); the next start or stop collects it.
void requestStopCDReader();
// One period from the CD buffer: the frames given (silence while it fills),
// 0 once the disc's audio has all been played.
int getCDSamples(int16_t* dst, int frames);
// The same in high resolution: 32-bit stereo at 96000 Hz.
int getCDSamples(int32_t* dst, int frames);
// The index of the track being heard, -1 when none.
int getCDTrackIndex();
int getCDTrackCount();
