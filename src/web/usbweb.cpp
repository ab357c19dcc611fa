#include "web/usbweb.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/log.h"
#include "core/storage.h"
#include "library/ids.h"
#include "library/import.h"
#include "library/library.h"
#include "library/names.h"
#include "library/scan.h"
#include "library/tags.h"
#include "library/usb.h"
#include "storage/backup.h"
#include "storage/jobs.h"
#include "web/params.h"
#include "web/status.h"

namespace {

constexpr size_t kMostEntries = 2000;
constexpr size_t kMostReply = 600000;

std::string text(const std::string& s) {
    return quoted(s.c_str());
}

// Every "&path=" value, decoded.
std::vector<std::string> pathsOf(const char* uri) {
    std::vector<std::string> paths;
    for (const char* at = strstr(uri, "&path="); at; at = strstr(at + 6, "&path=")) {
        std::vector<char> buf(4096);
        stripPercentagesFromURL(buf.data(), at + 6, buf.size());
        paths.emplace_back(buf.data());
    }
    return paths;
}

// The drive a request names ("&drive=usbc"), else the one the USB library
// shows, else the first one plugged in; "" when there is none.
std::string driveOf(const char* uri) {
    if (const char* at = findParameter(uri, "&drive=")) {
        char name[16];
        stripPercentagesFromURL(name, at, sizeof name);
        int port = usbPortByName(name);
        return port >= 0 && usbDrivePresent(port) ? usbDriveRoot(port) : "";
    }
    std::string shown = usbLibraryRoot();
    if (!shown.empty()) return shown;
    std::vector<UsbDrive> drives = usbDrives();
    return drives.empty() ? "" : drives.front().root;
}

// The file or folder a request names on its drive. Links are not followed
// (one may point off the drive, or round in a loop), so the resolved path
// must be the path asked for.
bool resolveOnDrive(const std::string& drive, const std::string& raw, std::string* rel,
                    std::string* full) {
    if (drive.empty() || !cleanRelativePath(raw, rel)) return false;
    *full = rel->empty() ? drive : drive + "/" + *rel;
    char real[PATH_MAX], base[PATH_MAX];
    if (!realpath(full->c_str(), real) || !realpath(drive.c_str(), base)) return false;
    return std::string(real) == (rel->empty() ? std::string(base) : std::string(base) + "/" + *rel);
}

std::string driveName(const std::string& root) {
    return root.empty() ? "" : root.substr(root.rfind('/') + 1);
}

}  // namespace

std::string listDirReply(const char* uri) {
    std::string drive = driveOf(uri);
    std::vector<std::string> paths = pathsOf(uri);
    std::string rel, full;
    std::string head = "{\"drive\":" + text(driveName(drive));
    if (!resolveOnDrive(drive, paths.empty() ? "" : paths.front(), &rel, &full)) {
        return head + ",\"path\":\"\",\"folders\":[],\"files\":[],\"error\":" +
               text(drive.empty() ? "No USB drive" : "No such folder") + "}";
    }
    std::vector<std::string> folders;
    std::vector<std::pair<std::string, long long>> files;
    bool cut = false;
    if (DIR* d = opendir(full.c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.' || e->d_name[0] == '$') continue;
            if (folders.size() + files.size() >= kMostEntries) {
                cut = true;
                break;
            }
            struct stat st;
            std::string entry = full + "/" + e->d_name;
            if (lstat(entry.c_str(), &st) != 0 || S_ISLNK(st.st_mode)) continue;
            if (S_ISDIR(st.st_mode)) {
                folders.push_back(e->d_name);
            } else if (S_ISREG(st.st_mode) && hasMusicExtension(e->d_name)) {
                files.emplace_back(e->d_name, st.st_size);
            }
        }
        closedir(d);
    }
    auto byName = [](const std::string& a, const std::string& b) {
        int c = strcasecmp(a.c_str(), b.c_str());
        return c != 0 ? c < 0 : a < b;
    };
    std::sort(folders.begin(), folders.end(), byName);
    std::sort(files.begin(), files.end(),
              [&](const auto& a, const auto& b) { return byName(a.first, b.first); });

    // A file the USB library holds can be played by its identifier.
    size_t slash = full.rfind('/');
    std::string artist = full.substr(0, slash);
    std::string album = full.substr(slash + 1);
    bool inLibrary = drive == usbLibraryRoot() && !rel.empty();

    std::string out = head + ",\"path\":" + text(rel) + ",\"folders\":[";
    for (size_t i = 0; i < folders.size() && out.size() < kMostReply; i++) {
        if (i) out += ",";
        out += text(folders[i]);
    }
    out += "],\"files\":[";
    for (size_t i = 0; i < files.size() && out.size() < kMostReply; i++) {
        int t = inLibrary ? findUSBTrackByThreeNames(artist.c_str(), album.c_str(),
                                                     files[i].first.c_str())
                          : -1;
        if (i) out += ",";
        out += "{\"name\":" + text(files[i].first) +
               ",\"size\":" + std::to_string(files[i].second) +
               ",\"id\":" + std::to_string(t >= 0 ? USBTrackToID(t) : -1) + "}";
    }
    out += "]";
    if (cut || out.size() >= kMostReply) out += ",\"more\":true";
    return out + "}";
}

