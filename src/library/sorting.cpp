#include "library/sorting.h"

#include <strings.h>

#include <algorithm>
#include <mutex>
#include <numeric>
#include <random>
#include <string>

#include "library/library.h"
#include "library/names.h"
#include "library/settings.h"

namespace {

constexpr int32_t kAllTags = 0x3ffffff;

struct Shuffle {
    std::vector<int> order;
    std::vector<int> position;  // by track
};

Shuffle& shuffleState() {
    static Shuffle& s = *new Shuffle;
    return s;
}

// The shown counts are set when the sort runs; the lists are copied out
// under the library lock, so a sort on another thread never tears them.
int sortedAlbumCount = 0;
int sortedArtistCount = 0;

std::string sortKey(const char* name, bool artist) {
    std::string key = stripClass(name);
    if (artist && strncasecmp(key.c_str(), "The ", 4) == 0) key.erase(0, 4);
    for (char& c : key) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return key;
}

void sortTable(int32_t* out, int count, const char* (*name)(int), bool artist) {
    std::vector<int> order(count);
    std::iota(order.begin(), order.end(), 0);
    if (isSorted()) {
        std::vector<std::string> keys(count);
        for (int i = 0; i < count; i++)
            keys[i] = sortKey(name(i), artist);
        std::stable_sort(order.begin(), order.end(),
                         [&keys](int a, int b) { return keys[a] < keys[b]; });
    }
    if (isReversed()) std::reverse(order.begin(), order.end());
    std::copy(order.begin(), order.end(), out);
}

bool visible(int32_t cls) {
    const Library& l = lib();
    if (cls & l.notMask) return false;
    return (l.orMask & kAllTags) == kAllTags || (cls & l.orMask) != 0;
}

}  // namespace

void rebuildShuffle() {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    Shuffle& s = shuffleState();
    int n = getTrackCount();
    s.order.resize(n);
    std::iota(s.order.begin(), s.order.end(), 0);
    static std::mt19937 rng{std::random_device{}()};
    std::shuffle(s.order.begin(), s.order.end(), rng);
    s.position.assign(n, 0);
    for (int i = 0; i < n; i++)
        s.position[s.order[i]] = i;
}

int shuffleNext(int t) {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    Shuffle& s = shuffleState();
    // Tracks added since the last rebuild are not in the order yet.
    if (static_cast<int>(s.order.size()) != getTrackCount()) rebuildShuffle();
    if (s.order.empty()) return -1;
    if (t < 0 || t >= static_cast<int>(s.position.size())) return s.order[0];
    return s.order[(s.position[t] + 1) % s.order.size()];
}

void sortAlbumsAndArtists() {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    Library& l = lib();
    sortedAlbumCount = getAlbumCount();
    sortedArtistCount = getArtistCount();
    sortTable(l.sortedAlbums.get(), sortedAlbumCount, getAlbumName, false);
    sortTable(l.sortedArtists.get(), sortedArtistCount, getArtistName, true);
    for (int& c : l.tagCount)
        c = 0;
    for (int a = 0; a < sortedAlbumCount; a++) {
        for (int tag = 0; tag < Library::kTags; tag++) {
            if (l.albumClass[a] & (1 << tag)) l.tagCount[tag]++;
        }
    }
}

// A table that changed size since the last sort (a rip, a removal) is
// sorted again before it is shown.
std::vector<int> artistsInDisplayOrder() {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    if (sortedArtistCount != getArtistCount()) sortAlbumsAndArtists();
    return std::vector<int>(lib().sortedArtists.get(),
                            lib().sortedArtists.get() + sortedArtistCount);
}

std::vector<int> albumsInDisplayOrder() {
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    if (sortedAlbumCount != getAlbumCount()) sortAlbumsAndArtists();
    return std::vector<int>(lib().sortedAlbums.get(), lib().sortedAlbums.get() + sortedAlbumCount);
}

bool albumVisible(int a) {
    if (a < 0 || a >= getAlbumCount()) return false;
    return visible(lib().albumClass[a] | lib().artistClass[getAlbumArtist(a)]);
}

bool artistVisible(int r) {
    if (r < 0 || r >= getArtistCount()) return false;
    return visible(lib().artistClass[r]);
}

bool trackVisible(int t) {
    return t >= 0 && t < getTrackCount() && albumVisible(getParentAlbum(t));
}
