#include "storage/backup.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>

namespace fs = std::filesystem;

namespace {

std::string randomBytes(size_t size, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::string s(size, '\0');
    for (size_t i = 0; i + 8 <= size; i += 8) {
        uint64_t v = rng();
        memcpy(&s[i], &v, 8);
    }
    for (size_t i = size & ~size_t{7}; i < size; i++)
        s[i] = static_cast<char>(rng());
    return s;
}

std::string readAll(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

void writeAll(const fs::path& p, const std::string& bytes) {
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary | std::ios::trunc) << bytes;
}

// Every regular file below root, by relative path, never through a link
// and without the daemon's own files of work in progress.
std::map<std::string, fs::path> filesBelow(const fs::path& root) {
    std::map<std::string, fs::path> out;
    if (!fs::exists(fs::symlink_status(root))) return out;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        if (it->path().filename().string().starts_with(".kz-")) continue;
        if (it->symlink_status().type() == fs::file_type::regular) {
            out[fs::relative(it->path(), root).string()] = it->path();
        }
    }
    return out;
}

ino_t inodeOf(const fs::path& p) {
    struct stat st;
    return lstat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Differences between two trees, one line each: files of `a` missing from
// `b` or holding other bytes, and with exact, files of `b` that `a` lacks.
std::string differences(const fs::path& a, const fs::path& b, bool exact = true) {
    std::string out;
    auto left = filesBelow(a);
    auto right = filesBelow(b);
    for (const auto& [rel, path] : left) {
        auto it = right.find(rel);
        if (it == right.end()) {
            out += "missing " + rel + "\n";
        } else if (readAll(path) != readAll(it->second)) {
            out += "differs " + rel + "\n";
        }
    }
    if (exact) {
        for (const auto& [rel, path] : right) {
            if (!left.count(rel)) out += "extra " + rel + "\n";
        }
    }
    return out;
}

// Files under a real name must be whole copies of the library's: whatever
// else a cut-short run left, never half of one.
std::string partialCopies(const fs::path& library, const fs::path& copy) {
    std::string out;
    auto source = filesBelow(library);
    for (const auto& [rel, path] : filesBelow(copy)) {
        if (fs::path(rel).filename() == ".kz-backup.part") continue;
        auto it = source.find(rel);
        if (it != source.end() && readAll(path) != readAll(it->second)) out += rel + "\n";
    }
    return out;
}

int countTemps(const fs::path& root) {
    int n = 0;
    if (!fs::exists(root)) return 0;
    for (auto& e : fs::recursive_directory_iterator(root))
        n += e.path().filename() == ".kz-backup.part";
    return n;
}

class BackupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/kz-backup-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        base = pattern;
        library = base / "hdd1";
        drive = base / "usba";
        fs::create_directories(library / "music");
        fs::create_directories(drive);
    }
    void TearDown() override { fs::remove_all(base); }

    fs::path music(const std::string& rel) { return library / "music" / rel; }
    fs::path copyOf(const std::string& rel) { return drive / "kz-backup" / "music" / rel; }

    // Two artists, three albums, the state files beside kzdb, and what a
    // backup must leave out: files of work in progress and upload/.
    void makeLibrary() {
        unsigned seed = 1;
        for (const char* album : {"Artist A/Album 1", "Artist A/Album 2", "Artist B/Album 3"}) {
            for (int t = 1; t <= 3; t++) {
                writeAll(music(std::string(album) + "/0" + std::to_string(t) + " Track.flac"),
                         randomBytes(20000 + 7919 * seed, seed));
                seed++;
            }
            writeAll(music(std::string(album) + "/folder.jpg"), randomBytes(3000, seed++));
        }
        for (const char* state : {"kzdb", "kzsettings", "kzplaylists", "kzdiscs", "kzplaymode"}) {
            writeAll(library / state, std::string(state) + " " + randomBytes(500, seed++));
        }
        writeAll(library / "kzcompress", "journal of another disk");
        writeAll(library / "kzdb.new", "half a save");
        writeAll(music("Artist B/Album 3/.kz-compressing.part"), "half an encode");
        writeAll(library / "upload/x.wav", "an upload under way");
        // Ripped long ago: a copy that did not take the time over would
        // differ from its source by far more than any rounding.
        auto past = fs::file_time_type::clock::now() - std::chrono::hours(24 * 400);
        for (auto& e : fs::recursive_directory_iterator(library)) {
            if (e.is_regular_file()) fs::last_write_time(e.path(), past);
        }
    }

    BackupResult backup() {
        return runBackup({library.string(), drive.string(), &stop, &progress});
    }
    BackupResult restore() {
        return runRestore({library.string(), drive.string(), &stop, &progress});
    }

    // Raises flag once the run has copied its first bytes, as a user or a
    // quit would, then does `then` (unplug the drive, ...).
    std::thread whenCopying(std::function<void()> then) {
        // The last run's figures would fire it before this run starts.
        progress.reset();
        return std::thread([this, then] {
            while (progress.bytesDone.load() == 0 && progress.phase.load() != BackupPhase::Done) {
                std::this_thread::yield();
            }
            then();
        });
    }

    // A large file that sorts first, so that a run is busy inside it, and a
    // few after it.
    void makeLargeLibrary() {
        writeAll(music("A/Big/01 Long.wav"), randomBytes(64 << 20, 99));
        for (int i = 2; i <= 6; i++) {
            writeAll(music("A/Big/0" + std::to_string(i) + ".flac"), randomBytes(100000, i));
        }
        writeAll(library / "kzdb", "tracks");
    }

    fs::path base, library, drive;
    std::atomic<bool> stop{false};
    BackupProgress progress;
};

