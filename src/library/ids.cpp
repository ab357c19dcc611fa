#include "library/ids.h"

#include "core/appliance.h"
#include "library/library.h"
#include "library/names.h"
#include "library/playlists.h"
#include "radio/radio.h"

const char* idType(int id) {
    if (id < ALBUM_BASE || id >= INVALID_ID) return "Bad ID";
    if (idIsAlbum(id)) return "Album";
    if (idIsTrack(id)) return "Track";
    if (idIsArtist(id)) return "Artist";
    return "Playlist";
}

namespace {
std::string orInvalid(const std::string& name) {
    return name.empty() ? "Invalid" : name;
}
}  // namespace

std::string idName(int id) {
    if (id < ALBUM_BASE || id >= INVALID_ID) return "Bad ID";
    if (idIsAlbum(id)) return getAlbumName(idToAlbum(id));
    if (idIsArtist(id)) return getArtistName(idToArtist(id));
    if (idIsTrack(id)) return getCleanTrackName(idToTrack(id));
    if (idIsPlaylist(id)) return orInvalid(getPlaylistName(idToPlaylist(id)));
    // Presets are named through the radio table, by the same offset.
    if (idIsRadio(id) || idIsPreset(id)) return orInvalid(getRadioName(id - RADIO_BASE));
    if (idIsTag(id)) return "Tag";
    if (idIsVideo(id)) return orInvalid(getVideoName(idToVideo(id)));
    if (idIsUSBAlbum(id)) {
        int a = idToUSBAlbum(id);
        if (a < getUSBAlbumcount()) return getUSBAlbumName(a);
    } else if (idIsUSBTrack(id)) {
        int t = idToUSBTrack(id);
        if (t < getUSBTrackcount()) return skipTno(getUSBTrackNameNoExt(t).c_str());
    } else if (idIsUSBArtist(id)) {
        int r = idToUSBArtist(id);
        if (r < getUSBArtistcount()) return cleanUSBArtist(getUSBArtistName(r));
    }
    return "Invalid";
}

bool idExists(int id) {
    if (idIsTrack(id)) return idToTrack(id) < getTrackCount();
    if (idIsAlbum(id)) return idToAlbum(id) < getAlbumCount();
    if (idIsArtist(id)) return idToArtist(id) < getArtistCount();
    if (idIsUSBTrack(id)) return idToUSBTrack(id) < getUSBTrackcount();
    if (idIsUSBAlbum(id)) return idToUSBAlbum(id) < getUSBAlbumcount();
    if (idIsUSBArtist(id)) return idToUSBArtist(id) < getUSBArtistcount();
    return false;
}

std::string getIdPath(int id) {
    if (!idExists(id)) return "";
    if (idIsAlbum(id)) return getAlbumPath(idToAlbum(id));
    if (idIsTrack(id)) return getTrackPath(idToTrack(id));
    if (idIsUSBTrack(id)) return getUSBTrackPath(idToUSBTrack(id));
    return "";
}

int getParentId(int id) {
    if (!idExists(id)) return 0;
    if (idIsTrack(id)) return albumToID(getParentAlbum(idToTrack(id)));
    if (idIsAlbum(id)) return artistToID(getAlbumArtist(idToAlbum(id)));
    if (idIsUSBTrack(id)) return USBAlbumToID(getUSBParentAlbum(idToUSBTrack(id)));
    if (idIsUSBAlbum(id)) return USBArtistToID(getUSBParentArtist(idToUSBAlbum(id)));
    return 0;
}
