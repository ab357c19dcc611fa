#include "library/playlists.h"

void initPlaylists() {}
void loadPlaylist(int) {}
void stopPlaylistPlayback() {}
