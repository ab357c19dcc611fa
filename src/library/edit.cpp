#include "library/edit.h"

#include <stdio.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstring>

#include "core/files.h"
#include "core/log.h"
#include "library/database.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/names.h"
#include "library/scan.h"

namespace {

// A new name for a table entry; the heap is only ever appended to.
const char* heapCopy(NameHeap& heap, const char* name, int fatalCode) {
    const char* copy = heap.add(name);
    if (!copy) exception(fatalCode);
    return copy;
}

std::string parentOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

// Renames on disk. A change of letter case alone goes through a temporary
// name, so it also works on file systems that ignore case (the SD card).
int renameOnDisk(const std::string& from, const std::string& to, bool caseOnly) {
    if (!caseOnly) return rename(from.c_str(), to.c_str());
    std::string temp = from + ".kz-rename";
    if (rename(from.c_str(), temp.c_str()) != 0) return -1;
    if (rename(temp.c_str(), to.c_str()) != 0) {
        rename(temp.c_str(), from.c_str());
        return -1;
    }
    return 0;
}

int deleteTree(const std::string& path) {
    if (!isSafeLibraryPath(path)) {
        kzLog("deleteID refusing to remove %s\n", path.c_str());
        return 0;
    }
    kzLog("Executing rm -rf \"%s\"\n", path.c_str());
    removeTree(path);
    return 1;
}

int deleteAlbum(int a) {
    if (!deleteTree(getAlbumPath(a))) return 0;
    removeAlbum(a);
    return 1;
}

// An artist whose last album went (deleted or moved away) is no artist any
// more: its empty folder goes, and so does its entry, from lists and search.
void dropArtistIfEmpty(int r) {
    if (r < 0 || r >= getArtistCount()) return;
    for (int a = 0; a < getAlbumCount(); a++)
        if (getAlbumArtist(a) == r) return;
    std::string folder = getArtistPath(r);
    // Only an empty folder: a picture or anything else of the user's stays.
    if (isSafeLibraryPath(folder) && rmdir(folder.c_str()) != 0 && errno != ENOENT)
        kzLog("Artist %s has no albums; its folder stays (%s)\n", getArtistName(r),
              strerror(errno));
    kzLog("Artist %s has no albums left\n", getArtistName(r));
    removeArtist(r);
}

}  // namespace

bool isSafeLibraryPath(const std::string& path) {
    std::string music = getMusicDirectory() + "/";
    if (getLocalPath().empty() || path.compare(0, music.size(), music) != 0) return false;
    std::string rest = path.substr(music.size());
    size_t start = 0;
    for (;;) {
        size_t slash = rest.find('/', start);
        std::string part = rest.substr(start, slash == std::string::npos ? slash : slash - start);
        if (part.empty() || part == "." || part == "..") return false;
        if (slash == std::string::npos) return true;
        start = slash + 1;
    }
}

int changeTrackName(int t, const char* title) {
    const char* old = getTrackName(t);
    // Keep the track number in front and the extension behind the title:
    // the title is what is left of the name without them.
    std::string noExt = nameWithoutExtension(old);
    std::string prefix = noExt.substr(0, noExt.size() - cleanTrackName(old).size());
    std::string ext = std::string(old).substr(noExt.size());
    std::string name = prefix + title;
    if (ext.empty() || !endsWithExtension(name.c_str(), ext.c_str())) name += ext;
    if (name == old) return 1;

    int album = getParentAlbum(t);
    int existing =
        findTrackByNames(name.c_str(), getAlbumName(album), getArtistName(getAlbumArtist(album)));
    bool caseOnly = existing == t;
    std::string from = getTrackPath(t);
    std::string to = parentOf(from) + "/" + name;
    if ((existing >= 0 && !caseOnly) || (!caseOnly && fileExists(to)) || !isSafeLibraryPath(from)) {
        kzLog("track already exists - rename failed\n");
        return 0;
    }
    int result = renameOnDisk(from, to, caseOnly);
    kzLog("Renamed <%s>\nto <%s>\nresult %d\n", from.c_str(), to.c_str(), result);
    if (result != 0) return 0;

    std::string mirror = parentOf(from) + "/.mirror/";
    std::string oldMirror = mirror + nameWithoutExtension(old) + ".mp3";
    if (fileExists(oldMirror)) {
        rename(oldMirror.c_str(), (mirror + nameWithoutExtension(name.c_str()) + ".mp3").c_str());
    }
    {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        lib().local.track[t] = heapCopy(lib().local.trackHeap, name.c_str(), 1);
        lib().local.trackIndex.invalidate();
    }
    dirty();
    return 1;
}

int changeAlbumName(int a, const char* name) {
    const char* old = getAlbumName(a);
    if (strcmp(old, name) == 0) return 1;
    int existing = findAlbumByNameAndArtist(name, getAlbumArtist(a));
    bool caseOnly = existing == a;
    std::string from = getAlbumPath(a);
    std::string to = parentOf(from) + "/" + name;
    if ((existing >= 0 && !caseOnly) || (!caseOnly && fileExists(to))) {
        kzLog("album already exists - rename failed\n");
        return 0;
    }
    if (!isSafeLibraryPath(from)) return 0;
    if (caseOnly) kzLog("changeAlbumName () capitalisation only\n");
    int result = renameOnDisk(from, to, caseOnly);
    kzLog("Renamed <%s>\nto <%s>\nResult %d\n", from.c_str(), to.c_str(), result);
    if (result != 0) return 0;
    {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        lib().local.album[a] = heapCopy(lib().local.albumHeap, name, 2);
        lib().albumClass[a] = getClassFromName(name);
        lib().local.albumIndex.invalidate();
    }
    dirty();
    return 1;
}

