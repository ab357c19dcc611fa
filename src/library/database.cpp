#include "library/database.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "core/files.h"
#include "core/log.h"
#include "core/process.h"
#include "core/ui.h"
#include "library/library.h"
#include "library/playlists.h"
#include "library/scan.h"
#include "library/sorting.h"

namespace {

constexpr int kLineSize = 250;

std::atomic<int> rebuilds{0};
std::atomic<int> loads{0};

// One album block; false when its track count is missing.
// The end of the file ends the read: a truncated file adds no phantom
// "unknown" artist and no track without a name.
bool atEnd(int got, const char* line) {
    return got == 0 && line[0] == 0;
}

bool readAlbum(FILE* f, char* line) {
    if (atEnd(dbGetLine(f, line, kLineSize), line)) return false;
    const char* artistName = "unknown";
    const char* albumName = line;
    char* slash = strchr(line, '/');
    if (slash) {
        *slash = 0;
        artistName = line;
        albumName = slash + 1;
    }
    int artist = addArtistToDb(artistName);
    if (artist < 0) return false;
    // The album's name must outlive the line buffer: the heap copy does.
    std::string album = albumName;

    int count = 0;
    char countLine[kLineSize];
    dbGetLine(f, countLine, kLineSize);
    if (sscanf(countLine, "%d", &count) < 1) {
        kzLog("readAlbum () cannot read number of tracks\n");
        return false;
    }
    int a = appendAlbumToDb(album.c_str(), artist);
    if (a < 0) return false;
    for (int i = 0; i < count && getTrackCount() < getMaxTracks() && !heapFullCode(); i++) {
        if (atEnd(dbGetLine(f, line, kLineSize), line)) break;
        appendTrackToDb(line, a);
    }
    return true;
}

// Per album, its tracks in ascending index order (-1 ends a list).
struct TrackLists {
    std::vector<int32_t> first, next;
    explicit TrackLists(int albums, int tracks) : first(albums, -1), next(tracks, -1) {
        for (int t = tracks - 1; t >= 0; t--) {
            int a = getParentAlbum(t);
            if (a < 0 || a >= albums) continue;
            next[t] = first[a];
            first[a] = t;
        }
    }
    int count(int a) const {
        int n = 0;
        for (int t = first[a]; t >= 0; t = next[t])
            n++;
        return n;
    }
};

bool writeAll(FILE* f) {
    const int albums = getAlbumCount();
    TrackLists lists(albums, getTrackCount());
    fputs("Version 3\n", f);
    fprintf(f, "%d Albums %d mirror\n", albums, lib().mirrorCount);
    for (int a = 0; a < albums; a++) {
        const char* artist = getArtistName(getAlbumArtist(a));
        fprintf(f, "%s/%s\n", artist ? artist : "", getAlbumName(a));
        fprintf(f, "%d tracks\n", lists.count(a));
        for (int t = lists.first[a]; t >= 0; t = lists.next[t]) {
            fputs(getTrackName(t), f);
            fputc('\n', f);
        }
    }
    return fflush(f) == 0 && !ferror(f);
}

}  // namespace

int dbGetLine(FILE* f, char* buffer, int size) {
    int n = 0;
    buffer[0] = 0;
    for (;;) {
        int c = getc_unlocked(f);
        if (c == EOF) {
            buffer[n] = 0;
            return 0;
        }
        if (c == '\n') break;
        if (n < size - 1) buffer[n++] = static_cast<char>(c);
    }
    buffer[n] = 0;
    return 1;
}

std::string getDBPath() {
    return getLocalPath() + "/kzdb";
}

int readDB() {
    std::string path = getDBPath();
    File f(fopen(path.c_str(), "r"));
    if (!f) {
        kzLog("readDB () cannot find %s\n", path.c_str());
        return 0;
    }
    char line[kLineSize];
    dbGetLine(f.get(), line, kLineSize);
    kzLog("First line %s\n", line);
    int version = 0;
    if (sscanf(line, "Version %d", &version) < 1) {
        kzLog("readDB () cannot read version\n");
    } else {
        clearDB();
        int albums = 0, mirror = 0;
        dbGetLine(f.get(), line, kLineSize);
        int fields = sscanf(line, "%d %*s %d", &albums, &mirror);
        if (fields < 1) {
            kzLog("readDB () cannot read number of albums\n");
        } else {
            if (fields == 2) lib().mirrorCount = mirror;
            int read = 0;
            while (read < albums && getAlbumCount() < getMaxAlbums() && readAlbum(f.get(), line)) {
                read++;
            }
        }
    }
    f.reset();
    kzLog("%d albums\n", getAlbumCount());
    kzLog("%d tracks\n", getTrackCount());
    kzLog("%d artists\n", getArtistCount());
    kzLog("mirrorCount %d\n", lib().mirrorCount);
    lib().dirtybit = 0;
    return 1;
}

void beginLibraryRebuild() {
    rebuilds++;
}
void endLibraryRebuild() {
    if (rebuilds > 0) rebuilds--;
}
bool libraryRebuilding() {
    return rebuilds > 0;
}

int libraryLoadCount() {
    return loads;
}

int writeDB() {
    kzLog("writeDB ()\n");
    std::string path = getDBPath();
    if (libraryRebuilding()) {
        kzLog("writeDB () refused: the library is still loading or scanning\n");
        return 0;
    }
    if (getLocalPath().empty()) {
        kzLog("Failed to create file: %s\n", path.c_str());
        return 0;
    }
    bool ok = writeFileAtomically(path, [](FILE* f) {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        return writeAll(f);
    });
    if (!ok) {
        kzLog("Failed to create file: %s\n", path.c_str());
        return 0;
    }
    sync();
    lib().dirtybit = 0;
    return 1;
}

void saveDBifChanged() {
    if (!isDirty() || getLocalPath().empty()) return;
    writeDB();
    savePlaylists();
    rebuildShuffle();
    sortAlbumsAndArtists();
}

bool postWriteDB() {
    if (!isDirty() || getLocalPath().empty()) return false;
    sortAlbumsAndArtists();
    try {
        std::thread([] {
            if (isDirty()) {
                writeDB();
                savePlaylists();
                rebuildShuffle();
            }
            kzLog("Posted writeDB complete\n");
        }).detach();
    } catch (const std::system_error&) {
        kzLog("postWriteDB failed to create writedbThread\n");
        return false;
    }
    return true;
}

void loadOrScan() {
    clearDB();
    clearHeapFull();
    kzLog("loadOrScan 1\n");
    bool scanned = false;
    if (!readDB()) {
        scanDB();
        scanned = true;
    }
    if (int code = heapFullCode()) {
        // The tables hold part of the library: stop here, holding no lock,
        // and leave kzdb as it is for the next start.
        exception(code);
    }
    endLibraryRebuild();
    if (scanned) writeDB();
    rebuildShuffle();
    sortAlbumsAndArtists();
    loadPlaylists();
    requestRedraw("loadOrScan");
    scanLocalEnabled = 0;
    loads++;
    kzLog("loadOrScan () finished\n");
}

int startLoadOrScan() {
    scanLocalEnabled = 1;
    beginLibraryRebuild();
    try {
        std::thread([] {
            nameThread("kz-library");
            loadOrScan();
        }).detach();
    } catch (const std::system_error&) {
        kzLog("startScanLocal failed to create scanLocalThread\n");
        scanLocalEnabled = 0;
        endLibraryRebuild();
        return 0;
    }
    return 1;
}
