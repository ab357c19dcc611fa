#include "library/library.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "core/log.h"
#include "core/ui.h"
#include "library/database.h"
#include "library/ids.h"
#include "library/names.h"
#include "library/playlists.h"
#include "library/settings.h"

NameHeap::NameHeap(const char* what, size_t capacity)
    : what_(what), base_(new char[capacity]), capacity_(capacity) {}

const char* NameHeap::add(const char* name) {
    size_t len = strlen(name);
    if (used_ + len + 1 >= capacity_ + 1) return nullptr;
    char* copy = base_.get() + used_;
    memcpy(copy, name, len + 1);
    used_ += len + 1;
    return copy;
}

std::string NameIndex::key(int parent, const char* name) {
    std::string k = std::to_string(parent);
    k += '/';
    for (const char* p = name; *p; p++) {
        char c = *p;
        k += (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
    }
    return k;
}

void NameIndex::note(int parent, const char* name, int index) {
    if (valid_) map_.emplace(key(parent, name), index);
}

int NameIndex::find(int parent, const char* name) const {
    auto it = map_.find(key(parent, name));
    return it == map_.end() ? -1 : it->second;
}

Catalogue::Catalogue(int tracks, int albums, int artists, size_t trackHeapSize,
                     size_t albumHeapSize, size_t artistHeapSize)
    : maxTracks(tracks),
      maxAlbums(albums),
      maxArtists(artists),
      track(new const char*[tracks]()),
      parentAlbum(new int32_t[tracks]()),
      album(new const char*[albums]()),
      parentArtist(new int32_t[albums]()),
      artist(new const char*[artists]()),
      trackHeap("track", trackHeapSize),
      albumHeap("album", albumHeapSize),
      artistHeap("artist", artistHeapSize) {}

void Catalogue::clear() {
    trackcount = albumcount = artistcount = 0;
    trackHeap.clear();
    albumHeap.clear();
    artistHeap.clear();
    artistIndex.invalidate();
    albumIndex.invalidate();
    trackIndex.invalidate();
}

Library::Library()
    : local(kMaxTracks, kMaxAlbums, kMaxArtists, 7000000, 900000, 200000),
      usb(kMaxUSBTracks, kMaxUSBAlbums, kMaxUSBArtists, 1000000, 100000, 100000),
      albumClass(new int32_t[kMaxAlbums]()),
      artistClass(new int32_t[kMaxArtists]()),
      sortedAlbums(new int32_t[kMaxAlbums]()),
      sortedArtists(new int32_t[kMaxArtists]()),
      trackInPlaylist(new uint8_t[kMaxTracks]()),
      albumInPlaylist(new uint8_t[kMaxAlbums]()),
      artistInPlaylist(new uint8_t[kMaxArtists]()) {}

Library& lib() {
    // Never destroyed: other threads may still use it while the process ends.
    static Library& library = *new Library;
    return library;
}

namespace {

Catalogue& L() {
    return lib().local;
}
Catalogue& U() {
    return lib().usb;
}

// The indexes answer "first match from index 0"; after removals they are
// rebuilt from the tables on the next look-up.
void ensureArtistIndex(Catalogue& c) {
    if (c.artistIndex.valid()) return;
    c.artistIndex.rebuildStart();
    for (int r = 0; r < c.artistcount; r++)
        c.artistIndex.note(0, c.artist[r], r);
}

void ensureAlbumIndex(Catalogue& c) {
    if (c.albumIndex.valid()) return;
    c.albumIndex.rebuildStart();
    for (int a = 0; a < c.albumcount; a++)
        c.albumIndex.note(c.parentArtist[a], c.album[a], a);
}

void ensureTrackIndex(Catalogue& c) {
    if (c.trackIndex.valid()) return;
    c.trackIndex.rebuildStart();
    for (int t = 0; t < c.trackcount; t++)
        c.trackIndex.note(c.parentAlbum[t], c.track[t], t);
}

// The indexes are shared by every thread: look-ups take the library lock.
int findArtist(Catalogue& c, const char* name) {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    ensureArtistIndex(c);
    return c.artistIndex.find(0, name);
}

int findAlbum(Catalogue& c, const char* name, int artist) {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    ensureAlbumIndex(c);
    return c.albumIndex.find(artist, name);
}

int findTrack(Catalogue& c, const char* name, int album) {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    ensureTrackIndex(c);
    return c.trackIndex.find(album, name);
}

const char* orEmpty(const char* s) {
    return s ? s : "";
}

}  // namespace

void initmdb(const std::string& localPath) {
    Library& l = lib();
    l.localPath = localPath;
    clearDB();
    clearUSBDB();
    for (auto& name : l.tagNames)
        name[0] = 0;
    for (int& count : l.tagCount)
        count = 0;
    l.orMask = 0x3ffffff;
    l.notMask = 0;
    l.currentID = trackToID(0);
    initSettings();
}

const std::string& getLocalPath() {
    return lib().localPath;
}

std::string getMusicDirectory() {
    return lib().localPath + "/music";
}

bool isLocalPath(const char* path) {
    return path && strstr(path, "/media") != nullptr;
}

void clearDB() {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    L().clear();
    lib().mirrorCount = 0;
    playlistsLibraryCleared();
}

void clearUSBDB() {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    U().clear();
}

void dirty() {
    lib().dirtybit = 1;
    lib().generation++;
}
int libraryGeneration() {
    return lib().generation;
}
bool isDirty() {
    return lib().dirtybit != 0;
}
void loadPreloadedMedia(int) {}

int getMaxTracks() {
    return Library::kMaxTracks;
}
int getMaxAlbums() {
    return Library::kMaxAlbums;
}
int getMaxArtists() {
    return Library::kMaxArtists;
}
int getTrackCount() {
    return L().trackcount;
}
int getAlbumCount() {
    return L().albumcount;
}
int getArtistCount() {
    return L().artistcount;
}
int getUSBTrackcount() {
    return U().trackcount;
}
int getUSBAlbumcount() {
    return U().albumcount;
}
int getUSBArtistcount() {
    return U().artistcount;
}

const char* getTrackName(int t) {
    return L().track[t];
}
const char* getAlbumName(int a) {
    return L().album[a];
}
const char* getArtistName(int r) {
    return L().artist[r];
}
int getParentAlbum(int t) {
    return L().parentAlbum[t];
}
int getAlbumArtist(int a) {
    return L().parentArtist[a];
}
const char* getTrackAlbumName(int t) {
    return getAlbumName(getParentAlbum(t));
}
int getTrackArtist(int t) {
    return getAlbumArtist(getParentAlbum(t));
}
const char* getTrackArtistName(int t) {
    return getArtistName(getTrackArtist(t));
}
const char* getParentArtistName(int t) {
    return getTrackArtistName(t);
}
const char* getUSBTrackName(int t) {
    return U().track[t];
}
const char* getUSBAlbumName(int a) {
    return U().album[a];
}
const char* getUSBArtistName(int r) {
    return U().artist[r];
}
int getUSBParentAlbum(int t) {
    return U().parentAlbum[t];
}
int getUSBParentArtist(int a) {
    return U().parentArtist[a];
}
const char* getUSBParentArtistName(int t) {
    return getUSBArtistName(getUSBParentArtist(getUSBParentAlbum(t)));
}

const char* cleanUSBArtist(const char* stored) {
    const char* slash = strrchr(stored, '/');
    return slash ? slash + 1 : stored;
}

std::string getArtistPath(int r) {
    return getMusicDirectory() + "/" + orEmpty(getArtistName(r));
}

std::string getAlbumPath(int a) {
    std::string path = getMusicDirectory();
    const char* artist = getArtistName(getAlbumArtist(a));
    const char* album = getAlbumName(a);
    if (artist) path += std::string("/") + artist;
    if (album) path += std::string("/") + album;
    return path;
}

std::string getTrackPath(int t) {
    return getAlbumPath(getParentAlbum(t)) + "/" + orEmpty(getTrackName(t));
}

std::string getUSBAlbumPath(int a) {
    return std::string(orEmpty(getUSBArtistName(getUSBParentArtist(a)))) + "/" +
           orEmpty(getUSBAlbumName(a));
}

std::string getUSBTrackPath(int t) {
    return getUSBAlbumPath(getUSBParentAlbum(t)) + "/" + orEmpty(getUSBTrackName(t));
}

std::string getTrackNameNoExt(int t) {
    const char* name = getTrackName(t);
    return name ? nameWithoutExtension(name) : "Empty";
}

std::string getUSBTrackNameNoExt(int t) {
    const char* name = getUSBTrackName(t);
    return name ? nameWithoutExtension(name) : "Empty";
}

const char* getTrackExt(int t) {
    return extensionWord(getTrackName(t));
}
const char* getUSBTrackExt(int t) {
    return extensionWord(getUSBTrackName(t));
}
const char* getIDTrackExt(int id) {
    if (idIsUSBTrack(id)) return getUSBTrackExt(idToUSBTrack(id));
    return getTrackExt(idToTrack(id));
}

std::string getCleanTrackName(int t) {
    const char* name = getTrackName(t);
    return cleanTrackName(name ? name : "Empty");
}

int getTrackOrder(int t) {
    return trackOrderOfName(orEmpty(getTrackName(t)));
}
std::vector<int> albumTrackOrder(int album) {
    std::vector<int> tracks;
    for (int t = 0; t < getTrackCount(); t++) {
        if (getParentAlbum(t) == album) tracks.push_back(t);
    }
    std::stable_sort(tracks.begin(), tracks.end(),
                     [](int a, int b) { return getTrackOrder(a) < getTrackOrder(b); });
    return tracks;
}

int getUSBTrackOrder(int t) {
    return trackOrderOfName(orEmpty(getUSBTrackName(t)));
}

int findArtistByName(const char* name) {
    return findArtist(L(), name);
}
int findUSBArtistByName(const char* name) {
    return findArtist(U(), name);
}

int findAlbumByName(const char* name) {
    for (int a = 0; a < getAlbumCount(); a++) {
        if (strcasecmp(getAlbumName(a), name) == 0) return a;
    }
    return -1;
}

int findAlbumByNameAndArtist(const char* name, int artist) {
    return findAlbum(L(), name, artist);
}
int findUSBAlbumByNameAndArtist(const char* name, int artist) {
    return findAlbum(U(), name, artist);
}

int findAlbumByNames(const char* album, const char* artistName) {
    int r = findArtistByName(artistName);
    return r < 0 ? -1 : findAlbumByNameAndArtist(album, r);
}

int findTrackByNames(const char* track, const char* album, const char* artistName) {
    int a = findAlbumByNames(album, artistName);
    return a < 0 ? -1 : findTrack(L(), track, a);
}

int findTrackByThreeNames(const char* artist, const char* album, const char* track) {
    return findTrackByNames(track, album, artist);
}

int findUSBTrackByThreeNames(const char* artist, const char* album, const char* track) {
    int r = findUSBArtistByName(artist);
    if (r < 0) return -1;
    int a = findUSBAlbumByNameAndArtist(album, r);
    return a < 0 ? -1 : findTrack(U(), track, a);
}

bool trackAlreadyPresent(const char* track, int album) {
    return findTrack(L(), track, album) >= 0;
}

void exception(int code) {
    alert(("Code " + std::to_string(code)).c_str(), 100000);
    for (const Catalogue* c : {&L(), &U()}) {
        for (const NameHeap* h : {&c->trackHeap, &c->albumHeap, &c->artistHeap}) {
            kzLog("%s heap %zu of %zu bytes used\n", h->what(), h->used(), h->capacity());
        }
    }
    kzLog("%d Tracks\n", getTrackCount());
    for (;;)
        sleep(1);
}

namespace {
std::atomic<int> fullHeap{0};
}

int heapFullCode() {
    return fullHeap;
}

void clearHeapFull() {
    fullHeap = 0;
}

int heapOverflow(int code) {
    // While the library loads, parking here would keep dbMutex held for good
    // (the callers hold it), freezing the web listener and quit: the
    // insertion fails instead, and the loader parks once it has let go of
    // every lock.
    if (!libraryRebuilding()) exception(code);
    if (fullHeap.exchange(code) == 0) {
        kzLog("Name heap full (code %d): the library stops loading\n", code);
    }
    return -1;
}

int addArtistToDb(const char* name) {
    Catalogue& c = L();
    if (c.artistcount == c.maxArtists) return 0;
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    int existing = findArtist(c, name);
    if (existing >= 0) return existing;
    const char* copy = c.artistHeap.add(name);
    if (!copy) return heapOverflow(3);
    int r = c.artistcount;
    c.artist[r] = copy;
    lib().artistClass[r] = getClassFromName(name);
    c.artistIndex.note(0, copy, r);
    c.artistcount = r + 1;
    dirty();
    return r;
}

namespace {

// Appends an album without looking for an existing one (the database file
// is trusted to list each album once).
int appendAlbum(Catalogue& c, const char* name, int artist, bool local) {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    const char* copy = c.albumHeap.add(name);
    if (!copy) return local ? heapOverflow(2) : -1;
    int a = c.albumcount;
    c.album[a] = copy;
    c.parentArtist[a] = artist;
    if (local) lib().albumClass[a] = getClassFromName(name);
    c.albumIndex.note(artist, copy, a);
    c.albumcount = a + 1;
    return a;
}

int appendTrack(Catalogue& c, const char* name, int album, bool local) {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    const char* copy = c.trackHeap.add(name);
    if (!copy) return local ? heapOverflow(1) : -1;
    int t = c.trackcount;
    c.track[t] = copy;
    c.parentAlbum[t] = album;
    c.trackIndex.note(album, copy, t);
    c.trackcount = t + 1;
    return t;
}

}  // namespace

int appendAlbumToDb(const char* name, int artist) {
    if (L().albumcount >= L().maxAlbums) return 0;
    int a = appendAlbum(L(), name, artist, true);
    dirty();
    return a;
}

int appendTrackToDb(const char* name, int album) {
    if (L().trackcount >= L().maxTracks) return 0;
    int t = appendTrack(L(), name, album, true);
    dirty();
    return t;
}

int addAlbumToDb(const char* name, int artist) {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    int existing = findAlbum(L(), name, artist);
    if (existing >= 0) return existing;
    return appendAlbumToDb(name, artist);
}

int addTrackToDb(const char* name, int album) {
    if (L().trackcount > L().maxTracks - 1) return 0;
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    int existing = findTrack(L(), name, album);
    if (existing >= 0) return existing;
    return appendTrackToDb(name, album);
}

int addArtistToUSBDb(const char* name) {
    Catalogue& c = U();
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    int existing = findArtist(c, name);
    if (existing >= 0) return existing;
    if (c.artistcount >= c.maxArtists) return -1;
    const char* copy = c.artistHeap.add(name);
    if (!copy) {
        kzLog("Error USB Artist Heap Overflow\n");
        return -1;
    }
    int r = c.artistcount;
    c.artist[r] = copy;
    c.artistIndex.note(0, copy, r);
    c.artistcount = r + 1;
    return r;
}

int addAlbumToUSBDb(const char* name, int artist) {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    int existing = findAlbum(U(), name, artist);
    if (existing >= 0) return existing;
    if (U().albumcount >= U().maxAlbums) return -1;
    return appendAlbum(U(), name, artist, false);
}

int addTrackToUSBDb(const char* name, int album) {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    int existing = findTrack(U(), name, album);
    if (existing >= 0) return existing;
    if (U().trackcount >= U().maxTracks) return -1;
    return appendTrack(U(), name, album, false);
}

void removeTrack(int t) {
    {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        Catalogue& c = L();
        int n = c.trackcount;
        if (t < 0 || t >= n) return;
        memmove(&c.track[t], &c.track[t + 1], (n - t - 1) * sizeof(c.track[0]));
        memmove(&c.parentAlbum[t], &c.parentAlbum[t + 1], (n - t - 1) * sizeof(c.parentAlbum[0]));
        c.trackcount = n - 1;
        c.trackIndex.invalidate();
    }
    playlistsTrackRemoved(t);
    dirty();
}

void removeAlbum(int a) {
    {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        Catalogue& c = L();
        int n = c.albumcount;
        if (a < 0 || a >= n) return;
        // Its tracks go first: nothing may point at an album that is gone.
        for (int t = c.trackcount - 1; t >= 0; t--) {
            if (c.parentAlbum[t] == a) removeTrack(t);
        }
        memmove(&c.album[a], &c.album[a + 1], (n - a - 1) * sizeof(c.album[0]));
        memmove(&c.parentArtist[a], &c.parentArtist[a + 1], (n - a - 1) * sizeof(int32_t));
        memmove(&lib().albumClass[a], &lib().albumClass[a + 1], (n - a - 1) * sizeof(int32_t));
        for (int t = 0; t < c.trackcount; t++) {
            if (c.parentAlbum[t] > a) c.parentAlbum[t]--;
        }
        c.albumcount = n - 1;
        c.albumIndex.invalidate();
        c.trackIndex.invalidate();
    }
    playlistsAlbumRemoved(a);
    dirty();
}

void removeArtist(int r) {
    {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        Catalogue& c = L();
        int n = c.artistcount;
        if (r < 0 || r >= n) return;
        for (int a = c.albumcount - 1; a >= 0; a--) {
            if (c.parentArtist[a] == r) removeAlbum(a);
        }
        memmove(&c.artist[r], &c.artist[r + 1], (n - r - 1) * sizeof(c.artist[0]));
        memmove(&lib().artistClass[r], &lib().artistClass[r + 1], (n - r - 1) * sizeof(int32_t));
        for (int a = 0; a < c.albumcount; a++) {
            if (c.parentArtist[a] > r) c.parentArtist[a]--;
        }
        c.artistcount = n - 1;
        c.artistIndex.invalidate();
        c.albumIndex.invalidate();
    }
    playlistsArtistRemoved(r);
    dirty();
}

void setTagName(int tag, const char* name) {
    if (tag < 0 || tag >= Library::kTags || !name) return;
    snprintf(lib().tagNames[tag], Library::kTagNameSize, "%s", name);
    saveSettings();
}

const char* getTagName(int tag) {
    if (tag < 0 || tag >= Library::kTags) return "";
    return lib().tagNames[tag];
}

long getKbUsed() {
    return lib().kbUsed;
}
void setKbUsed(long kb) {
    lib().kbUsed = kb;
}
