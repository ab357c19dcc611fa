#include "ripping/compress.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <vector>

#include "core/files.h"
#include "core/log.h"
#include "core/process.h"
#include "library/database.h"
#include "library/library.h"
#include "library/names.h"
#include "library/playlists.h"
#include "library/settings.h"
#include "library/sorting.h"
#include "ripping/encode.h"
#include "ripping/ripper.h"

namespace {

enum Mode { kFlac = 0, kMp3At128 = 1, kMp3At256 = 2, kNone = 3, kFlacAndMp3 = 4 };

// The hidden name a track is encoded under until it is proven: the scanner
// never lists it (no music extension), and one job means one at a time.
constexpr const char* kPartName = ".kz-compressing.part";
// Names longer than this do not survive a kzdb reload.
constexpr size_t kLongestName = 249;
// Done tracks wait for a kzdb save before their WAVs go; a save per track
// would rewrite kzdb thousands of times for a large library.
constexpr size_t kSaveEvery = 16;
constexpr auto kSaveAfter = std::chrono::seconds(60);
constexpr size_t kLargestCover = 8u << 20;

struct Done {
    std::string artist, album, wavName, finalName;
};

enum class Applied { Renamed, Already, Gone, Missing, Wait, NoRoom };
enum class Outcome { Done, Skipped, Cancelled, DiskFull, NoRoom, Changed };

std::mutex stateMutex;
std::condition_variable wake;
bool kicked = true;  // a start continues whatever was left
std::atomic<bool> stopping{false};
bool running = false;
std::atomic<bool> busy{false};
std::atomic<int> pauses{0};
std::string statusText;
std::thread worker;

// The worker's own state.
std::vector<Done> pending;
std::chrono::steady_clock::time_point firstPending;
std::vector<std::string> parts;
std::set<std::string> failed;  // WAVs that could not be compressed: tried again on the next kick
std::atomic<bool> retryFailed{false};

void setStatus(const std::string& text) {
    std::lock_guard<std::mutex> hold(stateMutex);
    statusText = text;
}

void lowerPriority() {
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 19);
    sched_param none{};
    sched_setscheduler(0, SCHED_IDLE, &none);
    // The idle I/O class: the output's reads of the next track come first.
    syscall(SYS_ioprio_set, 1 /* this thread */, 0, 3 << 13);
}

void writeJournal() {
    std::string path = getCompressJournalPath();
    if (parts.empty() && pending.empty()) {
        unlink(path.c_str());
        return;
    }
    if (!writeFileAtomically(path, [](FILE* f) {
            for (const std::string& p : parts)
                fprintf(f, "part\t%s\n", p.c_str());
            for (const Done& d : pending) {
                fprintf(f, "done\t%s\t%s\t%s\t%s\n", d.artist.c_str(), d.album.c_str(),
                        d.wavName.c_str(), d.finalName.c_str());
            }
            return ferror(f) == 0;
        })) {
        kzLog("Compression: cannot write %s\n", path.c_str());
    }
}

void readJournal() {
    File f(fopen(getCompressJournalPath().c_str(), "r"));
    if (!f) return;
    char line[4096];
    while (fgets(line, sizeof line, f.get())) {
        line[strcspn(line, "\n")] = 0;
        std::vector<std::string> fields;
        for (char *p = line, *tab; p; p = tab ? tab + 1 : nullptr) {
            tab = strchr(p, '\t');
            fields.emplace_back(p, tab ? static_cast<size_t>(tab - p) : strlen(p));
        }
        if (fields.size() == 2 && fields[0] == "part") {
            parts.push_back(fields[1]);
        } else if (fields.size() == 5 && fields[0] == "done") {
            pending.push_back({fields[1], fields[2], fields[3], fields[4]});
        } else if (line[0]) {
            kzLog("Compression: journal line not understood: %s\n", line);
        }
    }
}

