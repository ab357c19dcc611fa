// The music library's entry points used by start-up, the main loop and the
// exits. The tables, the folder scan and the database file are not built yet:
// the library stays empty and there is nothing to save.
#pragma once

#include <string>

// Makes localPath (the mounted storage) the library root.
void initmdb(const std::string& localPath);
// The library root given to initmdb; empty while there is no storage.
const std::string& getLocalPath();
void loadPreloadedMedia(int which);
// Starts loading (or scanning) the library in the background.
int startLoadOrScan();
// Writes the database now when it changed.
void saveDBifChanged();
// Writes the database on a thread of its own when it changed.
bool postWriteDB();
bool isCleanupRunning();
void stopCleanup();
