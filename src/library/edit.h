// Renaming and deleting library items by identifier, on disk and in the
// tables. New names come from outside (the web, the menus): they are refused
// by badName or cleaned so they stay one name inside their folder.
#pragma once

#include <string>

// 1 when done (or nothing needed doing), 0 when refused.
int renameID(int id, const char* name);
int changeTrackName(int t, const char* title);
int changeAlbumName(int a, const char* name);
int changeArtistName(int r, const char* name);
// Removes the item's files and folders and its table entries; 1 when done,
// 0 for a kind that cannot be deleted or a path that is not the library's.
int deleteID(int id);
// Moves an album's folder to another artist's (made when missing); the
// album keeps its identifier. 1 when done.
int moveAlbumToArtist(int a, const char* artistName);
// True for a path below the music folder with no empty, "." or ".." part.
bool isSafeLibraryPath(const std::string& path);