std::string albumFolder(const std::string& artist, const std::string& album) {
    return getMusicDirectory() + "/" + artist + "/" + album;
}

long kbOf(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size / 1024) : 0;
}

// Puts a done track into the tables: its entry takes the new name. A scan
// that ran in between may list both files; the WAV's entry then goes.
Applied apply(const Done& d) {
    // Never list a file that is not there (a stop before its rename).
    if (!fileExists(albumFolder(d.artist, d.album) + "/" + d.finalName)) return Applied::Missing;
    std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
    if (libraryRebuilding()) return Applied::Wait;
    int wavTrack = findTrackByThreeNames(d.artist.c_str(), d.album.c_str(), d.wavName.c_str());
    int finalTrack = findTrackByThreeNames(d.artist.c_str(), d.album.c_str(), d.finalName.c_str());
    if (wavTrack >= 0 && finalTrack >= 0) {
        removeTrack(wavTrack);
        return Applied::Renamed;
    }
    if (wavTrack >= 0) {
        NameHeap& heap = lib().local.trackHeap;
        if (heap.used() + d.finalName.size() + 1 + 4096 > heap.capacity()) return Applied::NoRoom;
        lib().local.track[wavTrack] = heap.add(d.finalName.c_str());
        lib().local.trackIndex.invalidate();
        dirty();
        return Applied::Renamed;
    }
    return finalTrack >= 0 ? Applied::Already : Applied::Gone;
}

// Saves kzdb with the new names, then removes the WAVs they replace. False
// when it has to wait (a rebuild, a failed save); the journal keeps them.
bool flush() {
    if (pending.empty()) return true;
    std::vector<Applied> states;
    for (const Done& d : pending) {
        Applied a = apply(d);
        if (a == Applied::Wait) return false;
        if (a == Applied::NoRoom) {
            kzLog("Compression paused: the library's name space is full (a rescan makes room)\n");
            return false;
        }
        states.push_back(a);
    }
    if (isDirty()) {
        if (!writeDB()) return false;
        savePlaylists();
        rebuildShuffle();
    }
    for (size_t i = 0; i < pending.size(); i++) {
        const Done& d = pending[i];
        std::string folder = albumFolder(d.artist, d.album);
        std::string wav = folder + "/" + d.wavName, done = folder + "/" + d.finalName;
        if (states[i] == Applied::Missing) {
            continue;
        } else if (states[i] != Applied::Gone) {
            // The compressed file is what the library lists now.
            if (fileExists(done) && fileExists(wav)) {
                long freed = kbOf(wav) - kbOf(done);
                if (removeFile(wav) == 0) setKbUsed(getKbUsed() - freed);
            }
        } else if (fileExists(wav)) {
            // The track was renamed or removed while it was compressed: what
            // the library holds is the truth, the copy goes.
            kzLog("Compression: %s changed while it was compressed; its copy is removed\n",
                  wav.c_str());
            removeFile(done);
        } else {
            kzLog("Compression: %s is not in the library; %s is kept\n", wav.c_str(), done.c_str());
        }
    }
    pending.clear();
    writeJournal();
    return true;
}

