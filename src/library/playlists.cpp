#include "library/playlists.h"

void initPlaylists() {}
void loadPlaylist(int) {}
void loadPlaylists() {}
void savePlaylists() {}
void stopPlaylistPlayback() {}
std::string getPlaylistName(int) {
    return "";
}
void playlistsTrackRemoved(int) {}
void playlistsAlbumRemoved(int) {}
void playlistsArtistRemoved(int) {}
