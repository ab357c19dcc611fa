// Playlists. Not built yet: there are none, so nothing is loaded, played,
// named or fixed up when library items go.
#pragma once

#include <string>

void initPlaylists();
void loadPlaylist(int index);
void loadPlaylists();
void savePlaylists();
void stopPlaylistPlayback();
// The name of a playlist; empty when there is no such playlist.
std::string getPlaylistName(int index);
// Library items went away: playlists drop them and renumber what follows.
void playlistsTrackRemoved(int track);
void playlistsAlbumRemoved(int album);
void playlistsArtistRemoved(int artist);
