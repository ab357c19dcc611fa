// The music library in memory: artists, albums and tracks of the local disk,
// and a smaller catalogue of the same shape for a USB drive. Tables of fixed
// capacity hold pointers into name heaps that only grow until the library is
// cleared. Appending takes dbMutex; readers take no lock, and counters grow
// only once an entry is complete.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

class NameHeap {
  public:
    NameHeap(const char* what, size_t capacity);
    // Copies name with its terminator; null when it does not fit.
    const char* add(const char* name);
    void clear() { used_ = 0; }
    size_t used() const { return used_; }
    size_t capacity() const { return capacity_; }
    const char* what() const { return what_; }

  private:
    const char* what_;
    std::unique_ptr<char[]> base_;
    size_t capacity_;
    size_t used_ = 0;
};

// Finds the first index whose (parent, name) matches without regard to
// letter case, as a scan from index 0 would. Rebuilt lazily after removals.
class NameIndex {
  public:
    void invalidate() { valid_ = false; }
    bool valid() const { return valid_; }
    void rebuildStart() {
        map_.clear();
        valid_ = true;
    }
    void note(int parent, const char* name, int index);
    int find(int parent, const char* name) const;

  private:
    static std::string key(int parent, const char* name);
    std::unordered_map<std::string, int> map_;
    bool valid_ = false;
};

struct Catalogue {
    Catalogue(int maxTracks, int maxAlbums, int maxArtists, size_t trackHeap, size_t albumHeap,
              size_t artistHeap);
    void clear();

    const int maxTracks, maxAlbums, maxArtists;
    std::unique_ptr<const char*[]> track;
    std::unique_ptr<int32_t[]> parentAlbum;
    std::unique_ptr<const char*[]> album;
    std::unique_ptr<int32_t[]> parentArtist;
    std::unique_ptr<const char*[]> artist;
    std::atomic<int> trackcount{0}, albumcount{0}, artistcount{0};
    NameHeap trackHeap, albumHeap, artistHeap;
    NameIndex artistIndex, albumIndex, trackIndex;
};

class Library {
  public:
    static constexpr int kMaxTracks = 170000;
    static constexpr int kMaxAlbums = 15000;
    static constexpr int kMaxArtists = 6000;
    static constexpr int kMaxUSBTracks = 50000;
    static constexpr int kMaxUSBAlbums = 2000;
    static constexpr int kMaxUSBArtists = 2000;
    static constexpr int kTags = 26;
    static constexpr int kTagNameSize = 200;

    Library();

    Catalogue local;
    Catalogue usb;
    std::unique_ptr<int32_t[]> albumClass;
    std::unique_ptr<int32_t[]> artistClass;
    std::unique_ptr<int32_t[]> sortedAlbums;
    std::unique_ptr<int32_t[]> sortedArtists;
    std::unique_ptr<uint8_t[]> trackInPlaylist, albumInPlaylist, artistInPlaylist;

    char tagNames[kTags][kTagNameSize] = {};
    int tagCount[kTags] = {};
    int32_t orMask = 0x3ffffff;
    int32_t notMask = 0;

    std::string localPath;
    std::string usbPath;
    int currentID = 0;
    int mirrorCount = 0;
    long kbUsed = 0;
    std::atomic<int> dirtybit{0};
    // Counts every change, saved or not: the web pages reload on a new one.
    std::atomic<int> generation{0};
    std::recursive_mutex dbMutex;
};

Library& lib();

// Start-up: empty tables, default masks, the current item track 0, the root.
void initmdb(const std::string& localPath);
const std::string& getLocalPath();
// root + "/music"
std::string getMusicDirectory();
bool isLocalPath(const char* path);
void clearDB();
void clearUSBDB();
void dirty();
bool isDirty();
int libraryGeneration();
void loadPreloadedMedia(int which);

int getMaxTracks();
int getMaxAlbums();
int getMaxArtists();
int getTrackCount();
int getAlbumCount();
int getArtistCount();
int getUSBTrackcount();
int getUSBAlbumcount();
int getUSBArtistcount();

const char* getTrackName(int t);
const char* getAlbumName(int a);
const char* getArtistName(int r);
int getParentAlbum(int t);
int getAlbumArtist(int a);
const char* getTrackAlbumName(int t);
const char* getTrackArtistName(int t);
const char* getParentArtistName(int t);
int getTrackArtist(int t);
const char* getUSBTrackName(int t);
const char* getUSBAlbumName(int a);
const char* getUSBArtistName(int r);
int getUSBParentAlbum(int t);
int getUSBParentArtist(int a);
const char* getUSBParentArtistName(int t);
// The part of a stored USB artist (a path) after its last "/".
const char* cleanUSBArtist(const char* stored);

std::string getTrackPath(int t);
std::string getAlbumPath(int a);
std::string getArtistPath(int r);
std::string getUSBTrackPath(int t);
std::string getUSBAlbumPath(int a);
std::string getTrackNameNoExt(int t);
std::string getUSBTrackNameNoExt(int t);
const char* getTrackExt(int t);
const char* getUSBTrackExt(int t);
const char* getIDTrackExt(int id);
// The title of a track, without number and extension.
std::string getCleanTrackName(int t);
int getTrackOrder(int t);
// The tracks of an album in play order: by track number, then table order.
std::vector<int> albumTrackOrder(int album);
int getUSBTrackOrder(int t);

int findArtistByName(const char* name);
int findUSBArtistByName(const char* name);
int findAlbumByName(const char* name);
int findAlbumByNameAndArtist(const char* name, int artist);
int findUSBAlbumByNameAndArtist(const char* name, int artist);
int findAlbumByNames(const char* album, const char* artistName);
int findTrackByNames(const char* track, const char* album, const char* artistName);
int findTrackByThreeNames(const char* artist, const char* album, const char* track);
int findUSBTrackByThreeNames(const char* artist, const char* album, const char* track);
bool trackAlreadyPresent(const char* track, int album);

// 0 on a full local table (callers then file under index 0); a full local
// name heap stops the program.
int addArtistToDb(const char* name);
int addAlbumToDb(const char* name, int artist);
int addTrackToDb(const char* name, int album);
// Append without looking for an existing entry (the database file lists each
// album once); 0 on a full table.
int appendAlbumToDb(const char* name, int artist);
int appendTrackToDb(const char* name, int album);
// -1 on a full USB table or heap.
int addArtistToUSBDb(const char* name);
int addAlbumToUSBDb(const char* name, int artist);
int addTrackToUSBDb(const char* name, int album);

// Shows "Code <code>", logs the heaps and the track count, and parks the
// calling thread for good: the library is full and nothing may be saved.
[[noreturn]] void exception(int code);
// A local name heap that filled: stops the calling thread as exception does,
// except while the library is rebuilt, where it records code and returns -1
// so that the loader can let go of its locks before it stops.
int heapOverflow(int code);
// The code of the heap that filled (1 tracks, 2 albums, 3 artists), or 0.
int heapFullCode();
void clearHeapFull();

void removeTrack(int t);
void removeAlbum(int a);
void removeArtist(int r);

void setTagName(int tag, const char* name);
const char* getTagName(int tag);

// The web's views of kbUsed.
long getKbUsed();
void setKbUsed(long kb);
