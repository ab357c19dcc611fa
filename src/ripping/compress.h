// The compression job: while the "Compression" setting asks for it, the
// library's WAV tracks become FLAC or MP3 files one at a time, on a thread
// of low priority, so playback never waits for it.
//
// A track is encoded to a hidden part file, proven (FLAC: every sample; MP3:
// length and level), renamed to its final name, renamed in the tables, and
// only once kzdb holds the new name is its WAV removed. The journal
// "kzcompress" beside kzdb names the part file and the tracks whose WAV
// still waits, so a quit, a crash or a power cut at any moment leaves each
// track listed once and playable, and the next start finishes the work.
#pragma once

#include <string>

// Starts the job's thread; it waits for the library to be loaded.
void initCompression();
// There may be new work: a rip ended, the setting changed, a person asked.
// Also ends a pause (a full disk).
void kickCompression();
// Gives up the track under way (its part file is removed) and ends the
// thread; tracks already done stay in the journal for the next start.
void stopCompression();
// Keeps the job off the library while names and folders change under it
// (a reindex): the track under way is given up and done tracks are saved
// before the constructor returns; the job looks again when the last goes.
class CompressionPause {
  public:
    CompressionPause();
    ~CompressionPause();
    CompressionPause(const CompressionPause&) = delete;
    CompressionPause& operator=(const CompressionPause&) = delete;
};
// True while tracks are being compressed.
bool isCompressing();
// For the status's "background": "Compressing 12 of 340", why the job
// paused, or "".
std::string compressionStatusText();
// The journal's path: root + "/kzcompress".
std::string getCompressJournalPath();
