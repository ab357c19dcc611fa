// Every fixed path of the appliance goes through hostPath(), so that one
// environment variable (KZ_ROOT) can move the whole appliance into a folder on
// an ordinary Linux machine ("host mode").
#pragma once

#include <string>
#include <string_view>

// Reads KZ_ROOT, KZ_CDROM, KZ_PCM and KZ_FFMPEG. An empty or unset KZ_ROOT
// means the appliance itself. Returns 0 when KZ_ROOT is set but is not a
// writable folder (the daemon then refuses to start).
int configureHostMode();
// For tests: host mode inside `root` (empty: appliance), other variables unset.
void setHostRoot(const std::string& root);
// For tests: the CD drive or image, as KZ_CDROM names it.
void setHostCdrom(const std::string& path);

bool isHostMode();
const std::string& hostRoot();

// Maps an absolute appliance path ("/media/hdd1") to the path used on this
// machine: unchanged on the appliance, under KZ_ROOT in host mode.
std::string hostPath(std::string_view fixed);

// The CD drive: KZ_CDROM when given, else the mapped "/dev/sr0".
std::string cdDevicePath();
// The ALSA playback device: KZ_PCM, default "default".
std::string pcmDevice();
// The decoder program: KZ_FFMPEG, default "/usr/bin/ffmpeg".
std::string ffmpegPath();
// The ffprobe beside that ffmpeg, else the system's.
std::string ffprobePath();

// Logs, once per distinct text, that a step of the appliance was skipped in
// host mode ("Host mode: skipped mount /dev/mmcblk0p3 on /media/sd3\n").
void hostSkip(std::string_view what);
