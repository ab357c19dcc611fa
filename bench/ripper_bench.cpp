// Rip speed from a disc image on local disk, against copying its .bin.
// Usage: ripper_bench WORK_FOLDER
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/paths.h"
#include "library/library.h"
#include "ripping/cdrom.h"
#include "ripping/ripper.h"

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s WORK_FOLDER\n", argv[0]);
        return 2;
    }
    std::string work = fs::absolute(argv[1]).string() + "/rip";
    fs::remove_all(work);
    fs::create_directories(work + "/music");
    if (!freopen("/dev/null", "w", stdout)) return 1;

    // Ten tracks of 36 seconds: 63.5 MB of audio.
    const int tracks = 10, sectors = 75 * 36;
    std::string cue = "FILE \"disc.bin\" BINARY\n";
    {
        std::ofstream bin(work + "/disc.bin", std::ios::binary);
        std::vector<char> sector(kSectorBytes);
        for (int t = 0; t < tracks; t++) {
            char line[96];
            int lsn = t * sectors;
            snprintf(line, sizeof line, "  TRACK %02d AUDIO\n    INDEX 01 %02d:%02d:%02d\n", t + 1,
                     lsn / 4500, lsn / 75 % 60, lsn % 75);
            cue += line;
            for (int s = 0; s < sectors; s++) {
                for (size_t i = 0; i < sector.size(); i++)
                    sector[i] = static_cast<char>(i * (s + t));
                bin.write(sector.data(), sector.size());
            }
        }
    }
    std::ofstream(work + "/disc.cue") << cue;
    const double mb = static_cast<double>(tracks) * sectors * kSectorBytes / 1e6;

    setHostRoot(work);
    setHostCdrom(work + "/disc.cue");
    double bestRip = 1e9, bestCp = 1e9;
    for (int run = 0; run < 3; run++) {
        initmdb(work);
        fs::remove_all(work + "/music");
        fs::create_directories(work + "/music");
        auto t0 = std::chrono::steady_clock::now();
        ripEnabled = 1;
        rip();
        bestRip = std::min(
            bestRip, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());

        t0 = std::chrono::steady_clock::now();
        std::string cmd = "cp '" + work + "/disc.bin' '" + work + "/copy.bin' && sync";
        if (system(cmd.c_str()) != 0) return 1;
        bestCp = std::min(
            bestCp, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        fs::remove(work + "/copy.bin");
    }
    fprintf(stderr,
            "rip: %.1f MB in %.2f s = %.0f MB/s; cp+sync %.2f s = %.0f MB/s; rip/cp %.2f "
            "(target at least 0.5)\n",
            mb, bestRip, mb / bestRip, bestCp, mb / bestCp, bestCp / bestRip);
    fs::remove_all(work);
    return 0;
}
