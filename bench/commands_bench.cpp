// Web command figures: the time of one search reply over a full-size library,
// and the status command answered as fast as it can be asked while a track
// plays, with the output's underruns counted while it does and while it
// does not.
// Usage: commands_bench WORK_FOLDER
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "core/paths.h"
#include "core/process.h"
#include "library/library.h"
#include "library/scan.h"
#include "library/settings.h"
#include "playback/control.h"
#include "playback/output.h"
#include "playback/playback.h"
#include "web/commands.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kAlbums = 15000, kTracks = 170000, kArtists = 3000;

double msSince(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// The same shape of names as the library benchmark's full-size library.
void fillLibrary() {
    clearDB();
    for (int r = 0; r < kArtists; r++)
        addArtistToDb(("Artist Name " + std::to_string(r)).c_str());
    int t = 0;
    for (int a = 0; a < kAlbums; a++) {
        appendAlbumToDb(("The Album Title " + std::to_string(a)).c_str(), a % kArtists);
        int tracks = kTracks / kAlbums + (a < kTracks % kAlbums ? 1 : 0);
        for (int i = 0; i < tracks; i++, t++) {
            char name[80];
            snprintf(name, sizeof name, "%02d A Song Title %d.flac", i + 1, a);
            appendTrackToDb(name, a);
        }
    }
}

void benchSearch(const std::string& work) {
    fs::create_directories(work + "/search");
    initmdb(work + "/search");
    fillLibrary();
    fprintf(stderr, "search: %d artists, %d albums, %d tracks\n", getArtistCount(), getAlbumCount(),
            getTrackCount());
    const char* uris[] = {
        "/api/search&string=song",                                 // every track; the first 500
        "/api/search&artists=0&albums=0&count=1000&string=title",  // a full list at the limit
        "/api/search&string=zz%20none",                            // nothing: the scan alone
        "/api/search&string=Title%2014999",                        // one album and its tracks
    };
    for (const char* uri : uris) {
        std::vector<double> times;
        size_t bytes = 0;
        for (int run = 0; run < 21; run++) {
            FcgiReply reply;
            auto t0 = Clock::now();
            webDispatch(uri, &reply);
            times.push_back(msSince(t0));
            bytes = strlen(reply.text);
        }
        std::sort(times.begin(), times.end());
        fprintf(stderr,
                "search: %-58s %6.2f ms per reply (median, worst %.2f), %zu bytes (target 20 ms)\n",
                uri, times[times.size() / 2], times.back(), bytes);
    }
}

// The status command asked back to back for a few seconds while a long
// track plays on a clock-paced null device.
void benchStatusWhilePlaying(const std::string& work) {
    std::string root = work + "/status";
    std::string flac = work + "/long.flac";
    if (!fs::exists(flac)) {
        runProgram({"/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    "sine=frequency=440:duration=600", "-ac", "2", "-ar", "44100", flac});
    }
    fs::remove_all(root);
    fs::create_directories(root + "/music/Long/Play");
    fs::copy_file(flac, root + "/music/Long/Play/01 Ten Minutes.flac");
    setenv("KZ_ROOT", root.c_str(), 1);
    setenv("KZ_PCM", "null", 1);
    configureHostMode();
    initmdb(root);
    resetSettings();
    scanLocalEnabled = 1;
    scanDB();
    scanLocalEnabled = 0;
    initPipe();
    initPlay();

    FcgiReply reply;
    webDispatch("/api/playID&id=2000000", &reply);
    for (int i = 0; i < 100 && getTimeIntoTrack() < 2; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (!isPlaying() || getTimeIntoTrack() < 2) {
        fprintf(stderr, "status: the track did not start playing\n");
        return;
    }

    const auto stretch = std::chrono::seconds(5);
    long before = outputUnderruns();
    std::this_thread::sleep_for(stretch);
    long quiet = outputUnderruns() - before;

    std::atomic<long> replies{0};
    std::atomic<bool> stop{false};
    std::thread asker([&] {
        FcgiReply r;
        while (!stop) {
            webDispatch("/api/status", &r);
            replies++;
        }
    });
    before = outputUnderruns();
    long periods = outputPeriods();
    auto t0 = Clock::now();
    std::this_thread::sleep_for(stretch);
    stop = true;
    asker.join();
    double seconds = msSince(t0) / 1000;
    long busy = outputUnderruns() - before;
    periods = outputPeriods() - periods;
    fprintf(stderr,
            "status: while a FLAC plays, %.0f replies/s from one thread (%.1f us each); output "
            "underruns %ld in %ld periods (%ld in the same time without requests)\n",
            replies / seconds, seconds * 1e6 / static_cast<double>(replies), busy, periods, quiet);
    stopPlay();
    killFfmpegs();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s WORK_FOLDER\n", argv[0]);
        return 2;
    }
    std::string work = fs::absolute(argv[1]).string() + "/commands";
    fs::create_directories(work);
    if (!freopen("/dev/null", "w", stdout)) return 1;  // the library logs
    benchSearch(work);
    benchStatusWhilePlaying(work);
    return 0;
}