TEST_F(BackupTest, FullBackupThenOnlyWhatChangedAndDeletionsGoToTheTrash) {
    EXPECT_FALSE(readLastBackup(drive.string()).found);
    makeLibrary();

    BackupResult r = backup();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(r.filesCopied, 12);
    EXPECT_EQ(r.stateFiles, 5);
    EXPECT_EQ(r.filesTrashed, 0);
    EXPECT_EQ(differences(library / "music", drive / "kz-backup/music", false), "");
    // The compressor's part file is the only thing of music/ left out.
    EXPECT_EQ(filesBelow(drive / "kz-backup/music").size(), 12u);
    for (const char* state : {"kzdb", "kzsettings", "kzplaylists", "kzdiscs", "kzplaymode"}) {
        EXPECT_EQ(readAll(drive / "kz-backup/state" / state), readAll(library / state)) << state;
    }
    EXPECT_FALSE(fs::exists(drive / "kz-backup/state/kzcompress"));
    EXPECT_FALSE(fs::exists(drive / "kz-backup/state/kzdb.new"));
    EXPECT_FALSE(fs::exists(drive / "kz-backup/upload"));
    EXPECT_FALSE(fs::exists(copyOf("Artist B/Album 3/.kz-compressing.part")));
    EXPECT_EQ(progress.phase.load(), BackupPhase::Done);
    EXPECT_EQ(progress.filesDone.load(), 17);
    EXPECT_EQ(progress.filesTotal.load(), 17);
    EXPECT_EQ(progress.bytesDone.load(), progress.bytesTotal.load());
    EXPECT_EQ(progress.bytesDone.load(), r.bytesCopied);

    BackupRecord record = readLastBackup(drive.string());
    ASSERT_TRUE(record.found);
    EXPECT_EQ(record.files, 17);
    EXPECT_EQ(record.copied, 12);
    EXPECT_LE(std::abs(time(nullptr) - record.when), 5);
    char today[16];
    time_t now = time(nullptr);
    strftime(today, sizeof today, "%Y-%m-%d", localtime(&now));
    EXPECT_TRUE(record.date.starts_with(today)) << record.date;

    // Nothing changed: nothing but the state is written again.
    r = backup();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(r.filesCopied, 0);
    EXPECT_EQ(r.filesUnchanged, 12);
    EXPECT_EQ(r.message, "Backup complete: nothing had changed");

    // One album changes: a track re-ripped, one added, one deleted; and
    // another album goes as a whole.
    std::map<std::string, ino_t> before;
    for (const auto& [rel, path] : filesBelow(drive / "kz-backup/music"))
        before[rel] = inodeOf(path);
    std::string old02 = readAll(music("Artist A/Album 1/02 Track.flac"));
    writeAll(music("Artist A/Album 1/01 Track.flac"), randomBytes(31000, 500));
    writeAll(music("Artist A/Album 1/04 Track.flac"), randomBytes(12000, 501));
    fs::remove(music("Artist A/Album 1/02 Track.flac"));
    fs::remove_all(music("Artist A/Album 2"));

    r = backup();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(r.filesCopied, 2);
    EXPECT_EQ(r.filesTrashed, 2);  // one file, one folder
    EXPECT_EQ(differences(library / "music", drive / "kz-backup/music", false), "");
    EXPECT_EQ(filesBelow(drive / "kz-backup/music").size(), 8u);
    for (const auto& [rel, path] : filesBelow(drive / "kz-backup/music")) {
        bool changed = rel.find("Album 1/01") != std::string::npos ||
                       rel.find("Album 1/04") != std::string::npos;
        EXPECT_EQ(inodeOf(path) != before[rel], changed) << rel << " copied again or not copied";
    }
    auto trashes = filesBelow(drive / "kz-backup/trash");
    ASSERT_EQ(trashes.size(), 5u);  // 02, and Album 2's three tracks and cover
    std::string trashed02;
    for (const auto& [rel, path] : trashes) {
        if (rel.ends_with("music/Artist A/Album 1/02 Track.flac")) trashed02 = readAll(path);
    }
    EXPECT_EQ(trashed02, old02);
    EXPECT_EQ(readLastBackup(drive.string()).copied, 2);
    EXPECT_EQ(readLastBackup(drive.string()).trashed, 2);
}

