// Backup throughput beside `cp -r` of the same tree: about 300 MB in 2,000
// files of various sizes, made once under the work folder. Caches are not
// dropped: every figure is the second of two runs (the runs of each kind
// taken in turn), so both sides read from the page cache alike. A backup
// flushes its drive once at the end, so it is compared with `cp -r` followed
// by a syncfs() too, and without the flush with the plain `cp -r`. Once onto
// the same disk, where both copy inside the kernel (copy_file_range), and
// once onto a tmpfs, another file system like a USB drive, where both read
// and write. Then one album changes and the incremental backup is timed.
// Usage: backup_bench WORK_FOLDER
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "core/process.h"
#include "storage/backup.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kFiles = 2000;
constexpr int kPerAlbum = 10;
constexpr long long kTotalBytes = 300LL << 20;

void writeRandom(const fs::path& p, size_t size, std::mt19937_64& rng) {
    fs::create_directories(p.parent_path());
    std::vector<uint64_t> data((size + 7) / 8);
    for (uint64_t& v : data)
        v = rng();
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(data.data()), size);
}

std::string albumOf(int i) {
    return "Artist " + std::to_string(i / (kPerAlbum * 5)) + "/Album " +
           std::to_string(i / kPerAlbum);
}

// Sizes spread evenly on a log scale from a few KB (covers, playlists) to a
// few MB (long tracks), scaled to the total.
void makeLibrary(const fs::path& library) {
    if (fs::exists(library / "complete")) return;
    fs::remove_all(library);
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> logSize(std::log(4e3), std::log(4e6));
    std::vector<double> sizes(kFiles);
    double sum = 0;
    for (double& s : sizes)
        sum += (s = std::exp(logSize(rng)));
    for (int i = 0; i < kFiles; i++) {
        size_t size = static_cast<size_t>(sizes[i] * static_cast<double>(kTotalBytes) / sum);
        writeRandom(library / "music" / albumOf(i) / ("Track " + std::to_string(i) + ".flac"), size,
                    rng);
    }
    for (const char* state : {"kzdb", "kzsettings", "kzplaylists", "kzdiscs"}) {
        writeRandom(library / state, 200000, rng);
    }
    std::ofstream(library / "complete") << "1\n";
}

void flush(const fs::path& folder) {
    int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        syncfs(fd);
        close(fd);
    }
}

// CPU seconds of this process and of its waited-for children: on a busy
// machine a steadier figure than the wall clock.
double cpuSeconds() {
    double total = 0;
    for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage u;
        getrusage(who, &u);
        total += static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
                 static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
    }
    return total;
}

// The second of two runs of step, each after prepare (untimed).
double secondOf(const std::function<void()>& prepare, const std::function<void()>& step) {
    double ms = 0;
    for (int run = 0; run < 2; run++) {
        prepare();
        auto t0 = Clock::now();
        step();
        ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    }
    return ms;
}

// Like secondOf for several steps taken in turn (a, b, c, a, b, c), so that
// the disk's other users weigh on each of them alike.
// Also gives the CPU milliseconds of each in cpu.
std::vector<double> secondOfEach(const std::function<void()>& prepare,
                                 const std::vector<std::function<void()>>& steps,
                                 std::vector<double>& cpu) {
    std::vector<double> ms(steps.size());
    cpu.assign(steps.size(), 0);
    for (int run = 0; run < 2; run++) {
        for (size_t i = 0; i < steps.size(); i++) {
            prepare();
            double c0 = cpuSeconds();
            auto t0 = Clock::now();
            steps[i]();
            ms[i] = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
            cpu[i] = (cpuSeconds() - c0) * 1000;
        }
    }
    return ms;
}

