// Filling the library from the folder layout root/music/artist/album/track,
// building the USB library from a mounted drive, and the cleanup of junk and
// empty folders. Each scan stops at the next folder entry once its flag is
// cleared.
#pragma once

#include <string>

extern volatile int scanLocalEnabled;
extern volatile int scanUSBEnabled;
extern volatile int cleanupEnabled;

int isScanning();
int isScanningUSB();
void stopScanningUSB();
int isCleaning();
void stopCleanup();
bool isCleanupRunning();

// Disk usage in kilobytes: each track counts (size >> 10) + 2.
void useKb(long long bytes);
void useKbFromPath(const std::string& path);
void freeKb(long long bytes);
void clearKb();
long getDiskMb();
void setDiskMb(long mb);

int startScanLocal();
void scanLocal();
// Scans the whole music folder into the (emptied) library.
void scanDB();
void scanLocalArtist(const std::string& root, const char* artist);
void scanLocalAlbum(const std::string& root, const char* album, int artist);
// Scans one album after ripping, recording or import.
void scanAlbum(const char* album, const char* artistName);
void scanMirror(const std::string& albumPath);

int startScanUSB(int port);
// True until the USB scan thread has ended, flag cleared or not.
bool isUSBScanThreadRunning();
// Builds the USB library from the folder (the body of the USB scan thread).
void scanUSBPath(const std::string& mountPoint);
void scanUSBDir(const std::string& path, int depth);
int addUSBTrack(const std::string& folder, const char* file);

int startCleanup();
void cleanup();
int cleanupArtist(const std::string& root, const char* artist);
int cleanupAlbum(const std::string& root, const char* album, const char* artist);
