// Playback entry points used by the core. The decoder pipes are built (in
// pipe.cpp); playback control is not yet: nothing plays.
#pragma once

#include <mutex>

// Decoder slots: fifos, parser threads (pipe.cpp).
void initPipe();
void initPlay();
void stopPlay();
bool isPlaying();
// The aux pass-through is active.
bool punchThru();
void killFfmpegs();
void deleteZombies();
// Guards the channels' state against the output callback.
std::mutex& playMutex();
