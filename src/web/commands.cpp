#include "web/commands.h"

#include <strings.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "core/events.h"
#include "core/keys.h"
#include "core/log.h"
#include "core/shutdown.h"
#include "library/database.h"
#include "library/edit.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/names.h"
#include "library/playlists.h"
#include "library/scan.h"
#include "library/settings.h"
#include "library/sorting.h"
#include "playback/control.h"
#include "playback/output.h"
#include "playback/snapcast.h"
#include "radio/directory.h"
#include "radio/radio.h"
#include "radio/stations.h"
#include "ripping/cdrom.h"
#include "ripping/compress.h"
#include "ripping/lookup.h"
#include "ripping/ripper.h"
#include "sonos/zones.h"
#include "web/params.h"
#include "web/status.h"
#include "web/usbweb.h"
#include "web/web.h"

// The version is the project's, from CMakeLists.txt (the package has the same).
#ifndef KZ_VERSION
#define KZ_VERSION "0"
#endif

namespace {

// What a handler is given: the whole URI, the text right after the command
// word, and the URI from the command word on.
struct Request {
    const char* uri;
    const char* after;
    const char* from;
    FcgiReply* reply;
};

using Handler = void (*)(const Request&);

// A decimal number with an optional "-", held to the int range: a huge value
// must neither overflow nor wrap round onto a small one. 0 when absent.
int toInt(const char* text) {
    if (!text) return 0;
    bool negative = *text == '-';
    if (negative) text++;
    long long v = 0;
    while (*text >= '0' && *text <= '9') {
        v = std::min<long long>(v * 10 + (*text++ - '0'), 1LL + INT_MAX);
    }
    if (negative) return static_cast<int>(-v < INT_MIN ? INT_MIN : -v);
    return static_cast<int>(std::min<long long>(v, INT_MAX));
}

int clampInt(int v, int low, int high) {
    return v < low ? low : v > high ? high : v;
}

// The value word of a settings command: after the command word, past any
// "&name=", up to the next "&", percent-decoded.
std::string settingWord(const Request& r) {
    const char* p = r.after;
    const char* eq = strchr(p, '=');
    const char* amp = strchr(p, '&');
    if (eq && (!amp || eq < amp || amp == p)) p = eq + 1;
    while (*p == '&' || *p == '/')
        p++;
    char word[200];
    stripPercentagesFromURL(word, p, sizeof word);
    return word;
}

// Plays the playlist from its entry holding fromId (0: its start).
void playPlaylist(int index, int fromId) {
    int first = startPlaylistPlayback(index, fromId, getRandomMode() != 0);
    if (first < 0) {
        kzLog("Playlist %d has nothing to play\n", index);
        return;
    }
    if (getSelectedSource() != SEL_HDD) selectHDD();
    startPlayingLocalID(trackToID(first));
}

void playByKind(int id) {
    // Choosing anything else leaves the playlist that plays.
    if (!idIsPlaylist(id)) stopPlaylistPlayback();
    if (idIsTrack(id) || idIsAlbum(id) || idIsArtist(id)) {
        if (getSelectedSource() != SEL_HDD) selectHDD();
        startPlayingID(id);
    } else if (idIsUSBTrack(id)) {
        kzLog("Attempting to play USB Track\n");
        startPlayingID(id);
    } else if (idIsUSBAlbum(id) || idIsUSBArtist(id)) {
        kzLog(idIsUSBAlbum(id) ? "Attempting to play USB Album\n"
                               : "Attempting to play USB Artist\n");
        for (int t = 0; t < getUSBTrackcount(); t++) {
            int a = getUSBParentAlbum(t);
            if ((idIsUSBAlbum(id) && a == idToUSBAlbum(id)) ||
                (idIsUSBArtist(id) && getUSBParentArtist(a) == idToUSBArtist(id))) {
                startPlayingID(USBTrackToID(t));
                break;
            }
        }
    } else if (idIsPlaylist(id)) {
        kzLog("ID %d is a Playlist\n", id);
        playPlaylist(idToPlaylist(id), 0);
    } else if (idIsPreset(id)) {
        kzLog("preset %d is a NOT a Playlist\n", idToPreset(id));
        playPreset(idToPreset(id));
    } else if (idIsRadio(id)) {
        kzLog("webPlayID () Radio URL=%s\n", stationList().get(idToRadio(id)).url.c_str());
        startPlayingInternetRadioS(idToRadio(id));
    } else if (idIsCDTrack(id)) {
        int index = idToCDTrack(id);
        if (testUnitReady() == CD_READY && index < currentToc().numTracks()) {
            if (getSelectedSource() != SEL_CD) selectCD();
            startPlayingCD(index);
        } else {
            kzLog("webPlayID () no CD track %d\n", index);
        }
    } else {
        kzLog("webPlayID () cannot play %d\n", id);
    }
    addEvent(80);
}

// "&sonos=N" (N not 0) names networked zone N-1; -1 when the command is
// for this box, which is then the zone in use.
int sonosZoneOf(const Request& r) {
    const char* v = findParameter(r.uri, "&sonos=");
    if (!v || toInt(v) == 0) {
        sonosUseBox();
        return -1;
    }
    return toInt(v) - 1;
}

void webPlay(const Request& r) {
    int zone = sonosZoneOf(r);
    int id = getIdParameter(r.uri);
    if (zone >= 0)
        sonosPlayId(zone, id);
    else if (id >= 0)
        playByKind(id);
}

void webSetCompression(const Request& r) {
    std::string w = settingWord(r);
    const char* names[] = {"flac", "mp3 128k", "mp3 256k", "none", "flac+mp3"};
    for (int i = 0; i < 5; i++) {
        if (strcasecmp(w.c_str(), names[i]) == 0) {
            setCompressionMode(i);
            kickCompression();
        }
    }
    r.reply->text = "[]";
}

void webSetLogging(const Request& r) {
    std::string w = settingWord(r);
    if (strcasecmp(w.c_str(), "normal") == 0) {
        setLoggingMode(0);
    } else if (strcasecmp(w.c_str(), "file") == 0) {
        setLoggingMode(1);
    } else if (strcasecmp(w.c_str(), "tv off") == 0) {
        setLoggingMode(2);
    } else {
        kzLog("webSetLogging unrecognized <%s>\n", w.c_str());
    }
    r.reply->text = "[]";
}

void webSetSegue(const Request& r) {
    std::string w = settingWord(r);
    setSegue(strcasecmp(w.c_str(), "off") == 0 ? 0 : strcasecmp(w.c_str(), "short") == 0 ? 2 : 1);
    r.reply->text = "[]";
}

void webSetRandom(const Request& r) {
    const char* v = findParameter(r.from, "&random=");
    if (v) setRandomMode(toInt(v));
    r.reply->text = "[]";
}

void webSetSorted(const Request& r) {
    const char* s = findParameter(r.from, "&sorted=");
    const char* v = findParameter(r.from, "&reversed=");
    if (s) setSorted(toInt(s));
    if (v) setReversed(toInt(v));
    if (s || v) sortAlbumsAndArtists();
    r.reply->text = "[]";
}

void webRenameID(const Request& r) {
    const char* p = r.after;
    int id = 0;
    const char* name = findParameter(p, "&name=");
    if (getNumericParameter(&p, "&id=", &id) && name) {
        char text[200];
        stripPercentagesFromURLTail(text, name, sizeof text);
        lockQueue();
        if (idIsPlaylist(id)) {
            if (badName(text)) {
                kzLog("badName in renameID\n");
            } else {
                renamePlaylist(idToPlaylist(id), text);
            }
        } else {
            renameID(id, text);
        }
        unlockQueue();
    }
    r.reply->text = "[]";
}

void webDeleteID(const Request& r) {
    const char* p = r.after;
    int id = 0;
    if (getNumericParameter(&p, "&id=", &id)) {
        lockQueue();
        if (idIsPlaylist(id)) {
            deletePlaylist(idToPlaylist(id));
        } else {
            deleteID(id);
        }
        unlockQueue();
    }
    r.reply->text = "[]";
}

// Lists stop before 59,999 bytes: an element that would pass the limit is
// left out with everything after it, and the list still closes.
class JsonList {
  public:
    bool add(const std::string& element) {
        size_t extra = element.size() + (count_ ? 1 : 0);
        if (text_.size() + extra + 1 > 59999) return false;
        if (count_++) text_ += ',';
        text_ += element;
        return true;
    }
    const char* finish() {
        text_ += ']';
        return text_.c_str();
    }