int changeArtistName(int r, const char* name) {
    const char* old = getArtistName(r);
    if (strcmp(old, name) == 0) return 1;
    int existing = findArtistByName(name);
    bool caseOnly = existing == r;
    std::string from = getArtistPath(r);
    std::string to = getMusicDirectory() + "/" + name;
    if ((existing >= 0 && !caseOnly) || (!caseOnly && fileExists(to))) {
        kzLog("artist already exists - rename failed\n");
        return 0;
    }
    if (!isSafeLibraryPath(from)) return 0;
    int result = renameOnDisk(from, to, caseOnly);
    kzLog("Renamed <%s>\nto <%s>\nResult %d\n", from.c_str(), to.c_str(), result);
    if (result != 0) return 0;
    {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        lib().local.artist[r] = heapCopy(lib().local.artistHeap, name, 3);
        lib().artistClass[r] = getClassFromName(name);
        lib().local.artistIndex.invalidate();
    }
    dirty();
    return 1;
}

int renameID(int id, const char* name) {
    if (badName(name)) {
        kzLog("badName in renameID\n");
        return 0;
    }
    if (!idIsTag(id) && !(idExists(id) && (idIsTrack(id) || idIsAlbum(id) || idIsArtist(id)))) {
        kzLog("ERROR renameID cannot rename %d\n", id);
        return 0;
    }
    std::string clean = cleanPathName(name);
    int done = 1;
    if (idIsTrack(id)) {
        done = changeTrackName(idToTrack(id), clean.c_str());
    } else if (idIsAlbum(id)) {
        done = changeAlbumName(idToAlbum(id), clean.c_str());
    } else if (idIsArtist(id)) {
        done = changeArtistName(idToArtist(id), clean.c_str());
    } else if (idIsTag(id)) {
        setTagName(idToTag(id), name);
    } else {
        kzLog("ERROR renameID cannot rename %d\n", id);
        done = 0;
    }
    saveDBifChanged();
    return done;
}

int deleteID(int id) {
    // Nothing is removed for an item that is not in the library: a stale slot
    // past the end of a table still names a file of a listed track.
    if (!idExists(id)) {
        kzLog("ERROR deleteID cannot delete %d\n", id);
        return 0;
    }
    if (idIsTrack(id)) {
        int t = idToTrack(id);
        std::string path = getTrackPath(t);
        if (!isSafeLibraryPath(path)) {
            kzLog("deleteID refusing to remove %s\n", path.c_str());
            return 0;
        }
        kzLog("Executing rm \"%s\"\n", path.c_str());
        struct stat st;
        if (stat(path.c_str(), &st) == 0) freeKb(st.st_size);
        removeFile(path);
        removeTrack(t);
    } else if (idIsAlbum(id)) {
        int r = getAlbumArtist(idToAlbum(id));
        if (!deleteAlbum(idToAlbum(id))) return 0;
        dropArtistIfEmpty(r);
    } else if (idIsArtist(id)) {
        int r = idToArtist(id);
        for (;;) {
            int first = -1;
            for (int a = 0; a < getAlbumCount() && first < 0; a++) {
                if (getAlbumArtist(a) == r) first = a;
            }
            if (first < 0) break;
            if (!deleteAlbum(first)) return 0;
        }
        if (!deleteTree(getArtistPath(r))) return 0;
        removeArtist(r);
    } else {
        kzLog("ERROR deleteID cannot delete %d\n", id);
        return 0;
    }
    saveDBifChanged();
    return 1;
}

int moveAlbumToArtist(int a, const char* artistName) {
    if (a < 0 || a >= getAlbumCount() || badName(artistName)) {
        kzLog("moveAlbumToArtist () refused\n");
        return 0;
    }
    std::string artist = cleanPathName(artistName);
    std::string folder = getMusicDirectory() + "/" + artist;
    std::string from = getAlbumPath(a);
    std::string to = folder + "/" + getAlbumName(a);
    if (!isSafeLibraryPath(from) || !isSafeLibraryPath(to)) return 0;
    if (fileExists(to)) {
        kzLog("album already exists - move failed\n");
        return 0;
    }
    if (!isFolder(folder) && mkdir(folder.c_str(), 0755) != 0) {
        kzLog("moveAlbumToArtist () cannot make %s\n", folder.c_str());
        return 0;
    }
    int result = rename(from.c_str(), to.c_str());
    kzLog("Moved <%s>\nto <%s>\nResult %d\n", from.c_str(), to.c_str(), result);
    if (result != 0) return 0;
    {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        int old = getAlbumArtist(a);
        int r = addArtistToDb(artist.c_str());
        lib().local.parentArtist[a] = r;
        lib().local.albumIndex.invalidate();
        lib().local.trackIndex.invalidate();
        dropArtistIfEmpty(old);
    }
    dirty();
    return 1;
}
