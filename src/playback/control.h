// Playback control: what plays, on which of the two channels, and how the
// channels are mixed. getSamples, called by the output thread once a period,
// pulls each busy channel's samples, crossfades between them, fades, and asks
// for the next track when the current one nears its end (event 74).
#pragma once

#include <cstdint>
#include <string>

enum ChannelSource {
    SRC_IDLE = 0,
    SRC_WAV = 1,
    SRC_MP3 = 2,
    SRC_FLAC = 3,
    SRC_RADIO = 4,
    SRC_TONE = 5,
    SRC_AUX = 6,
    SRC_BLUETOOTH = 8,
    SRC_CD = 9,
    SRC_PIPE = 10,
    SRC_BROWSER = 11,
    SRC_VIDEO = 12,
};

enum SelectedSource {
    SEL_HDD = 0,
    SEL_CD = 1,
    SEL_BLUETOOTH = 2,
    SEL_AUX = 3,
    SEL_RADIO = 4,
    SEL_WEB = 5,
    SEL_YOUTUBE = 6,
    SEL_PODCAST = 7,
};

constexpr int32_t kMixFull = 0x7FFF0000;

// Both channels idle, nothing playing, the start-up source chosen.
void resetPlayback();

// One period in the output's format (4 bytes a frame, 8 in high resolution).
void getSamples(void* dest, int frames);
// Mixes secondary into primary by the running crossfade.
void outputmix(int16_t* primary, const int16_t* secondary, int frames);
void outputmix(int32_t* primary, const int32_t* secondary, int frames);
void fadeInOut(int16_t* samples, int frames);
void fadeInOut(int32_t* samples, int frames);
void fadeIn(void (*done)());
void fadeOut(void (*done)());

int prepareSegue();
int prepareSegue2();
int whichSegue();
int inSegue();
int getSegueStep();
int getSegueThreshold();
int timeToEOF(int channel);
void startNext(int channel);

int getChannelSource(int channel);
const char* getSourceType(int channel);
int32_t getMix();
int32_t getMixStep();
bool isFading();

// Starting and stopping.
int startPlayingTrack(const std::string& path);
// Plays a file of raw frames in the output's format (chimes, tests).
int startPlayingRaw(const std::string& path);
// Plays the disc from track index (0 = the first) to the end of its audio.
int startPlayingCD(int index);
int startPlayingID(int id);
int startPlayingLocalID(int id);
// The next track: a queued one first (each once), else by the play mode.
// The user's "next" skips a repeated track; the end of a track repeats it.
int startPlayingNext();
int startPlayingNextAfterEnd();
// True for the album's last track in play order (or a track that is gone).
bool isLastTrackOfAlbum(int t);
int startPlayingPrev();
void playStop();
void stopPlay();
void stopPlayNoMute();
void stopChannel(int channel);
bool isPlaying();
// The channel the listener hears most of (the newest track while fading).
int currentChannel();

// The internet radio's side of the radio channel. Playback calls these and
// never the radio code itself, which sits above it.
struct RadioHooks {
    int (*samples)(void* dst, int frames) = nullptr;  // frames delivered, 0 when dry
    void (*dropout)() = nullptr;                      // the channel found nothing to play
    void (*playedEnough)() = nullptr;                 // 500000 frames since the last dropout
    void (*stop)() = nullptr;                         // the channel or the source was left
    int (*resume)() = nullptr;                        // "play" with the radio chosen and silent
};
void setRadioHooks(const RadioHooks& hooks);
// Channel 0 becomes the radio (the other is stopped); 1 when done.
int startRadioChannel();
bool isRadioPlaying();
// Stops the radio channel, and nothing else.
void stopRadioChannel();

int getSelectedSource();
void selectSourceRaw(int source);
void selectSource(int source);
void selectHDD();
void selectCD();
void selectAUX();
void selectRADIO();
void selectWeb();
void setRandomMode(int on);
int getRandomMode();

// What follows an album's last track or a track's end, besides random and
// the classical stop (which keep their own settings).
enum RepeatMode { REPEAT_NONE = 0, REPEAT_ALBUM = 1, REPEAT_TRACK = 2 };
void setRepeatMode(int mode);
int getRepeatMode();
// The repeat mode kept in "kzplaymode" beside kzdb ("repeat none|album|track").
void loadRepeatMode();
bool saveRepeatMode();
// "continue", "album" (the classical stop), "repeat-album", "repeat-track"
// or "random".
const char* playModeName();

// Pause holds the output on its idle value; decoders, position and clock
// wait where they are, and resume goes on from the same sample.
void pausePlayback();
void resumePlayback();
bool isPaused();

// Seconds.
int getTimeIntoTrack();
int getTimeLeft();
int getDuration();
int getPercentageProgress();
// position in thousandths of the track.
int seek(int position);
