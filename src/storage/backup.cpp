#include "storage/backup.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "core/files.h"
#include "core/log.h"

namespace {

constexpr char kBackupFolder[] = "kz-backup";
constexpr char kStateFolder[] = "state";
constexpr char kTrashFolder[] = "trash";
constexpr char kRecordName[] = "last-backup";
constexpr char kRecordHeader[] = "kz-backup 1";
// The one name a file is written under until it is whole. One file is copied
// at a time, so one name per folder is enough, and it never grows a long
// library name past the file system's limit.
constexpr char kTempName[] = ".kz-backup.part";
// The library's own trees, copied whole. A tree the library lacks is left as
// it is in the backup: a missing folder more likely means a damaged disk
// than a choice.
constexpr const char* kTrees[] = {"music", "mp3"};
// The stat of the two roots costs next to nothing; a renamed or unmounted
// drive is noticed within this many chunks of a large file.
constexpr int kChunksBetweenChecks = 32;
constexpr int kMaxDepth = 32;
// FAT keeps modification times to two seconds: a finer comparison would
// copy every file again on every run.
constexpr long long kTimeWindowNs = 2'000'000'000LL;

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // close() of a written file reports late write errors.
    int closeChecked() {
        int r = close(fd_);
        fd_ = -1;
        return r;
    }

  private:
    int fd_ = -1;
};