  private:
    std::string text_ = "[";
    int count_ = 0;
};

std::string idName(int id, const std::string& name) {
    return "{\"id\":" + std::to_string(id) + ",\"name\":" + quoted(name.c_str()) + "}";
}

thread_local std::string replyText;

const char* keep(std::string text) {
    replyText = std::move(text);
    return replyText.c_str();
}

void webGetParent(const Request& r) {
    r.reply->text = keep("{\"id\":" + std::to_string(getParentId(getIdParameter(r.uri))) + "}");
}

void webListAlbum(const Request& r) {
    int id = getIdParameter(r.uri);
    static thread_local JsonList list;
    list = JsonList();
    if (idIsAlbum(id) && idToAlbum(id) < getAlbumCount()) {
        for (int t : albumTrackOrder(idToAlbum(id))) {
            if (!list.add(idName(trackToID(t), getCleanTrackName(t)))) break;
        }
    } else if (idIsUSBAlbum(id) && idToUSBAlbum(id) < getUSBAlbumcount()) {
        for (int t = 0; t < getUSBTrackcount(); t++) {
            if (getUSBParentAlbum(t) == idToUSBAlbum(id) &&
                !list.add(idName(USBTrackToID(t), ::idName(USBTrackToID(t))))) {
                break;
            }
        }
    }
    r.reply->text = list.finish();
}

void webListArtist(const Request& r) {
    int id = getIdParameter(r.uri);
    static thread_local JsonList list;
    list = JsonList();
    if (idIsArtist(id)) {
        for (int a : albumsInDisplayOrder()) {
            if (getAlbumArtist(a) == idToArtist(id) && albumVisible(a) &&
                !list.add(idName(albumToID(a), getAlbumName(a))))
                break;
        }
    } else if (idIsUSBArtist(id)) {
        for (int a = 0; a < getUSBAlbumcount(); a++) {
            if (getUSBParentArtist(a) == idToUSBArtist(id) &&
                !list.add(idName(USBAlbumToID(a), getUSBAlbumName(a)))) {
                break;
            }
        }
    }
    r.reply->text = list.finish();
}

void webAlbumDetails(const Request& r) {
    int id = getIdParameter(r.uri);
    if (!idIsAlbum(id) || idToAlbum(id) >= getAlbumCount()) {
        r.reply->text = "[]";
        return;
    }
    int a = idToAlbum(id);
    r.reply->text = keep("{\"name\":" + quoted(getAlbumName(a)) +
                         ",\"trackcount\":" + std::to_string(albumTrackOrder(a).size()) +
                         ",\"artist\":" + quoted(getArtistName(getAlbumArtist(a))) + "}");
}

void webArtistDetails(const Request& r) {
    int id = getIdParameter(r.uri);
    if (!idIsArtist(id) || idToArtist(id) >= getArtistCount()) {
        r.reply->text = "[]";
        return;
    }
    int albums = 0;
    for (int a = 0; a < getAlbumCount(); a++)
        albums += getAlbumArtist(a) == idToArtist(id);
    r.reply->text = keep("{\"name\":" + quoted(getArtistName(idToArtist(id))) +
                         ",\"albumcount\":" + std::to_string(albums) + "}");
}

// The item object of one search result.
std::string itemObject(int id) {
    std::string head = "{\"id\":" + std::to_string(id);
    if (idIsTrack(id) || idIsUSBTrack(id)) {
        bool usb = idIsUSBTrack(id);
        int t = usb ? idToUSBTrack(id) : idToTrack(id);
        int a = usb ? getUSBParentAlbum(t) : getParentAlbum(t);
        const char* artist = usb ? cleanUSBArtist(getUSBArtistName(getUSBParentArtist(a)))
                                 : getArtistName(getAlbumArtist(a));
        std::string track = usb ? getUSBTrackNameNoExt(t) : getTrackNameNoExt(t);
        return head + ",\"artist\":" + quoted(artist) +
               ",\"album\":" + quoted(usb ? getUSBAlbumName(a) : getAlbumName(a)) +
               ",\"track\":" + quoted(track.c_str()) + "}";
    }
    if (idIsAlbum(id) || idIsUSBAlbum(id)) {
        bool usb = idIsUSBAlbum(id);
        int a = usb ? idToUSBAlbum(id) : idToAlbum(id);
        const char* artist = usb ? cleanUSBArtist(getUSBArtistName(getUSBParentArtist(a)))
                                 : getArtistName(getAlbumArtist(a));
        return head + ",\"artist\":" + quoted(artist) +
               ",\"album\":" + quoted(usb ? getUSBAlbumName(a) : getAlbumName(a)) + "}";
    }
    if (idIsRadio(id))
        return head + ",\"radio\":" + quoted(getRadioName(idToRadio(id)).c_str()) + "}";
    if (idIsArtist(id)) return head + ",\"artist\":" + quoted(getArtistName(idToArtist(id))) + "}";
    if (idIsUSBArtist(id)) {
        return head + ",\"artist\":" + quoted(cleanUSBArtist(getUSBArtistName(idToUSBArtist(id)))) +
               "}";
    }
    return head + ",\"artist\":\"dummy\"}";
}

bool containsNoCase(const char* hay, const std::string& needle) {
    return needle.empty() || findNoCase(hay, needle.c_str()) != nullptr;
}

int flag(const char* uri, const char* name) {
    const char* v = findParameter(uri, name);
    return v ? toInt(v) : 1;
}

// Artists, then albums, then tracks whose names hold the text (any case).
void webSearch3(const Request& r) {
    char text[200] = "";
    const char* v = findParameter(r.uri, "&string=");
    if (v) stripPercentagesFromURLTail(text, v, sizeof text);
    std::string needle = text;
    int offset = 0, count = 500;
    if ((v = findParameter(r.uri, "&offset="))) offset = std::max(0, toInt(v));
    if ((v = findParameter(r.uri, "&count="))) count = std::min(1000, std::max(0, toInt(v)));
    int playlist = -1;
    if ((v = findParameter(r.uri, "&playlist="))) {
        playlist = toInt(v);
        if (idIsPlaylist(playlist)) playlist = idToPlaylist(playlist);
    }
    std::vector<int> found;
    if (playlist >= 0) {
        // Within one playlist: its entries whose names hold the text.
        for (int id : getPlaylistEntries(playlist)) {
            const char* name = idIsTrack(id)   ? getTrackName(idToTrack(id))
                               : idIsAlbum(id) ? getAlbumName(idToAlbum(id))
                                               : getArtistName(idToArtist(id));
            if (containsNoCase(name, needle)) found.push_back(id);
        }
    } else {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        if (flag(r.uri, "&artists=")) {
            for (int a : artistsInDisplayOrder()) {
                if (artistVisible(a) && containsNoCase(getArtistName(a), needle)) {
                    found.push_back(artistToID(a));
                }
            }
        }
        std::vector<int> albums = albumsInDisplayOrder();
        if (flag(r.uri, "&albums=")) {
            for (int a : albums) {
                if (albumVisible(a) && containsNoCase(getAlbumName(a), needle)) {
                    found.push_back(albumToID(a));
                }
            }
        }
        if (flag(r.uri, "&tracks=")) {
            // Tracks in the albums' display order, bucketed by album in one
            // pass (each album's tracks in table order).
            const int albumCount = getAlbumCount();
            auto inRange = [albumCount](int a) { return a >= 0 && a < albumCount; };
            std::vector<int> byAlbum(albumCount + 1, 0);
            for (int t = 0; t < getTrackCount(); t++) {
                if (inRange(getParentAlbum(t))) byAlbum[getParentAlbum(t) + 1]++;
            }
            for (size_t a = 1; a < byAlbum.size(); a++)
                byAlbum[a] += byAlbum[a - 1];
            std::vector<int> tracks(getTrackCount());
            std::vector<int> fill(byAlbum.begin(), byAlbum.end() - 1);
            for (int t = 0; t < getTrackCount(); t++) {
                int a = getParentAlbum(t);
                if (inRange(a) && containsNoCase(getTrackName(t), needle)) tracks[fill[a]++] = t;
            }
            for (int a : albums) {
                if (!albumVisible(a)) continue;
                // An album's matches in its play order ("01 ..." before
                // "03 ..."), not in the order the scan met its files. The
                // bucket is in table order already, so a stable sort on the
                // track number gives the album's own order without building
                // it: that took a pass over every track per album, seconds
                // for a search matching most of a large library.
                if (fill[a] - byAlbum[a] > 1) {
                    std::stable_sort(
                        tracks.begin() + byAlbum[a], tracks.begin() + fill[a],
                        [](int x, int y) { return getTrackOrder(x) < getTrackOrder(y); });
                }
                for (int i = byAlbum[a]; i < fill[a]; i++)
                    found.push_back(trackToID(tracks[i]));
            }
        }
        if (flag(r.uri, "&radio=")) {
            for (int index : stationList().search(needle))
                found.push_back(radioToID(index));
        }
    }
    static thread_local JsonList list;
    list = JsonList();
    for (size_t i = static_cast<size_t>(offset);
         i < found.size() && i < static_cast<size_t>(offset) + static_cast<size_t>(count); i++) {
        if (!list.add(itemObject(found[i]))) break;
    }
    r.reply->text = list.finish();
}

void webRip(const Request& r) {
    const char* v = findParameter(r.after, "&index=");
    int index = v ? toInt(v) : 0;
    kzLog("index = %d\n", index);
    ripUserChoice = index;
    startRip();
}

void webScanDisk(const Request& r) {
    if (!isScanning()) {
        // From here until the scan ends the tables hold part of the music.
        beginLibraryRebuild();
        clearDB();
        if (!startScanLocal()) endLibraryRebuild();
    }
    r.reply->text = "[]";
}

void webFileExists(const Request& r) {
    char artist[200] = "", album[200] = "", name[200] = "";
    const char* v;
    if ((v = findParameter(r.uri, "&artist="))) stripPercentagesFromURL(artist, v, sizeof artist);
    if ((v = findParameter(r.uri, "&album="))) stripPercentagesFromURL(album, v, sizeof album);
    if ((v = findParameter(r.uri, "&name="))) stripPercentagesFromURL(name, v, sizeof name);
    // The names only ever name something inside the music folder.
    std::string path = getMusicDirectory() + "/" + cleanPathName(artist) + "/" +
                       cleanPathName(album) + "/" + cleanPathName(name);
    r.reply->text = access(path.c_str(), F_OK) == 0 ? "true" : "false";
}

void webGetWebInfo(const Request& r) {
    int wavs = 0, flacs = 0, mp3s = 0, aacs = 0;
    for (int t = 0; t < getTrackCount(); t++) {
        std::string ext = getTrackExt(t);
        wavs += ext == "WAV";
        flacs += ext == "FLAC";
        mp3s += ext == "MP3";
        aacs += ext == "AAC";
    }
    struct statvfs vfs = {};
    statvfs(getLocalPath().empty() ? "/" : getLocalPath().c_str(), &vfs);
    double gb = 1e9;
    double capacity = static_cast<double>(vfs.f_blocks) * vfs.f_frsize / gb;
    double used = static_cast<double>(vfs.f_blocks - vfs.f_bfree) * vfs.f_frsize / gb;
    const Library& l = lib();
    char out[1024];
    snprintf(
        out, sizeof out,
        "{\"version\":\"%s\",\"tracks\":\"%d\",\"albums\":\"%d\",\"artists\":\"%d\","
        "\"USBTracks\":\"%d\",\"USBAlbums\":\"%d\",\"USBArtists\":\"%d\",\"wavs\":\"%d\","
        "\"flacs\":\"%d\",\"mp3s\":\"%d\",\"aacs\":\"%d\",\"capacity\":\"%.2f\","
        "\"videos\":\"%d\",\"used\":\"%.2f\",\"trackSpaceUsed\":\"%d\","
        "\"albumSpaceUsed\":\"%d\",\"artistSpaceUsed\":\"%d\",\"trackSpace\":\"%d\","
        "\"albumSpace\":\"%d\",\"artistSpace\":\"%d\",\"maxTracks\":\"%d\","
        "\"maxAlbums\":\"%d\",\"maxArtists\":\"%d\"}",
        "kz " KZ_VERSION, getTrackCount(), getAlbumCount(), getArtistCount(), getUSBTrackcount(),
        getUSBAlbumcount(), getUSBArtistcount(), wavs, flacs, mp3s, aacs, capacity, 0, used,
        static_cast<int>(l.local.trackHeap.used()), static_cast<int>(l.local.albumHeap.used()),
        static_cast<int>(l.local.artistHeap.used()), static_cast<int>(l.local.trackHeap.capacity()),
        static_cast<int>(l.local.albumHeap.capacity()),
        static_cast<int>(l.local.artistHeap.capacity()), getMaxTracks(), getMaxAlbums(),
        getMaxArtists());
    r.reply->text = keep(out);
}

void webAllStop(const Request&) {
    allStop();
}

void webSetTone(const Request& r) {
    int bass = clampInt(getSignedNumber(r.uri, "&bass="), -6, 6);
    int treble = clampInt(getSignedNumber(r.uri, "&treble="), -6, 6);
    setBassTreble(bass, treble);
    setBassAndTrebleSettings(bass, treble);
    r.reply->text = "[]";
}

void webSeek(const Request& r) {
    int found = 0;
    long long position = findLongNumericParameter(r.uri, "seek&pos=", &found);
    if (found) {
        kzLog("Got position %d\n", static_cast<int>(position));
        seek(static_cast<int>(position));
    }
    r.reply->text = "[]";
}

void webkTubeDebug(const Request& r) {
    const char* command = findParameter(r.uri, "command=");
    if (command && strncmp(command, "quit", 4) == 0) quitNoSave();
}

void webBack(const Request& r) {
    if (int zone = sonosZoneOf(r); zone >= 0) {
        sonosKey(zone, ZoneKey::Back);
        return;
    }
    wakeAndAddEvent(88);
}
void webPlayKey(const Request& r) {
    if (int zone = sonosZoneOf(r); zone >= 0) {
        sonosKey(zone, ZoneKey::PlayStop);
        return;
    }
    kzLog("web Play key\n");
    kzLog("Web Play Key\n");
    wakeAndAddEvent(89);
}
void webNext(const Request& r) {
    if (int zone = sonosZoneOf(r); zone >= 0) {
        sonosKey(zone, ZoneKey::Next);
        return;
    }
    wakeAndAddEvent(90);
}
void webEject(const Request&) {
    wakeAndAddEvent(3);
}

void webVol(const Request& r) {
    int zone = sonosZoneOf(r);
    if (*r.after < '0' || *r.after > '9') return;
    int volume = clampInt(toInt(r.after), 0, 64);
    // The pages' scale is 0-64, a renderer's 0-100.
    if (zone >= 0)
        sonosVolume(zone, (100 * volume + 32) / 64);
    else
        setVolume(volume, 0);
}

void webStatus(const Request& r, bool full) {
    static thread_local std::string text;
    text = getWebStatusCore(full);
    r.reply->text = text.c_str();
}
void getWebStatus(const Request& r) {
    webStatus(r, true);
}
void getWebSlowStatus(const Request& r) {
    webStatus(r, false);
}

// A playlist parameter: its identifier, or its plain index.
int playlistIndex(int value) {
    return idIsPlaylist(value) ? idToPlaylist(value) : value;
}

void webListPlaylists(const Request& r) {
    static thread_local JsonList list;
    list = JsonList();
    for (int i = 0; i < getPlaylistCount(); i++) {
        std::string item = "{\"id\":" + std::to_string(playlistToID(i)) +
                           ",\"name\":" + quoted(getPlaylistName(i).c_str()) +
                           ",\"count\":" + std::to_string(getPlaylistEntries(i).size()) + "}";
        if (!list.add(item)) break;
    }
    r.reply->text = list.finish();
}

void webListPlaylist(const Request& r) {
    int id = getIdParameter(r.uri);
    static thread_local JsonList list;
    list = JsonList();
    if (idIsPlaylist(id)) {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        for (int item : getPlaylistEntries(idToPlaylist(id))) {
            if (!list.add(itemObject(item))) break;
        }
    }
    r.reply->text = list.finish();
}

void webNewPlaylist(const Request& r) {
    const char* v = findParameter(r.after, "&name=");
    char name[200] = "";
    if (v) stripPercentagesFromURLTail(name, v, sizeof name);
    lockQueue();
    int index = name[0] ? newPlaylist(name) : -1;
    unlockQueue();
    r.reply->text = index < 0 ? "[]" : keep("{\"id\":" + std::to_string(playlistToID(index)) + "}");
}

void webAddIdToPlaylist(const Request& r) {
    const char* p = r.after;
    int id = 0, playlist = 0, index = 0;
    r.reply->text = "[]";
    if (!getNumericParameter(&p, "&id=", &id) ||
        !getNumericParameter(&p, "&playlist=", &playlist) ||
        !getNumericParameter(&p, "&index=", &index)) {
        return;
    }
    lockQueue();
    bool ok = addToPlaylist(playlistIndex(playlist), id, index);
    unlockQueue();
    if (ok) r.reply->text = "\"OK\"";
}

void webDeletePlaylistIndex(const Request& r) {
    const char* p = r.after;
    int playlist = 0, index = 0;
    r.reply->text = "[]";
    if (!getNumericParameter(&p, "&playlist=", &playlist) ||
        !getNumericParameter(&p, "&index=", &index)) {
        return;
    }
    lockQueue();
    bool ok = removeFromPlaylist(playlistIndex(playlist), index);
    unlockQueue();
    if (ok) r.reply->text = "\"OK\"";
}

void webMixPlaylists(const Request& r) {
    const char* p = r.after;
    int playlist = 0;
    r.reply->text = "[]";
    if (!getNumericParameter(&p, "&id=", &playlist)) return;
    lockQueue();
    bool ok = mixPlaylist(playlistIndex(playlist));
    unlockQueue();
    if (ok) r.reply->text = "\"OK\"";
}

void webQueueID(const Request& r) {
    const char* p = r.after;
    int id = 0;
    r.reply->text = "[]";
    int zone = sonosZoneOf(r);
    if (!getNumericParameter(&p, "&id=", &id)) return;
    if (zone >= 0) {
        if (sonosQueueId(zone, id)) r.reply->text = "\"OK\"";
        return;
    }
    lockQueue();
    int queue = getQueuePlaylist();
    std::vector<int> waiting = getPlaylistEntries(queue);
    // Queued twice is still played once.
    bool already = std::find(waiting.begin(), waiting.end(), id) != waiting.end();
    bool ok = queue >= 0 && (already || addToPlaylist(queue, id, kMaxPlaylistEntries));
    unlockQueue();
    // With nothing playing, the queue starts at once.
    if (ok && !isPlaying()) {
        if (getSelectedSource() != SEL_HDD) selectHDD();
        stopPlaylistPlayback();
        startPlayingNext();
        addEvent(80);
    }
    if (ok) r.reply->text = "\"OK\"";
}

void webStartPlaylist(const Request& r) {
    int zone = sonosZoneOf(r);
    const char* v = findParameter(r.uri, "&playlist=");
    if (!v) return;
    int playlist = playlistIndex(toInt(v));
    int from = 0;
    if ((v = findParameter(r.uri, "&id="))) from = toInt(v);
    if (zone >= 0) {
        sonosPlayPlaylist(zone, playlist, from);
        return;
    }
    lockQueue();
    playPlaylist(playlist, from);
    unlockQueue();
    addEvent(80);
}

void webMoveID(const Request& r) {
    const char* p = r.after;
    int id = 0;
    const char* name = findParameter(p, "&name=");
    r.reply->text = "[]";
    if (!getNumericParameter(&p, "&id=", &id) || !name || !idIsAlbum(id)) return;
    char text[200];
    stripPercentagesFromURLTail(text, name, sizeof text);
    if (moveAlbumToArtist(idToAlbum(id), text)) postWriteDB();
}

void webListTags(const Request& r) {
    static thread_local JsonList list;
    list = JsonList();
    for (int tag = 0; tag < Library::kTags; tag++) {
        const char* name = getTagName(tag);
        int count = lib().tagCount[tag];
        if (!name[0] && count == 0) continue;
        std::string letter(1, static_cast<char>('A' + tag));
        if (!list.add("{\"id\":" + std::to_string(TAG_BASE + tag) + ",\"name\":" + quoted(name) +
                      ",\"letter\":\"" + letter + "\",\"count\":" + std::to_string(count) + "}")) {
            break;
        }
    }
    r.reply->text = list.finish();
}

void webGetMasks(const Request& r) {
    r.reply->text = keep("{\"orMask\":" + std::to_string(lib().orMask) +
                         ",\"notMask\":" + std::to_string(lib().notMask) + "}");
}

void webSetMasks(const Request& r) {
    const char* v;
    constexpr long kAll = 0x3ffffff;
    if ((v = findParameter(r.from, "&orMask=")))
        lib().orMask = static_cast<int32_t>(toInt(v) & kAll);
    if ((v = findParameter(r.from, "&notMask=")))
        lib().notMask = static_cast<int32_t>(toInt(v) & kAll);
    r.reply->text = "[]";
}

void webGetSpace(const Request& r) {
    struct statvfs vfs = {};
    std::string root = getLocalPath().empty() ? "/" : getLocalPath();
    if (statvfs(root.c_str(), &vfs) != 0) {
        r.reply->text = "[]";
        return;
    }
    double gb = 1e9;
    char out[160];
    snprintf(out, sizeof out, "{\"free\":\"%lld\",\"capacity\":\"%.2f\",\"used\":\"%.2f\"}",
             static_cast<long long>(vfs.f_bavail) * static_cast<long long>(vfs.f_frsize) / 1024,
             static_cast<double>(vfs.f_blocks) * vfs.f_frsize / gb,
             static_cast<double>(vfs.f_blocks - vfs.f_bfree) * vfs.f_frsize / gb);
    r.reply->text = keep(out);
}

// Only the codes of the panel's keys and the transport keys: typed
// characters share their numbers with codes that end the program.
bool isKeyEvent(int code) {
    for (int i = 0; i < 8; i++) {
        if (adcEvents[i] == code || adcHeldEvents[i] == code) return true;
    }
    return code == 3 || code == 88 || code == 89 || code == 90;
}

void webSendKey(const Request& r) {
    const char* v = findParameter(r.uri, "&index=");
    r.reply->text = "[]";
    if (!v || *v < '0' || *v > '9') return;
    int code = toInt(v);
    if (!isKeyEvent(code)) {
        kzLog("webSendKey () ignoring %d\n", code);
        return;
    }
    wakeAndAddEvent(code);
}

// The cover of an album: the ripper's "coverart.jpg", or the first picture
// in its folder.
std::string albumArtPath(int a) {
    if (a < 0 || a >= getAlbumCount()) return "";
    std::string folder = getAlbumPath(a);
    for (const char* name :
         {"coverart.jpg", "folder.jpg", "cover.jpg", "cover.png", "folder.png"}) {
        std::string path = folder + "/" + name;
        if (access(path.c_str(), R_OK) == 0) return path;
    }
    return "";
}

int currentAlbum() {
    int id = lib().currentID;
    if (!idIsTrack(id) || idToTrack(id) >= getTrackCount()) return -1;
    return getParentAlbum(idToTrack(id));
}

void replyFile(const Request& r, const std::string& path) {
    if (path.empty()) {
        r.reply->text = "[]";
        return;
    }
    r.reply->file = true;
    r.reply->text = keep(path);
}

void webGetAlbumArt(const Request& r) {
    int id = getIdParameter(r.uri);
    replyFile(r, idIsAlbum(id) ? albumArtPath(idToAlbum(id)) : "");
}

void webGetCurrentArt(const Request& r) {
    replyFile(r, albumArtPath(currentAlbum()));
}

void webGetCurrentArtPath(const Request& r) {
    std::string path = albumArtPath(currentAlbum());
    r.reply->text = path.empty() ? "[]" : keep("{\"path\":" + quoted(path.c_str()) + "}");
}

void webGetCDDB(const Request& r) {
    const char* v = findParameter(r.uri, "&index=");
    int index = v ? toInt(v) : 1;
    r.reply->text = "[]";
    if (index < 1 || index > getLookupCandidateCount()) return;
    RipNames names = getLookupCandidate(index - 1);
    std::string out = "{\"artist\":" + quoted(names.artist.c_str()) +
                      ",\"album\":" + quoted(names.album.c_str()) +
                      ",\"art\":" + quoted(names.artUrl.c_str()) + ",\"tracks\":[";
    for (size_t i = 0; i < names.tracks.size(); i++)
        out += (i ? "," : "") + quoted(names.tracks[i].c_str());
    r.reply->text = keep(out + "]}");
}

void webGetCandidate(const Request& r) {
    const char* v = findParameter(r.uri, "&index=");
    int index = v ? toInt(v) : 1;
    r.reply->text = "[]";
    if (index < 1 || index > getLookupCandidateCount()) return;
    Candidate c = getCandidate(index - 1);
    std::string out =
        "{\"artist\":" + quoted(c.artist.c_str()) + ",\"album\":" + quoted(c.album.c_str()) +
        ",\"year\":" + quoted(c.year.c_str()) + ",\"genre\":" + quoted(c.genre.c_str()) +
        ",\"art\":" + quoted(c.art.c_str()) + ",\"source\":" + quoted(c.source.c_str()) +
        ",\"tracks\":[";
    for (size_t i = 0; i < c.tracks.size(); i++)
        out += (i ? "," : "") + quoted(c.tracks[i].c_str());
    r.reply->text = keep(out + "]}");
}

// Starts the compression job over the library now (also after it paused
// for a full disk); the status's "background" follows it.
// The radio: presets, the station list, the directory and recording.

std::string stationObject(int index) {
    return "{\"id\":" + std::to_string(radioToID(index)) +
           ",\"radio\":" + quoted(getRadioName(index).c_str()) + "}";
}

// A parameter's text, percent-decoded: up to the next "&", or to the end of
// the URI when it is the last one (and may hold "&"); at most most - 1 bytes.
std::string textParameter(const char* text, const char* name, bool last, size_t most = 4096) {
    const char* v = findParameter(text, name);
    if (!v) return "";
    std::vector<char> value(std::min(strlen(v) + 1, most));
    if (last) {
        stripPercentagesFromURLTail(value.data(), v, value.size());
    } else {
        stripPercentagesFromURL(value.data(), v, value.size());
    }
    return value.data();
}

void webGetPresets(const Request& r) {
    static thread_local JsonList list;
    list = JsonList();
    for (int i = 0; i < kPresets; i++) {
        const RadioStation& p = getPreset(i);
        list.add("{\"name\":" + quoted(p.name.c_str()) + ",\"url\":" + quoted(p.url.c_str()) + "}");
    }
    r.reply->text = list.finish();
}

void storePreset(int preset, const Station& station) {
    setPreset(preset, station);
    kzLog("Preset %d = %s <%s>\n", preset, station.name.c_str(), station.url.c_str());
}

void webSetPresetFromID(const Request& r) {
    const char* at = r.after;
    int id = 0, preset = 0;
    if (!getNumericParameter(&at, "&id=", &id) || !getNumericParameter(&at, "&preset=", &preset) ||
        preset < 0 || preset >= kPresets) {
        r.reply->text = "[]";
        return;
    }
    Station s;
    if (idIsRadio(id)) s = stationList().get(idToRadio(id));
    if (idIsPreset(id)) s = getPreset(idToPreset(id));
    if (s.url.empty()) {
        r.reply->text = "[]";
        return;
    }
    if (idIsRadio(id)) {
        stationList().keep(idToRadio(id));
        stationList().save();
    }
    storePreset(preset, s);
    r.reply->text = "\"OK\"";
}

// "&preset=N&name=...&logo=...&url=..." (the address last: it may hold "&").
void webSetPreset(const Request& r) {
    const char* v = findParameter(r.from, "&preset=");
    int preset = v ? toInt(v) : -1;
    Station s;
    s.name = textParameter(r.from, "&name=", false);
    s.logo = textParameter(r.from, "&logo=", false);
    s.url = textParameter(r.from, "&url=", true);
    if (preset < 0 || preset >= kPresets) {
        kzLog("setPreset: no preset %d\n", preset);
        return;
    }
    if (s.url.empty() && s.name.empty()) {
        // Both empty clears the preset.
        storePreset(preset, s);
        return;
    }
    int index = stationList().add(s);
    if (index < 0) {
        kzLog("setPreset: %s is not a station address\n", s.url.c_str());
        return;
    }
    stationList().save();
    storePreset(preset, stationList().get(index));
}

// "&name=...&logo=...&url=...": a station added by its address.
void webAddStation(const Request& r) {
    Station s;
    s.name = textParameter(r.uri, "&name=", false);
    s.logo = textParameter(r.uri, "&logo=", false);
    s.url = textParameter(r.uri, "&url=", true);
    int index = stationList().add(s);
    if (index < 0) {
        kzLog("addStation: %s is not a station address\n", s.url.c_str());
        r.reply->text = "[]";
        return;
    }
    stationList().save();
    r.reply->text = keep(stationObject(index));
}

void replyDirectory(const Request& r, const DirectoryPage& page) {
    static thread_local JsonList list;
    list = JsonList();
    for (const DirectoryEntry& e : page.entries) {
        bool room = e.id >= 0 ? list.add(stationObject(idToRadio(e.id)))
                              : list.add("{\"name\":" + quoted(e.name.c_str()) +
                                         ",\"link\":" + quoted(e.link.c_str()) +
                                         ",\"count\":" + std::to_string(e.count) + "}");
        if (!room) break;
    }
    r.reply->text = list.finish();
}

void webVTunerTop(const Request& r) {
    replyDirectory(r, directoryTop());
}

void webVTunerSearch(const Request& r) {
    replyDirectory(r, directorySearch(textParameter(r.from, "&string=", true)));
}

void webVTunerLink(const Request& r) {
    replyDirectory(r, directoryLink(textParameter(r.after, "&link=", true)));
}

void webVTunerBack(const Request& r) {
    replyDirectory(r, directoryBack());
}

void webVTunerPlaySearchItem(const Request& r) {
    int id = getIdParameter(r.after);
    if (!idIsRadio(id) || getRadioName(idToRadio(id)).empty()) {
        r.reply->text = "[]";
        return;
    }
    kzLog("webPlayID () Radio URL=%s\n", stationList().get(idToRadio(id)).url.c_str());
    startPlayingInternetRadioS(idToRadio(id));
    addEvent(80);
    r.reply->text = "\"OK\"";
}

void webStartRecording(const Request& r) {
    std::string why;
    if (!startRadioRecording(&why)) {
        kzLog("startRecording: %s\n", why.c_str());
        r.reply->text = keep(quoted(why.c_str()));
        return;
    }
    r.reply->text = "\"OK\"";
}

void webStopRecording(const Request& r) {
    stopRadioRecording();
    r.reply->text = "\"OK\"";
}

// "&limit=N": seconds, 0 for none.
void webRecordingLimit(const Request& r) {
    const char* v = findParameter(r.after, "&limit=");
    if (!v) v = findParameter(r.after, "=");
    int seconds = v ? std::max(0, toInt(v)) : 0;
    setRecordingLimit(seconds);
    kzLog("Recording limit %d s\n", seconds);
    r.reply->text = "\"OK\"";
}

// Pause and resume in one word: paused resumes, playing pauses, stopped
// starts as "play" would.
void webPause(const Request& r) {
    if (isPaused()) {
        resumePlayback();
    } else if (isPlaying() && getSelectedSource() == SEL_RADIO) {
        // A live stream cannot wait: pausing it stops it, resuming starts it.
        playStop();
    } else if (isPlaying()) {
        pausePlayback();
    } else {
        playStop();
    }
    r.reply->text = isPaused() ? "{\"paused\":true}" : "{\"paused\":false}";
}

void webClearQueue(const Request& r) {
    lockQueue();
    bool ok = clearQueue();
    unlockQueue();
    r.reply->text = ok ? "\"OK\"" : "[]";
}

// "&mode=continue|album|repeat-album|repeat-track|random": one choice over
// random, the classical stop and repeat.
void webSetPlayMode(const Request& r) {
    char mode[32] = "";
    const char* v = findParameter(r.from, "&mode=");
    if (v) stripPercentagesFromURL(mode, v, sizeof mode);
    static const char* const kModes[] = {"continue", "album", "repeat-album", "repeat-track",
                                         "random"};
    bool known = false;
    for (const char* m : kModes)
        known = known || strcmp(mode, m) == 0;
    if (known) {
        setRandomMode(strcmp(mode, "random") == 0);
        setRepeatMode(strcmp(mode, "repeat-album") == 0   ? REPEAT_ALBUM
                      : strcmp(mode, "repeat-track") == 0 ? REPEAT_TRACK
                                                          : REPEAT_NONE);
        int row = findSettingRow("Classical");
        if (row >= 0) setSettingValue(row, strcmp(mode, "album") == 0);
        saveRepeatMode();
        kzLog("Play mode %s\n", mode);
    }
    r.reply->text = keep(std::string("{\"playMode\":\"") + playModeName() + "\"}");
}

// "&mode=off|also|only": the rooms of Snapcast beside this box's speakers,
// instead of them, or not at all.
void webSetSnapcast(const Request& r) {
    char mode[16] = "";
    const char* v = findParameter(r.from, "&mode=");
    if (v) stripPercentagesFromURL(mode, v, sizeof mode);
    setSnapcastMode(mode);
    r.reply->text = keep(std::string("{\"snapcast\":\"") + snapcastModeName() + "\"}");
}

void webCompressNow(const Request& r) {
    kickCompression();
    r.reply->text = "\"OK\"";
}

void webLookupDisc(const Request& r) {
    if (testUnitReady() != CD_READY) {
        r.reply->text = "[]";
        return;
    }
    restartLookup();
    r.reply->text = "\"OK\"";
}

// The address is the request's last parameter: it may hold "&" of its own.
std::string urlParameter(const Request& r) {
    return textParameter(r.uri, "&url=", true, SIZE_MAX);
}

void webArtURL(const Request& r) {
    setArtURL(urlParameter(r));
    r.reply->text = "\"OK\"";
}

void webGetArtFromURL(const Request& r) {
    std::string url = urlParameter(r);
    r.reply->text = "false";
    if (url.empty() || testUnitReady() != CD_READY) return;
    int album = findRippedAlbum(computeDiscId(currentToc()));
    if (album < 0) return;
    std::string path = getAlbumPath(album) + "/coverart.jpg";
    kzLog("Fetching cover art from %s\n", url.c_str());
    // A slow image server must not hold the only listener: fetched aside,
    // and written only once it is whole and an image.
    try {
        std::thread([url, path] { fetchCoverArt(url, path); }).detach();
        r.reply->text = "true";
    } catch (const std::system_error&) {
        kzLog("getArtFromURL failed to create its thread\n");
    }
}

// "&count=N" (default 50, at most 500): the newest album folders first, as
// search names albums.
void webRecentAlbums(const Request& r) {
    const char* v = findParameter(r.uri, "&count=");
    int count = v ? std::clamp(toInt(v), 1, 500) : 50;
    std::vector<std::pair<long long, int>> byTime;
    for (int a = 0; a < getAlbumCount(); a++) {
        if (!albumVisible(a)) continue;
        struct stat st;
        long long when =
            stat(getAlbumPath(a).c_str(), &st) == 0 ? static_cast<long long>(st.st_mtime) : 0;
        byTime.emplace_back(when, a);
    }
    // Newest first; the same second keeps the table's order.
    std::stable_sort(byTime.begin(), byTime.end(),
                     [](const auto& x, const auto& y) { return x.first > y.first; });
    static thread_local JsonList list;
    list = JsonList();
    for (int i = 0; i < static_cast<int>(byTime.size()) && i < count; i++)
        if (!list.add(itemObject(albumToID(byTime[i].second)))) break;
    r.reply->text = list.finish();
}

// "&offset=N&count=M" (count at most 500): albums in display order for the
// pages' grid, each with whether it has a cover, so a tile without one asks
// for nothing: [{"id":N,"artist":"...","album":"...","art":true}].
void webAlbumTiles(const Request& r) {
    const char* v = findParameter(r.uri, "&offset=");
    int offset = v ? std::max(0, toInt(v)) : 0;
    int count = (v = findParameter(r.uri, "&count=")) ? std::clamp(toInt(v), 1, 500) : 50;
    static thread_local JsonList list;
    list = JsonList();
    int seen = 0;
    for (int a : albumsInDisplayOrder()) {
        if (!albumVisible(a) || seen++ < offset) continue;
        if (seen > offset + count) break;
        std::string item = itemObject(albumToID(a));
        item.pop_back();
        item += albumArtPath(a).empty() ? ",\"art\":false}" : ",\"art\":true}";
        if (!list.add(item)) break;
    }
    r.reply->text = list.finish();
}

// The album this disc was ripped to before: {"id":N,"artist":"...","album":"..."},
// or [] (no disc, or never ripped), so the page can ask before a second rip.
void webDiscInLibrary(const Request& r) {
    r.reply->text = "[]";
    if (testUnitReady() != CD_READY) return;
    int album = findRippedAlbum(computeDiscId(currentToc()));
    if (album >= 0 && album < getAlbumCount()) r.reply->text = keep(itemObject(albumToID(album)));
}

// The disc's tracks to play: [{"id":12000000+i,"name":"Track N","seconds":S}].
void webListCD(const Request& r) {
    r.reply->text = "[]";
    if (testUnitReady() != CD_READY) return;
    static thread_local JsonList list;
    list = JsonList();
    const CdHeader toc = currentToc();
    for (int i = 0; i < toc.numTracks(); i++) {
        const CdTrack& t = toc.tracks[i];
        if (!t.audio) continue;
        list.add("{\"id\":" + std::to_string(CD_TRACK_BASE + i) + ",\"name\":\"Track " +
                 std::to_string(t.number) +
                 "\",\"seconds\":" + std::to_string(t.frameCount() / kSectorsPerSecond) + "}");
    }
    r.reply->text = list.finish();
}

void webGetDiscid(const Request& r) {
    if (testUnitReady() != CD_READY) {
        r.reply->text = "[]";
        return;
    }
    const CdHeader toc = currentToc();
    char cddb[16];
    snprintf(cddb, sizeof cddb, "%08X", CdHeaderComputeCddbId(toc));
    r.reply->text = keep("{\"discid\":" + quoted(computeDiscId(toc).c_str()) + ",\"cddb\":\"" +
                         cddb + "\",\"tracks\":" + std::to_string(toc.numTracks()) + "}");
}

// The on/off settings of the generic table that the pages switch.
void setGenericFromWord(const Request& r, const char* key) {
    std::string w = settingWord(r);
    int row = findSettingRow(key);
    if (row >= 0 && !w.empty() && w[0] >= '0' && w[0] <= '9')
        setSettingValue(row, toInt(w.c_str()));
    r.reply->text = "[]";
}
void webTvUi(const Request& r) {
    setGenericFromWord(r, "TVUI");
}
void webHDMI(const Request& r) {
    setGenericFromWord(r, "HDMIOut");
}
void webAirable(const Request& r) {
    setGenericFromWord(r, "Airable");
}
void webvCache(const Request& r) {
    setGenericFromWord(r, "vCache");
}
void webEqualiser(const Request& r) {
    setGenericFromWord(r, "equaliser");
}
// The status has no classical flag, so this also answers what it is now:
// without a value it only reports.
void webSetClassical(const Request& r) {
    setGenericFromWord(r, "Classical");
    r.reply->text = isClassical() ? "{\"classical\":1}" : "{\"classical\":0}";
}

// Guest mode keeps one playlist playing: "&guest=1&playlist=N".
void webGuest(const Request& r) {
    const char* v = findParameter(r.from, "&guest=");
    int row = findSettingRow("GuestMode");
    if (v && row >= 0) setSettingValue(row, toInt(v) ? 1 : 0);
    if ((v = findParameter(r.from, "&playlist="))) {
        int index = playlistIndex(toInt(v));
        setGuestModePlaylist(index >= 0 && index < getPlaylistCount() ? index : -1);
    }
    saveSettings();
    r.reply->text = "[]";
}

void webTransport(const Request& r) {
    webTransportCommand(r.uri, r.from, r.reply);
}

// The parts these commands drive (radio, photos, Bluetooth, Sonos, video,
// recording, ...) are not built: an empty list, and nothing changes.
void webScanSonos(const Request& r) {
    scanSonos();
    r.reply->text = "\"OK\"";
}
void webResetSonos(const Request& r) {
    resetSonos();
    r.reply->text = "\"OK\"";
}
void webSonosStatus(const Request& r) {
    r.reply->text = keep(sonosZonesJson());
}

void webListDir(const Request& r) {
    r.reply->text = keep(listDirReply(r.uri));
}
void webGetTagsForPath(const Request& r) {
    r.reply->text = keep(tagsForPathReply(r.uri));
}
void webUSBImport(const Request& r) {
    r.reply->text = keep(usbImportReply(r.uri));
}
void webUsbDrives(const Request& r) {
    r.reply->text = keep(usbDrivesReply());
}
void webStartBackup(const Request& r) {
    r.reply->text = keep(startBackupReply(r.uri));
}
void webStartRestore(const Request& r) {
    r.reply->text = keep(startRestoreReply(r.uri));
}
void webTidyLibrary(const Request& r) {
    r.reply->text = keep(tidyLibraryReply());
}
void webStorageJob(const Request& r) {
    r.reply->text = keep(storageJobReply());
}

void webNotBuilt(const Request& r) {
    kzInfo("web command of a part not built: %s\n", r.from);
    r.reply->text = "[]";
}

struct Command {
    const char* name;
    Handler handler;  // null: the reply is the default one
};

// In this order: the first name found in the URI wins, which settles every
// overlap ("listplaylists" before "listplaylist", the short words last).
const Command commands[] = {
    {"playalbum", webPlay},
    {"playartist", webPlay},
    {"playID", webPlay},
    {"setPresetFromID", webSetPresetFromID},
    {"setPreset", webSetPreset},  // replies nothing of its own
    {"startPlaylist", webStartPlaylist},
    {"listplaylists", webListPlaylists},
    {"listplaylist", webListPlaylist},
    {"addIdToPlaylist", webAddIdToPlaylist},
    {"mixPlaylists", webMixPlaylists},
    {"newPlaylist", webNewPlaylist},
    {"deletePlaylistIndex", webDeletePlaylistIndex},
    {"getPresets", webGetPresets},
    {"setCompression", webSetCompression},
    {"setLogging", webSetLogging},
    {"setSegue", webSetSegue},
    {"scanDisk", webScanDisk},
    {"setRandom", webSetRandom},
    {"tvui", webTvUi},
    {"hdmi", webHDMI},
    {"airable", webAirable},
    {"vCache", webvCache},
    {"equaliser", webEqualiser},
    {"guest", webGuest},
    {"setSorted", webSetSorted},
    {"setReversed", webSetSorted},
    {"renameID", webRenameID},
    {"deleteID", webDeleteID},
    {"queueID", webQueueID},
    {"moveID", webMoveID},
    {"getParent", webGetParent},
    {"getCDDB", webGetCDDB},
    {"security", webNotBuilt},
    {"listalbum", webListAlbum},
    {"albumDetails", webAlbumDetails},
    {"listartist", webListArtist},
    {"artistDetails", webArtistDetails},
    {"uploadImages", webNotBuilt},
    {"startWebAudio", webTransport},
    {"stopWebAudio", webTransport},
    {"blob", webTransport},
    {"getDiscid", webGetDiscid},
    {"vTunerTop", webVTunerTop},
    {"vTunerLink", webVTunerLink},
    {"vTunerBack", webVTunerBack},
    {"vTunerSearch", webVTunerSearch},
    {"vTunerPlaySearchItem", webVTunerPlaySearchItem},
    {"listClasses", webListTags},
    {"getMasks", webGetMasks},
    {"setMasks", webSetMasks},
    {"startPhotoImport", webNotBuilt},
    {"photoTest", webNotBuilt},
    {"getThumbs", webNotBuilt},
    {"getThumbCount", webNotBuilt},
    {"getBlobThumb", webNotBuilt},
    {"getBlobPartImage", webNotBuilt},
    {"getBlobPreviewImage", webNotBuilt},
    {"getPhotoSize", webNotBuilt},
    {"startScanPhotos", webNotBuilt},
    {"startPhotoBackup", webNotBuilt},
    {"allStop", webAllStop},
    {"getPhotoStatus", webNotBuilt},
    {"getExifDates", webNotBuilt},
    {"getPhotoMetaData", webNotBuilt},
    {"startPhotoCache", webNotBuilt},
    {"makePublic", webNotBuilt},
    {"makePrivate", webNotBuilt},
    {"deletePhotographs", webNotBuilt},
    {"newUpload", webNotBuilt},
    {"getWebDebug", webTransport},
    {"getWebInfo", webGetWebInfo},
    {"getSpace", webGetSpace},
    {"getAlbumArt", webGetAlbumArt},
    {"getCurrentArtPath", webGetCurrentArtPath},
    {"getCurrentArt", webGetCurrentArt},
    {"artURL", webArtURL},
    {"getArtFromURL", webGetArtFromURL},
    {"getBluetoothStatus", webNotBuilt},
    {"listDevices", webNotBuilt},
    {"scanBluetooth", webNotBuilt},
    {"disconnectBluetooth", webNotBuilt},
    {"connectBluetooth", webNotBuilt},
    {"unpairBluetooth", webNotBuilt},
    {"pairBluetooth", webNotBuilt},
    {"resetBluetooth", webNotBuilt},
    {"bluetoothTandem", webNotBuilt},
    {"deletePhotoCache", webNotBuilt},
    {"deleteAllPhotos", webNotBuilt},
    {"deDupe", webNotBuilt},
    {"deletePhotoDatabase", webNotBuilt},
    {"proxyFetch", webNotBuilt},
    {"ffmpeg", webNotBuilt},
    {"omxplayer", webNotBuilt},
    {"stateVariableFilter", webNotBuilt},
    {"uploadYoutubeHistory", webNotBuilt},
    {"getYoutubeHistory", webNotBuilt},
    {"findAndPlay", webNotBuilt},
    {"search", webSearch3},
    {"upload", webTransport},
    {"checkUpload", webTransport},
    {"fileExists", webFileExists},
    {"setTone", webSetTone},
    {"sendKey", webSendKey},
    {"listDir", webListDir},
    {"getTagsForPath", webGetTagsForPath},
    {"USBImport", webUSBImport},
    {"seek&pos=", webSeek},
    {"podcast", webNotBuilt},
    {"spotifyd", webNotBuilt},
    {"kTubeDebug", webkTubeDebug},
    {"getVideoThumbnailUrl", webNotBuilt},
    {"getVideoThumbnail", webNotBuilt},
    {"getEQ", webNotBuilt},
    {"setEQ", webNotBuilt},
    {"scanSonos", webScanSonos},
    {"resetSonos", webResetSonos},
    {"sonosStatus", webSonosStatus},
    {"startRecording", webStartRecording},
    {"stopRecording", webStopRecording},
    {"recordingLimit", webRecordingLimit},
    {"slowStatus", getWebSlowStatus},
    {"status", getWebStatus},
    {"back", webBack},
    {"play", webPlayKey},
    {"next", webNext},
    {"eject", webEject},
    {"reindex", webTransport},
    {"newRip", webTransport},
    {"rip", webRip},
    {"vol", webVol},
    // Not among the appliance's own commands: taken only when no name above
    // is in the URI.
    {"setClassical", webSetClassical},
    {"getCandidate", webGetCandidate},
    {"lookupDisc", webLookupDisc},
    {"compressNow", webCompressNow},
    {"addStation", webAddStation},
    {"pause", webPause},
    {"clearQueue", webClearQueue},
    {"setPlayMode", webSetPlayMode},
    {"listCD", webListCD},
    {"recentAlbums", webRecentAlbums},
    {"discInLibrary", webDiscInLibrary},
    {"albumTiles", webAlbumTiles},
    {"setSnapcast", webSetSnapcast},
    {"usbDrives", webUsbDrives},
    {"startBackup", webStartBackup},
    {"startRestore", webStartRestore},
    {"tidyLibrary", webTidyLibrary},
    {"storageJob", webStorageJob},
};

}  // namespace

