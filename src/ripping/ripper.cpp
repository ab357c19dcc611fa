#include "ripping/ripper.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "core/files.h"
#include "core/log.h"
#include "core/process.h"
#include "library/database.h"
#include "library/edit.h"
#include "library/library.h"
#include "library/names.h"
#include "library/scan.h"
#include "library/sorting.h"
#include "ripping/cdrom.h"
#include "ripping/compress.h"
#include "ripping/encode.h"
#include "ripping/lookup.h"
#include "ripping/wav.h"

std::atomic<int> ripEnabled{0};
int ripUserChoice = 0;
int numTracksToRip = 99;
int cdFramesPerRead = 50;
int driveSpeed = 0;

namespace {

std::atomic<bool> ripping{false};
std::mutex namesMutex;
RipNames uploadedNames;
RipProgress progress;
std::string ripArtistName, ripAlbumName, ripTrackName, ripArtPath;

constexpr long long kTwoMinutesBytes = 21167999;

long long freeBytes(const std::string& folder) {
    struct statvfs vfs;
    if (statvfs(folder.c_str(), &vfs) != 0) return 0;
    return static_cast<long long>(vfs.f_bavail) * vfs.f_frsize;
}

bool download(const std::string& url, const std::string& path) {
    // Fetched whole and checked before anything is written: a failed or
    // bogus cover leaves no file at all.
    bool ok = fetchCoverArt(url, path);
    kzLog("ripAlbum () coverart path %s f=%d\n", path.c_str(), ok ? 1 : 0);
    return ok;
}

// The names this rip uses.
RipNames chooseNames() {
    RipNames names;
    if (ripUserChoice < 0) {
        std::lock_guard<std::mutex> g(namesMutex);
        names = uploadedNames;
    } else if (ripUserChoice > 0 && ripUserChoice <= getLookupCandidateCount()) {
        names = getLookupCandidate(ripUserChoice - 1);
    }
    // A cover the page chose ("artURL") wins over the names' own.
    std::string art = getArtURL();
    if (!art.empty()) names.artUrl = art;
    return names;
}

// Reads count sectors from first and appends them to the file: the bytes
// written, or 0 after a failed read or write.
long CdRipReadWriteTrackSectors(CdDrive& drive, int32_t first, int count, FILE* f,
                                std::vector<uint8_t>& buffer) {
    size_t bytes = static_cast<size_t>(count) * kSectorBytes;
    if (buffer.size() < bytes) buffer.resize(bytes);
    if (!drive.readAudio(buffer.data(), first, count)) {
        kzLog("Failed to read sectors at lsnNo: %d\n", first);
        return 0;
    }
    if (fwrite(buffer.data(), 1, bytes, f) != bytes) {
        kzLog("Failed to write %6.6d bytes from sector: %6.6d\n", static_cast<int>(bytes), first);
        return 0;
    }
    return static_cast<long>(bytes);
}

void addToLibrary(const std::string& artist, const std::string& album, const std::string& file,
                  const std::string& path) {
    int r = addArtistToDb(artist.c_str());
    int a = addAlbumToDb(album.c_str(), r);
    addTrackToDb(file.c_str(), a);
    useKbFromPath(path);
}

enum class TrackResult { Failed, Done, KeptAfterFailure };

TrackResult ripTrack(CdDrive& drive, const std::string& folder, const CdHeader& header, int index,
                     const RipNames& names, const std::string& artist, const std::string& album) {
    const CdTrack& track = header.tracks[index];
    if (!track.audio) {
        kzLog("ripTrack () NOT TRACK_FORMAT_AUDIO\n");
        return TrackResult::Failed;
    }
    const long long expected = static_cast<long long>(kSectorBytes) * track.frameCount();
    if (freeBytes(folder) < expected) {
        kzLog("ripTrack () not enough space for track %d\n", track.number);
        return TrackResult::Failed;
    }

    std::string title = index < static_cast<int>(names.tracks.size()) ? names.tracks[index] : "";
    char name[200];
    if (!title.empty()) {
        snprintf(name, sizeof name, "%02d %s.wav", track.number, cleanRipName(title).c_str());
    } else {
        snprintf(name, sizeof name, "%02d track%d.wav", track.number, track.number);
    }
    std::string path = folder + "/" + name;
    kzLog("ripTrack () Track = %d, path = %s\n", track.number, path.c_str());
    kzLog("Sector %d to %d\n", track.startLsn, track.endLsn);
    std::string stem = path.substr(0, path.size() - 4);
    for (const char* ext : {".flac", ".mp3", ".m4a"})
        unlink((stem + ext).c_str());
    {
        std::lock_guard<std::mutex> g(namesMutex);
        ripTrackName = title.empty() ? name : title;
        progress = {track.number, track.frameCount(), 0, 0};
    }

    std::unique_ptr<WavFmt, void (*)(WavFmt*)> fmt(WavFmtCreate(), WavFmtDestroy);
    std::unique_ptr<WavListInfo, void (*)(WavListInfo*)> info(WavListInfoCreate(),
                                                              WavListInfoDestroy);
    if (!fmt) kzLog("Failed to create TWavFmt\n");
    if (!info) kzLog("Failed to create TWavListInfo\n");
    if (!fmt || !info) return TrackResult::Failed;
    WavFmtSetAudioFormat(fmt.get(), 1);
    WavFmtSetNumChannels(fmt.get(), 2);
    WavFmtSetSampleRate(fmt.get(), 44100);
    WavFmtSetByteRate(fmt.get(), 176400);
    WavFmtSetBlockAlign(fmt.get(), 4);
    WavFmtSetBps(fmt.get(), 16);
    std::string number = std::to_string(track.number);
    if (!title.empty()) WavListInfoSetTrackName(info.get(), title.c_str(), title.size());
    // Only folder and file names are cleaned: the names inside the file are
    // the disc's own ("AC/DC" stays "AC/DC").
    if (!names.album.empty())
        WavListInfoSetAlbumName(info.get(), names.album.c_str(), names.album.size());
    if (!names.artist.empty())
        WavListInfoSetArtistName(info.get(), names.artist.c_str(), names.artist.size());
    WavListInfoSetTrackNum(info.get(), number.c_str(), number.size());
    if (!names.year.empty()) WavListInfoSetYear(info.get(), names.year.c_str(), names.year.size());
    if (!names.genre.empty())
        WavListInfoSetGenre(info.get(), names.genre.c_str(), names.genre.size());

    File f(fopen(path.c_str(), "wb"));
    if (!f) {
        kzLog("Failed to create WAV file: %s\n", path.c_str());
        return TrackResult::Failed;
    }
    WavWriteWavHeader(0, f.get());
    long listLength = WavListInfoWrite(info.get(), f.get());
    WavFmtWrite(fmt.get(), f.get());
    WavWriteDataChunkHeader(static_cast<uint32_t>(expected), f.get());

    std::vector<uint8_t> buffer;
    long long written = 0;
    bool error = false;
    int32_t pos = track.startLsn;
    const int32_t end = track.endLsn;
    auto t0 = std::chrono::steady_clock::now();
    int sinceUpdate = 0;
    while (ripEnabled && end - pos > cdFramesPerRead) {
        long n = CdRipReadWriteTrackSectors(drive, pos, cdFramesPerRead, f.get(), buffer);
        if (n == 0) {
            error = true;
            break;
        }
        written += n;
        pos += cdFramesPerRead;
        sinceUpdate += cdFramesPerRead;
        if (sinceUpdate >= 600) {
            sinceUpdate = 0;
            long ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                            std::chrono::steady_clock::now() - t0)
                                            .count());
            std::lock_guard<std::mutex> g(namesMutex);
            progress.done = pos - track.startLsn;
            progress.speed = ms > 0 ? static_cast<int>(progress.done * 1000L / (ms * 75)) : 0;
        }
    }
    if (!error && ripEnabled) {
        long n = CdRipReadWriteTrackSectors(drive, pos, end - pos + 1, f.get(), buffer);
        if (n == 0) {
            error = true;
        } else {
            written += n;
            pos = end + 1;
        }
    }
    const bool complete = !error && ripEnabled && pos > end;

    if (written != expected) {
        kzLog("ripTrack: Written %08d bytes of audio, expected %08d\n", static_cast<int>(written),
              static_cast<int>(expected));
    }
    WavUpdateWavHeaderFileSize(static_cast<uint32_t>(4 + listLength + 24 + 8 + expected), f.get());
    kzLog("ripTrack wrote %d bytes\n", static_cast<int>(written));
    bool closed = fclose(f.release()) == 0;

    if (complete && closed) {
        addToLibrary(artist, album, name, path);
        if (index == 0) sortAlbumsAndArtists();
        return TrackResult::Done;
    }
    // A read failure after two minutes of audio keeps what was read.
    if (error && ripEnabled && closed && written > kTwoMinutesBytes) {
        addToLibrary(artist, album, name, path);
        return TrackResult::KeptAfterFailure;
    }
    kzLog("Rip interrupted deleting %s\n", path.c_str());
    unlink(path.c_str());
    return TrackResult::Failed;
}