// Full backups beside cp -r into drive, printed under the heading where.
bool measureFull(const fs::path& library, const fs::path& drive, const char* where) {
    const fs::path cpCopy = drive / "cp-copy";
    auto clear = [&] {
        fs::remove_all(cpCopy);
        fs::remove_all(drive / "kz-backup");
        flush(drive);
    };
    auto cp = [&] {
        if (runProgram({"/bin/cp", "-r", (library / "music").string(), cpCopy.string()}) != 0) {
            fprintf(stderr, "backup: cp -r failed\n");
        }
    };
    bool ok = true;
    auto backup = [&](bool sync) {
        return [&, sync] {
            BackupResult r = runBackup({library.string(), drive.string(), nullptr, nullptr, sync});
            ok = ok && r.ok();
        };
    };
    auto cpAndFlush = [&] {
        cp();
        flush(drive);
    };
    std::vector<double> cpu;
    std::vector<double> ms =
        secondOfEach(clear, {cp, backup(false), cpAndFlush, backup(true)}, cpu);
    clear();
    double cpMs = ms[0], backupMs = ms[1], cpSyncMs = ms[2], backupSyncMs = ms[3];
    double mb = static_cast<double>(kTotalBytes) / (1 << 20);
    fprintf(stderr,
            "backup: %d files, %.0f MB %s, second of two runs, caches warm:\n"
            "backup:   cp -r %.0f ms (%.0f MB/s); full backup without the final flush %.0f ms "
            "(%.0f MB/s), %.2fx cp -r\n"
            "backup:   cp -r + syncfs %.0f ms; full backup %.0f ms, %.2fx cp -r + syncfs\n"
            "backup:   CPU time: cp -r %.0f ms, backup %.0f ms (%.2fx)\n",
            kFiles, mb, where, cpMs, mb / cpMs * 1000, backupMs, mb / backupMs * 1000,
            backupMs / cpMs, cpSyncMs, backupSyncMs, backupSyncMs / cpSyncMs, cpu[0], cpu[1],
            cpu[1] / cpu[0]);
    if (!ok) fprintf(stderr, "backup: a backup run failed\n");
    return ok;
}

// A USB drive is another file system, where copy_file_range gives way to
// read and write: a tmpfs in a mount namespace of a child's own stands in
// for one (root only).
bool measureOtherFileSystem(const fs::path& library, const fs::path& drive) {
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", drive.c_str(), "tmpfs", 0, "size=512m") != 0) {
            _exit(77);
        }
        _exit(measureFull(library, drive, "to a tmpfs (read and write)") ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
        fprintf(stderr, "backup: no tmpfs in a mount namespace here (needs root): skipped\n");
        return true;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s WORK_FOLDER\n", argv[0]);
        return 2;
    }
    const fs::path work = fs::absolute(argv[1]) / "backup";
    const fs::path library = work / "library";
    const fs::path drive = work / "drive";
    fs::create_directories(drive);
    if (!freopen("/dev/null", "w", stdout)) return 1;  // the log
    makeLibrary(library);

    bool ok = measureFull(library, drive, "on the same disk (copy_file_range)");
    ok = measureOtherFileSystem(library, drive) && ok;

    // One album changes: two tracks re-ripped, one added, one deleted.
    auto backup = [&] {
        ok = runBackup({library.string(), drive.string(), nullptr, nullptr, true}).ok() && ok;
    };
    std::mt19937_64 rng(11);
    const fs::path album = library / "music" / albumOf(kPerAlbum * 3);
    backup();
    double unchangedMs = secondOf([] {}, backup);
    auto change = [&] {
        writeRandom(album / "Track 30.flac", 900000, rng);
        writeRandom(album / "Track 31.flac", 1100000, rng);
        writeRandom(album / "Bonus.flac", 700000, rng);
        fs::remove(album / "Track 32.flac");
        flush(library);
    };
    auto undo = [&] {
        fs::remove(album / "Bonus.flac");
        writeRandom(album / "Track 32.flac", 500000, rng);
    };
    double changedMs = secondOf(
        [&] {
            undo();
            backup();
            change();
        },
        backup);
    undo();
    fprintf(stderr,
            "backup:   incremental, nothing changed %.0f ms; one album changed (3 files, 2.6 MB "
            "copied, 1 to the trash) %.0f ms\n",
            unchangedMs, changedMs);
    fs::remove_all(drive / "kz-backup");
    if (!ok) fprintf(stderr, "backup: a backup run failed\n");
    return ok ? 0 : 1;
}
