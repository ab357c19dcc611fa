#include "web/upload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/log.h"
#include "core/paths.h"
#include "core/process.h"
#include "library/database.h"
#include "library/library.h"
#include "library/names.h"
#include "library/scan.h"

namespace {
constexpr size_t kMaxLine = 4096;
constexpr size_t kMaxBoundary = 200;
constexpr size_t kWriteBlock = 65536;

// The quoted text after key in line, or empty.
std::string quotedAfter(const std::string& line, const char* key) {
    size_t at = line.find(key);
    if (at == std::string::npos) return "";
    at += strlen(key);
    if (at >= line.size() || line[at] != '"') return "";
    size_t end = line.find('"', at + 1);
    if (end == std::string::npos) return "";
    return line.substr(at + 1, end - at - 1);
}
// Whether the decoder finds an audio stream in the file. A file it cannot
// judge (no prober here) is given the benefit of the doubt.
bool holdsAudio(const std::string& path) {
    std::string prober = ffprobePath();
    if (access(prober.c_str(), X_OK) != 0) {
        kzLog("No ffprobe: %s is not checked\n", path.c_str());
        return true;
    }
    kzLog("Executing %s -v error -show_entries stream=codec_type -of csv=p=0 \"%s\"\n",
          prober.c_str(), path.c_str());
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::string text;
    int rc = programOutput(
        {prober, "-v", "error", "-show_entries", "stream=codec_type", "-of", "csv=p=0", path},
        &text, 4096, null);
    if (null >= 0) close(null);
    if (rc == -1 || rc == 127) return true;
    return text.find("audio") != std::string::npos;
}
}  // namespace

void addUploadedFileToDB(const std::string& artist, const std::string& album,
                         const std::string& file) {
    std::string path = getMusicDirectory() + "/" + artist + "/" + album + "/" + file;
    kzLog("addUploadFileToDB path=%s\n", path.c_str());
    if (!allowedMusicTrack(file.c_str())) return;
    int r = addArtistToDb(artist.c_str());
    int a = addAlbumToDb(album.c_str(), r);
    addTrackToDb(file.c_str(), a);
    useKbFromPath(path);
}

StdinParser::StdinParser() = default;

StdinParser::~StdinParser() {
    connectionEnded();
}

void StdinParser::armUpload(const std::string& artist) {
    connectionEnded();
    artist_ = artist;
    boundary_ = "\r\n";
    match_ = 0;
    line_.clear();
    state_ = 1;
}

void StdinParser::armText(std::function<void(const std::string& text)> done) {
    connectionEnded();
    text_.clear();
    textDone_ = std::move(done);
    state_ = 9;
}

void StdinParser::armAudio() {
    state_ = 7;
    headerHave_ = 0;
    partialHave_ = 0;
}

void StdinParser::connectionEnded() {
    if (file_) {
        // Cut off in the middle of a file: what arrived is not the file, and
        // a rescan must not find it.
        fclose(file_);
        file_ = nullptr;
        pending_.clear();
        unlink(path_.c_str());
        kzLog("Upload cut off, removed %s\n", path_.c_str());
        uploadFailed = true;
    }
    // Nothing of this request may reach the next connection's body.
    state_ = 0;
    match_ = 0;
    line_.clear();
    path_.clear();
    completion = nullptr;
    textDone_ = nullptr;
}

void StdinParser::process(const uint8_t* data, int len) {
    if (len == 0) {
        if (state_ == 9 && textDone_) {
            auto done = std::move(textDone_);
            textDone_ = nullptr;
            done(text_);
        }
        state_ = 0;
        return;
    }
    if (state_ == 0) return;
    if (state_ == 9) {
        size_t room = kMaxText - std::min(kMaxText, text_.size());
        text_.append(reinterpret_cast<const char*>(data), std::min(room, static_cast<size_t>(len)));
        return;
    }
    if (state_ == 7) {
        int take = std::min(len, 44 - headerHave_);
        memcpy(wavHeader_ + headerHave_, data, static_cast<size_t>(take));
        headerHave_ += take;
        data += take;
        len -= take;
        if (headerHave_ < 44) return;
        const uint8_t* h = wavHeader_;
        channels = h[22] | h[23] << 8;
        sampleRate = h[24] | h[25] << 8 | h[26] << 16;
        partialHave_ = 0;
        state_ = 8;
    }
    if (state_ == 8) {
        audioBytes(data, len);
        return;
    }
    for (int i = 0; i < len; i++)
        byte(data[i]);
    flushFile();
}

void StdinParser::audioBytes(const uint8_t* p, int len) {
    if (!audio.enabled || !audio.enabled() || !audio.put) return;
    if (partialHave_ > 0) {
        int take = std::min(len, 4 - partialHave_);
        memcpy(partial_ + partialHave_, p, static_cast<size_t>(take));
        partialHave_ += take;
        p += take;
        len -= take;
        if (partialHave_ < 4) return;
        audio.put(partial_, 1);
        partialHave_ = 0;
    }
    int frames = len / 4;
    if (frames > 0) audio.put(p, frames);
    partialHave_ = len % 4;
    memcpy(partial_, p + frames * 4, static_cast<size_t>(partialHave_));
    int threshold = std::min(44 * latencyMs, audio.capacity * 9 / 10);
    if (audio.held && audio.held() >= threshold) audioRunning = true;
}

