// Identifiers: one signed 32-bit number names any item, its kind given by
// its band of one million. Conversions do no range checks on purpose.
#pragma once

#include <string>

enum IdBase {
    ALBUM_BASE = 1000000,
    TRACK_BASE = 2000000,
    ARTIST_BASE = 3000000,
    PLAYLIST_BASE = 4000000,
    RADIO_BASE = 5000000,
    PRESET_BASE = 6000000,
    TAG_BASE = 7000000,
    VIDEO_BASE = 8000000,
    USB_ALBUM_BASE = 9000000,
    USB_TRACK_BASE = 10000000,
    USB_ARTIST_BASE = 11000000,
    CD_TRACK_BASE = 12000000,
    INVALID_ID = 13000000,
};

inline int invalidId() {
    return INVALID_ID;
}

inline int albumToID(int i) {
    return i + ALBUM_BASE;
}
inline int trackToID(int i) {
    return i + TRACK_BASE;
}
inline int artistToID(int i) {
    return i + ARTIST_BASE;
}
inline int playlistToID(int i) {
    return i + PLAYLIST_BASE;
}
inline int radioToID(int i) {
    return i + RADIO_BASE;
}
inline int presetToID(int i) {
    return i + PRESET_BASE;
}
inline int videoToID(int i) {
    return i + VIDEO_BASE;
}
inline int USBAlbumToID(int i) {
    return i + USB_ALBUM_BASE;
}
inline int USBTrackToID(int i) {
    return i + USB_TRACK_BASE;
}
inline int USBArtistToID(int i) {
    return i + USB_ARTIST_BASE;
}

inline int idToAlbum(int id) {
    return id - ALBUM_BASE;
}
inline int idToTrack(int id) {
    return id - TRACK_BASE;
}
inline int idToArtist(int id) {
    return id - ARTIST_BASE;
}
inline int idToPlaylist(int id) {
    return id - PLAYLIST_BASE;
}
inline int idToRadio(int id) {
    return id - RADIO_BASE;
}
inline int idToPreset(int id) {
    return id - PRESET_BASE;
}
inline int idToTag(int id) {
    return id - TAG_BASE;
}
inline int idToVideo(int id) {
    return id - VIDEO_BASE;
}
inline int idToUSBAlbum(int id) {
    return id - USB_ALBUM_BASE;
}
inline int idToUSBTrack(int id) {
    return id - USB_TRACK_BASE;
}
inline int idToUSBArtist(int id) {
    return id - USB_ARTIST_BASE;
}
inline int idToCDTrack(int id) {
    return id - CD_TRACK_BASE;
}

inline bool idInBand(int id, int base) {
    return id >= base && id < base + 1000000;
}
inline bool idIsAlbum(int id) {
    return idInBand(id, ALBUM_BASE);
}
inline bool idIsTrack(int id) {
    return idInBand(id, TRACK_BASE);
}
inline bool idIsArtist(int id) {
    return idInBand(id, ARTIST_BASE);
}
inline bool idIsPlaylist(int id) {
    return idInBand(id, PLAYLIST_BASE);
}
inline bool idIsRadio(int id) {
    return idInBand(id, RADIO_BASE);
}
inline bool idIsPreset(int id) {
    return idInBand(id, PRESET_BASE);
}
inline bool idIsTag(int id) {
    return idInBand(id, TAG_BASE);
}
inline bool idIsVideo(int id) {
    return idInBand(id, VIDEO_BASE);
}
inline bool idIsUSBAlbum(int id) {
    return idInBand(id, USB_ALBUM_BASE);
}
inline bool idIsUSBTrack(int id) {
    return idInBand(id, USB_TRACK_BASE);
}
inline bool idIsUSBArtist(int id) {
    return idInBand(id, USB_ARTIST_BASE);
}
inline bool idIsCDTrack(int id) {
    return idInBand(id, CD_TRACK_BASE);
}

// "Album", "Track", "Artist", "Playlist" (for every band from playlists to CD
// tracks) or "Bad ID".
const char* idType(int id);
// The name shown for an item; "Bad ID" outside the bands, "Invalid" for an
// item that does not exist.
std::string idName(int id);
// True for a track, album or artist (local or USB) that is in its table.
bool idExists(int id);
// The full path of an album, track or USB track; empty for other kinds.
std::string getIdPath(int id);
// Track → album, album → artist, USB track → USB album, USB album → USB
// artist; 0 for any other kind.
int getParentId(int id);