// The names a track's file is tagged with: its own LIST/INFO first, the
// library's folders and file name where it has none.
TrackTags tagsFor(const Done& d, const std::string& wav) {
    TrackTags t;
    WavReader r;
    std::string why;
    r.open(wav, &why);
    t.artist = r.artist.empty() ? d.artist : r.artist;
    t.album = r.album.empty() ? d.album : r.album;
    t.title = r.title.empty() ? cleanTrackName(d.wavName.c_str()) : r.title;
    t.trackNumber = r.trackNumber;
    if (t.trackNumber.empty()) {
        // "2-05 Song" is track 5 of disc 2.
        const char* p = d.wavName.c_str();
        int n = 0;
        if (getdec(&p, &n) && *p == '-' && isdigit(static_cast<unsigned char>(p[1]))) {
            p++;
            getdec(&p, &n);
        }
        if (n > 0) t.trackNumber = std::to_string(n);
    }
    t.year = r.year;
    t.genre = r.genre;
    std::string folder = albumFolder(d.artist, d.album);
    for (const char* name :
         {"coverart.jpg", "folder.jpg", "cover.jpg", "cover.png", "folder.png"}) {
        File f(fopen((folder + "/" + name).c_str(), "rb"));
        if (!f) continue;
        std::string bytes(kLargestCover + 1, '\0');
        bytes.resize(fread(bytes.data(), 1, bytes.size(), f.get()));
        if (bytes.size() > kLargestCover) continue;
        if (bytes.size() > 3 && bytes.compare(0, 3, "\xff\xd8\xff") == 0) {
            t.coverMime = "image/jpeg";
        } else if (bytes.size() > 8 && bytes.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0) {
            t.coverMime = "image/png";
        } else {
            continue;
        }
        t.cover = std::move(bytes);
        break;
    }
    return t;
}

// The new name: the WAV's without ".wav", shortened at a character boundary
// when the longer extension would take it past what kzdb keeps.
std::string finalNameOf(const std::string& wavName, const char* ext) {
    std::string stem = nameWithoutExtension(wavName.c_str());
    size_t room = kLongestName - strlen(ext);
    if (stem.size() > room) {
        size_t cut = room;
        while (cut > 0 && (static_cast<unsigned char>(stem[cut]) & 0xc0) == 0x80)
            cut--;
        stem.resize(cut);
    }
    return stem + ext;
}

