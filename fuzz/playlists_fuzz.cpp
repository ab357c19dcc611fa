// Feeds arbitrary bytes to the playlists reader as the kzplaylists file, over
// a small library, and the rip names reader as an uploaded names file.
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "fuzz/fuzz_root.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/playlists.h"
#include "ripping/ripper.h"

namespace {

void smallLibrary() {
    for (const char* artist : {"Nina", "Miles [J]"}) {
        int r = addArtistToDb(artist);
        for (const char* album : {"Live", "Studio"}) {
            int a = addAlbumToDb(album, r);
            addTrackToDb("01 One.mp3", a);
            addTrackToDb("02 Two.flac", a);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = [] {
        std::string root = fuzzRoot();
        smallLibrary();
        return root + "/kzplaylists";
    }();
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) abort();
    fwrite(data, 1, size, f);
    fclose(f);
    loadPlaylists();
    // Every entry names an item of the library, and playing walks tracks only.
    if (getPlaylistCount() > kMaxPlaylists) abort();
    for (int p = 0; p < getPlaylistCount(); p++) {
        for (int id : getPlaylistEntries(p)) {
            if (!idExists(id)) abort();
        }
        for (int t = startPlaylistPlayback(p, 0, false); t >= 0; t = playlistNextTrack()) {
            if (t >= getTrackCount()) abort();
        }
    }
    stopPlaylistPlayback();

    RipNames names;
    parseRipMetadata(std::string(reinterpret_cast<const char*>(data), size), &names);
    if (names.tracks.size() > 99) abort();
    return 0;
}