int ripAlbum(CdDrive& drive, const CdHeader& header) {
    RipNames names = chooseNames();
    std::string artist = names.artist.empty() ? "Unknown" : cleanRipName(names.artist);
    std::string artistFolder = getMusicDirectory() + "/" + artist;
    std::string album =
        names.album.empty() ? getNextAlbumName(artistFolder) : cleanRipName(names.album);
    std::string folder = artistFolder + "/" + album;
    mkdir(getMusicDirectory().c_str(), 0777);
    mkdir(artistFolder.c_str(), 0777);
    if (mkdir(folder.c_str(), 0777) != 0 && !isFolder(folder)) {
        kzLog("CreateWavFilesFromDisc: cant create directory to hold rip files\n");
        return 0;
    }
    {
        std::lock_guard<std::mutex> g(namesMutex);
        ripArtistName = artist;
        ripAlbumName = album;
        ripArtPath.clear();
    }

    if (File toc{fopen((folder + "/toc").c_str(), "w")}) {
        auto line = [&](int32_t lsn) {
            int lba = lsn + 150;
            fprintf(toc.get(), "%d,%d,%d\n", lba / (60 * 75), lba / 75 % 60, lba % 75);
        };
        for (const CdTrack& t : header.tracks)
            line(t.startLsn);
        line(header.leadoutLsn);
    }
    if (File id{fopen((folder + "/discid").c_str(), "w")}) {
        fprintf(id.get(), "%s\n", computeDiscId(header).c_str());
        fprintf(id.get(), "%08X\n", CdHeaderComputeCddbId(header));
    }
    if (!names.artUrl.empty()) {
        kzLog("Fetching cover art from %s\n", names.artUrl.c_str());
        std::string art = folder + "/coverart.jpg";
        if (download(names.artUrl, art)) {
            std::lock_guard<std::mutex> g(namesMutex);
            ripArtPath = art;
        }
    }

    int result = 1;
    for (int i = 0; ripEnabled && i < header.numTracks() && i < numTracksToRip; i++) {
        TrackResult r = ripTrack(drive, folder, header, i, names, artist, album);
        bool last = i == header.numTracks() - 1;
        if (r == TrackResult::Done) continue;
        if (r == TrackResult::KeptAfterFailure && last) continue;
        kzLog("Error ripping track %d\n", header.tracks[i].number);
        kzLog("Track type %d\n", header.tracks[i].audio ? 0 : 1);
        if (last) break;
        if (!header.tracks[i].audio) {
            kzLog("Next Track type %d\n", header.tracks[i + 1].audio ? 0 : 1);
            if (header.tracks[i + 1].audio) continue;
        }
        result = 0;
        break;
    }
    saveDBifChanged();
    // Its tracks are WAVs: the compression job takes them from here.
    kickCompression();
    return result;
}

}  // namespace

