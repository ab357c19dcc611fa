// Playback entry points used by the core: the decoder pipes (pipe.cpp) and
// playback control (control.cpp).
#pragma once

#include <mutex>

// Decoder slots: fifos, parser threads (pipe.cpp).
void initPipe();
// Starts the audio output with getSamples as its callback, in high
// resolution when the settings ask for it.
void initPlay();
// 32-bit stereo at 96000 Hz for the output, the mixing and the decoders, or
// 16-bit stereo at 44100 Hz. Only while nothing plays: a decoder already
// running keeps the format it was started with.
void setHighResolution(bool on);
void stopPlay();
bool isPlaying();
// The aux pass-through is active (aux input is not built: never).
bool punchThru();
void killFfmpegs();
void deleteZombies();
// Guards the channels' state against the output callback. Recursive: a fade's
// completion runs inside the callback and may stop channels.
std::recursive_mutex& playMutex();
