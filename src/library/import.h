// Copying music from a USB drive into the library. Albums that sit in
// Artist/Album folders keep those names; loose files (at the top of the
// drive or one folder down) are placed by their tags. A file already in the
// library under the same name and size is skipped, so an import cut short by
// a quit or a pulled drive goes on where it stopped when it is run again.
#pragma once

#include <atomic>
#include <string>
#include <vector>

struct ImportProgress {
    std::atomic<int> filesDone{0};
    std::atomic<int> filesTotal{0};
    std::atomic<long long> bytesDone{0};
    std::atomic<long long> bytesTotal{0};
    std::atomic<bool> planning{false};
};

struct ImportResult {
    bool ok = true;
    bool stopped = false;
    int albums = 0;   // albums that received at least one track
    int copied = 0;   // tracks copied
    int skipped = 0;  // tracks already in the library
    int failed = 0;   // tracks that could not be read
    std::string message;
};

// sources are folders or files named relative to the drive's root ("" or
// an empty list: the whole drive). Blocks; the stop flag ends it at the next
// block copied. The library's tables take each album as it lands; the caller
// saves the database.
ImportResult importFromDrive(const std::string& driveRoot, const std::vector<std::string>& sources,
                             const std::atomic<bool>& stop, ImportProgress& progress);

// A relative path from the web made safe: no "..", no leading "/", no empty
// or hidden components. False when it cannot be.
bool cleanRelativePath(const std::string& in, std::string* out);

// A name from outside as one folder or file name the library can hold:
// no "/", no control characters, not hidden, not "..", short enough for
// kzdb (the extension of a track is kept).
std::string libraryName(const std::string& name, size_t most, bool keepExtension);
