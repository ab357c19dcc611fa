#include "library/playlists.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <random>

#include "core/files.h"
#include "core/log.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/settings.h"

// The file, one item per line:
//   kzplaylists 1
//   Playlist            then its name, then one entry per group below
//   Track               artist, album, track file name
//   Album               artist, album
//   Artist              artist
//   End                 closes the playlist
// Names are whole lines, so a name is never parsed for separators.

namespace {

struct Playlist {
    std::string name;
    std::vector<int> ids;
};

// Guarded by the library's lock: playlists are resolved against the tables
// and fixed up from inside their removals, so one lock serves both.
struct State {
    std::vector<Playlist> lists;
    // False between a library clear and the next load: ids mean nothing then.
    bool resolved = false;
    int pendingGuest = -1;
    // Read without the lock: the output thread asks it once a period, and
    // must not wait behind a library save.
    std::atomic<int> playing{-1};
    std::atomic<int> queued{0};  // entries of the queue
    std::atomic<int> generation{0};
    std::vector<int> order;  // tracks of the playing playlist
    int position = 0;
};

State& P() {
    // Never destroyed: a detached save may still run while the process ends.
    static State& s = *new State;
    return s;
}

struct Lock {
    std::lock_guard<std::recursive_mutex> g{lib().dbMutex};
};

std::string playlistsPath() {
    return getLocalPath() + "/kzplaylists";
}

bool validItem(int id) {
    if (idIsTrack(id)) return idToTrack(id) < getTrackCount();
    if (idIsAlbum(id)) return idToAlbum(id) < getAlbumCount();
    if (idIsArtist(id)) return idToArtist(id) < getArtistCount();
    return false;
}

// The membership flags of the library tables follow the playlists.
void updateFlags() {
    Library& l = lib();
    std::fill_n(l.trackInPlaylist.get(), Library::kMaxTracks, 0);
    std::fill_n(l.albumInPlaylist.get(), Library::kMaxAlbums, 0);
    std::fill_n(l.artistInPlaylist.get(), Library::kMaxArtists, 0);
    int queued = 0;
    for (const Playlist& p : P().lists) {
        if (p.name == "Queue") queued = static_cast<int>(p.ids.size());
        for (int id : p.ids) {
            if (!validItem(id)) continue;
            if (idIsTrack(id)) l.trackInPlaylist[idToTrack(id)] = 1;
            if (idIsAlbum(id)) l.albumInPlaylist[idToAlbum(id)] = 1;
            if (idIsArtist(id)) l.artistInPlaylist[idToArtist(id)] = 1;
        }
    }
    P().queued = queued;
}

std::vector<int> expand(const std::vector<int>& ids) {
    std::vector<int> tracks;
    for (int id : ids) {
        if (!validItem(id)) continue;
        if (idIsTrack(id)) {
            tracks.push_back(idToTrack(id));
        } else if (idIsAlbum(id)) {
            for (int t : albumTrackOrder(idToAlbum(id)))
                tracks.push_back(t);
        } else {
            for (int a = 0; a < getAlbumCount(); a++) {
                if (getAlbumArtist(a) != idToArtist(id)) continue;
                for (int t : albumTrackOrder(a))
                    tracks.push_back(t);
            }
        }
    }
    return tracks;
}

std::mt19937& rng() {
    static std::mt19937 r{std::random_device{}()};
    return r;
}

bool writeEntry(FILE* f, int id) {
    if (!validItem(id)) return true;
    if (idIsTrack(id)) {
        int t = idToTrack(id);
        return fprintf(f, "Track\n%s\n%s\n%s\n", getTrackArtistName(t), getTrackAlbumName(t),
                       getTrackName(t)) > 0;
    }
    if (idIsAlbum(id)) {
        int a = idToAlbum(id);
        return fprintf(f, "Album\n%s\n%s\n", getArtistName(getAlbumArtist(a)), getAlbumName(a)) > 0;
    }
    return fprintf(f, "Artist\n%s\n", getArtistName(idToArtist(id))) > 0;
}

bool readLine(FILE* f, std::string& line) {
    line.clear();
    int c;
    while ((c = getc(f)) != EOF && c != '\n') {
        if (line.size() < 1000) line += static_cast<char>(c);
    }
    return c != EOF || !line.empty();
}

void applyGuest() {
    State& s = P();
    if (s.pendingGuest < 0 || !s.resolved) return;
    int guest = s.pendingGuest;
    s.pendingGuest = -1;
    int first = startPlaylistPlayback(guest, 0, false);
    if (first >= 0) lib().currentID = trackToID(first);
}

// After a removal the playing order may point past the table.
void fixOrder(int removedTrack) {
    State& s = P();
    for (size_t i = 0; i < s.order.size();) {
        if (s.order[i] == removedTrack) {
            s.order.erase(s.order.begin() + static_cast<long>(i));
            if (static_cast<int>(i) < s.position) s.position--;
            continue;
        }
        if (s.order[i] > removedTrack) s.order[i]--;
        i++;
    }
    s.position = std::max(0, s.position);
}

void removed(int base, int index) {
    State& s = P();
    Lock g;
    if (!s.resolved) return;
    for (Playlist& p : s.lists) {
        std::vector<int> kept;
        for (int id : p.ids) {
            if (idInBand(id, base)) {
                if (id == base + index) continue;
                if (id > base + index) id--;
            }
            kept.push_back(id);
        }
        p.ids = std::move(kept);
    }
    if (base == TRACK_BASE) fixOrder(index);
    updateFlags();
}

}  // namespace

