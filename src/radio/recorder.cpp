#include "radio/recorder.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/events.h"
#include "core/files.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/process.h"
#include "library/database.h"
#include "library/library.h"
#include "library/names.h"

namespace {

constexpr char kArtist[] = "Radio Recordings";
constexpr size_t kOggHeaderLimit = 256 * 1024;

bool makeFolder(const std::string& path) {
    return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

}  // namespace

Recorder& recorder() {
    static Recorder& r = *new Recorder;
    return r;
}

bool Recorder::start(const std::string& root, const std::string& station,
                     const std::string& streamType, std::string* why) {
    std::lock_guard<std::mutex> g(mutex_);
    if (file_) {
        *why = "already recording";
        return false;
    }
    if (root.empty() || streamType.empty()) {
        *why = "nothing recordable is playing";
        return false;
    }
    std::string album = cleanPathName(station.empty() ? "Radio" : station);
    if (album.size() > 120) album.resize(120);
    std::string folder = root + "/" + kArtist;
    std::string albumFolder = folder + "/" + album;
    if (!makeFolder(root) || !makeFolder(folder) || !makeFolder(albumFolder)) {
        *why = "cannot make " + albumFolder + ": " + strerror(errno);
        return false;
    }
    char stamp[32];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H.%M.%S", &local);
    copyAsIs_ =
        streamType == "audio/mpeg" || streamType == "audio/mp3" || streamType == "audio/mpg";
    ogg_ = streamType.find("ogg") != std::string::npos || streamType == "audio/opus";
    std::string base = albumFolder + "/" + stamp;
    finalPath_ = base + (copyAsIs_ ? ".mp3" : ".m4a");
    for (int n = 2; fileExists(finalPath_); n++)
        finalPath_ = base + " " + std::to_string(n) + (copyAsIs_ ? ".mp3" : ".m4a");
    // The name holds no music extension until the file is whole, so a
    // rescan meanwhile never lists half a recording.
    partPath_ = finalPath_.substr(0, finalPath_.rfind('.')) + ".kz-recording";
    file_ = fopen(partPath_.c_str(), "wb");
    if (!file_) {
        *why = "cannot write " + partPath_ + ": " + strerror(errno);
        return false;
    }
    if (ogg_ && !oggHeaders_.empty()) fwrite(oggHeaders_.data(), 1, oggHeaders_.size(), file_);
    artist_ = kArtist;
    album_ = album;
    started_ = std::chrono::steady_clock::now();
    limitPosted_ = false;
    kzLog("Recording %s to %s\n", streamType.c_str(), finalPath_.c_str());
    return true;
}

void Recorder::keepOggHeaders(const char* data, size_t length) {
    oggPending_.append(data, length);
    while (!oggHeadersDone_) {
        if (oggPending_.size() < 27) return;
        if (oggPending_.compare(0, 4, "OggS") != 0) {
            oggHeadersDone_ = true;
            break;
        }
        const unsigned char* p = reinterpret_cast<const unsigned char*>(oggPending_.data());
        size_t segments = p[26];
        if (oggPending_.size() < 27 + segments) return;
        size_t body = 0;
        for (size_t i = 0; i < segments; i++)
            body += p[27 + i];
        size_t page = 27 + segments + body;
        if (oggPending_.size() < page) return;
        bool header = true;
        for (int i = 6; i < 14; i++)
            header = header && p[i] == 0;
        if (!header || oggHeaders_.size() + page > kOggHeaderLimit) {
            oggHeadersDone_ = true;
            break;
        }
        oggHeaders_.append(oggPending_, 0, page);
        oggPending_.erase(0, page);
    }
    oggPending_.clear();
    oggPending_.shrink_to_fit();
}

void Recorder::tap(const char* data, size_t length) {
    std::lock_guard<std::mutex> g(mutex_);
    if (!data) {
        oggHeaders_.clear();
        oggPending_.clear();
        oggHeadersDone_ = false;
        return;
    }
    if (!oggHeadersDone_) keepOggHeaders(data, length);
    if (!file_) return;
    if (fwrite(data, 1, length, file_) != length) {
        kzLog("Recording stopped: cannot write %s: %s\n", partPath_.c_str(), strerror(errno));
        if (!limitPosted_) addEvent(100);
        limitPosted_ = true;
        return;
    }
    if (limit_ > 0 && !limitPosted_ &&
        std::chrono::steady_clock::now() - started_ >= std::chrono::seconds(limit_)) {
        limitPosted_ = true;
        addEvent(100);
    }
}

std::string Recorder::stop() {
    std::string part, final, artist, album;
    bool asIs;
    {
        std::lock_guard<std::mutex> g(mutex_);
        if (!file_) return "";
        bool ok = fflush(file_) == 0 && fsync(fileno(file_)) == 0;
        ok = fclose(file_) == 0 && ok;
        file_ = nullptr;
        if (!ok) kzLog("Recording: %s may be cut short: %s\n", partPath_.c_str(), strerror(errno));
        part = partPath_;
        final = finalPath_;
        artist = artist_;
        album = album_;
        asIs = copyAsIs_;
    }
    std::string done = finish(part, final, asIs);
    if (done.empty()) return "";
    std::string file = done.substr(done.rfind('/') + 1);
    int r = addArtistToDb(artist.c_str());
    int a = addAlbumToDb(album.c_str(), r);
    addTrackToDb(file.c_str(), a);
    saveDBifChanged();
    kzLog("Recording saved as %s\n", done.c_str());
    return done;
}

std::string Recorder::finish(const std::string& part, const std::string& final, bool copyAsIs) {
    struct stat st;
    if (stat(part.c_str(), &st) != 0 || st.st_size == 0) {
        kzLog("Recording: nothing was recorded\n");
        removeFile(part);
        return "";
    }
    if (copyAsIs) {
        if (rename(part.c_str(), final.c_str()) != 0) {
            kzLog("Recording: cannot rename %s: %s\n", part.c_str(), strerror(errno));
            return "";
        }
        return final;
    }
    // Packets copied into an MP4 container: the audio stays the station's.
    std::string temp = final + ".part";
    std::vector<std::string> argv = {
        ffmpegPath(), "-hide_banner", "-loglevel", "error",     "-nostdin",   "-y",
        "-i",         part,           "-vn",       "-c:a",      "copy",       "-f",
        "mp4",        "-strict",      "-2",        "-movflags", "+faststart", temp};
    kzLog("Executing ffmpeg -i \"%s\" -c:a copy \"%s\"\n", part.c_str(), final.c_str());
    int rc = runProgram(argv);
    if (rc != 0 || stat(temp.c_str(), &st) != 0 || st.st_size == 0) {
        // The station's bytes are kept for whoever wants them, outside the
        // library's formats.
        removeFile(temp);
        std::string kept = final.substr(0, final.rfind('.')) + ".stream";
        rename(part.c_str(), kept.c_str());
        kzLog("Recording: could not put the stream into %s (ffmpeg %d); kept as %s\n",
              final.c_str(), rc, kept.c_str());
        return "";
    }
    if (rename(temp.c_str(), final.c_str()) != 0) {
        kzLog("Recording: cannot rename %s: %s\n", temp.c_str(), strerror(errno));
        removeFile(temp);
        return "";
    }
    removeFile(part);
    return final;
}

void Recorder::setLimit(int seconds) {
    std::lock_guard<std::mutex> g(mutex_);
    limit_ = seconds < 0 ? 0 : seconds;
}

int Recorder::limit() const {
    std::lock_guard<std::mutex> g(mutex_);
    return limit_;
}

bool Recorder::recording() const {
    std::lock_guard<std::mutex> g(mutex_);
    return file_ != nullptr;
}

int Recorder::duration() const {
    std::lock_guard<std::mutex> g(mutex_);
    if (!file_) return 0;
    return static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(
                                std::chrono::steady_clock::now() - started_)
                                .count());
}

std::string Recorder::path() const {
    std::lock_guard<std::mutex> g(mutex_);
    return file_ ? finalPath_ : "";
}