std::vector<std::string> webCommandNames() {
    std::vector<std::string> names;
    for (const Command& c : commands)
        names.push_back(c.name);
    return names;
}

int getIdParameter(const char* text) {
    const char* at = strstr(text, "id=");
    if (!at) return -1;
    char* end;
    errno = 0;
    long long id = strtoll(at + 3, &end, 10);
    // Out of range is no identifier at all, not a clipped one.
    if (end == at + 3 || errno == ERANGE || id < INT_MIN || id > INT_MAX) return -1;
    return static_cast<int>(id);
}

int getNumericParameter(const char** position, const char* name, int* result) {
    size_t n = strlen(name);
    if (strncmp(*position, name, n) != 0) return 0;
    const char* p = *position + n;
    // A number past the int range stays at its largest value: it must not
    // wrap round onto an identifier that exists.
    long long v = 0;
    while (*p >= '0' && *p <= '9') {
        v = std::min<long long>(v * 10 + (*p++ - '0'), INT_MAX);
    }
    *result = static_cast<int>(v);
    *position = p;
    return 1;
}

long long findLongNumericParameter(const char* text, const char* name, int* found) {
    const char* at = strstr(text, name);
    *found = at != nullptr;
    if (!at) return 0;
    return strtoull(at + strlen(name), nullptr, 10);
}

int getSignedNumber(const char* text, const char* name) {
    const char* at = findParameter(text, name);
    return toInt(at);
}

void webDispatch(const char* uri, FcgiReply* reply) {
    reply->text = "thanks\n";
    reply->blob = reply->file = false;
    for (const Command& c : commands) {
        const char* at = strstr(uri, c.name);
        if (!at) continue;
        if (c.handler) c.handler({uri, at + strlen(c.name), at, reply});
        return;
    }
}