void initRipper() {
    clearProgress();
}
void initFLAC() {}

void rip() {
    kzLog("rip ()\n");
    CdDrive drive;
    if (!drive.ok()) {
        kzLog("CdRip:Failed to open device\n");
    } else if (!drive.setSpeed(driveSpeed)) {
        kzLog("CdRip:Failed to set drive speed\n");
    } else {
        CdHeader header;
        if (!drive.readHeader(&header)) {
            kzLog("CdRip: Failed to read CD header block from disc\n");
        } else if (!ripAlbum(drive, header)) {
            kzLog("Failure whilst ripping tracks \n");
        }
    }
    ripEnabled = 0;
    ripping = false;
}

int startRip() {
    if (ripping.exchange(true)) return 0;
    ripEnabled = 1;
    try {
        std::thread([] {
            nameThread("kz-ripper");
            rip();
        }).detach();
    } catch (const std::system_error&) {
        kzLog("startRip failed to create ripThread\n");
        ripping = false;
        ripEnabled = 0;
        return 0;
    }
    return 1;
}

bool isRipping() {
    return ripping;
}
void uiStopRip() {
    ripEnabled = 0;
}

void setRipSpeedLimit(int times) {
    driveSpeed = 176 * times;
    cdFramesPerRead = 1;
}

RipProgress getCDProgress() {
    std::lock_guard<std::mutex> g(namesMutex);
    return progress;
}

void clearProgress() {
    std::lock_guard<std::mutex> g(namesMutex);
    progress = {};
}

void setUploadedRipNames(const RipNames& names) {
    std::lock_guard<std::mutex> g(namesMutex);
    uploadedNames = names;
}

std::string getRipArtist() {
    std::lock_guard<std::mutex> g(namesMutex);
    return ripArtistName;
}
std::string getRipAlbum() {
    std::lock_guard<std::mutex> g(namesMutex);
    return ripAlbumName;
}
std::string getRipTrack() {
    std::lock_guard<std::mutex> g(namesMutex);
    return ripTrackName;
}
std::string getRipArtPath() {
    std::lock_guard<std::mutex> g(namesMutex);
    return ripArtPath;
}

