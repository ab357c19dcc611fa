// Turning a WAV track into FLAC (libFLAC) or MP3 (LAME), tagged with its
// names and cover, and proving the result before anyone trusts it: a FLAC
// must decode to exactly the WAV's samples, an MP3 to the WAV's length and
// about its level.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "core/files.h"

// The PCM audio of a WAV file: integer PCM of 8 to 32 bits, one or two
// channels, found by walking its chunks. A data chunk that claims more than
// the file holds (a rip cut short) gives the whole frames really there.
class WavReader {
  public:
    // False, with why, for a file that is not such a WAV.
    bool open(const std::string& path, std::string* why);
    // Up to frames frames as interleaved samples at the file's own width
    // (sign-extended); 0 at the end, -1 on a read error.
    long read(int32_t* samples, long frames);

    int channels = 0;
    int bits = 0;
    int rate = 0;
    long frames = 0;
    // The names of its LIST/INFO chunk, empty where it has none.
    std::string artist, album, title, trackNumber, year, genre;

  private:
    File file_;
    std::vector<uint8_t> raw_;
    long left_ = 0;
    int bytesPerSample_ = 0;
};

struct TrackTags {
    std::string artist, album, title, trackNumber, year, genre;
    std::string cover;      // image bytes, empty for none
    std::string coverMime;  // "image/jpeg" or "image/png"
};

// Asked between blocks; true gives up the encode (the setting changed, a quit).
using CancelCheck = std::function<bool()>;

// The outcome of an encode or a check: ok, or why not. diskFull tells a full
// disk (the job then pauses) from a bad file (the job skips it).
struct CodecResult {
    bool ok = false;
    bool diskFull = false;
    bool cancelled = false;
    std::string why;
    double rms = 0;  // the source's level (MP3 encodes), for the MP3 check
};

// Writes out (created or truncated) and syncs it. Compression level 5, the
// reference encoder's default.
CodecResult encodeFlac(const std::string& wav, const std::string& out, const TrackTags& tags,
                       const CancelCheck& cancel);
CodecResult verifyFlac(const std::string& wav, const std::string& flac);

// Constant bit rate kbps, ID3v2.3 tags first and an Info frame, so that
// decoders trim the encoder's delay and padding and know the length.
CodecResult encodeMp3(const std::string& wav, const std::string& out, int kbps,
                      const TrackTags& tags, const CancelCheck& cancel);
// Decodes mp3 with the decoder program and compares its length with the
// WAV's (within one MP3 frame) and its level with sourceRms (within 3 dB).
CodecResult verifyMp3(const std::string& wav, const std::string& mp3, double sourceRms,
                      const CancelCheck& cancel);

// New names (null keeps one) inside a FLAC's Vorbis comments or an MP3's
// ID3v2.3 tag, written through a temporary file renamed over the track, so
// a power cut leaves the old file or the new one. False, with why, when the
// file cannot be read or is of another kind.
bool rewriteCompressedNames(const std::string& path, const char* artist, const char* album,
                            const char* title, std::string* why);

// An ID3v2.3 tag: TPE1, TALB, TIT2, TRCK, TYER, TCON and APIC, in Latin-1
// when a text is plain ASCII and UTF-16 otherwise.
std::string buildId3v2(const TrackTags& tags);
