// Backup of the library to a USB drive and restore from it.
//
// The drive holds everything under <drive>/kz-backup/: music/ (and mp3/ when
// the library has one) mirroring the library's trees, state/ with the kz*
// files beside kzdb, trash/<date-time>/ with what later backups found gone
// from the library (moved there, never erased), and the file "last-backup".
//
// Both runs block and are meant for a worker thread; other threads watch the
// progress and may raise the stop flag. A run can end at any moment (stop,
// quit, drive pulled out, power cut) and the next one goes on from there:
// every file is written under a temporary name in its destination folder and
// renamed when whole, so a real name never holds half a file.
// One run at a time per drive and library: two would share the temporary
// names.
#pragma once

#include <atomic>
#include <ctime>
#include <string>

enum class BackupPhase : int { Idle, Scanning, Copying, Trashing, Syncing, Done };

// "idle", "scanning", "copying", "trashing", "syncing", "done".
const char* backupPhaseName(BackupPhase phase);

// Written by the running backup or restore, read by anyone. The totals are
// what this run has to copy (known once scanning ends), not the whole library.
struct BackupProgress {
    std::atomic<BackupPhase> phase{BackupPhase::Idle};
    std::atomic<long long> filesDone{0};
    std::atomic<long long> filesTotal{0};
    std::atomic<long long> bytesDone{0};
    std::atomic<long long> bytesTotal{0};

    void reset();
};

enum class BackupOutcome : int {
    Done,       // everything there was to do is done (filesFailed may still be > 0)
    Stopped,    // the stop flag was raised
    DriveGone,  // the drive (or the library's disk) went away or stopped answering
    DriveFull,  // the destination has no room left
    Refused,    // nothing was written: a link where a folder must be, no library, ...
    Failed,     // any other error that ends the run
};

struct BackupResult {
    BackupOutcome outcome = BackupOutcome::Done;
    // One sentence for the pages: "Backup complete: 12 files copied, 1 moved
    // to the trash", "The USB drive is full", ...
    std::string message;
    long long filesCopied = 0;     // files of the music trees copied this run
    long long bytesCopied = 0;     // their bytes and the state files'
    long long stateFiles = 0;      // kz* state files copied
    long long filesUnchanged = 0;  // already equal, left as they were
    long long filesTrashed = 0;    // files and folders moved to the trash (backup only)
    long long filesSkipped = 0;    // links, fifos, devices, sockets: never copied
    long long filesFailed = 0;     // could not be read or written; logged one by one

    bool ok() const { return outcome == BackupOutcome::Done; }
};

struct BackupJob {
    std::string libraryRoot;  // getLocalPath(): holds music/ and kzdb
    std::string driveRoot;    // where the drive is mounted, e.g. /media/usba
    const std::atomic<bool>* stop = nullptr;
    BackupProgress* progress = nullptr;
    // Flushes the destination's file system once at the end. Only a
    // benchmark compares against a plain `cp -r` without it.
    bool syncAtEnd = true;
};

// Copies what is new or changed (by size and modification time) from the
// library into <driveRoot>/kz-backup and moves what the library no longer
// has into the trash. Never writes outside <driveRoot>/kz-backup.
BackupResult runBackup(const BackupJob& job);

// Copies back every file of the backup that the library lacks or holds in
// another size or time, the state files included. Never deletes or writes
// anything else in the library.
BackupResult runRestore(const BackupJob& job);

// The last backup that ran to its end, from <driveRoot>/kz-backup/last-backup.
struct BackupRecord {
    bool found = false;
    time_t when = 0;
    std::string date;     // local time, "2024-05-01 21:07"
    long long files = 0;  // files in the backup after that run
    long long bytes = 0;
    long long copied = 0;
    long long trashed = 0;
    long long failed = 0;
};
BackupRecord readLastBackup(const std::string& driveRoot);

// <driveRoot>/kz-backup
std::string backupFolderOf(const std::string& driveRoot);