void syncFolder(const std::string& folder) {
    int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

void dropPart(const std::string& part) {
    unlink(part.c_str());
    parts.clear();
    writeJournal();
}

// The MP3 copy of "FLAC+MP3": root + "/mp3/<artist>/<album>/<track>.mp3",
// beside the library, not in it. A copy that fails is logged and left out.
void makeCopy(const Done& d, const std::string& wav, const TrackTags& tags,
              const CancelCheck& cancel) {
    std::string folder = getLocalPath() + "/mp3";
    for (const std::string& part : {std::string(), d.artist, d.album}) {
        if (!part.empty()) folder += "/" + part;
        if (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
            kzLog("Compression: cannot make %s\n", folder.c_str());
            return;
        }
    }
    std::string part = folder + "/" + kPartName;
    std::string copy = folder + "/" + finalNameOf(d.wavName, ".mp3");
    parts.push_back(part);
    writeJournal();
    CodecResult r = encodeMp3(wav, part, 256, tags, cancel);
    if (r.ok) r = verifyMp3(wav, part, r.rms, cancel);
    if (r.ok && rename(part.c_str(), copy.c_str()) == 0) {
        syncFolder(folder);
        kzLog("Compression: copy %s\n", copy.c_str());
    } else if (!r.cancelled) {
        kzLog("Compression: no MP3 copy of %s: %s\n", wav.c_str(),
              r.ok ? strerror(errno) : r.why.c_str());
    }
    unlink(part.c_str());
    parts.pop_back();
    writeJournal();
}

Outcome compressOne(const Done& item, int mode, const CancelCheck& cancel) {
    const bool mp3 = mode == kMp3At128 || mode == kMp3At256;
    Done d = item;
    d.finalName = finalNameOf(item.wavName, mp3 ? ".mp3" : ".flac");
    std::string folder = albumFolder(d.artist, d.album);
    std::string wav = folder + "/" + d.wavName, done = folder + "/" + d.finalName;
    std::string part = folder + "/" + kPartName;
    if (fileExists(done)) {
        kzLog("Compression: %s already has %s beside it; both are left as they are\n", wav.c_str(),
              d.finalName.c_str());
        failed.insert(wav);
        return Outcome::Skipped;
    }
    TrackTags tags = tagsFor(d, wav);
    parts = {part};
    writeJournal();
    kzLog("Compressing %s\n", wav.c_str());
    CodecResult r = mp3 ? encodeMp3(wav, part, mode == kMp3At128 ? 128 : 256, tags, cancel)
                        : encodeFlac(wav, part, tags, cancel);
    if (r.ok) r = mp3 ? verifyMp3(wav, part, r.rms, cancel) : verifyFlac(wav, part);
    if (!r.ok) {
        dropPart(part);
        if (r.cancelled) return Outcome::Cancelled;
        if (!fileExists(wav)) {
            kzLog("Compression: %s changed while it was compressed; its copy is removed\n",
                  wav.c_str());
            return Outcome::Changed;
        }
        if (r.diskFull) {
            kzLog("Compression paused: the disk is full (%s); %s is kept\n", r.why.c_str(),
                  wav.c_str());
            return Outcome::DiskFull;
        }
        kzLog("Compression of %s failed: %s; the WAV is kept\n", wav.c_str(), r.why.c_str());
        failed.insert(wav);
        return Outcome::Skipped;
    }
    // In the journal before the rename: a stop right after it must find
    // the track to finish.
    if (pending.empty()) firstPending = std::chrono::steady_clock::now();
    pending.push_back(d);
    writeJournal();
    // The WAV may have been renamed or deleted meanwhile: then the copy is
    // not wanted.
    if (!fileExists(wav) || rename(part.c_str(), done.c_str()) != 0) {
        kzLog("Compression: %s changed while it was compressed; its copy is removed\n",
              wav.c_str());
        pending.pop_back();
        dropPart(part);
        return Outcome::Changed;
    }
    syncFolder(folder);
    parts.clear();
    writeJournal();
    Applied a = apply(d);
    if (a == Applied::NoRoom) return Outcome::NoRoom;
    if (a == Applied::Gone) {
        // Deleted or renamed between the check above and now.
        pending.pop_back();
        writeJournal();
        removeFile(done);
        return Outcome::Changed;
    }
    if (mode == kFlacAndMp3) makeCopy(d, wav, tags, cancel);
    return Outcome::Done;
}

// A rip writes WAVs that are not whole yet: the job waits for its end
// (which kicks it) and leaves the drive and the disk to it meanwhile.
bool libraryReady() {
    return libraryLoadCount() > 0 && !libraryRebuilding() && !isRipping();
}

// Waits until the library is loaded and not being rebuilt; false on a stop.
bool waitForLibrary() {
    while (!libraryReady()) {
        std::unique_lock<std::mutex> hold(stateMutex);
        wake.wait_for(hold, std::chrono::milliseconds(250), [] { return stopping.load(); });
        if (stopping) return false;
    }
    return true;
}

struct Busy {
    Busy() { busy = true; }
    ~Busy() {
        std::lock_guard<std::mutex> hold(stateMutex);
        busy = false;
        wake.notify_all();
    }
};

void runPass() {
    const int mode = getCompressionMode();
    if (mode == kNone || mode < 0 || mode > kFlacAndMp3) return;
    if (!waitForLibrary()) return;
    if (retryFailed.exchange(false)) failed.clear();
    std::vector<Done> todo;
    {
        std::lock_guard<std::recursive_mutex> g(lib().dbMutex);
        int n = getTrackCount();
        for (int t = 0; t < n; t++) {
            const char* name = getTrackName(t);
            if (!name || !endsWithExtension(name, ".wav")) continue;
            int album = getParentAlbum(t);
            Done d{getArtistName(getAlbumArtist(album)), getAlbumName(album), name, ""};
            if (!failed.count(albumFolder(d.artist, d.album) + "/" + name))
                todo.push_back(std::move(d));
        }
    }
    if (todo.empty()) return;
    Busy marker;
    kzLog("Compression: %d tracks to %s\n", static_cast<int>(todo.size()), getCompressionText());
    CancelCheck cancel = [mode] {
        return stopping.load() || pauses > 0 || getCompressionMode() != mode;
    };
    int count = 0;
    bool changed = false;
    for (const Done& item : todo) {
        if (cancel() || !libraryReady()) break;
        setStatus("Compressing " + std::to_string(++count) + " of " + std::to_string(todo.size()));
        Outcome o = compressOne(item, mode, cancel);
        if (o == Outcome::DiskFull || o == Outcome::NoRoom) {
            flush();
            setStatus(o == Outcome::DiskFull
                          ? "Compression paused: the disk is full"
                          : "Compression paused: the library's name space is full");
            return;
        }
        if (o == Outcome::Cancelled) break;
        changed = changed || o == Outcome::Changed;
        if (pending.size() >= kSaveEvery ||
            (!pending.empty() && std::chrono::steady_clock::now() - firstPending > kSaveAfter)) {
            flush();
        }
    }
    flush();
    setStatus("");
    std::lock_guard<std::mutex> hold(stateMutex);
    // A new setting or a rebuild in the middle, a track renamed under the
    // encoder, a pause: start again over what is left.
    if (!stopping && (changed || pauses > 0 || getCompressionMode() != mode || !libraryReady()))
        kicked = true;
}

void workerMain() {
    lowerPriority();
    if (waitForLibrary()) {
        // What an earlier run left: part files go, done tracks are finished.
        readJournal();
        for (const std::string& p : parts)
            unlink(p.c_str());
        parts.clear();
        if (!pending.empty())
            kzLog("Compression: finishing %d tracks of an earlier run\n",
                  static_cast<int>(pending.size()));
        if (!flush()) writeJournal();
    }
    for (;;) {
        {
            std::unique_lock<std::mutex> hold(stateMutex);
            wake.wait(hold, [] { return (kicked && pauses == 0) || stopping; });
            if (stopping) break;
            kicked = false;
        }
        runPass();
        if (!pending.empty() && !flush()) {
            // A rebuild or a failed save: try again shortly.
            std::unique_lock<std::mutex> hold(stateMutex);
            wake.wait_for(hold, std::chrono::seconds(2), [] { return stopping.load(); });
            kicked = true;
        }
    }
    std::lock_guard<std::mutex> hold(stateMutex);
    running = false;
    wake.notify_all();
}

}  // namespace

