// A small library whose names hold everything a reply must escape or carry
// through untouched: quotes, backslashes, control characters, JSON-looking
// brackets, percent signs and UTF-8 of two to four bytes. Shared by the
// command tests and the dispatch fuzzer.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "library/library.h"

namespace hostile {

// Artist / album / track, as files below the music folder.
inline const char* const kTracks[] = {
    "Nina \"High Priestess\" Simone/Live at \"Montreux\"/01 Don't Let Me Be.flac",
    "Nina \"High Priestess\" Simone/Live at \"Montreux\"/02 \"Quoted\" Song.mp3",
    "Back\\slash\\/C:\\Music\\/03 Ends with a backslash\\.wav",
    "Bj\xc3\xb6rk/Homog\xc3\xa9nic/05 J\xc3\xb3ga.flac",
    ("\xe5\x9d\x82\xe6\x9c\xac\xe9\xbe\x8d\xe4\xb8\x80/\xe6\x97\xa5\xe6\x9c\xac/"
     "06 \xe3\x81\x82 \xf0\x9f\x8e\xb5.mp3"),
    "{[Brackets]}/<Angle> & 'Apostrophe'/07 100% %22 %5C.wav",
    "Plain Artist/Plain Album/1-01 Play the Search.flac",
    "Plain Artist/Plain Album/1-02 status next back.flac",
};
// Control characters in every part: a scan leaves such names out, but a kzdb
// written by an earlier version still brings them in.
constexpr const char* kControlArtist = "Tab\tand\x01 control\x1f";
constexpr const char* kControlAlbum = "Line\x0b Break";
constexpr const char* kControlTrack = "04 Bell\x07 and escape\x1b.flac";
constexpr int kTrackCount = static_cast<int>(std::size(kTracks)) + 1;

// Makes the files afresh (their content is not audio).
inline void makeFiles(const std::string& music) {
    std::filesystem::remove_all(music);
    for (const char* relative : kTracks) {
        std::filesystem::path p = music + "/" + relative;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p) << "not audio";
    }
}

// The names with control characters, in the tables and on disk.
inline void addUnscannable(const std::string& music) {
    std::filesystem::path p =
        music + "/" + kControlArtist + "/" + kControlAlbum + "/" + kControlTrack;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p) << "not audio";
    int r = addArtistToDb(kControlArtist);
    addTrackToDb(kControlTrack, addAlbumToDb(kControlAlbum, r));
}

// A USB drive's catalogue, in memory only: one artist, album and two tracks.
inline void addUsb() {
    clearUSBDB();
    int r = addArtistToUSBDb("/media/usb/Stick \"Q\"\\");
    int a = addAlbumToUSBDb("USB \x02 Album \"x\"", r);
    addTrackToUSBDb("01 usb \"track\"\\\x7f.mp3", a);
    addTrackToUSBDb("02 usb plain.flac", a);
}

}  // namespace hostile