int openFolderAt(int dir, const char* name) {
    return openat(dir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Opens the folder rel ("a/b/c", "" for root itself) below root, never
// through a link; with create, makes the folders that are missing.
int openChain(int root, const std::string& rel, bool create) {
    Fd cur(openFolderAt(root, "."));
    size_t start = 0;
    while (cur.ok() && start < rel.size()) {
        size_t slash = rel.find('/', start);
        if (slash == std::string::npos) slash = rel.size();
        std::string part = rel.substr(start, slash - start);
        start = slash + 1;
        int fd = openFolderAt(cur.get(), part.c_str());
        if (fd < 0 && errno == ENOENT && create) {
            if (mkdirat(cur.get(), part.c_str(), 0777) != 0 && errno != EEXIST) return -1;
            fd = openFolderAt(cur.get(), part.c_str());
        }
        if (fd < 0) return -1;
        cur.reset(fd);
    }
    return cur.ok() ? cur.release() : -1;
}

struct Entry {
    std::string name;
    struct stat st;
};

// Every entry of the folder but "." and "..", by name, as lstat sees it.
bool listFolder(int dir, std::vector<Entry>& out) {
    int fd = openFolderAt(dir, ".");
    if (fd < 0) return false;
    DIR* d = fdopendir(fd);
    if (!d) {
        close(fd);
        return false;
    }
    errno = 0;
    while (dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        Entry entry{e->d_name, {}};
        if (fstatat(dirfd(d), e->d_name, &entry.st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) continue;  // gone since readdir
            int err = errno;
            closedir(d);
            errno = err;
            return false;
        }
        out.push_back(std::move(entry));
        errno = 0;
    }
    int err = errno;
    closedir(d);
    errno = err;
    if (err != 0) return false;
    std::sort(out.begin(), out.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
    return true;
}

std::string join(const std::string& dir, const std::string& name) {
    return dir.empty() ? name : dir + "/" + name;
}

// Names come from readdir, so they never hold a '/' and are never empty;
// checked all the same, since each one is handed to the *at calls.
bool nameCanBeCopied(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// Work under way in the library: this engine's own temporary file, the
// compressor's track in progress, a radio recording being written.
bool isWorkInProgress(const std::string& name) {
    return name.rfind(".kz-", 0) == 0 || (name.size() > 5 && name.ends_with(".part"));
}

// The small files of the library's state beside kzdb. kzcompress is left
// out: it tells a restarted compressor what to finish on the disk it was
// written on, and a copy of it would act on another disk's tracks.
bool isStateName(const std::string& name) {
    return name.size() > 2 && name.starts_with("kz") && !name.ends_with(".new") &&
           name != "kzcompress";
}

long long nanos(const timespec& t) {
    return static_cast<long long>(t.tv_sec) * 1'000'000'000LL + t.tv_nsec;
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && llabs(nanos(a.st_mtim) - nanos(b.st_mtim)) < kTimeWindowNs;
}

bool sameNode(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::string stamp(time_t when, const char* format) {
    struct tm tm;
    localtime_r(&when, &tm);
    char text[64];
    strftime(text, sizeof text, format, &tm);
    return text;
}

enum class Side { Library, Drive };

struct Item {
    enum Kind { Copy, Trash } kind;
    bool state;
    std::string srcDir;  // relative to the source root, "" for the root itself
    std::string dstDir;  // relative to the destination root
    std::string name;
    long long size;
};

class Run {
  public:
    Run(const BackupJob& job, bool restore)
        : job_(job), restore_(restore), verb_(restore ? "Restore" : "Backup") {
        if (job_.progress) {
            job_.progress->reset();
            job_.progress->phase = BackupPhase::Scanning;
        }
    }

    BackupResult backup();
    BackupResult restore();
    BackupResult copyAll(Side from);

  private:
    bool openBackupSide();
    bool openLibrarySide();
    void scanAll();
    bool scanFolder(int srcFd, int dstFd, const std::string& srcRel, const std::string& dstRel,
                    int depth, bool state);
    bool conflict(const std::string& dstRel, const std::string& name);
    void execute();
    bool copyItem(const Item& it);
    int copyData(int in, int out, Side* side);
    bool trashItem(const Item& it);
    void finish();
    void writeRecord();

    int srcFolder(const std::string& rel);
    int dstFolder(const std::string& rel, bool create);
    bool rootsStillThere();
    bool stopping() const { return job_.stop && job_.stop->load(std::memory_order_relaxed); }
    void fileError(int err, Side side, const char* doing, const std::string& rel);
    void end(BackupOutcome outcome, const std::string& message);
    void setPhase(BackupPhase p) {
        if (job_.progress) job_.progress->phase = p;
    }
    BackupResult done();

    const BackupJob& job_;
    const bool restore_;
    const char* verb_;
    Side srcSide_ = Side::Library;
    Side dstSide_ = Side::Drive;

    Fd driveRoot_, backupRoot_, libraryRoot_;
    int srcRoot_ = -1, dstRoot_ = -1;  // two of the three above
    std::string backupPath_;
    struct stat backupId_ = {}, libraryId_ = {};

    std::vector<Item> copies_, trash_;
    long long keptFiles_ = 0, keptBytes_ = 0;
    BackupResult r_;
    bool ended_ = false;
    bool wrote_ = false;
    FileCopier copier_;
    time_t started_ = time(nullptr);
    Fd trashRoot_;

    std::string srcCachedRel_, dstCachedRel_;
    Fd srcCached_, dstCached_;
};

void Run::end(BackupOutcome outcome, const std::string& message) {
    if (ended_) return;
    ended_ = true;
    r_.outcome = outcome;
    r_.message = message;
}

bool Run::rootsStillThere() {
    struct stat st;
    bool library = stat(job_.libraryRoot.c_str(), &st) == 0 && sameNode(st, libraryId_);
    bool drive = lstat(backupPath_.c_str(), &st) == 0 && sameNode(st, backupId_);
    if (library && drive) return true;
    if (!drive) {
        end(BackupOutcome::DriveGone,
            restore_ ? "The USB drive went away during the restore (unplugged?); the next "
                       "restore goes on from there"
                     : "The USB drive went away during the backup (unplugged?); the next "
                       "backup goes on from there");
    } else {
        end(BackupOutcome::DriveGone, "The library's disk went away");
    }
    return false;
}

// One file or folder could not be handled: some errors end the run (a full
// or vanished drive fails every file after it), the others skip that file.
void Run::fileError(int err, Side side, const char* doing, const std::string& rel) {
    const bool drive = side == Side::Drive;
    if (err == ENOSPC || err == EDQUOT) {
        end(BackupOutcome::DriveFull,
            drive ? "The USB drive is full" : "The library's disk is full");
        return;
    }
    if (err == EFBIG) {
        end(BackupOutcome::DriveFull,
            drive ? "The USB drive cannot hold a file as large as " + rel
                  : "The library's disk cannot hold a file as large as " + rel);
        return;
    }
    if (err == EROFS) {
        end(BackupOutcome::Failed,
            drive ? "The USB drive is read-only" : "The library's disk is read-only");
        return;
    }
    if (!rootsStillThere()) return;
    if (drive &&
        (err == EIO || err == ENODEV || err == ENXIO || err == ESTALE || err == ENOTCONN)) {
        end(BackupOutcome::DriveGone,
            "The USB drive stopped answering (was it unplugged?); the next run goes on from there");
        return;
    }
    kzLog("%s: cannot %s %s: %s\n", verb_, doing, rel.c_str(), strerror(err));
    r_.filesFailed++;
}

int Run::srcFolder(const std::string& rel) {
    if (!srcCached_.ok() || srcCachedRel_ != rel) {
        srcCached_.reset(openChain(srcRoot_, rel, false));
        srcCachedRel_ = rel;
    }
    return srcCached_.get();
}

int Run::dstFolder(const std::string& rel, bool create) {
    if (!dstCached_.ok() || dstCachedRel_ != rel) {
        dstCached_.reset(openChain(dstRoot_, rel, create));
        dstCachedRel_ = rel;
    }
    return dstCached_.get();
}

// <drive>/kz-backup and the fixed folders in it must be real folders: a link
// there could point anywhere, so nothing is written at all.
bool Run::openBackupSide() {
    driveRoot_.reset(open(job_.driveRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!driveRoot_.ok()) {
        end(BackupOutcome::Refused, "No USB drive at " + job_.driveRoot);
        return false;
    }
    backupPath_ = backupFolderOf(job_.driveRoot);
    if (!restore_ && mkdirat(driveRoot_.get(), kBackupFolder, 0777) != 0 && errno != EEXIST) {
        int err = errno;
        if (err == ENOSPC || err == EROFS) fileError(err, Side::Drive, "make", backupPath_);
        end(BackupOutcome::Failed, "Cannot make " + backupPath_ + ": " + strerror(err));
        return false;
    }
    backupRoot_.reset(openFolderAt(driveRoot_.get(), kBackupFolder));
    if (!backupRoot_.ok()) {
        if (errno == ELOOP || errno == ENOTDIR) {
            end(BackupOutcome::Refused,
                backupPath_ + " is a link or a file, not a folder: refused");
        } else if (errno == ENOENT) {
            end(BackupOutcome::Refused, "There is no backup on the USB drive");
        } else {
            end(BackupOutcome::Failed, "Cannot open " + backupPath_ + ": " + strerror(errno));
        }
        return false;
    }
    fstat(backupRoot_.get(), &backupId_);
    for (const char* fixed : {kTrees[0], kTrees[1], kStateFolder, kTrashFolder}) {
        struct stat st;
        if (fstatat(backupRoot_.get(), fixed, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            !S_ISDIR(st.st_mode)) {
            end(BackupOutcome::Refused,
                backupPath_ + "/" + fixed + " is a link or a file, not a folder: refused");
            return false;
        }
    }
    return true;
}

bool Run::openLibrarySide() {
    libraryRoot_.reset(open(job_.libraryRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!libraryRoot_.ok()) {
        end(BackupOutcome::Refused, "No library at " + job_.libraryRoot);
        return false;
    }
    fstat(libraryRoot_.get(), &libraryId_);
    for (const char* tree : kTrees) {
        struct stat st;
        if (fstatat(libraryRoot_.get(), tree, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            !S_ISDIR(st.st_mode)) {
            end(BackupOutcome::Refused,
                job_.libraryRoot + "/" + tree + " is a link or a file, not a folder: refused");
            return false;
        }
    }
    return true;
}

// An entry of the destination stands where the source has something of
// another kind. A backup moves it to the trash first; a restore leaves the
// user's entry alone.
bool Run::conflict(const std::string& dstRel, const std::string& name) {
    if (restore_) {
        kzLog("Restore: left alone %s (not the kind of entry the backup has)\n",
              join(dstRel, name).c_str());
        r_.filesSkipped++;
        return false;
    }
    copies_.push_back({Item::Trash, false, "", dstRel, name, 0});
    return true;
}

// Compares one folder of the source with its copy (dstFd -1: none yet) and
// plans what to copy and what to move to the trash.
bool Run::scanFolder(int srcFd, int dstFd, const std::string& srcRel, const std::string& dstRel,
                     int depth, bool state) {
    if (stopping()) return false;
    std::vector<Entry> src, dst;
    if (!listFolder(srcFd, src)) {
        fileError(errno, srcSide_, "read the folder", srcRel);
        return !ended_;
    }
    if (dstFd >= 0 && !listFolder(dstFd, dst)) {
        fileError(errno, dstSide_, "read the folder", dstRel);
        return !ended_;
    }
    std::map<std::string, const struct stat*> there;
    for (const Entry& e : dst) {
        if (e.name == kTempName) {
            // Left by a run that was cut short.
            if (unlinkat(dstFd, kTempName, 0) == 0)
                kzInfo("%s: removed a leftover in %s\n", verb_, dstRel.c_str());
            continue;
        }
        there[e.name] = &e.st;
    }
    const struct stat* backupId = restore_ ? nullptr : &backupId_;
    for (const Entry& e : src) {
        const std::string rel = join(srcRel, e.name);
        if (!nameCanBeCopied(e.name) || isWorkInProgress(e.name)) continue;
        if (state && !isStateName(e.name)) continue;
        const struct stat* d = nullptr;
        if (auto it = there.find(e.name); it != there.end()) {
            d = it->second;
            there.erase(it);
        }
        const mode_t mode = e.st.st_mode;
        if (S_ISLNK(mode)) {
            kzLog("%s: skipping the link %s\n", verb_, rel.c_str());
            r_.filesSkipped++;
            continue;
        }
        if (S_ISDIR(mode)) {
            if (state) continue;
            if (depth >= kMaxDepth || (backupId && sameNode(e.st, *backupId))) {
                kzLog("%s: skipping the folder %s\n", verb_, rel.c_str());
                r_.filesSkipped++;
                continue;
            }
            Fd sub(openFolderAt(srcFd, e.name.c_str()));
            if (!sub.ok()) {
                fileError(errno, srcSide_, "open the folder", rel);
                if (ended_) return false;
                continue;
            }
            Fd copy;
            if (d && S_ISDIR(d->st_mode)) {
                copy.reset(openFolderAt(dstFd, e.name.c_str()));
                if (!copy.ok()) {
                    fileError(errno, dstSide_, "open the folder", join(dstRel, e.name));
                    if (ended_) return false;
                    continue;
                }
            } else if (d && !conflict(dstRel, e.name)) {
                continue;
            }
            if (!scanFolder(sub.get(), copy.get(), rel, join(dstRel, e.name), depth + 1, false)) {
                return false;
            }
            continue;
        }
        if (!S_ISREG(mode)) {
            kzLog("%s: skipping %s (not a file)\n", verb_, rel.c_str());
            r_.filesSkipped++;
            continue;
        }
        // The state files are small and may change twice within FAT's two
        // seconds: a backup takes them every time.
        const bool always = state && !restore_;
        if (d && S_ISREG(d->st_mode) && !always && sameFile(e.st, *d)) {
            keptFiles_++;
            keptBytes_ += e.st.st_size;
            r_.filesUnchanged++;
            continue;
        }
        if (d && !S_ISREG(d->st_mode) && !conflict(dstRel, e.name)) continue;
        copies_.push_back({Item::Copy, state, srcRel, dstRel, e.name, e.st.st_size});
    }
    if (!restore_) {
        for (const auto& [name, st] : there)
            trash_.push_back({Item::Trash, state, "", dstRel, name, 0});
    }
    return true;
}

void Run::scanAll() {
    for (const char* tree : kTrees) {
        Fd src(openFolderAt(srcRoot_, tree));
        if (!src.ok()) {
            if (errno != ENOENT) fileError(errno, srcSide_, "open the folder", tree);
            if (ended_) return;
            continue;
        }
        Fd dst(openFolderAt(dstRoot_, tree));
        if (!dst.ok() && errno != ENOENT) {
            fileError(errno, dstSide_, "open the folder", tree);
            if (ended_) return;
            continue;
        }
        if (!scanFolder(src.get(), dst.get(), tree, tree, 1, false)) return;
    }
    // The state last, so that a restored kzdb never names music still on its way.
    Fd stateSrc(restore_ ? openFolderAt(srcRoot_, kStateFolder) : openFolderAt(srcRoot_, "."));
    Fd stateDst(restore_ ? openFolderAt(dstRoot_, ".") : openFolderAt(dstRoot_, kStateFolder));
    if (!stateSrc.ok()) return;
    scanFolder(stateSrc.get(), stateDst.get(), restore_ ? kStateFolder : "",
               restore_ ? "" : kStateFolder, 1, true);
}

// Copies the data of one open file into another; 0 when all of it went,
// else the error and the side it came from (ECANCELED: stopped). An error
// copy_file_range cannot place is the drive's, the side that comes and goes.
int Run::copyData(int in, int out, Side* side) {
    int chunks = 0;
    CopySide failed = CopySide::Either;
    int err = copier_.copy(
        in, out,
        [&] {
            if (stopping()) return ECANCELED;
            if (++chunks % kChunksBetweenChecks == 0 && !rootsStillThere()) return ENODEV;
            return 0;
        },
        [&](long long n) {
            r_.bytesCopied += n;
            if (job_.progress) job_.progress->bytesDone += n;
        },
        &failed);
    if (err != 0) {
        *side = failed == CopySide::Read    ? srcSide_
                : failed == CopySide::Write ? dstSide_
                                            : Side::Drive;
    }
    return err;
}

bool Run::copyItem(const Item& it) {
    const std::string rel = join(it.srcDir, it.name);
    const std::string dstRel = join(it.dstDir, it.name);
    int from = srcFolder(it.srcDir);
    if (from < 0) {
        fileError(errno, srcSide_, "open the folder", it.srcDir);
        return !ended_;
    }
    int to = dstFolder(it.dstDir, true);
    if (to < 0) {
        fileError(errno, dstSide_, "make the folder", it.dstDir);
        return !ended_;
    }
    Fd in(openat(from, it.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (!in.ok() || fstat(in.get(), &st) != 0) {
        fileError(errno, srcSide_, "open", rel);
        return !ended_;
    }
    if (!S_ISREG(st.st_mode)) {
        r_.filesSkipped++;
        return true;
    }
    posix_fadvise(in.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    unlinkat(to, kTempName, 0);
    wrote_ = true;
    Fd out(openat(to, kTempName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                  (st.st_mode & 0777) | 0600));
    if (!out.ok()) {
        fileError(errno, dstSide_, "write in", it.dstDir);
        return !ended_;
    }
    Side side = dstSide_;
    int err = copyData(in.get(), out.get(), &side);
    if (err == 0) {
        // The source's times, so that the next run sees the two as equal.
        const timespec times[2] = {st.st_atim, st.st_mtim};
        if (futimens(out.get(), times) != 0) err = errno;
    }
    if (err == 0 && out.closeChecked() != 0) err = errno;
    if (err == 0 && renameat(to, kTempName, to, it.name.c_str()) != 0) err = errno;
    if (err != 0) {
        out.reset();
        unlinkat(to, kTempName, 0);
        if (err == ECANCELED) return false;
        fileError(err, side, "copy", rel);
        return !ended_;
    }
    if (it.state) {
        r_.stateFiles++;
    } else {
        r_.filesCopied++;
    }
    return true;
}

bool Run::trashItem(const Item& it) {
    const std::string rel = join(it.dstDir, it.name);
    if (!trashRoot_.ok()) {
        trashRoot_.reset(
            openChain(backupRoot_.get(),
                      std::string(kTrashFolder) + "/" + stamp(started_, "%Y-%m-%d-%H%M%S"), true));
        if (!trashRoot_.ok()) {
            fileError(errno, Side::Drive, "make the trash folder for", rel);
            return !ended_;
        }
    }
    // The cached folder may be the one that moves.
    dstCached_.reset();
    Fd from(openChain(dstRoot_, it.dstDir, false));
    Fd to(openChain(trashRoot_.get(), it.dstDir, true));
    if (!from.ok() || !to.ok()) {
        if (errno != ENOENT) fileError(errno, Side::Drive, "move to the trash", rel);
        return !ended_;
    }
    std::string name = it.name;
    for (int n = 1;; n++) {
        int r = renameat2(from.get(), it.name.c_str(), to.get(), name.c_str(), RENAME_NOREPLACE);
        if (r != 0 && errno == EINVAL) {
            // A file system without the flag: look first.
            struct stat st;
            if (fstatat(to.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
                errno = EEXIST;
            } else {
                r = renameat(from.get(), it.name.c_str(), to.get(), name.c_str());
            }
        }
        if (r == 0) break;
        if ((errno != EEXIST && errno != ENOTEMPTY) || n > 99) {
            if (errno != ENOENT) fileError(errno, Side::Drive, "move to the trash", rel);
            return !ended_;
        }
        // The same name went twice within a second.
        name = it.name + "." + std::to_string(n);
    }
    wrote_ = true;
    r_.filesTrashed++;
    kzInfo("Backup: moved %s to the trash\n", rel.c_str());
    return true;
}

void Run::execute() {
    long long bytes = 0;
    long long files = 0;
    for (const Item& it : copies_) {
        if (it.kind == Item::Copy) {
            bytes += it.size;
            files++;
        }
    }
    if (job_.progress) {
        job_.progress->filesTotal = files;
        job_.progress->bytesTotal = bytes;
    }
    setPhase(BackupPhase::Copying);
    for (const Item& it : copies_) {
        if (stopping() || !rootsStillThere()) return;
        bool goOn = it.kind == Item::Copy ? copyItem(it) : trashItem(it);
        if (!goOn) return;
        if (it.kind == Item::Copy && job_.progress) job_.progress->filesDone++;
    }
    srcCached_.reset();
    dstCached_.reset();
    if (trash_.empty()) return;
    setPhase(BackupPhase::Trashing);
    for (const Item& it : trash_) {
        if (stopping() || !rootsStillThere() || !trashItem(it)) return;
    }
}

void Run::writeRecord() {
    long long files = keptFiles_ + r_.filesCopied + r_.stateFiles;
    long long bytes = keptBytes_ + r_.bytesCopied;
    char text[512];
    int len =
        snprintf(text, sizeof text,
                 "%s\ntime %lld\nfiles %lld\nbytes %lld\ncopied %lld\ntrashed %lld\nfailed %lld\n",
                 kRecordHeader, static_cast<long long>(time(nullptr)), files, bytes, r_.filesCopied,
                 r_.filesTrashed, r_.filesFailed);
    const int dir = backupRoot_.get();
    unlinkat(dir, kTempName, 0);
    Fd out(openat(dir, kTempName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    bool ok = out.ok() && write(out.get(), text, len) == len && fsync(out.get()) == 0 &&
              out.closeChecked() == 0 && renameat(dir, kTempName, dir, kRecordName) == 0;
    if (!ok) {
        fileError(errno, Side::Drive, "write", backupPath_ + "/" + kRecordName);
        unlinkat(dir, kTempName, 0);
        return;
    }
    fsync(dir);
}

void Run::finish() {
    if (wrote_ && job_.syncAtEnd) {
        // One flush of the whole file system instead of one per file: the
        // renames already keep every real name whole.
        setPhase(BackupPhase::Syncing);
        if (syncfs(dstRoot_) != 0 && !ended_) fileError(errno, dstSide_, "flush", "the copies");
    }
    if (!ended_ && stopping()) {
        end(BackupOutcome::Stopped, std::string(verb_) + " stopped after " +
                                        std::to_string(r_.filesCopied + r_.stateFiles) +
                                        " files; the next one goes on from there");
    }
    // A drive that went away after its last file still has no record.
    if (!ended_ && rootsStillThere() && !restore_) writeRecord();
}

BackupResult Run::done() {
    if (!ended_) {
        char text[200];
        if (restore_) {
            snprintf(text, sizeof text, "Restore complete: %lld files copied back",
                     r_.filesCopied + r_.stateFiles);
        } else if (r_.filesCopied + r_.filesTrashed == 0) {
            snprintf(text, sizeof text, "Backup complete: nothing had changed");
        } else {
            snprintf(text, sizeof text,
                     "Backup complete: %lld files copied, %lld moved to the trash", r_.filesCopied,
                     r_.filesTrashed);
        }
        r_.message = text;
        if (r_.filesFailed > 0) {
            r_.message +=
                ", " + std::to_string(r_.filesFailed) + " could not be copied (see the log)";
        }
        // What a restore did not put back because the library holds
        // something else under that name.
        if (restore_ && r_.filesSkipped > 0) {
            r_.message += ", " + std::to_string(r_.filesSkipped) + " left alone (see the log)";
        }
    }
    kzLog("%s\n", r_.message.c_str());
    if (job_.progress) job_.progress->phase = BackupPhase::Done;
    return r_;
}

BackupResult Run::backup() {
    kzLog("Backup: %s to %s\n", job_.libraryRoot.c_str(), backupFolderOf(job_.driveRoot).c_str());
    if (!openLibrarySide()) return done();
    struct stat st;
    if (fstatat(libraryRoot_.get(), kTrees[0], &st, AT_SYMLINK_NOFOLLOW) != 0) {
        // Never mirror a library that lost its music into the backup.
        end(BackupOutcome::Refused, "The library has no music folder: nothing was backed up");
        return done();
    }
    if (!openBackupSide()) return done();
    return copyAll(Side::Library);
}

BackupResult Run::restore() {
    kzLog("Restore: %s to %s\n", backupFolderOf(job_.driveRoot).c_str(), job_.libraryRoot.c_str());
    if (!openBackupSide() || !openLibrarySide()) return done();
    return copyAll(Side::Drive);
}

// Both sides open: what differs goes from the one to the other.
BackupResult Run::copyAll(Side from) {
    srcSide_ = from;
    dstSide_ = from == Side::Library ? Side::Drive : Side::Library;
    srcRoot_ = from == Side::Library ? libraryRoot_.get() : backupRoot_.get();
    dstRoot_ = from == Side::Library ? backupRoot_.get() : libraryRoot_.get();
    scanAll();
    if (!ended_) execute();
    finish();
    return done();
}

}  // namespace

const char* backupPhaseName(BackupPhase phase) {
    switch (phase) {
        case BackupPhase::Idle:
            return "idle";
        case BackupPhase::Scanning:
            return "scanning";
        case BackupPhase::Copying:
            return "copying";
        case BackupPhase::Trashing:
            return "trashing";
        case BackupPhase::Syncing:
            return "syncing";
        case BackupPhase::Done:
            return "done";
    }
    return "idle";
}

void BackupProgress::reset() {
    phase = BackupPhase::Idle;
    filesDone = 0;
    filesTotal = 0;
    bytesDone = 0;
    bytesTotal = 0;
}

std::string backupFolderOf(const std::string& driveRoot) {
    return driveRoot + "/" + kBackupFolder;
}

BackupResult runBackup(const BackupJob& job) {
    return Run(job, false).backup();
}

BackupResult runRestore(const BackupJob& job) {
    return Run(job, true).restore();
}

BackupRecord readLastBackup(const std::string& driveRoot) {
    BackupRecord record;
    std::string path = backupFolderOf(driveRoot) + "/" + kRecordName;
    FILE* f = fopen(path.c_str(), "re");
    if (!f) return record;
    char line[128];
    bool header =
        fgets(line, sizeof line, f) && strncmp(line, kRecordHeader, strlen(kRecordHeader)) == 0;
    long long when = 0;
    while (header && fgets(line, sizeof line, f)) {
        char key[32];
        long long value;
        if (sscanf(line, "%31s %lld", key, &value) != 2) continue;
        const std::string k = key;
        if (k == "time") when = value;
        if (k == "files") record.files = value;
        if (k == "bytes") record.bytes = value;
        if (k == "copied") record.copied = value;
        if (k == "trashed") record.trashed = value;
        if (k == "failed") record.failed = value;
    }
    fclose(f);
    if (!header || when <= 0) return record;
    record.found = true;
    record.when = static_cast<time_t>(when);
    record.date = stamp(record.when, "%Y-%m-%d %H:%M");
    return record;
}