std::string getCompressJournalPath() {
    return getLocalPath() + "/kzcompress";
}

void initCompression() {
    std::lock_guard<std::mutex> hold(stateMutex);
    if (running) return;
    stopping = false;
    try {
        worker = std::thread([] {
            nameThread("kz-compress");
            workerMain();
        });
        worker.detach();
        running = true;
    } catch (const std::system_error&) {
        kzLog("initCompression failed to create its thread\n");
    }
}

void kickCompression() {
    std::lock_guard<std::mutex> hold(stateMutex);
    kicked = true;
    retryFailed = true;
    if (statusText.rfind("Compression paused", 0) == 0) statusText.clear();
    wake.notify_all();
}

void stopCompression() {
    std::unique_lock<std::mutex> hold(stateMutex);
    if (!running) return;
    stopping = true;
    wake.notify_all();
    // An encode gives up within a block; a check kills its decoder.
    wake.wait_for(hold, std::chrono::seconds(5), [] { return !running; });
}

CompressionPause::CompressionPause() {
    std::unique_lock<std::mutex> hold(stateMutex);
    pauses++;
    wake.notify_all();
    // The pass ends at the next block of audio; its last act is the save.
    wake.wait_for(hold, std::chrono::seconds(10), [] { return !busy; });
}

CompressionPause::~CompressionPause() {
    std::lock_guard<std::mutex> hold(stateMutex);
    pauses--;
    kicked = true;
    wake.notify_all();
}

bool isCompressing() {
    return busy;
}

std::string compressionStatusText() {
    std::lock_guard<std::mutex> hold(stateMutex);
    return statusText;
}
