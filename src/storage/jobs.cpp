#include "storage/jobs.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "core/files.h"
#include "core/log.h"
#include "library/database.h"
#include "library/import.h"
#include "library/library.h"
#include "library/scan.h"
#include "library/settings.h"
#include "playback/playback.h"
#include "ripping/compress.h"
#include "storage/backup.h"
#include "web/status.h"
#include "web/web.h"

namespace {

using Clock = std::chrono::steady_clock;

std::mutex jobMutex;
std::condition_variable jobEnded;
bool running = false;
std::string kind;       // "import", "backup", "restore", "tidy"
std::string driveRoot;  // the drive the job uses, or ""
std::string lastWord;
Clock::time_point endedAt;
std::atomic<bool> stopFlag{false};

ImportProgress importProgress;
BackupProgress copyProgress;

// Runs one library tidy on this thread: empty folders, junk files, the
// count of space used.
void tidy() {
    kzLog("Tidying the library\n");
    cleanupEnabled = 1;
    cleanup();
}

bool start(const std::string& what, const std::string& root, std::function<std::string()> body,
           std::string* why) {
    std::lock_guard<std::mutex> hold(jobMutex);
    if (running) {
        *why = "Busy: the " + kind + " is still running";
        return false;
    }
    if (!root.empty() && !isFolder(root)) {
        *why = "No USB drive at " + root;
        return false;
    }
    running = true;
    kind = what;
    driveRoot = root;
    lastWord.clear();
    stopFlag = false;
    importProgress.filesDone = importProgress.filesTotal = 0;
    importProgress.bytesDone = importProgress.bytesTotal = 0;
    copyProgress.reset();
    kzLog("Starting the %s\n", what.c_str());
    try {
        // Detached: a quit must not wait for a copy, which a later run goes on
        // with.
        std::thread([body] {
            std::string word = body();
            {
                std::lock_guard<std::mutex> hold(jobMutex);
                running = false;
                lastWord = word;
                endedAt = Clock::now();
                driveRoot.clear();
            }
            jobEnded.notify_all();
            webClientsRefresh();
        }).detach();
    } catch (const std::system_error&) {
        running = false;
        *why = "Cannot start the " + what;
        kzLog("%s\n", why->c_str());
        return false;
    }
    return true;
}

}  // namespace

bool startImportJob(const std::string& root, const std::vector<std::string>& sources,
                    std::string* why) {
    return start(
        "import", root,
        [root, sources] {
            ImportResult r = importFromDrive(root, sources, stopFlag, importProgress);
            saveDBifChanged();
            if (r.copied > 0 && !stopFlag) tidy();
            return r.message;
        },
        why);
}

bool startBackupJob(const std::string& root, std::string* why) {
    return start(
        "backup", root,
        [root] {
            BackupJob job{getLocalPath(), root, &stopFlag, &copyProgress};
            return runBackup(job).message;
        },
        why);
}

bool startRestoreJob(const std::string& root, std::string* why) {
    return start(
        "restore", root,
        [root] {
            // Nothing may write kzdb, the playlists or a track while their
            // old copies come back: playback and compression wait, and the
            // database stays unwritable until it is read again.
            stopPlay();
            CompressionPause pause;
            beginLibraryRebuild();
            BackupJob job{getLocalPath(), root, &stopFlag, &copyProgress};
            BackupResult r = runRestore(job);
            kzLog("Reloading the library after the restore\n");
            loadSettings();
            loadOrScan();
            if (r.ok()) tidy();
            return r.message;
        },
        why);
}

bool startTidyJob(std::string* why) {
    return start(
        "tidy", "",
        [] {
            tidy();
            saveDBifChanged();
            return std::string("The library is tidy");
        },
        why);
}

bool isStorageJobRunning() {
    std::lock_guard<std::mutex> hold(jobMutex);
    return running;
}

void stopStorageJobs() {
    std::unique_lock<std::mutex> hold(jobMutex);
    if (!running) return;
    kzLog("Stopping the %s\n", kind.c_str());
    stopFlag = true;
    if (kind == "tidy") stopCleanup();
    jobEnded.wait_for(hold, std::chrono::seconds(10), [] { return !running; });
}

void storageDriveGone(const std::string& root) {
    std::lock_guard<std::mutex> hold(jobMutex);
    if (running && !driveRoot.empty() && driveRoot == root) {
        kzLog("The %s stops: its drive went away\n", kind.c_str());
        stopFlag = true;
    }
}

namespace {

struct Snapshot {
    bool running;
    std::string kind, word;
    long long done, total, bytesDone, bytesTotal;
    bool planning;
};

Snapshot snapshot() {
    std::lock_guard<std::mutex> hold(jobMutex);
    Snapshot s{running, kind, lastWord, 0, 0, 0, 0, false};
    if (kind == "import") {
        s.done = importProgress.filesDone;
        s.total = importProgress.filesTotal;
        s.bytesDone = importProgress.bytesDone;
        s.bytesTotal = importProgress.bytesTotal;
        s.planning = importProgress.planning;
    } else if (kind == "backup" || kind == "restore") {
        s.done = copyProgress.filesDone;
        s.total = copyProgress.filesTotal;
        s.bytesDone = copyProgress.bytesDone;
        s.bytesTotal = copyProgress.bytesTotal;
        s.planning = copyProgress.phase == BackupPhase::Scanning;
    }
    if (!running && Clock::now() - endedAt > std::chrono::minutes(1)) s.word.clear();
    return s;
}

}  // namespace

namespace {

std::string textOf(const Snapshot& s) {
    if (!s.running) return s.word;
    if (s.kind == "tidy") return "Tidying the library";
    const char* verb = s.kind == "import"   ? "Importing"
                       : s.kind == "backup" ? "Backing up"
                                            : "Restoring";
    if (s.planning) return std::string(verb) + ": looking at the files";
    return std::string(verb) + " " + std::to_string(s.done) + " of " + std::to_string(s.total) +
           (s.kind == "import" ? " tracks" : " files");
}

}  // namespace

std::string storageStatusText() {
    return textOf(snapshot());
}

std::string storageJobJson() {
    // One look at the job: the figures and the words agree.
    Snapshot s = snapshot();
    return "{\"job\":" + quoted(s.kind.c_str()) + ",\"running\":" + (s.running ? "true" : "false") +
           ",\"done\":" + std::to_string(s.done) + ",\"total\":" + std::to_string(s.total) +
           ",\"bytesDone\":" + std::to_string(s.bytesDone) +
           ",\"bytesTotal\":" + std::to_string(s.bytesTotal) +
           ",\"message\":" + quoted(textOf(s).c_str()) + "}";
}
