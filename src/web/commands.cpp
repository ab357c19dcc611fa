#include "web/commands.h"

#include <strings.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/events.h"
#include "core/log.h"
#include "core/shutdown.h"
#include "library/edit.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/names.h"
#include "library/scan.h"
#include "library/settings.h"
#include "playback/control.h"
#include "playback/output.h"
#include "ripping/ripper.h"
#include "web/params.h"
#include "web/status.h"
#include "web/web.h"

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

void playByKind(int id) {
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
    } else if (idIsPreset(id)) {
        kzLog("preset %d is a NOT a Playlist\n", idToPreset(id));
    } else {
        kzLog("webPlayID () cannot play %d\n", id);
    }
    addEvent(80);
}

void webPlay(const Request& r) {
    int id = getIdParameter(r.uri);
    if (id >= 0) playByKind(id);
}

void webSetCompression(const Request& r) {
    std::string w = settingWord(r);
    const char* names[] = {"flac", "mp3 128k", "mp3 256k", "none", "flac+mp3"};
    for (int i = 0; i < 5; i++) {
        if (strcasecmp(w.c_str(), names[i]) == 0) setCompressionMode(i);
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
    if (v) setRandomMode(atoi(v));
    r.reply->text = "[]";
}

void webSetSorted(const Request& r) {
    const char* s = findParameter(r.from, "&sorted=");
    const char* v = findParameter(r.from, "&reversed=");
    if (s) setSorted(atoi(s));
    if (v) setReversed(atoi(v));
    r.reply->text = "[]";
}

void webRenameID(const Request& r) {
    const char* p = r.after;
    int id = 0;
    const char* name = findParameter(p, "&name=");
    if (getNumericParameter(&p, "&id=", &id) && name) {
        char text[200];
        stripPercentagesFromURLTail(text, name, sizeof text);
        renameID(id, text);
    }
    r.reply->text = "[]";
}

void webDeleteID(const Request& r) {
    const char* p = r.after;
    int id = 0;
    if (getNumericParameter(&p, "&id=", &id)) deleteID(id);
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

std::string quoted(const char* text) {
    std::string out = "\"";
    appendJsonText(out, text);
    return out + "\"";
}

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
        for (int a = 0; a < getAlbumCount(); a++) {
            if (getAlbumArtist(a) == idToArtist(id) &&
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
    return v ? atoi(v) : 1;
}

// Artists, then albums, then tracks whose names hold the text (any case).
void webSearch3(const Request& r) {
    char text[200] = "";
    const char* v = findParameter(r.uri, "&string=");
    if (v) stripPercentagesFromURLTail(text, v, sizeof text);
    std::string needle = text;
    int offset = 0, count = 500;
    if ((v = findParameter(r.uri, "&offset="))) offset = std::max(0, atoi(v));
    if ((v = findParameter(r.uri, "&count="))) count = std::min(1000, std::max(0, atoi(v)));
    std::vector<int> found;
    if (flag(r.uri, "&artists=")) {
        for (int a = 0; a < getArtistCount(); a++) {
            if (containsNoCase(getArtistName(a), needle)) found.push_back(artistToID(a));
        }
    }
    if (flag(r.uri, "&albums=")) {
        for (int a = 0; a < getAlbumCount(); a++) {
            if (containsNoCase(getAlbumName(a), needle)) found.push_back(albumToID(a));
        }
    }
    if (flag(r.uri, "&tracks=")) {
        for (int t = 0; t < getTrackCount(); t++) {
            if (containsNoCase(getTrackName(t), needle)) found.push_back(trackToID(t));
        }
    }
    static thread_local JsonList list;
    list = JsonList();
    for (size_t i = static_cast<size_t>(offset);
         i < found.size() && i < static_cast<size_t>(offset + count); i++) {
        if (!list.add(itemObject(found[i]))) break;
    }
    r.reply->text = list.finish();
}

void webRip(const Request& r) {
    const char* v = findParameter(r.after, "&index=");
    int index = v ? atoi(v) : 0;
    kzLog("index = %d\n", index);
    ripUserChoice = index;
    startRip();
}

void webScanDisk(const Request& r) {
    if (!isScanning()) {
        clearDB();
        startScanLocal();
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
    snprintf(out, sizeof out,
             "{\"version\":\"%s\",\"tracks\":\"%d\",\"albums\":\"%d\",\"artists\":\"%d\","
             "\"USBTracks\":\"%d\",\"USBAlbums\":\"%d\",\"USBArtists\":\"%d\",\"wavs\":\"%d\","
             "\"flacs\":\"%d\",\"mp3s\":\"%d\",\"aacs\":\"%d\",\"capacity\":\"%.2f\","
             "\"videos\":\"%d\",\"used\":\"%.2f\",\"trackSpaceUsed\":\"%d\","
             "\"albumSpaceUsed\":\"%d\",\"artistSpaceUsed\":\"%d\",\"trackSpace\":\"%d\","
             "\"albumSpace\":\"%d\",\"artistSpace\":\"%d\",\"maxTracks\":\"%d\","
             "\"maxAlbums\":\"%d\",\"maxArtists\":\"%d\"}",
             "kz 0.1", getTrackCount(), getAlbumCount(), getArtistCount(), getUSBTrackcount(),
             getUSBAlbumcount(), getUSBArtistcount(), wavs, flacs, mp3s, aacs, capacity, 0, used,
             static_cast<int>(l.local.trackHeap.used()), static_cast<int>(l.local.albumHeap.used()),
             static_cast<int>(l.local.artistHeap.used()),
             static_cast<int>(l.local.trackHeap.capacity()),
             static_cast<int>(l.local.albumHeap.capacity()),
             static_cast<int>(l.local.artistHeap.capacity()), getMaxTracks(), getMaxAlbums(),
             getMaxArtists());
    r.reply->text = keep(out);
}

void webAllStop(const Request&) {
    allStop();
}

void webSetTone(const Request& r) {
    int bass = getSignedNumber(r.uri, "&bass=");
    int treble = getSignedNumber(r.uri, "&treble=");
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

void webBack(const Request&) {
    wakeAndAddEvent(88);
}
void webPlayKey(const Request&) {
    kzLog("web Play key\n");
    kzLog("Web Play Key\n");
    wakeAndAddEvent(89);
}
void webNext(const Request&) {
    wakeAndAddEvent(90);
}
void webEject(const Request&) {
    wakeAndAddEvent(3);
}

void webVol(const Request& r) {
    if (*r.after < '0' || *r.after > '9') return;
    setVolume(atoi(r.after), 0);
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

void webTransport(const Request& r) {
    webTransportCommand(r.uri, r.from, r.reply);
}

struct Command {
    const char* name;
    Handler handler;  // null: not built yet
};

// In this order: the first name found in the URI wins, which settles every
// overlap ("listplaylists" before "listplaylist", the short words last).
const Command commands[] = {
    {"playalbum", webPlay},
    {"playartist", webPlay},
    {"playID", webPlay},
    {"setPresetFromID", nullptr},
    {"setPreset", nullptr},
    {"startPlaylist", nullptr},
    {"listplaylists", nullptr},
    {"listplaylist", nullptr},
    {"addIdToPlaylist", nullptr},
    {"mixPlaylists", nullptr},
    {"newPlaylist", nullptr},
    {"deletePlaylistIndex", nullptr},
    {"getPresets", nullptr},
    {"setCompression", webSetCompression},
    {"setLogging", webSetLogging},
    {"setSegue", webSetSegue},
    {"scanDisk", webScanDisk},
    {"setRandom", webSetRandom},
    {"tvui", nullptr},
    {"hdmi", nullptr},
    {"airable", nullptr},
    {"vCache", nullptr},
    {"equaliser", nullptr},
    {"guest", nullptr},
    {"setSorted", webSetSorted},
    {"setReversed", webSetSorted},
    {"renameID", webRenameID},
    {"deleteID", webDeleteID},
    {"queueID", nullptr},
    {"moveID", nullptr},
    {"getParent", webGetParent},
    {"getCDDB", nullptr},
    {"security", nullptr},
    {"listalbum", webListAlbum},
    {"albumDetails", webAlbumDetails},
    {"listartist", webListArtist},
    {"artistDetails", webArtistDetails},
    {"uploadImages", nullptr},
    {"startWebAudio", webTransport},
    {"stopWebAudio", webTransport},
    {"blob", webTransport},
    {"getDiscid", nullptr},
    {"vTunerTop", nullptr},
    {"vTunerLink", nullptr},
    {"vTunerBack", nullptr},
    {"vTunerSearch", nullptr},
    {"vTunerPlaySearchItem", nullptr},
    {"listClasses", nullptr},
    {"getMasks", nullptr},
    {"setMasks", nullptr},
    {"startPhotoImport", nullptr},
    {"photoTest", nullptr},
    {"getThumbs", nullptr},
    {"getThumbCount", nullptr},
    {"getBlobThumb", nullptr},
    {"getBlobPartImage", nullptr},
    {"getBlobPreviewImage", nullptr},
    {"getPhotoSize", nullptr},
    {"startScanPhotos", nullptr},
    {"startPhotoBackup", nullptr},
    {"allStop", webAllStop},
    {"getPhotoStatus", nullptr},
    {"getExifDates", nullptr},
    {"getPhotoMetaData", nullptr},
    {"startPhotoCache", nullptr},
    {"makePublic", nullptr},
    {"makePrivate", nullptr},
    {"deletePhotographs", nullptr},
    {"newUpload", nullptr},
    {"getWebDebug", webTransport},
    {"getWebInfo", webGetWebInfo},
    {"getSpace", nullptr},
    {"getAlbumArt", nullptr},
    {"getCurrentArtPath", nullptr},
    {"getCurrentArt", nullptr},
    {"artURL", nullptr},
    {"getArtFromURL", nullptr},
    {"getBluetoothStatus", nullptr},
    {"listDevices", nullptr},
    {"scanBluetooth", nullptr},
    {"disconnectBluetooth", nullptr},
    {"connectBluetooth", nullptr},
    {"unpairBluetooth", nullptr},
    {"pairBluetooth", nullptr},
    {"resetBluetooth", nullptr},
    {"bluetoothTandem", nullptr},
    {"deletePhotoCache", nullptr},
    {"deleteAllPhotos", nullptr},
    {"deDupe", nullptr},
    {"deletePhotoDatabase", nullptr},
    {"proxyFetch", nullptr},
    {"ffmpeg", nullptr},
    {"omxplayer", nullptr},
    {"stateVariableFilter", nullptr},
    {"uploadYoutubeHistory", nullptr},
    {"getYoutubeHistory", nullptr},
    {"findAndPlay", nullptr},
    {"search", webSearch3},
    {"upload", webTransport},
    {"checkUpload", webTransport},
    {"fileExists", webFileExists},
    {"setTone", webSetTone},
    {"sendKey", nullptr},
    {"listDir", nullptr},
    {"getTagsForPath", nullptr},
    {"USBImport", nullptr},
    {"seek&pos=", webSeek},
    {"podcast", nullptr},
    {"spotifyd", nullptr},
    {"kTubeDebug", webkTubeDebug},
    {"getVideoThumbnailUrl", nullptr},
    {"getVideoThumbnail", nullptr},
    {"getEQ", nullptr},
    {"setEQ", nullptr},
    {"scanSonos", nullptr},
    {"resetSonos", nullptr},
    {"sonosStatus", nullptr},
    {"startRecording", nullptr},
    {"stopRecording", nullptr},
    {"recordingLimit", nullptr},
    {"slowStatus", getWebSlowStatus},
    {"status", getWebStatus},
    {"back", webBack},
    {"play", webPlayKey},
    {"next", webNext},
    {"eject", webEject},
    {"reindex", nullptr},
    {"newRip", nullptr},
    {"rip", webRip},
    {"vol", webVol},
};

}  // namespace

int getIdParameter(const char* text) {
    const char* at = strstr(text, "id=");
    int id;
    if (!at || sscanf(at + 3, "%d", &id) != 1) return -1;
    return id;
}

int getNumericParameter(const char** position, const char* name, int* result) {
    size_t n = strlen(name);
    if (strncmp(*position, name, n) != 0) return 0;
    const char* p = *position + n;
    long v = 0;
    while (*p >= '0' && *p <= '9')
        v = v * 10 + (*p++ - '0');
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
    return at ? atoi(at) : 0;
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