void initPlaylists() {
    State& s = P();
    Lock g;
    s.lists.clear();
    s.resolved = false;
    s.playing = -1;
    s.order.clear();
}

void loadPlaylist(int index) {
    State& s = P();
    Lock g;
    s.pendingGuest = index;
    applyGuest();
}

void loadPlaylists() {
    State& s = P();
    Lock g;
    s.lists.clear();
    s.playing = -1;
    s.order.clear();
    s.resolved = true;
    File f(fopen(playlistsPath().c_str(), "r"));
    if (f) {
        std::string line, a, b, c;
        readLine(f.get(), line);
        if (line != "kzplaylists 1") {
            kzLog("loadPlaylists () %s is not a playlists file\n", playlistsPath().c_str());
        } else {
            Playlist* current = nullptr;
            int lost = 0;
            while (readLine(f.get(), line)) {
                if (line == "Playlist") {
                    if (!readLine(f.get(), a) || a.empty()) break;
                    if (static_cast<int>(s.lists.size()) >= kMaxPlaylists) break;
                    s.lists.push_back({a, {}});
                    current = &s.lists.back();
                    continue;
                }
                if (line == "End") {
                    current = nullptr;
                    continue;
                }
                int id = -1;
                bool ok = true;
                if (line == "Track") {
                    ok = readLine(f.get(), a) && readLine(f.get(), b) && readLine(f.get(), c);
                    int t = ok ? findTrackByThreeNames(a.c_str(), b.c_str(), c.c_str()) : -1;
                    if (t >= 0) id = trackToID(t);
                } else if (line == "Album") {
                    ok = readLine(f.get(), a) && readLine(f.get(), b);
                    int al = ok ? findAlbumByNames(b.c_str(), a.c_str()) : -1;
                    if (al >= 0) id = albumToID(al);
                } else if (line == "Artist") {
                    ok = readLine(f.get(), a);
                    int r = ok ? findArtistByName(a.c_str()) : -1;
                    if (r >= 0) id = artistToID(r);
                } else {
                    kzLog("loadPlaylists () unknown line <%s>\n", line.c_str());
                    break;
                }
                if (!ok) break;
                if (!current) continue;
                if (id < 0) {
                    lost++;
                } else if (static_cast<int>(current->ids.size()) < kMaxPlaylistEntries) {
                    current->ids.push_back(id);
                }
            }
            if (lost) kzLog("loadPlaylists () %d entries are no longer in the library\n", lost);
        }
    }
    kzLog("%d playlists\n", static_cast<int>(s.lists.size()));
    updateFlags();
    applyGuest();
}

