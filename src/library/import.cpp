#include "library/import.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "core/files.h"
#include "core/log.h"
#include "library/library.h"
#include "library/names.h"
#include "library/scan.h"
#include "library/tags.h"

namespace {

constexpr int kDeepest = 7;  // as deep as the USB scan looks
// How much is copied between two syncs: each sync costs as much as copying
// tens of megabytes, and a person waits a few seconds at most to see an
// album in the library.
constexpr long long kBatchBytes = 256LL << 20;
constexpr size_t kBatchFiles = 1000;
constexpr auto kBatchTime = std::chrono::seconds(5);
constexpr const char* kPart = ".kz-import-part";
// One line of kzdb holds "artist/album" or a track name.
constexpr size_t kArtistMost = 100;
constexpr size_t kAlbumMost = 140;
constexpr size_t kTrackMost = 200;

struct Source {
    std::string path;  // on the drive
    long long size = 0;
    std::vector<std::string> folders;  // below the drive's root
    std::string name;
};

struct Album {
    std::string artist, album;
    std::vector<Source> files;
};

// The names between the slashes of a path, empty ones left out.
std::vector<std::string> pathParts(const std::string& path) {
    std::vector<std::string> parts;
    size_t at = 0;
    while (at <= path.size()) {
        size_t slash = path.find('/', at);
        if (slash == std::string::npos) slash = path.size();
        if (slash > at) parts.push_back(path.substr(at, slash - at));
        at = slash + 1;
    }
    return parts;
}

std::string lower(std::string s) {
    for (char& c : s)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

bool skippedName(const char* name) {
    return name[0] == '.' || name[0] == '$';
}

// Collects the music files under path. Links are never followed: a loop
// would never end and a link may point off the drive.
void collect(const std::string& path, std::vector<std::string>& folders, int depth,
             const std::atomic<bool>& stop, std::vector<Source>& out) {
    DIR* d = opendir(path.c_str());
    if (!d) {
        kzLog("Import cannot read %s: %s\n", path.c_str(), strerror(errno));
        return;
    }
    while (!stop) {
        errno = 0;
        dirent* e = readdir(d);
        if (!e) break;
        if (skippedName(e->d_name)) continue;
        std::string entry = path + "/" + e->d_name;
        struct stat st;
        if (lstat(entry.c_str(), &st) != 0) continue;
        if (S_ISLNK(st.st_mode)) {
            kzLog("Import skips the link %s\n", entry.c_str());
        } else if (S_ISDIR(st.st_mode)) {
            if (depth == 0) continue;
            folders.push_back(e->d_name);
            collect(entry, folders, depth - 1, stop, out);
            folders.pop_back();
        } else if (S_ISREG(st.st_mode) && allowedMusicTrack(e->d_name)) {
            out.push_back({entry, st.st_size, folders, e->d_name});
        }
    }
    closedir(d);
}

// Where a file goes: Artist/Album folders name it; a loose file is named by
// its tags.
void place(const Source& s, std::string* artist, std::string* album) {
    size_t n = s.folders.size();
    if (n >= 2) {
        *artist = s.folders[n - 2];
        *album = s.folders[n - 1];
        return;
    }
    FileTags t = readTags(s.path);
    *artist = !t.albumArtist.empty() ? t.albumArtist : t.artist;
    *album = t.album;
    if (album->empty()) *album = n == 1 ? s.folders[0] : "Unknown Album";
    if (artist->empty()) *artist = "Unknown Artist";
}

enum class Copy { Done, Stopped, ReadFailed, WriteFailed };

Copy copyFile(FileCopier& copier, const std::string& from, const std::string& to,
              const std::atomic<bool>& stop, ImportProgress& progress, int* error) {
    int in = open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (in < 0) {
        *error = errno;
        return Copy::ReadFailed;
    }
    int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (out < 0) {
        *error = errno;
        close(in);
        return Copy::WriteFailed;
    }
    CopySide side = CopySide::Either;
    int err = copier.copy(
        in, out, [&] { return stop ? ECANCELED : 0; },
        [&](long long n) { progress.bytesDone += n; }, &side);
    // Which side copy_file_range failed on is not told: it counts as the
    // drive's, unless the disk is full.
    Copy result = err == 0                  ? Copy::Done
                  : err == ECANCELED        ? Copy::Stopped
                  : side == CopySide::Write ? Copy::WriteFailed
                                            : Copy::ReadFailed;
    if (err != 0) *error = err;
    if (close(out) != 0 && result == Copy::Done) {
        *error = errno;
        result = Copy::WriteFailed;
    }
    close(in);
    return result;
}

long long sizeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? st.st_size : -1;
}

// The library's own spelling of a name it already holds in another letter
// case, so that "ABBA" and "Abba" stay one artist on a case-sensitive disk.
std::string existingArtist(const std::string& name) {
    int r = findArtistByName(name.c_str());
    return r >= 0 ? getArtistName(r) : name;
}
std::string existingAlbum(const std::string& album, const std::string& artist) {
    int a = findAlbumByNames(album.c_str(), artist.c_str());
    return a >= 0 ? getAlbumName(a) : album;
}

}  // namespace

