#include "web/commands.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/events.h"
#include "core/log.h"
#include "core/shutdown.h"
#include "library/edit.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/settings.h"
#include "playback/control.h"
#include "playback/output.h"
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

void webGetParent(const Request& r) {
    static thread_local char out[32];
    snprintf(out, sizeof out, "%d", getParentId(getIdParameter(r.uri)));
    r.reply->text = out;
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
    {"scanDisk", nullptr},
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
    {"listalbum", nullptr},
    {"albumDetails", nullptr},
    {"listartist", nullptr},
    {"artistDetails", nullptr},
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
    {"getWebInfo", nullptr},
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
    {"search", nullptr},
    {"upload", webTransport},
    {"checkUpload", webTransport},
    {"fileExists", nullptr},
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
    {"rip", nullptr},
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
