// Feeds arbitrary bytes to the database reader as the kzdb file.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzz_root.h"
#include "library/database.h"
#include "library/library.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = fuzzRoot() + "/kzdb";
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) abort();
    fwrite(data, 1, size, f);
    fclose(f);
    readDB();
    // Whatever loaded must be consistent enough to walk and write back.
    for (int t = 0; t < getTrackCount(); t++) {
        if (getParentAlbum(t) < 0 || getParentAlbum(t) >= getAlbumCount()) abort();
    }
    for (int a = 0; a < getAlbumCount(); a++) {
        if (getAlbumArtist(a) < 0 || getAlbumArtist(a) >= getArtistCount()) abort();
    }
    return 0;
}
