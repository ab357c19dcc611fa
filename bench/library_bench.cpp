// Library benchmarks: reading a full-size kzdb, scanning a full-size music
// tree, and the daemon's resident memory with that library loaded.
// Usage: library_bench KZ_BINARY WORK_FOLDER
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "library/database.h"
#include "library/library.h"
#include "library/scan.h"

namespace fs = std::filesystem;

namespace {

constexpr int kAlbums = 15000, kTracks = 170000, kArtists = 3000;

std::string artistName(int r) {
    return "Artist Name " + std::to_string(r);
}
std::string albumName(int a) {
    return "The Album Title " + std::to_string(a);
}
std::string trackName(int a, int i) {
    char buf[80];
    snprintf(buf, sizeof buf, "%02d A Song Title %d.flac", i + 1, a);
    return buf;
}
int tracksIn(int a) {
    return kTracks / kAlbums + (a < kTracks % kAlbums ? 1 : 0);
}

double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

void writeFullKzdb(const std::string& path) {
    std::ofstream f(path);
    f << "Version 3\n" << kAlbums << " Albums 0 mirror\n";
    for (int a = 0; a < kAlbums; a++) {
        f << artistName(a % kArtists) << "/" << albumName(a) << "\n" << tracksIn(a) << " tracks\n";
        for (int i = 0; i < tracksIn(a); i++)
            f << trackName(a, i) << "\n";
    }
}

void benchReadDB(const std::string& root) {
    writeFullKzdb(root + "/kzdb");
    double best = 1e9, bytesBest = 1e9;
    std::vector<char> buffer(1 << 20);
    for (int run = 0; run < 5; run++) {
        auto t0 = std::chrono::steady_clock::now();
        int fd = open((root + "/kzdb").c_str(), O_RDONLY);
        while (read(fd, buffer.data(), buffer.size()) > 0) {
        }
        close(fd);
        bytesBest = std::min(bytesBest, msSince(t0));

        t0 = std::chrono::steady_clock::now();
        readDB();
        best = std::min(best, msSince(t0));
    }
    fprintf(stderr,
            "readDB: %d albums, %d tracks: %.1f ms (target 50 ms); plain read %.2f ms, "
            "ratio %.1f\n",
            getAlbumCount(), getTrackCount(), best, bytesBest, best / bytesBest);
}

void benchScanDB(const std::string& work) {
    std::string root = work + "/scan";
    std::string music = root + "/music";
    if (!fs::exists(root + "/complete")) {
        fprintf(stderr, "making %d files in %d album folders (once)...\n", kTracks, kAlbums);
        fs::remove_all(root);
        for (int a = 0; a < kAlbums; a++) {
            std::string dir = music + "/" + artistName(a % kArtists) + "/" + albumName(a);
            fs::create_directories(dir);
            for (int i = 0; i < tracksIn(a); i++) {
                int fd = open((dir + "/" + trackName(a, i)).c_str(), O_CREAT | O_WRONLY, 0644);
                if (fd >= 0) {
                    write(fd, "data", 4);
                    close(fd);
                }
            }
        }
        std::ofstream(root + "/complete") << "";
    }
    initmdb(root);
    double best = 1e9;
    for (int run = 0; run < 3; run++) {
        clearDB();
        scanLocalEnabled = 1;
        auto t0 = std::chrono::steady_clock::now();
        scanDB();
        best = std::min(best, msSince(t0));
    }
    fprintf(stderr, "scanDB: %d albums, %d tracks: %.0f ms (target 2000 ms), %.0f files/s\n",
            getAlbumCount(), getTrackCount(), best, getTrackCount() / (best / 1000));
}

void benchResidentMemory(const std::string& kz, const std::string& work) {
    std::string root = work + "/daemon";
    fs::create_directories(root + "/media/hdd1/music");
    writeFullKzdb(root + "/media/hdd1/kzdb");
    int out[2];
    if (pipe(out) != 0) return;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        setenv("KZ_ROOT", root.c_str(), 1);
        execl(kz.c_str(), kz.c_str(), nullptr);
        _exit(127);
    }
    close(out[1]);
    FILE* log = fdopen(out[0], "r");
    char line[512];
    while (fgets(line, sizeof line, log)) {
        if (strstr(line, "loadOrScan () finished")) break;
    }
    sleep(2);  // idle
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string s;
    while (std::getline(status, s)) {
        if (s.rfind("VmRSS:", 0) == 0 || s.rfind("VmHWM:", 0) == 0) {
            fprintf(stderr, "daemon idle with the full library: %s (target 40 MiB)\n", s.c_str());
        }
    }
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    fclose(log);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s KZ_BINARY WORK_FOLDER\n", argv[0]);
        return 2;
    }
    std::string work = fs::absolute(argv[2]).string();
    fs::create_directories(work + "/read");
    if (!freopen("/dev/null", "w", stdout)) return 1;  // the library logs
    initmdb(work + "/read");
    benchReadDB(work + "/read");
    benchScanDB(work);
    benchResidentMemory(argv[1], work);
    return 0;
}
