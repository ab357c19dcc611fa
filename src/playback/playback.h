// Playback entry points used by the core. The decoder pipes are built (in
// pipe.cpp); playback control is not yet: nothing plays.
#pragma once

#include <cstdint>
#include <mutex>

// Decoder slots: fifos, parser threads (pipe.cpp).
void initPipe();

// The output callback: one period of 16-bit stereo frames.
void getSamples(int16_t* dest, int frames);
void initPlay();
void stopPlay();
bool isPlaying();
// The aux pass-through is active.
bool punchThru();
void killFfmpegs();
void deleteZombies();
// Guards the channels' state against the output callback.
std::mutex& playMutex();