void StdinParser::byte(uint8_t c) {
    switch (state_) {
        case 1:
            if (c == '\n') {
                if (boundary_.size() > 2 && boundary_.back() == '\r') boundary_.pop_back();
                state_ = 2;
            } else if (boundary_.size() < kMaxBoundary) {
                boundary_ += static_cast<char>(c);
            }
            return;
        case 2:
        case 3:
        case 4:
        case 6:
            if (c != '\n') {
                if (line_.size() < kMaxLine) line_ += static_cast<char>(c);
                return;
            }
            if (state_ == 2) {
                headerLine();
            } else if (state_ == 3) {
                state_ = line_.size() < 3 ? 5 : 4;
                fileLength_ = 0;
                match_ = 0;
            } else if (state_ == 4) {
                state_ = 5;
                fileLength_ = 0;
                match_ = 0;
            } else {
                state_ = 2;
                if (!artist_.empty()) postWriteDB();
            }
            line_.clear();
            return;
        case 5: {
            if (c == static_cast<uint8_t>(boundary_[match_])) {
                if (++match_ == boundary_.size()) finishFile();
                return;
            }
            // The bytes that looked like the boundary were file data.
            writeFile(reinterpret_cast<const uint8_t*>(boundary_.data()), match_);
            match_ = 0;
            if (c == static_cast<uint8_t>(boundary_[0])) {
                match_ = 1;
            } else {
                writeFile(&c, 1);
            }
            return;
        }
        default:
            return;
    }
}

void StdinParser::headerLine() {
    std::string album = quotedAfter(line_, " name=");
    std::string file = quotedAfter(line_, "filename=");
    if (album.empty() && file.empty()) return;
    path_.clear();
    if (file.empty()) {
        // A plain form field, not a file: its value is skipped.
        state_ = 3;
        return;
    }
    // Names from a browser are only names: they cannot leave their folder.
    album_ = cleanPathName(album.empty() ? "Upload" : album);
    fileName_ = cleanPathName(file.empty() ? "upload" : file);
    std::string folder;
    if (!artist_.empty()) {
        std::string artistFolder = getMusicDirectory() + "/" + artist_;
        folder = artistFolder + "/" + album_;
        if ((mkdir(artistFolder.c_str(), 0777) != 0 && errno != EEXIST) ||
            (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST)) {
            kzLog("Cannot make %s\n", folder.c_str());
            state_ = 3;
            return;
        }
        // The same track in another format is replaced, in the library too:
        // one entry per file.
        std::string stem = nameWithoutExtension(fileName_.c_str());
        for (const char* ext : {".wav", ".flac", ".mp3", ".m4a"}) {
            std::string other = stem + ext;
            if (unlink((folder + "/" + other).c_str()) != 0 || other == fileName_) continue;
            int t = findTrackByThreeNames(artist_.c_str(), album_.c_str(), other.c_str());
            if (t >= 0) {
                removeTrack(t);
                dirty();
            }
        }
    } else {
        folder = getLocalPath() + "/upload";
        if (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
            kzLog("Cannot make %s\n", folder.c_str());
            state_ = 3;
            return;
        }
        unlink((folder + "/" + fileName_).c_str());
    }
    path_ = folder + "/" + fileName_;
    if (file_) fclose(file_);
    file_ = fopen(path_.c_str(), "wb");
    if (!file_) kzLog("Cannot open %s\n", path_.c_str());
    state_ = 3;
}

void StdinParser::writeFile(const uint8_t* p, size_t n) {
    fileLength_ += static_cast<long>(n);
    pending_.append(reinterpret_cast<const char*>(p), n);
    if (pending_.size() >= kWriteBlock) flushFile();
}

void StdinParser::flushFile() {
    if (pending_.empty()) return;
    if (file_) {
        size_t n = fwrite(pending_.data(), 1, pending_.size(), file_);
        if (n != pending_.size()) {
            kzLog("Upload Failed FILEDATA %d != %d\n", static_cast<int>(n),
                  static_cast<int>(pending_.size()));
            uploadFailed = true;
        }
    }
    pending_.clear();
}

void StdinParser::finishFile() {
    match_ = 0;
    state_ = 6;
    if (path_.empty()) {
        pending_.clear();
        return;  // the end of a form field's value
    }
    kzLog("End of file - length = %d\n", static_cast<int>(fileLength_));
    flushFile();
    bool ok = file_ != nullptr && fclose(file_) == 0;
    file_ = nullptr;
    if (!ok) uploadFailed = true;
    if (!ok) return;
    if (!completion && !artist_.empty() && allowedMusicTrack(fileName_.c_str()) &&
        !holdsAudio(path_)) {
        kzLog("Upload %s holds no audio: removed\n", path_.c_str());
        unlink(path_.c_str());
        uploadFailed = true;
        return;
    }
    if (completion) {
        completion(path_);
    } else if (artist_.empty()) {
        kzLog("Added %s to Database\n", path_.c_str());
    } else {
        addUploadedFileToDB(artist_, album_, fileName_);
    }
}