TEST_F(BackupTest, RestoreBringsBackEveryDamagedFileAndLeavesTheRestAlone) {
    makeLibrary();
    ASSERT_TRUE(backup().ok());
    const fs::path saved = base / "saved";
    fs::copy(library, saved, fs::copy_options::recursive);
    fs::remove(saved / "music/Artist B/Album 3/.kz-compressing.part");

    fs::remove(music("Artist A/Album 1/01 Track.flac"));
    fs::remove_all(music("Artist B"));
    fs::resize_file(music("Artist A/Album 2/02 Track.flac"), 100);
    // Same size, other bytes, another time: only the time tells.
    fs::path corrupt = music("Artist A/Album 2/03 Track.flac");
    std::string bytes = readAll(corrupt);
    bytes[1000] ^= 0x55;
    writeAll(corrupt, bytes);
    fs::last_write_time(corrupt, fs::last_write_time(corrupt) - std::chrono::hours(30));
    fs::remove(library / "kzdb");
    writeAll(library / "kzsettings", "damaged");
    writeAll(music("Artist A/Album 1/new since.flac"), "the user's own");
    writeAll(library / "kznotes", "not in the backup");
    auto backupBefore = filesBelow(drive / "kz-backup");

    BackupResult r = restore();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(r.filesCopied, 7);  // 01, Artist B's four, 02 and 03
    EXPECT_EQ(r.stateFiles, 2);
    EXPECT_EQ(differences(saved / "music", library / "music", false), "");
    EXPECT_EQ(readAll(library / "kzdb"), readAll(saved / "kzdb"));
    EXPECT_EQ(readAll(library / "kzsettings"), readAll(saved / "kzsettings"));
    EXPECT_EQ(readAll(music("Artist A/Album 1/new since.flac")), "the user's own");
    EXPECT_EQ(readAll(library / "kznotes"), "not in the backup");
    EXPECT_EQ(filesBelow(drive / "kz-backup"), backupBefore);
    EXPECT_EQ(countTemps(library), 0);

    // Onto an empty disk.
    fs::remove_all(library);
    fs::create_directories(library);
    r = restore();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(differences(saved / "music", library / "music", false), "");
    for (const char* state : {"kzdb", "kzsettings", "kzplaylists", "kzdiscs", "kzplaymode"}) {
        EXPECT_EQ(readAll(library / state), readAll(saved / state)) << state;
    }
    // And a backup of the restored library finds nothing to copy.
    r = backup();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(r.filesCopied, 0);
    EXPECT_EQ(r.filesTrashed, 0);
}

