#include "web/status.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cstdio>

#include "core/mainloop.h"
#include "core/paths.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/playlists.h"
#include "library/scan.h"
#include "library/settings.h"
#include "library/usb.h"
#include "playback/cd.h"
#include "playback/control.h"
#include "playback/output.h"
#include "playback/snapcast.h"
#include "radio/radio.h"
#include "ripping/cdrom.h"
#include "ripping/compress.h"
#include "ripping/lookup.h"
#include "ripping/ripper.h"
#include "sonos/zones.h"
#include "storage/jobs.h"
#include "web/web.h"

namespace {

void add(std::string& out, const char* format, long value) {
    char piece[96];
    snprintf(piece, sizeof piece, format, value);
    out += piece;
}

void addText(std::string& out, const char* key, const char* text) {
    out += ",\"";
    out += key;
    out += "\":\"";
    appendJsonText(out, text);
    out += '"';
}

const char* sourceName(int source) {
    switch (source) {
        case SEL_CD:
            return "CD";
        case SEL_BLUETOOTH:
            return "Bluetooth";
        case SEL_AUX:
            return "Aux";
        case SEL_RADIO:
            return "Radio";
        case SEL_WEB:
            return "Browser";
        case SEL_YOUTUBE:
            return "Video";
        case SEL_PODCAST:
            return "Podcast";
        default:
            return "Library";
    }
}

// What a source other than the library is playing, or "" for the library.
std::string otherSourceTitle(int selected, const RadioView& radio) {
    if (selected == SEL_WEB) return getWebTitle();
    if (selected == SEL_CD) {
        int index = getCDTrackIndex();
        return index >= 0 ? "Track " + std::to_string(index + 1) : "CD";
    }
    if (selected == SEL_HDD) return "";
    if (selected == SEL_RADIO) return radio.title.empty() ? "Radio" : radio.title;
    return sourceName(selected);
}

// The playlist that plays, or the whole library.
void addPlaylist(std::string& out) {
    int playlist = getPlayingPlaylist();
    if (playlist >= 0) {
        addText(out, "playlist", getPlaylistName(playlist).c_str());
    } else {
        out += ",\"playlist\":\"All Music\"";
    }
}

// While a rip runs the disc's status is its progress: "Ripping 3/12 45% 8x".
std::string ripStatusText() {
    RipProgress p = getCDProgress();
    int tracks = std::min(numTracksToRip, currentToc().numTracks());
    int percent = p.sectors > 0 ? static_cast<int>(100LL * p.done / p.sectors) : 0;
    char text[64];
    snprintf(text, sizeof text, "Ripping %d/%d %d%% %dx", p.track, tracks, percent, p.speed);
    return text;
}

const char* cdStatusText(int state) {
    switch (state) {
        case CD_NO_DISC:
            return "No Disc";
        case CD_NOT_READY:
            return "Not Ready";
        case CD_READY:
            return "Ready";
        case CD_BAD_DISC:
            return "Bad Disc";
        default:
            return "";
    }
}

}  // namespace

void appendJsonText(std::string& out, const char* text) {
    for (const char* p = text ? text : ""; *p; p++) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
}

std::string quoted(const char* text) {
    std::string out = "\"";
    appendJsonText(out, text);
    return out + "\"";
}