bool cleanRelativePath(const std::string& in, std::string* out) {
    std::string result;
    for (const std::string& part : pathParts(in)) {
        if (part == ".") continue;
        if (part == ".." || part[0] == '.') return false;
        for (char c : part) {
            if (static_cast<unsigned char>(c) < 32) return false;
        }
        if (!result.empty()) result += '/';
        result += part;
    }
    *out = result;
    return true;
}

std::string libraryName(const std::string& name, size_t most, bool keepExtension) {
    std::string s = cleanPathName(name);
    for (char& c : s) {
        if (c == 0x7f || c == '*') c = '_';
    }
    // Trailing spaces and dots vanish on a FAT drive and confuse a copy back.
    while (!s.empty() && (s.back() == ' ' || s.back() == '.'))
        s.pop_back();
    if (s.empty()) s = "_";
    if (s.size() <= most) return s;
    std::string ext;
    size_t dot = s.rfind('.');
    if (keepExtension && dot != std::string::npos && s.size() - dot <= 6) ext = s.substr(dot);
    size_t keep = most - ext.size();
    // Never cut a UTF-8 sequence in two.
    while (keep > 0 && (static_cast<unsigned char>(s[keep]) & 0xC0) == 0x80)
        keep--;
    return s.substr(0, keep) + ext;
}