TEST_F(BackupTest, AStoppedRunLeavesNoHalfFileAndTheNextOneFinishes) {
    makeLargeLibrary();
    std::thread t = whenCopying([this] { stop = true; });
    BackupResult r = backup();
    t.join();
    EXPECT_EQ(r.outcome, BackupOutcome::Stopped) << r.message;
    EXPECT_FALSE(fs::exists(copyOf("A/Big/01 Long.wav")));
    EXPECT_EQ(countTemps(drive), 0);
    EXPECT_FALSE(readLastBackup(drive.string()).found);

    // As a power cut would leave it.
    writeAll(copyOf("A/Big/.kz-backup.part"), "half");
    stop = false;
    r = backup();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(differences(library / "music", drive / "kz-backup/music"), "");
    EXPECT_EQ(countTemps(drive), 0);

    // A restore stopped the same way, onto an empty disk.
    const fs::path saved = base / "saved";
    fs::rename(library, saved);
    fs::create_directories(library);
    t = whenCopying([this] { stop = true; });
    r = restore();
    t.join();
    EXPECT_EQ(r.outcome, BackupOutcome::Stopped) << r.message;
    EXPECT_EQ(partialCopies(saved / "music", library / "music"), "");
    EXPECT_FALSE(fs::exists(music("A/Big/01 Long.wav")));
    EXPECT_EQ(countTemps(library), 0);
    stop = false;
    r = restore();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(differences(saved / "music", library / "music"), "");
    EXPECT_EQ(readAll(library / "kzdb"), "tracks");
}

TEST_F(BackupTest, ADriveThatGoesAwayEndsTheRunAndTheNextOneGoesOn) {
    makeLargeLibrary();
    // Unplugged: the folder is no longer where it was.
    std::thread t = whenCopying([this] { fs::rename(drive / "kz-backup", drive / "elsewhere"); });
    BackupResult r = backup();
    t.join();
    EXPECT_EQ(r.outcome, BackupOutcome::DriveGone) << r.message;
    EXPECT_NE(r.message.find("USB drive went away"), std::string::npos) << r.message;
    EXPECT_EQ(partialCopies(library / "music", drive / "elsewhere/music"), "");
    EXPECT_FALSE(fs::exists(drive / "kz-backup"));
    EXPECT_FALSE(fs::exists(drive / "elsewhere/last-backup"));

    // Plugged in again.
    fs::rename(drive / "elsewhere", drive / "kz-backup");
    r = backup();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(differences(library / "music", drive / "kz-backup/music"), "");
    EXPECT_EQ(countTemps(drive), 0);
    EXPECT_TRUE(readLastBackup(drive.string()).found);

    // The whole drive goes at once, as an unmount does (a removal file by
    // file would race the run's own new files): nothing is made again where
    // it was.
    fs::remove_all(drive / "kz-backup");
    t = whenCopying([this] { fs::rename(drive, drive.string() + "-gone"); });
    r = backup();
    t.join();
    EXPECT_EQ(r.outcome, BackupOutcome::DriveGone) << r.message;
    EXPECT_FALSE(fs::exists(drive));
}

TEST_F(BackupTest, AFullDiskEndsTheRunWithItsMessageAndRemovesThePartialFile) {
    writeAll(music("A/B/01.flac"), randomBytes(3 << 20, 1));
    writeAll(music("A/B/02.flac"), randomBytes(3 << 20, 2));
    writeAll(music("A/B/03.flac"), randomBytes(4 << 20, 3));
    writeAll(library / "kzdb", "tracks");
    // Real full file systems: small tmpfs as the drive, then as the library, in a mount
    // namespace of the child's own so that nothing shows outside.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", drive.c_str(), "tmpfs", 0, "size=8m") != 0) {
            _exit(77);
        }
        BackupResult r = backup();
        int bad = 0;
        if (r.outcome != BackupOutcome::DriveFull) bad |= 1;
        if (r.message != "The USB drive is full") bad |= 2;
        if (countTemps(drive) != 0) bad |= 4;
        if (!partialCopies(library / "music", drive / "kz-backup/music").empty()) bad |= 8;
        if (fs::exists(copyOf("A/B/03.flac")) || !fs::exists(copyOf("A/B/02.flac"))) bad |= 16;
        if (readLastBackup(drive.string()).found) bad |= 32;
        // Room again: the next run copies only what is missing.
        fs::remove(copyOf("A/B/01.flac"));
        fs::resize_file(music("A/B/01.flac"), 10);
        r = backup();
        if (!r.ok() || r.filesCopied != 2) bad |= 64;
        // A restore onto a library disk that fills up says which one is full.
        const fs::path small = base / "small";
        fs::create_directories(small);
        if (mount("tmpfs", small.c_str(), "tmpfs", 0, "size=5m") != 0) _exit(77);
        r = runRestore({small.string(), drive.string(), &stop, &progress});
        if (r.outcome != BackupOutcome::DriveFull || r.message != "The library's disk is full") {
            bad |= 128;
        }
        if (countTemps(small) != 0 || !partialCopies(library / "music", small / "music").empty()) {
            bad |= 128;
        }
        _exit(bad);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "no tmpfs in a mount namespace here (needs root)";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "failed checks, as bits: " << WEXITSTATUS(status);
}

