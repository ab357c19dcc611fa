#include "library/scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "core/files.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/storage.h"
#include "core/ui.h"
#include "library/database.h"
#include "library/library.h"
#include "library/names.h"
#include "library/playlists.h"
#include "library/settings.h"
#include "library/sorting.h"
#include "web/web.h"

volatile int scanLocalEnabled = 0;
volatile int scanUSBEnabled = 0;
volatile int cleanupEnabled = 0;

namespace {

long diskMb = 0;
int usbPort = 0;

struct DirCloser {
    void operator()(DIR* d) const { closedir(d); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

bool isDots(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Whether a folder entry is of a kind (DT_DIR with S_IFDIR, DT_REG with
// S_IFREG) as itself, never through a link: a link can neither make a walk
// loop nor point a drive's scan off the drive.
bool entryIs(DIR* d, const dirent* e, unsigned char type, mode_t kind) {
    if (e->d_type != DT_UNKNOWN) return e->d_type == type;
    struct stat st;
    return fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
           (st.st_mode & S_IFMT) == kind;
}

bool entryIsFolder(DIR* d, const dirent* e) {
    return entryIs(d, e, DT_DIR, S_IFDIR);
}

bool entryIsFile(DIR* d, const dirent* e) {
    return entryIs(d, e, DT_REG, S_IFREG);
}

// kzdb keeps one name a line and at most 249 bytes of it ("artist/album"
// counts as one line): a name with a line feed, or one that a reload would
// cut, would shift or lose every album after it on the next start.
constexpr size_t kLongestKeptLine = 249;

bool storableName(const char* name, size_t prefix) {
    bool control = false;
    for (const char* p = name; *p; p++) {
        if (static_cast<unsigned char>(*p) < 0x20 || *p == 0x7f) control = true;
    }
    size_t length = prefix + strlen(name);
    if (!control && length <= kLongestKeptLine) return true;
    std::string shown(name);
    for (char& c : shown) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    kzLog("Skipping \"%s\": %s\n", shown.c_str(),
          control ? "control characters in the name" : "name too long for kzdb");
    return false;
}

long long entrySize(DIR* d, const char* name) {
    struct stat st;
    return fstatat(dirfd(d), name, &st, 0) == 0 ? st.st_size : 0;
}

bool startThread(void (*body)(), const char* createError) {
    try {
        std::thread(body).detach();
    } catch (const std::system_error&) {
        kzLog("%s", createError);
        return false;
    }
    return true;
}

// "rm" and "rm -rf" as the log has always shown them, done without a shell.
void logAndRemove(const std::string& path, bool tree) {
    kzLog("Executing %s \"%s\"\n", tree ? "rm -rf" : "rm", path.c_str());
    if (tree) {
        removeTree(path);
    } else {
        removeFile(path);
    }
}

}  // namespace

int isScanning() {
    return scanLocalEnabled;
}
int isScanningUSB() {
    return scanUSBEnabled;
}
void stopScanningUSB() {
    scanUSBEnabled = 0;
}
int isCleaning() {
    return cleanupEnabled;
}
void stopCleanup() {
    cleanupEnabled = 0;
}
bool isCleanupRunning() {
    return cleanupEnabled != 0;
}

void useKb(long long bytes) {
    lib().kbUsed += static_cast<long>((bytes >> 10) + 2);
}

void useKbFromPath(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0) useKb(st.st_size);
}

void freeKb(long long bytes) {
    lib().kbUsed -= static_cast<long>((bytes >> 10) + 2);
    if (lib().kbUsed < 0) lib().kbUsed = 0;
}

void clearKb() {
    lib().kbUsed = 0;
}
long getDiskMb() {
    return diskMb;
}
void setDiskMb(long mb) {
    diskMb = mb;
}

int startScanLocal() {
    scanLocalEnabled = 1;
    if (!startThread(scanLocal, "startScanLocal failed to create scanLocalThread\n")) {
        scanLocalEnabled = 0;
        return 0;
    }
    return 1;
}

void scanLocal() {
    scanDB();
    endLibraryRebuild();
    writeDB();
    loadPlaylists();
    saveSettings();
    scanLocalEnabled = 0;
    rebuildShuffle();
    sortAlbumsAndArtists();
    requestRedraw("scanLocal");
}

void scanDB() {
    clearKb();
    const std::string root = getLocalPath();
    Dir d(opendir(getMusicDirectory().c_str()));
    if (d) {
        while (scanLocalEnabled && !heapFullCode()) {
            dirent* e = readdir(d.get());
            if (!e) break;
            if (isDots(e->d_name) || !storableName(e->d_name, 0)) continue;
            scanLocalArtist(root, e->d_name);
        }
    }
    kzLog("%d albums\n", getAlbumCount());
    kzLog("%d tracks\n", getTrackCount());
    kzLog("%d artists\n", getArtistCount());
    kzLog("%d mirrored tracks\n", lib().mirrorCount);
    kzLog("%ld Kbytes used\n", lib().kbUsed);
}

void scanLocalArtist(const std::string& root, const char* artist) {
    Dir d(opendir((root + "/music/" + artist).c_str()));
    if (!d) return;
    int r = addArtistToDb(artist);
    if (r < 0) return;
    while (dirent* e = readdir(d.get())) {
        if (isDots(e->d_name) || !storableName(e->d_name, strlen(artist) + 1)) continue;
        scanLocalAlbum(root, e->d_name, r);
    }
}

void scanLocalAlbum(const std::string& root, const char* album, int artist) {
    const char* artistName = getArtistName(artist);
    std::string path = root + "/music/" + (artistName ? artistName : "") + "/" + album;
    scanMirror(path);
    Dir d(opendir(path.c_str()));
    if (!d || getAlbumCount() >= getMaxAlbums()) return;

    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    int a = findAlbumByNameAndArtist(album, artist);
    if (a < 0) a = addAlbumToDb(album, artist);
    if (a < 0) return;
    while (scanLocalEnabled && getTrackCount() < getMaxTracks() && !heapFullCode()) {
        dirent* e = readdir(d.get());
        if (!e) break;
        if (!allowedMusicTrack(e->d_name) || trackAlreadyPresent(e->d_name, a) ||
            !storableName(e->d_name, 0)) {
            continue;
        }
        appendTrackToDb(e->d_name, a);
        useKb(entrySize(d.get(), e->d_name));
    }
}

void scanAlbum(const char* album, const char* artistName) {
    int r = findArtistByName(artistName);
    if (r >= 0) {
        // A full scan may be running: its flag must survive this one album.
        int running = scanLocalEnabled;
        scanLocalEnabled = 1;
        scanLocalAlbum(getLocalPath(), album, r);
        scanLocalEnabled = running;
    }
    dirty();
}

void scanMirror(const std::string& albumPath) {
    std::string visible = albumPath + "/mirror";
    std::string hidden = albumPath + "/.mirror";
    if (isFolder(visible)) rename(visible.c_str(), hidden.c_str());
    Dir d(opendir(hidden.c_str()));
    if (!d) return;
    while (dirent* e = readdir(d.get())) {
        if (strstr(e->d_name, ".mp3")) lib().mirrorCount++;
    }
}

namespace {
std::atomic<int> usbScanThreads{0};
}

bool isUSBScanThreadRunning() {
    return usbScanThreads > 0;
}

int startScanUSB(int port) {
    kzLog("startScanUSB (%d)\n", port);
    clearUSBDB();
    scanUSBEnabled = 1;
    usbPort = port;
    usbScanThreads++;
    bool started = startThread(
        [] {
            scanUSBPath(usbDriveRoot(usbPort));
            requestRedraw("scanUSB");
            webClientsRefresh();
            usbScanThreads--;
        },
        "startScanUSB failed to create scanUSBThread\n");
    if (!started) {
        scanUSBEnabled = 0;
        usbScanThreads--;
    }
    return started ? 1 : 0;
}

void scanUSBPath(const std::string& mountPoint) {
    lib().usbPath = mountPoint;
    kzLog("scanUSB () scanning <%s>\n", mountPoint.c_str());
    scanUSBEnabled = 1;
    scanUSBDir(mountPoint, 7);
    scanUSBEnabled = 0;
    kzLog("%d albums\n", getUSBAlbumcount());
    kzLog("%d tracks\n", getUSBTrackcount());
    kzLog("%d artists\n", getUSBArtistcount());
}

void scanUSBDir(const std::string& path, int depth) {
    Dir d(opendir(path.c_str()));
    if (!d) return;
    while (scanUSBEnabled) {
        dirent* e = readdir(d.get());
        if (!e) break;
        if (e->d_name[0] == '$' || e->d_name[0] == '.') continue;
        if (entryIsFolder(d.get(), e)) {
            if (depth != 0) scanUSBDir(path + "/" + e->d_name, depth - 1);
        } else if (hasMusicExtension(e->d_name) && entryIsFile(d.get(), e)) {
            if (!addUSBTrack(path, e->d_name)) scanUSBEnabled = 0;
        }
    }
}

int addUSBTrack(const std::string& folder, const char* file) {
    size_t slash = folder.rfind('/');
    std::string artist = slash == std::string::npos ? "" : folder.substr(0, slash);
    std::string album = slash == std::string::npos ? folder : folder.substr(slash + 1);

    // A name with a music extension somewhere inside is skipped, not an error.
    if (!allowedMusicTrack(file)) return 1;
    if (getUSBAlbumcount() >= Library::kMaxUSBAlbums ||
        getUSBTrackcount() >= Library::kMaxUSBTracks) {
        return 0;
    }
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    int r = addArtistToUSBDb(artist.c_str());
    int a = r < 0 ? -1 : addAlbumToUSBDb(album.c_str(), r);
    if (a < 0) {
        kzLog("USB Memory full\n");
        return 0;
    }
    if (findUSBTrackByThreeNames(artist.c_str(), album.c_str(), file) >= 0) {
        kzLog("Track not added <%s>\n", file);
        return 1;
    }
    if (addTrackToUSBDb(file, a) < 0) {
        kzLog("USB Memory full\n");
        return 0;
    }
    return 1;
}

int startCleanup() {
    cleanupEnabled = 1;
    if (!startThread(cleanup, "startCleanup failed to create cleanupThread\n")) {
        cleanupEnabled = 0;
        return 0;
    }
    return 1;
}

void cleanup() {
    clearKb();
    const std::string root = getLocalPath();
    const std::string music = getMusicDirectory();
    Dir d(opendir(music.c_str()));
    while (d && cleanupEnabled) {
        dirent* e = readdir(d.get());
        if (!e) break;
        if (isDots(e->d_name) || !entryIsFolder(d.get(), e)) continue;
        if (cleanupArtist(root, e->d_name) == 0) {
            kzLog("empty artist %s\n", e->d_name);
            logAndRemove(music + "/" + e->d_name, true);
        }
    }
    cleanupEnabled = 0;
    kzLog("Cleanup Done\n");
    requestRedraw("cleanup");
}

int cleanupArtist(const std::string& root, const char* artist) {
    std::string path = root + "/music/" + artist;
    Dir d(opendir(path.c_str()));
    if (!d) return 0;
    int count = 0;
    while (dirent* e = readdir(d.get())) {
        if (isDots(e->d_name)) continue;
        std::string entry = path + "/" + e->d_name;
        if (e->d_name[0] == '.' && entryIsFolder(d.get(), e)) {
            kzLog("Empty hidden folder %s\n", entry.c_str());
            logAndRemove(entry, true);
            continue;
        }
        int tracks = cleanupAlbum(root, e->d_name, artist);
        if (tracks == 0) {
            kzLog("empty album %s\n", entry.c_str());
            logAndRemove(entry, true);
        }
        count += tracks;
    }
    return count;
}

int cleanupAlbum(const std::string& root, const char* album, const char* artist) {
    std::string path = root + "/music/" + artist + "/" + album;
    Dir d(opendir(path.c_str()));
    if (!d) return 0;
    int count = 0;
    while (dirent* e = readdir(d.get())) {
        if (e->d_name[0] == '.' && e->d_name[1] == '_') {
            kzLog("Found unwanted file %s\n", path.c_str());
            logAndRemove(path + "/" + e->d_name, false);
        } else if (allowedMusicTrack(e->d_name)) {
            count++;
            useKb(entrySize(d.get(), e->d_name));
        }
    }
    return count;
}