std::string tagsForPathReply(const char* uri) {
    std::string drive = driveOf(uri);
    std::vector<std::string> paths = pathsOf(uri);
    std::string rel, full;
    struct stat st;
    if (paths.empty() || !resolveOnDrive(drive, paths.front(), &rel, &full) ||
        lstat(full.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return "{}";
    }
    FileTags t = readTags(full);
    if (!t.ok) return "{\"path\":" + text(rel) + ",\"error\":\"Not a file the decoder can read\"}";
    char duration[32];
    snprintf(duration, sizeof duration, "%.1f", t.duration);
    return "{\"path\":" + text(rel) + ",\"title\":" + text(t.title) +
           ",\"artist\":" + text(t.artist) + ",\"albumArtist\":" + text(t.albumArtist) +
           ",\"album\":" + text(t.album) + ",\"track\":" + text(t.track) +
           ",\"date\":" + text(t.date) + ",\"genre\":" + text(t.genre) +
           ",\"codec\":" + text(t.codec) + ",\"duration\":" + duration +
           ",\"sampleRate\":" + std::to_string(t.sampleRate) +
           ",\"channels\":" + std::to_string(t.channels) +
           ",\"bitRate\":" + std::to_string(t.bitRate) + ",\"size\":" + std::to_string(st.st_size) +
           "}";
}

std::string usbImportReply(const char* uri) {
    std::string drive = driveOf(uri);
    if (drive.empty()) return "\"No USB drive\"";
    std::string why;
    if (!startImportJob(drive, pathsOf(uri), &why)) return text(why);
    return "\"OK\"";
}

std::string usbDrivesReply() {
    std::string out = "[";
    std::string shown = usbLibraryRoot();
    bool first = true;
    for (const UsbDrive& d : usbDrives()) {
        BackupRecord last = readLastBackup(d.root);
        out += first ? "" : ",";
        first = false;
        out += "{\"drive\":" + text(driveName(d.root)) + ",\"name\":" + text(d.name) +
               ",\"free\":" + std::to_string(d.freeBytes) +
               ",\"size\":" + std::to_string(d.sizeBytes) +
               ",\"library\":" + (d.root == shown ? "true" : "false") +
               ",\"lastBackup\":" + text(last.found ? last.date : "") + "}";
    }
    return out + "]";
}

namespace {

// Backup and restore name their drive: the wrong one would be worse than
// none.
std::string startOnNamedDrive(const char* uri, bool (*start)(const std::string&, std::string*)) {
    if (!findParameter(uri, "&drive=")) return "\"Say which drive: &drive=usba\"";
    std::string drive = driveOf(uri);
    if (drive.empty()) return "\"No USB drive\"";
    std::string why;
    return start(drive, &why) ? "\"OK\"" : text(why);
}

}  // namespace

std::string startBackupReply(const char* uri) {
    return startOnNamedDrive(uri, startBackupJob);
}

std::string startRestoreReply(const char* uri) {
    return startOnNamedDrive(uri, startRestoreJob);
}

std::string tidyLibraryReply() {
    std::string why;
    return startTidyJob(&why) ? "\"OK\"" : text(why);
}

std::string storageJobReply() {
    return storageJobJson();
}
