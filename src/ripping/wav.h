// RIFF/WAVE files that carry their names inside: a LIST chunk of type INFO
// (artist, track, album, number, year, ...) written before the "fmt " chunk.
// Readers find chunks by identifier, never by position.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>

struct WavFmt {
    uint16_t audioFormat = 0;
    uint16_t numChannels = 0;
    uint32_t sampleRate = 0;
    uint32_t byteRate = 0;
    uint16_t blockAlign = 0;
    uint16_t bps = 0;
};

WavFmt* WavFmtCreate();
void WavFmtDestroy(WavFmt* fmt);
void WavFmtSetAudioFormat(WavFmt* fmt, uint16_t v);
void WavFmtSetNumChannels(WavFmt* fmt, uint16_t v);
void WavFmtSetSampleRate(WavFmt* fmt, uint32_t v);
void WavFmtSetByteRate(WavFmt* fmt, uint32_t v);
void WavFmtSetBlockAlign(WavFmt* fmt, uint16_t v);
void WavFmtSetBps(WavFmt* fmt, uint16_t v);
uint16_t WavFmtGetAudioFormat(const WavFmt* fmt);
uint16_t WavFmtGetNumChannels(const WavFmt* fmt);
uint32_t WavFmtGetSampleRate(const WavFmt* fmt);
uint32_t WavFmtGetByteRate(const WavFmt* fmt);
uint16_t WavFmtGetBlockAlign(const WavFmt* fmt);
uint16_t WavFmtGetBps(const WavFmt* fmt);

// Ten optional texts, in the order they are written; a missing text is null.
enum WavListField {
    WAV_ARTIST,     // "IART"
    WAV_TRACK,      // "INAM"
    WAV_ALBUM,      // "IPRD"
    WAV_TRACK_NUM,  // "ITRK"
    WAV_YEAR,       // "ICRD"
    WAV_GENRE,      // "IGNR"
    WAV_COMMENTS,   // "ICMT"
    WAV_COPYRIGHT,  // "ICOP"
    WAV_SOFTWARE,   // "ISFT"
    WAV_TOC,        // "ITOC" (read, never written)
    WAV_LIST_FIELDS
};

struct WavListInfo {
    char* text[WAV_LIST_FIELDS] = {};
};

WavListInfo* WavListInfoCreate();
void WavListInfoDestroy(WavListInfo* info);
// Frees the old text; with length 0 the field stays absent, otherwise at most
// length bytes are copied into length + 1 zeroed bytes.
void WavListInfoSetArtistName(WavListInfo* info, const char* text, size_t length);
void WavListInfoSetTrackName(WavListInfo* info, const char* text, size_t length);
void WavListInfoSetAlbumName(WavListInfo* info, const char* text, size_t length);
void WavListInfoSetTrackNum(WavListInfo* info, const char* text, size_t length);
void WavListInfoSetYear(WavListInfo* info, const char* text, size_t length);
void WavListInfoSetGenre(WavListInfo* info, const char* text, size_t length);
void WavListInfoSetComments(WavListInfo* info, const char* text, size_t length);
void WavListInfoSetCopyright(WavListInfo* info, const char* text, size_t length);
void WavListInfoSetSoftware(WavListInfo* info, const char* text, size_t length);
void WavListInfoSetTOC(WavListInfo* info, const char* text, size_t length);
const char* WavListInfoGetArtistName(const WavListInfo* info);
const char* WavListInfoGetTrackName(const WavListInfo* info);
const char* WavListInfoGetAlbumName(const WavListInfo* info);
const char* WavListInfoGetTrackNum(const WavListInfo* info);
const char* WavListInfoGetYear(const WavListInfo* info);
const char* WavListInfoGetGenre(const WavListInfo* info);
const char* WavListInfoGetComments(const WavListInfo* info);
const char* WavListInfoGetCopyright(const WavListInfo* info);
const char* WavListInfoGetSoftware(const WavListInfo* info);
const char* WavListInfoGetTOC(const WavListInfo* info);

// Writers: each returns the number of bytes it added to the file, 0 when the
// write failed.
int WavWriteWavHeader(uint32_t size, FILE* f);           // "RIFF", size, "WAVE": 12
int WavListInfoWrite(const WavListInfo* info, FILE* f);  // whole LIST chunk, or 0
int WavFmtWrite(const WavFmt* fmt, FILE* f);             // 24
int WavWriteDataChunkHeader(uint32_t size, FILE* f);     // 8
int WavUpdateWavHeaderFileSize(uint32_t size, FILE* f);  // at byte 4: 4
void WavWriteIntIntoBuf(uint8_t* buf, uint32_t v);
void WavWriteShortIntoBuf(uint8_t* buf, uint16_t v);
int WavWriteIntIntoFile(uint32_t v, FILE* f);
// The LIST chunk as it is written (for callers that assemble files in memory).
std::string WavListInfoBuild(const WavListInfo* info);

// Recognising four-byte identifiers.
bool WavChunkMatch(const uint8_t* p, const char* id);
bool IsRiffFile(const uint8_t* p);
bool IsWavFile(const uint8_t* p);
bool IsWavFmtChunk(const uint8_t* p);
bool IsWavDataChunk(const uint8_t* p);
bool IsWavListChunk(const uint8_t* p);
bool IsWavListInfo(const uint8_t* p);
bool IsWavListInfoArt(const uint8_t* p);
bool IsWavListInfoTrackName(const uint8_t* p);
bool IsWavListInfoAlbumName(const uint8_t* p);
bool IsWavListInfoTrackNum(const uint8_t* p);
bool IsWavListInfoYear(const uint8_t* p);
bool IsWavListInfoGenre(const uint8_t* p);
bool IsWavListInfoComment(const uint8_t* p);
bool IsWavListInfoCopyright(const uint8_t* p);
bool IsWavListInfoSoftware(const uint8_t* p);
bool IsWavListInfoToc(const uint8_t* p);

// Fills fmt from the 16 bytes of a fmt chunk body.
void WavFmtParseFromBuf(WavFmt* fmt, const uint8_t* buf);
// Walks the sub-chunks of an INFO list body (after "INFO"), storing each
// known one through its setter; never reads past len.
void WavListInfoParseFromBuf(WavListInfo* info, const uint8_t* buf, size_t len);

// Reads a whole file's chunks: fmt and LIST/INFO wherever they stand, and the
// data chunk's offset and size. Returns 1 for a RIFF/WAVE file with fmt and
// data, 0 otherwise. Texts found in a LIST/INFO chunk replace those in info;
// the others are left as they were. info may be null.
struct WavFileInfo {
    WavFmt fmt;
    bool hasFmt = false;
    long dataOffset = -1;
    uint32_t dataSize = 0;
};
int WavReadChunks(const uint8_t* buf, size_t len, WavFileInfo* out, WavListInfo* info);

// Puts new names (null: keep the old) into a WAV file's LIST/INFO chunk,
// keeping its other texts, format and audio; the file is rewritten through a
// temporary file, so it is never left half written. 1 when done.
int WavRewriteNames(const char* path, const char* artist, const char* album, const char* track);

// Whole seconds of audio in a WAV file: the data chunk's bytes over the byte
// rate, the bytes being those really in the file when the chunk claims more
// (a short rip) or nothing (an interrupted one). -1 when the file is not a
// WAV with fmt and data.
int WavFileSeconds(const char* path);

void WavFmtPrint(const WavFmt* fmt);
void WavListInfoPrint(const WavListInfo* info);
void WavPrintBuf(const uint8_t* buf, size_t len);
