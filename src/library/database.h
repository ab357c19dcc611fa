// The library's database file, root + "/kzdb": read whole at start-up, so
// the disk need not be scanned, and written whole at save points after a
// change. Writes go to a temporary file that replaces the old one only once
// it is complete and on disk.
#pragma once

#include <stdio.h>

#include <string>

// Reads one line into buffer (at most size - 1 characters kept, the rest of
// a longer line skipped). 1 at a line feed, 0 at the end of the file.
int dbGetLine(FILE* f, char* buffer, int size);

std::string getDBPath();
// 1 when the file was found, whatever it held; 0 when it cannot be opened.
int readDB();
// 1 when written; 0 when it could not be (the change flag then stays set),
// and 0 while the library is being rebuilt: the tables then hold only part of
// the music, and writing them would replace a whole kzdb with that part.
int writeDB();
// Brackets a rebuild of the tables (load-or-scan, a full rescan). Until the
// rebuild finishes no save may replace kzdb or kzplaylists.
void beginLibraryRebuild();
void endLibraryRebuild();
bool libraryRebuilding();
// How many times load-or-scan has finished: 0 until the library is first there.
int libraryLoadCount();
void saveDBifChanged();
// Saves on a thread of its own; true when the thread was started.
bool postWriteDB();
// Loads the database, or scans the music folder and writes one, on a
// thread of its own.
int startLoadOrScan();
void loadOrScan();