std::string cleanRipName(const std::string& name, size_t maxBytes) {
    std::string s;
    for (unsigned char c : name) {
        bool bad = c < 32 || c == 127 || strchr("/\\:*?\"<>|", c) != nullptr;
        s += bad ? '_' : static_cast<char>(c);
    }
    // Cut at a character boundary: never leave half of a UTF-8 sequence.
    if (s.size() > maxBytes) {
        size_t cut = maxBytes;
        while (cut > 0 && (static_cast<unsigned char>(s[cut]) & 0xC0) == 0x80)
            cut--;
        s.resize(cut);
    }
    while (!s.empty() && (s.back() == ' ' || s.back() == '.'))
        s.pop_back();
    if (!s.empty() && s[0] == '.') s[0] = '_';
    if (s.empty()) s = "_";
    return s;
}

std::string getNextAlbumName(const std::string& artistFolder) {
    for (int n = 1;; n++) {
        std::string name = "Album " + std::to_string(n);
        if (!fileExists(artistFolder + "/" + name)) return name;
    }
}

bool parseRipMetadata(const std::string& text, RipNames* names) {
    *names = RipNames();
    bool any = false;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        any = any || key == "artist" || key == "album" || key == "track";
        if (key == "artist") {
            names->artist = value;
        } else if (key == "album") {
            names->album = value;
        } else if (key == "year") {
            names->year = value;
        } else if (key == "genre") {
            names->genre = value;
        } else if (key == "art") {
            names->artUrl = value;
        } else if (key == "track" && names->tracks.size() < 99) {
            names->tracks.push_back(value);
        }
    }
    return any;
}

int readRipMetadata(const std::string& path, RipNames* names) {
    std::string text;
    File f(fopen(path.c_str(), "r"));
    if (f) {
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, f.get())) > 0 && text.size() < 65536)
            text.append(buffer, n);
    }
    int ok = f && parseRipMetadata(text, names) ? 1 : 0;
    kzLog("uploadFile <%s> = %d\n", path.c_str(), ok);
    return ok;
}

int findRippedAlbum(const std::string& disc) {
    // The latest rip of this disc (a disc may have been ripped twice): the
    // album whose discid file was written last.
    int album = -1;
    time_t newest = 0;
    for (int a = 0; a < getAlbumCount(); a++) {
        std::string path = getAlbumPath(a) + "/discid";
        File f(fopen(path.c_str(), "r"));
        char line[128] = "";
        struct stat st;
        if (!f || !fgets(line, sizeof line, f.get()) || fstat(fileno(f.get()), &st) != 0) continue;
        line[strcspn(line, "\r\n")] = 0;
        if (disc == line && (album < 0 || st.st_mtime >= newest)) {
            album = a;
            newest = st.st_mtime;
        }
    }
    return album;
}

int reindexAlbum(const RipNames& names) {
    if (testUnitReady() != CD_READY) {
        kzLog("reindex () no disc\n");
        return 0;
    }
    std::string disc = computeDiscId(currentToc());
    // The compression job may be renaming this very album's tracks.
    CompressionPause pause;
    int album = findRippedAlbum(disc);
    if (album < 0) {
        kzLog("reindex () no album was ripped from disc %s\n", disc.c_str());
        return 0;
    }
    for (int t : albumTrackOrder(album)) {
        int number = getTrackOrder(t);
        if (number >= 1 && number <= static_cast<int>(names.tracks.size()) &&
            !names.tracks[number - 1].empty()) {
            changeTrackName(t, cleanRipName(names.tracks[number - 1]).c_str());
        }
    }
    if (!names.album.empty()) changeAlbumName(album, cleanRipName(names.album).c_str());
    std::string artist = names.artist.empty() ? "" : cleanRipName(names.artist);
    if (!artist.empty() && artist != getArtistName(getAlbumArtist(album))) {
        moveAlbumToArtist(album, artist.c_str());
    }
    // The names inside the files follow, for players that read them there.
    for (int t : albumTrackOrder(album)) {
        int number = getTrackOrder(t);
        std::string path = getTrackPath(t);
        const char* title = number >= 1 && number <= static_cast<int>(names.tracks.size()) &&
                                    !names.tracks[number - 1].empty()
                                ? names.tracks[number - 1].c_str()
                                : nullptr;
        const char* artistName = names.artist.empty() ? nullptr : names.artist.c_str();
        const char* albumName = names.album.empty() ? nullptr : names.album.c_str();
        std::string why;
        if (endsWithExtension(path.c_str(), ".wav")) {
            if (!WavRewriteNames(path.c_str(), artistName, albumName, title)) {
                kzLog("reindex () cannot rewrite the names in %s\n", path.c_str());
            }
        } else if (!rewriteCompressedNames(path, artistName, albumName, title, &why)) {
            kzLog("reindex () cannot rewrite the names in %s: %s\n", path.c_str(), why.c_str());
        }
    }
    saveDBifChanged();
    return 1;
}