TEST_F(BackupTest, LinksAreNeverFollowedNorWrittenThrough) {
    makeLibrary();
    const fs::path outside = base / "outside";
    fs::create_directories(outside);
    fs::create_directory_symlink("..", music("Artist A/Album 1/loop"));
    fs::create_directory_symlink("/etc", music("Artist A/etc"));
    fs::create_symlink("/etc/passwd", music("Artist B/Album 3/passwd.flac"));
    ASSERT_EQ(mkfifo(music("Artist B/Album 3/pipe.flac").c_str(), 0644), 0);

    // A link inside the backup where a folder belongs: moved aside, not
    // written through.
    fs::create_directories(drive / "kz-backup/music");
    fs::create_directory_symlink(outside, drive / "kz-backup/music/Artist B");

    BackupResult r = backup();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(r.filesSkipped, 4);
    EXPECT_EQ(r.filesCopied, 12);
    EXPECT_TRUE(fs::is_empty(outside));
    EXPECT_FALSE(fs::is_symlink(copyOf("Artist B")));
    EXPECT_EQ(differences(library / "music", drive / "kz-backup/music", false), "");
    EXPECT_FALSE(fs::exists(fs::symlink_status(copyOf("Artist A/etc"))));
    EXPECT_FALSE(fs::exists(fs::symlink_status(copyOf("Artist A/Album 1/loop"))));
    EXPECT_FALSE(fs::exists(fs::symlink_status(copyOf("Artist B/Album 3/passwd.flac"))));

    // kz-backup itself a link: refused, nothing written anywhere.
    fs::rename(drive / "kz-backup", base / "old-backup");
    fs::create_directory_symlink(outside, drive / "kz-backup");
    r = backup();
    EXPECT_EQ(r.outcome, BackupOutcome::Refused) << r.message;
    EXPECT_TRUE(fs::is_empty(outside));
    r = restore();
    EXPECT_EQ(r.outcome, BackupOutcome::Refused) << r.message;
    fs::remove(drive / "kz-backup");

    // A fixed folder inside it a link: refused the same way.
    fs::rename(base / "old-backup", drive / "kz-backup");
    fs::create_directory_symlink(outside, drive / "kz-backup/state.link");
    fs::remove_all(drive / "kz-backup/state");
    fs::rename(drive / "kz-backup/state.link", drive / "kz-backup/state");
    r = backup();
    EXPECT_EQ(r.outcome, BackupOutcome::Refused) << r.message;
    EXPECT_TRUE(fs::is_empty(outside));
    fs::remove(drive / "kz-backup/state");

    // A restore never writes through a link of the library either.
    fs::remove_all(music("Artist B"));
    fs::create_directory_symlink(outside, music("Artist B"));
    r = restore();
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_TRUE(fs::is_empty(outside));
    EXPECT_EQ(r.filesSkipped, 1);
    EXPECT_EQ(r.message, "Restore complete: 0 files copied back, 1 left alone (see the log)");
    fs::remove(library / "music/Artist B");
    fs::rename(library / "music", base / "music.old");
    fs::create_directory_symlink(outside, library / "music");
    r = restore();
    EXPECT_EQ(r.outcome, BackupOutcome::Refused) << r.message;
    EXPECT_TRUE(fs::is_empty(outside));
}

}  // namespace
