// Ripping a CD into a new album folder of the library: one WAV file per track
// with its names inside, and "toc", "discid" and "coverart.jpg" beside them.
// The rip runs on a thread of its own; the screens and the web read its
// progress and stop it by clearing ripEnabled.
#pragma once

#include <atomic>
#include <string>
#include <vector>

struct RipNames {
    std::string artist;
    std::string album;
    std::string year;
    std::string genre;
    std::string artUrl;
    std::vector<std::string> tracks;  // by track index
};

struct RipProgress {
    int track = 0;
    int sectors = 0;
    int done = 0;
    int speed = 0;  // multiple of real time
};

extern std::atomic<int> ripEnabled;
// Negative: the uploaded names; 0: no names; N: lookup candidate N - 1.
extern int ripUserChoice;
extern int numTracksToRip;
extern int cdFramesPerRead;
extern int driveSpeed;

void initRipper();
void initFLAC();
// Starts the rip thread; 1 when started.
int startRip();
// The rip thread's body.
void rip();
bool isRipping();
// The menus' and the web's stop: the rip ends after its current read.
void uiStopRip();
void setRipSpeedLimit(int times);
RipProgress getCDProgress();
void clearProgress();
// The names uploaded with a rip request (used when ripUserChoice < 0).
void setUploadedRipNames(const RipNames& names);
std::string getRipArtist();
std::string getRipAlbum();
std::string getRipTrack();
std::string getRipArtPath();

// The names a page uploads for a rip: UTF-8 lines of "key=value" with the
// keys artist, album, year, genre, art (a cover address) and one "track" per
// track in order. False when the text holds no such line.
bool parseRipMetadata(const std::string& text, RipNames* names);
// Reads and parses the file; 1 when it held names.
int readRipMetadata(const std::string& path, RipNames* names);
// Renames the album that was ripped from the disc in the drive (found by its
// "discid" file) and its tracks to the names given. 1 when done.
int reindexAlbum(const RipNames& names);

// A name from a disc or an upload made safe as one file or folder name,
// UTF-8 kept, cut to at most maxBytes without splitting a character.
std::string cleanRipName(const std::string& name, size_t maxBytes = 143);
// "Album 1", "Album 2", ...: the first that the artist does not have yet.
std::string getNextAlbumName(const std::string& artistFolder);

// The album last ripped from the disc with this id (its "discid" file), or -1.
int findRippedAlbum(const std::string& discid);

// Disc lookup (ripping/lookup.h): the main loop's calls when a disc comes
// and goes, and the candidates the rip and the pages use.
void clearOfflineFlag();
void startCDDBLookup();
void clearDiscid();
void clearArtURL();
void startGetArt();
int getLookupCandidateCount();
RipNames getLookupCandidate(int index);
