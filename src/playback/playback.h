// Playback entry points used by the core: the decoder pipes and playback
// control. Not built yet: nothing plays and there are no decoder children.
#pragma once

void initPipe();
#include <cstdint>

// The output callback: one period of 16-bit stereo frames.
void getSamples(int16_t* dest, int frames);
void initPlay();
void stopPlay();
bool isPlaying();
// The aux pass-through is active.
bool punchThru();
void killFfmpegs();
void deleteZombies();
