// Playlists (not built yet: there are none to load or play).
#pragma once

void initPlaylists();
void loadPlaylist(int index);
void stopPlaylistPlayback();
