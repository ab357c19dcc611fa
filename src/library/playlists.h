// Playlists: named lists of library identifiers (tracks, albums, artists),
// kept in "kzplaylists" beside the library's database file. An album or
// artist entry plays all of its tracks. The playlist named "Queue" is the
// play queue. Entries are stored by their names, so a rescan that renumbers
// the library finds them again; what is no longer in the library is dropped
// with a log line.
#pragma once

#include <string>
#include <vector>

constexpr int kMaxPlaylists = 500;
constexpr int kMaxPlaylistEntries = 5000;

void initPlaylists();
// Guest mode: the guest playlist plays and nothing else may.
void loadPlaylist(int index);
// Reads the file and resolves its names against the library.
void loadPlaylists();
// Writes the file; nothing is written while the library is being rebuilt
// (the identifiers held then mean nothing).
void savePlaylists();
// The library was emptied: the entries wait for the next loadPlaylists.
void playlistsLibraryCleared();

int getPlaylistCount();
// The name of a playlist; empty when there is no such playlist.
std::string getPlaylistName(int index);
std::vector<int> getPlaylistEntries(int index);
int findPlaylistByName(const std::string& name);
// The index of the playlist of that name, made when missing; -1 for an empty
// name or when there are too many playlists.
int newPlaylist(const std::string& name);
// Inserts id at position (past the end appends). False for an item that is
// not in the library, a full playlist or no such playlist.
bool addToPlaylist(int index, int id, int position);
bool removeFromPlaylist(int index, int position);
bool deletePlaylist(int index);
bool renamePlaylist(int index, const std::string& name);
// Shuffles the playlist's entries.
bool mixPlaylist(int index);
// The "Queue" playlist, made when missing; -1 when it cannot be.
int getQueuePlaylist();
// Takes the queue's first track off it (an album or artist entry gives its
// tracks one at a time, in album order); -1 when nothing is queued.
int takeQueuedTrack();
// Empties the queue. False when there is none.
bool clearQueue();
// Whether anything waits in the queue (no lock: the output thread asks).
bool hasQueuedTracks();
// Grows with every change of the playlists.
int playlistsGeneration();

// Playing a playlist: its entries expanded to tracks, in order (shuffled in
// random mode). It starts at the first entry holding fromId (0: the first).
// Returns the first track to play, -1 when the playlist has none.
int startPlaylistPlayback(int index, int fromId, bool shuffled);
bool isPlaylistPlaying();
// The playlist playing, -1 when none.
int getPlayingPlaylist();
// The track after (or before) the current one; -1 at the end (start).
int playlistNextTrack();
int playlistPrevTrack();
void stopPlaylistPlayback();

// Library items went away: playlists drop them and renumber what follows.
void playlistsTrackRemoved(int track);
void playlistsAlbumRemoved(int album);
void playlistsArtistRemoved(int artist);
