// Small functions over the names of tracks, albums and artists: extensions,
// track-number prefixes, tag letters in brackets, and names refused or
// cleaned before they become folder or file names.
#pragma once

#include <cstdint>
#include <string>

// strcasestr without locale surprises: ASCII letters only; null when absent.
const char* findNoCase(const char* hay, const char* needle);

// True when ext (".mp3") first occurs, in any letter case, at the very end
// of name: "01 Intro.mp3.mp3" is not an MP3 track.
bool endsWithExtension(const char* name, const char* ext);
bool allowedMusicTrack(const char* name);
bool isArtFile(const char* name);
bool isVideoFile(const char* name);
// The USB pre-filter: a music extension anywhere in the name.
bool hasMusicExtension(const char* name);
// "WAV", "MP3", "AAC", "FLAC" or "NIY" by the first extension found anywhere.
const char* extensionWord(const char* name);

bool isTrackNumberLetter(char c);
// 0 when name does not start with a digit; otherwise the character after the
// number and the spaces that follow it.
char beginsWithTrackNumber(const char* name);
void copyTrackNumber(const char* src, char* dst);
// Skips a leading number and the white space after it (USB track names).
const char* skipTno(const char* name);
int getdec(const char** p, int* value);
// Sort key inside an album: "2-05 Song" gives 205, "12 Song" 12, "Song" 0.
int trackOrderOfName(const char* name);
// The title: no extension, no track number, no " - " after the number.
std::string cleanTrackName(const char* name);
// The name up to its last ".", or the whole name.
std::string nameWithoutExtension(const char* name);

// Tag letters: the first all-capital group closed by "]"; letters are added,
// so "[AA]" gives the mask of B.
int32_t getClassFromName(const char* name);
// The name without its tag groups.
void stripClass(char* out, const char* in);
std::string stripClass(const char* in);

// A new name is refused when missing, empty, only spaces, or holding "*".
bool badName(const char* name);
// Makes an outside name safe as one folder or file name: "/" and a leading
// "." become "_", so no name can leave its folder, hide, or be "..".
std::string cleanPathName(const std::string& name);