std::string getWebStatusCore(bool full) {
    std::string out;
    const int selected = getSelectedSource();
    add(out, "{\"playing\":%d", isPlaying() ? 1 : 0);
    addText(out, "source", sourceName(selected));
    out += ",\"punchThru\":false";
    RecordingView rec = recordingView();
    if (rec.recording) {
        out += ",\"recording\":true";
        add(out, ",\"recordingDuration\":%d", rec.duration);
        add(out, ",\"recordingLimit\":%d", rec.limit);
        addText(out, "recordingSource", rec.source.c_str());
        addText(out, "recordingPath", rec.path.c_str());
    } else {
        out += ",\"recording\":false";
    }
    out += ",\"ktube\":false";
    out += ",\"kzs\":false";
    out += webRefreshRequested() ? ",\"forceWebRefresh\":true" : ",\"forceWebRefresh\":false";

    const int id = lib().currentID;
    const int t = idToTrack(id);
    const int u = idToUSBTrack(id);
    // Another source than the library plays: its own title, not the last
    // library track's.
    // The radio's view is read once: each part of it takes the player's lock.
    const RadioView radio = selected == SEL_RADIO ? radioView() : RadioView();
    std::string title = otherSourceTitle(selected, radio);
    if (!title.empty()) {
        addText(out, "track", title.c_str());
    } else if (idIsTrack(id) && t >= 0 && t < getTrackCount()) {
        int a = getParentAlbum(t);
        int r = getAlbumArtist(a);
        addText(out, "track", getCleanTrackName(t).c_str());
        addText(out, "album", getAlbumName(a));
        addText(out, "artist", getArtistName(r));
        add(out, ",\"trackid\":\"%d\"", id);
        add(out, ",\"albumid\":\"%d\"", albumToID(a));
        add(out, ",\"artistid\":\"%d\"", artistToID(r));
        if (full) {
            add(out, ",\"duration\":\"%d\"", getDuration());
            add(out, ",\"timeLeft\":\"%d\"", getTimeLeft());
            add(out, ",\"timeIntoTrack\":\"%d\"", getTimeIntoTrack());
        }
        addPlaylist(out);
    } else if (idIsUSBTrack(id) && u >= 0 && u < getUSBTrackcount()) {
        int a = getUSBParentAlbum(u);
        int r = getUSBParentArtist(a);
        addText(out, "track", idName(id).c_str());
        addText(out, "album", getUSBAlbumName(a));
        addText(out, "artist", cleanUSBArtist(getUSBArtistName(r)));
        add(out, ",\"trackid\":\"%d\"", id);
        add(out, ",\"albumid\":\"%d\"", USBAlbumToID(a));
        add(out, ",\"artistid\":\"%d\"", USBArtistToID(r));
        if (full) {
            add(out, ",\"timeLeft\":\"%d\"", getTimeLeft());
            add(out, ",\"duration\":\"%d\"", getDuration());
            add(out, ",\"timeIntoTrack\":\"%d\"", getTimeIntoTrack());
        }
        addPlaylist(out);
    } else {
        out += ",\"track\":\"empty\",\"album\":\"empty\",\"artist\":\"empty\"";
    }
    if (selected == SEL_RADIO) {
        addText(out, "station", radio.station.c_str());
        if (full) addText(out, "radioStatus", radio.status.c_str());
        addText(out, "logo", radio.logo.c_str());
    }
    if (full) add(out, ",\"seconds\":\"%d\"", getTimeIntoTrack());

    addText(out, "btstatus", "");
    const int cd = mainLoop().cdState;
    addText(out, "cdstatus", isRipping() ? ripStatusText().c_str() : cdStatusText(cd));
    if (cd == CD_READY) {
        out += ",\"cdloaded\":true";
        add(out, ",\"cddbmatches\":\"%d\"", getLookupCandidateCount());
    } else {
        out += ",\"cdloaded\":false,\"cddbmatches\":-1";
    }
    addText(out, "discid", cd == CD_READY ? computeDiscId(currentToc()).c_str() : "");

    if (full) {
        char clock[16];
        time_t now = time(nullptr);
        struct tm local;
        localtime_r(&now, &local);
        strftime(clock, sizeof clock, "%H:%M", &local);
        addText(out, "time", clock);
    }
    add(out, ",\"volume\":\"%d\"", getCurrentVolume());
    add(out, ",\"random\":\"%d\"", getRandomMode());
    add(out, ",\"sorted\":\"%d\"", isSorted() ? 1 : 0);
    add(out, ",\"reversed\":\"%d\"", isReversed() ? 1 : 0);
    // A copy the person started speaks before the job that runs by itself.
    std::string background = storageStatusText();
    if (background.empty() || (!isStorageJobRunning() && isCompressing()))
        background = compressionStatusText();
    addText(out, "background", background.c_str());
    addText(out, "compression", getCompressionText());
    addText(out, "logging", getLoggingText());
    addText(out, "segue", getSegueText());
    add(out, ",\"tvui\":\"%d\"", isTVUIEnabled() ? 1 : 0);
    add(out, ",\"guest\":\"%d\"", isGuestMode() ? 1 : 0);
    add(out, ",\"guestPlaylist\":\"%d\"", getGuestModePlaylist());
    add(out, ",\"hdmi\":\"%d\"", isHDMIEnabled() ? 1 : 0);
    add(out, ",\"airable\":\"%d\"", isAirable() ? 1 : 0);
    add(out, ",\"vCache\":\"%d\"", isvCacheEnabled() ? 1 : 0);
    add(out, ",\"equaliser\":\"%d\"", isEqualiserEnabled() ? 1 : 0);
    add(out, ",\"bass\":\"%d\"", getBassSetting());
    add(out, ",\"treble\":\"%d\"", getTrebleSetting());
    add(out, ",\"DLNA\":\"%d\"", getDLNASetting());
    addText(out, "breadcrumbs", "");
    addText(out, "alert", getWebAlert().c_str());
    addText(out, "zone", sonosZoneInUse().c_str());
    std::vector<ZoneView> zones = sonosZones();
    out += ",\"sonos\":[";
    for (size_t i = 0; i < zones.size(); i++) {
        out += i ? ",\"" : "\"";
        appendJsonText(out, zones[i].name.c_str());
        out += "\"";
    }
    out += "],\"sonosActive\":[";
    for (size_t i = 0; i < zones.size(); i++) {
        out += i ? "," : "";
        out += zones[i].active ? "true" : "false";
    }
    out += "]";
    if (full) out += ",\"vu\":[0,0,0,0,0,0,0,0,0,0]";
    addText(out, "lookup", cd == CD_READY ? lookupState().c_str() : "");
    out += isPaused() ? ",\"paused\":true" : ",\"paused\":false";
    addText(out, "playMode", playModeName());
    out += hasQueuedTracks() ? ",\"queued\":true" : ",\"queued\":false";
    // A machine without a drive says so, rather than "Not Ready" for ever.
    struct stat drive;
    out += stat(cdDevicePath().c_str(), &drive) == 0 ? ",\"cddrive\":true" : ",\"cddrive\":false";
    // Unlike forceWebRefresh (once, to whichever page asks first), a count
    // every open page can compare with what it showed.
    add(out, ",\"changes\":%d", static_cast<long>(libraryGeneration()) + playlistsGeneration());
    // Each networked zone's state, volume and track, for the zone picker.
    out += ",\"zones\":" + sonosZonesJson();
    addText(out, "snapcast", snapcastModeName());
    addText(out, "snapcastState", snapcastState().c_str());
    // The USB library: which drive it shows and how much of it is scanned.
    std::string usb = usbLibraryRoot();
    addText(out, "usb", usb.empty() ? "" : usb.substr(usb.rfind('/') + 1).c_str());
    add(out, ",\"usbTracks\":%d", getUSBTrackcount());
    add(out, ",\"usbAlbums\":%d", getUSBAlbumcount());
    out += isScanningUSB() ? ",\"usbScanning\":true" : ",\"usbScanning\":false";
    out += ",\"storageJob\":" + storageJobJson();
    out += "}";
    return out;
}