void savePlaylists() {
    State& s = P();
    Lock g;
    // Every change is saved: the count tells open pages to read again.
    s.generation++;
    if (!s.resolved || getLocalPath().empty()) return;
    bool ok = writeFileAtomically(playlistsPath(), [&s](FILE* f) {
        if (fprintf(f, "kzplaylists 1\n") < 0) return false;
        for (const Playlist& p : s.lists) {
            if (fprintf(f, "Playlist\n%s\n", p.name.c_str()) < 0) return false;
            for (int id : p.ids) {
                if (!writeEntry(f, id)) return false;
            }
            if (fprintf(f, "End\n") < 0) return false;
        }
        return true;
    });
    if (!ok) kzLog("savePlaylists () cannot write %s\n", playlistsPath().c_str());
}

void playlistsLibraryCleared() {
    State& s = P();
    Lock g;
    s.resolved = false;
    s.playing = -1;
    s.order.clear();
}

int getPlaylistCount() {
    Lock g;
    return static_cast<int>(P().lists.size());
}

std::string getPlaylistName(int index) {
    Lock g;
    if (index < 0 || index >= static_cast<int>(P().lists.size())) return "";
    return P().lists[index].name;
}

std::vector<int> getPlaylistEntries(int index) {
    Lock g;
    if (index < 0 || index >= static_cast<int>(P().lists.size())) return {};
    return P().lists[index].ids;
}

int findPlaylistByName(const std::string& name) {
    Lock g;
    for (size_t i = 0; i < P().lists.size(); i++) {
        if (P().lists[i].name == name) return static_cast<int>(i);
    }
    return -1;
}

int newPlaylist(const std::string& name) {
    State& s = P();
    Lock g;
    if (name.empty() || name.find('\n') != std::string::npos || !s.resolved) return -1;
    int existing = findPlaylistByName(name);
    if (existing >= 0) return existing;
    if (static_cast<int>(s.lists.size()) >= kMaxPlaylists) {
        kzLog("newPlaylist () too many playlists\n");
        return -1;
    }
    s.lists.push_back({name, {}});
    savePlaylists();
    return static_cast<int>(s.lists.size()) - 1;
}

bool addToPlaylist(int index, int id, int position) {
    State& s = P();
    Lock g;
    if (index < 0 || index >= static_cast<int>(s.lists.size()) || !validItem(id)) return false;
    std::vector<int>& ids = s.lists[index].ids;
    if (static_cast<int>(ids.size()) >= kMaxPlaylistEntries) return false;
    size_t at = std::min(static_cast<size_t>(std::max(position, 0)), ids.size());
    ids.insert(ids.begin() + static_cast<long>(at), id);
    if (s.playing == index) {
        // Tracks added to what plays come after what is already lined up.
        for (int t : expand({id}))
            s.order.push_back(t);
    }
    updateFlags();
    savePlaylists();
    return true;
}

bool removeFromPlaylist(int index, int position) {
    State& s = P();
    Lock g;
    if (index < 0 || index >= static_cast<int>(s.lists.size())) return false;
    std::vector<int>& ids = s.lists[index].ids;
    if (position < 0 || position >= static_cast<int>(ids.size())) return false;
    ids.erase(ids.begin() + position);
    updateFlags();
    savePlaylists();
    return true;
}

bool deletePlaylist(int index) {
    State& s = P();
    Lock g;
    if (index < 0 || index >= static_cast<int>(s.lists.size())) return false;
    s.lists.erase(s.lists.begin() + index);
    if (s.playing == index) {
        s.playing = -1;
        s.order.clear();
    } else if (s.playing > index) {
        s.playing--;
    }
    int guest = getGuestModePlaylist();
    if (guest == index) setGuestModePlaylist(-1);
    if (guest > index) setGuestModePlaylist(guest - 1);
    updateFlags();
    savePlaylists();
    return true;
}

