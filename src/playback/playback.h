// Playback entry points used by the core: the decoder pipes (pipe.cpp) and
// playback control (control.cpp).
#pragma once

#include <mutex>

// Decoder slots: fifos, parser threads (pipe.cpp).
void initPipe();
// Starts the audio output with getSamples as its callback.
void initPlay();
void stopPlay();
bool isPlaying();
// The aux pass-through is active (aux input is not built: never).
bool punchThru();
void killFfmpegs();
void deleteZombies();
// Guards the channels' state against the output callback. Recursive: a fade's
// completion runs inside the callback and may stop channels.
std::recursive_mutex& playMutex();
