// A music file's tags, read by ffprobe: the USB view shows them, and an
// import places loose files by them.
#pragma once

#include <string>

struct FileTags {
    bool ok = false;  // ffprobe read the file
    std::string title, artist, albumArtist, album, track, date, genre;
    std::string codec;    // "flac", "mp3", ...
    double duration = 0;  // seconds
    int sampleRate = 0;
    int channels = 0;
    long long bitRate = 0;
};

FileTags readTags(const std::string& path);