bool renamePlaylist(int index, const std::string& name) {
    State& s = P();
    Lock g;
    if (index < 0 || index >= static_cast<int>(s.lists.size()) || name.empty() ||
        name.find('\n') != std::string::npos) {
        return false;
    }
    int other = findPlaylistByName(name);
    if (other >= 0 && other != index) return false;
    s.lists[index].name = name;
    savePlaylists();
    return true;
}

bool mixPlaylist(int index) {
    State& s = P();
    Lock g;
    if (index < 0 || index >= static_cast<int>(s.lists.size())) return false;
    std::shuffle(s.lists[index].ids.begin(), s.lists[index].ids.end(), rng());
    savePlaylists();
    return true;
}

int takeQueuedTrack() {
    State& s = P();
    Lock g;
    int index = findPlaylistByName("Queue");
    if (index < 0) return -1;
    std::vector<int>& ids = s.lists[index].ids;
    while (!ids.empty()) {
        int id = ids.front();
        ids.erase(ids.begin());
        std::vector<int> tracks = expand({id});
        if (tracks.empty()) continue;
        // The rest of an album or artist waits at the front, as tracks.
        for (size_t i = tracks.size() - 1; i > 0; i--)
            ids.insert(ids.begin(), trackToID(tracks[i]));
        if (s.playing == index) stopPlaylistPlayback();
        updateFlags();
        savePlaylists();
        return tracks.front();
    }
    return -1;
}

int playlistsGeneration() {
    return P().generation;
}

bool hasQueuedTracks() {
    return P().queued > 0;
}

bool clearQueue() {
    State& s = P();
    Lock g;
    int index = findPlaylistByName("Queue");
    if (index < 0) return false;
    s.lists[index].ids.clear();
    if (s.playing == index) stopPlaylistPlayback();
    updateFlags();
    savePlaylists();
    return true;
}

int getQueuePlaylist() {
    Lock g;
    int q = findPlaylistByName("Queue");
    if (q >= 0) return q;
    kzLog("creating Queue playlist\n");
    return newPlaylist("Queue");
}

int startPlaylistPlayback(int index, int fromId, bool shuffled) {
    State& s = P();
    Lock g;
    if (index < 0 || index >= static_cast<int>(s.lists.size())) return -1;
    const std::vector<int>& ids = s.lists[index].ids;
    size_t from = 0;
    if (fromId) {
        auto it = std::find(ids.begin(), ids.end(), fromId);
        if (it != ids.end()) from = static_cast<size_t>(it - ids.begin());
    }
    std::vector<int> order =
        expand(std::vector<int>(ids.begin() + static_cast<long>(from), ids.end()));
    if (order.empty()) return -1;
    if (shuffled) std::shuffle(order.begin(), order.end(), rng());
    s.playing = index;
    s.order = std::move(order);
    s.position = 0;
    return s.order[0];
}

bool isPlaylistPlaying() {
    return getPlayingPlaylist() >= 0;
}

int getPlayingPlaylist() {
    return P().playing;
}

int playlistNextTrack() {
    State& s = P();
    Lock g;
    if (s.playing < 0 || s.position + 1 >= static_cast<int>(s.order.size())) return -1;
    return s.order[++s.position];
}

int playlistPrevTrack() {
    State& s = P();
    Lock g;
    if (s.playing < 0 || s.order.empty()) return -1;
    if (s.position > 0) s.position--;
    return s.order[std::min(s.position, static_cast<int>(s.order.size()) - 1)];
}

void stopPlaylistPlayback() {
    State& s = P();
    Lock g;
    s.playing = -1;
    s.order.clear();
    s.position = 0;
}

void playlistsTrackRemoved(int track) {
    removed(TRACK_BASE, track);
}
void playlistsAlbumRemoved(int album) {
    removed(ALBUM_BASE, album);
}
void playlistsArtistRemoved(int artist) {
    removed(ARTIST_BASE, artist);
}