ImportResult importFromDrive(const std::string& driveRoot, const std::vector<std::string>& sources,
                             const std::atomic<bool>& stop, ImportProgress& progress) {
    ImportResult result;
    progress.planning = true;
    std::vector<Source> files;
    std::vector<std::string> wanted = sources.empty() ? std::vector<std::string>{""} : sources;
    for (const std::string& raw : wanted) {
        std::string rel;
        if (!cleanRelativePath(raw, &rel)) {
            kzLog("Import refuses the path \"%s\"\n", raw.c_str());
            continue;
        }
        std::string path = rel.empty() ? driveRoot : driveRoot + "/" + rel;
        std::vector<std::string> folders = pathParts(rel);
        // The drive's root may itself be a link (a folder shared in host
        // mode); links below it are never followed.
        struct stat st;
        if ((rel.empty() ? stat(path.c_str(), &st) : lstat(path.c_str(), &st)) != 0) {
            kzLog("Import cannot find %s\n", path.c_str());
            continue;
        }
        if (S_ISREG(st.st_mode) && !folders.empty() && allowedMusicTrack(folders.back().c_str())) {
            std::string name = folders.back();
            folders.pop_back();
            files.push_back({path, st.st_size, folders, name});
        } else if (S_ISDIR(st.st_mode)) {
            collect(path, folders, kDeepest - static_cast<int>(folders.size()), stop, files);
        }
    }
    // The same file named twice (a folder and a track inside it) is one.
    std::sort(files.begin(), files.end(),
              [](const Source& a, const Source& b) { return a.path < b.path; });
    files.erase(std::unique(files.begin(), files.end(),
                            [](const Source& a, const Source& b) { return a.path == b.path; }),
                files.end());

    // Group by destination; each album lands whole before the next starts.
    std::map<std::pair<std::string, std::string>, Album> albums;
    std::vector<std::pair<std::string, std::string>> order;
    for (const Source& s : files) {
        if (stop) break;
        std::string artist, album;
        place(s, &artist, &album);
        artist = existingArtist(libraryName(artist, kArtistMost, false));
        album = existingAlbum(libraryName(album, kAlbumMost, false), artist);
        auto key = std::make_pair(artist, album);
        auto [it, added] = albums.try_emplace(key);
        if (added) {
            it->second.artist = artist;
            it->second.album = album;
            order.push_back(key);
        }
        it->second.files.push_back(s);
        progress.filesTotal++;
        progress.bytesTotal += s.size;
    }
    progress.planning = false;

    const std::string music = getMusicDirectory();
    FileCopier copier;
    // Tracks are copied under part names, and get their names in batches
    // once one sync has put the batch on the disk: a power cut leaves part
    // files, never half a track under its name. An album joins the library
    // with the batch that ends it.
    struct Landed {
        std::string part, target;
        size_t album;
    };
    std::vector<Landed> landed;
    long long landedBytes = 0;
    std::vector<size_t> waiting;  // albums whose last tracks are in the batch
    std::vector<int> copiedIn(order.size(), 0);
    auto batchStart = std::chrono::steady_clock::now();
    auto flush = [&] {
        bool synced = true;
        if (!landed.empty()) {
            int fd = open(music.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            synced = fd >= 0 && syncfs(fd) == 0;
            if (fd >= 0) close(fd);
        }
        for (const Landed& l : landed) {
            if (synced && rename(l.part.c_str(), l.target.c_str()) == 0) {
                kzLog("Imported %s\n", l.target.c_str());
                copiedIn[l.album]++;
                result.copied++;
            } else {
                kzLog("Import cannot name %s: %s\n", l.target.c_str(), strerror(errno));
                unlink(l.part.c_str());
                result.failed++;
            }
        }
        landed.clear();
        landedBytes = 0;
        for (size_t i : waiting) {
            const Album& done = albums[order[i]];
            if (copiedIn[i] > 0) {
                result.albums++;
                addArtistToDb(done.artist.c_str());
                scanAlbum(done.album.c_str(), done.artist.c_str());
            } else {
                // An album folder made for nothing goes again.
                rmdir((music + "/" + done.artist + "/" + done.album).c_str());
                rmdir((music + "/" + done.artist).c_str());
            }
        }
        waiting.clear();
        batchStart = std::chrono::steady_clock::now();
    };
    for (size_t index = 0; index < order.size(); index++) {
        if (stop) break;
        Album& a = albums[order[index]];
        std::string folder = music + "/" + a.artist + "/" + a.album;
        if (!makeFolders(folder)) {
            result.ok = false;
            result.message = "Import stopped: cannot make " + folder + ": " + strerror(errno);
            kzLog("%s\n", result.message.c_str());
            break;
        }
        // Names the folder holds already, in any letter case: the library
        // takes "01 a.mp3" and "01 A.mp3" for one track. A part file there
        // is a cut-off run's.
        std::set<std::string> taken;
        if (DIR* d = opendir(folder.c_str())) {
            while (dirent* e = readdir(d)) {
                if (strncmp(e->d_name, kPart, strlen(kPart)) == 0) {
                    unlinkat(dirfd(d), e->d_name, 0);
                } else {
                    taken.insert(lower(e->d_name));
                }
            }
            closedir(d);
        }
        for (const Source& s : a.files) {
            if (stop) break;
            std::string name = libraryName(s.name, kTrackMost, true);
            std::string target = folder + "/" + name;
            if (taken.count(lower(name))) {
                long long have = sizeOf(target);
                if (have != s.size)
                    kzLog("Import keeps the library's %s: the drive's differs\n", target.c_str());
                result.skipped++;
                progress.filesDone++;
                progress.bytesDone += s.size;
                continue;
            }
            std::string part = folder + "/" + kPart + std::to_string(landed.size());
            int error = 0;
            long long before = progress.bytesDone;
            Copy c = copyFile(copier, s.path, part, stop, progress, &error);
            progress.filesDone++;
            if (c == Copy::Done) {
                landed.push_back({part, target, index});
                landedBytes += s.size;
                taken.insert(lower(name));
                continue;
            }
            unlink(part.c_str());
            progress.bytesDone = before + s.size;
            if (c == Copy::Stopped) break;
            if (c == Copy::ReadFailed && error != EIO && error != ENODEV && error != ENOENT) {
                kzLog("Import cannot read %s: %s\n", s.path.c_str(), strerror(error));
                result.failed++;
                continue;
            }
            result.ok = false;
            if (c == Copy::WriteFailed && (error == ENOSPC || error == EDQUOT || error == EFBIG)) {
                result.message = "Import stopped: the library's disk is full";
            } else if (c == Copy::WriteFailed) {
                result.message =
                    std::string("Import stopped: cannot write the library: ") + strerror(error);
            } else {
                result.message = "Import stopped: the USB drive went away";
            }
            kzLog("%s (%s)\n", result.message.c_str(), s.path.c_str());
            break;
        }
        waiting.push_back(index);
        if (!result.ok) break;
        if (landedBytes >= kBatchBytes || landed.size() >= kBatchFiles ||
            std::chrono::steady_clock::now() - batchStart >= kBatchTime) {
            flush();
        }
    }
    // What landed whole before a stop or a fault keeps its place.
    flush();
    result.stopped = stop.load();
    if (result.ok && result.stopped) result.message = "Import stopped";
    if (result.ok && !result.stopped) {
        result.message = "Imported " + std::to_string(result.copied) + " tracks in " +
                         std::to_string(result.albums) + " albums";
        if (result.skipped)
            result.message += ", " + std::to_string(result.skipped) + " already there";
        if (result.failed) result.message += ", " + std::to_string(result.failed) + " unreadable";
    }
    kzLog("%s\n", result.message.c_str());
    return result;
}
