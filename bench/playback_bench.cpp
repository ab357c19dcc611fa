// Playback figures: the cost of one output period while crossfading with a
// fade and tone control on, the time from a play request to the first sound,
// and the daemon's own CPU while it plays an MP3.
// Usage: playback_bench KZ_BINARY WORK_FOLDER
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/paths.h"
#include "core/process.h"
#include "library/settings.h"
#include "playback/control.h"
#include "playback/output.h"
#include "playback/playback.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// A raw track of frames in the output's format, every sample the same.
template <typename Sample>
std::string raw(const std::string& path, int frames, Sample value) {
    std::vector<Sample> data(static_cast<size_t>(frames) * 2, value);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()), data.size() * sizeof(Sample));
    return path;
}

// One period's cost while crossfading with a fade and tone control on:
// 16-bit at 44100 Hz, or 32-bit at 96000 Hz, whose period is shorter.
template <typename Sample>
void benchPeriod(const std::string& work) {
    const bool high = sizeof(Sample) == 4;
    setHighResolution(high);
    setSegue(1);
    const Sample level = high ? 9000 << 16 : 9000;
    startPlayingRaw(raw<Sample>(work + "/a.raw", 2000000, level));
    startPlayingRaw(raw<Sample>(work + "/b.raw", 2000000, static_cast<Sample>(-level)));
    toneControl().setBassTreble(4, -2);
    toneControl().setVolume(40);
    std::vector<Sample> buf(2048);
    double total = 0;
    const int periods = 2000;
    for (int i = 0; i < periods; i++) {
        if (!isFading()) fadeIn(nullptr);
        // Keep the crossfade running: turn it round before it ends.
        if (i % 90 == 0) prepareSegue2();
        auto t0 = Clock::now();
        getSamples(buf.data(), 1024);
        toneControl().process(buf.data(), 1024);
        total += std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
    }
    double us = total / periods;
    double periodUs = 1e6 * 1024 / (high ? 96000 : 44100);
    fprintf(stderr,
            "playback: one 1024-frame period crossfading with fade and tone, %s: %.1f us = %.3f "
            "%% of %.1f ms (target 1 %%)\n",
            high ? "32-bit 96000 Hz" : "16-bit 44100 Hz", us, 100 * us / periodUs, periodUs / 1000);
    resetPlayback();
    setHighResolution(false);
}

void benchFirstSound(const std::string& work) {
    std::string mp3 = work + "/tone.mp3";
    runProgram({"/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                "sine=frequency=440:duration=20", "-ac", "2", mp3});
    setHostRoot(work);
    initPipe();
    std::vector<int16_t> buf(2048);
    double best = 1e9;
    for (int run = 0; run < 5; run++) {
        resetPlayback();
        auto t0 = Clock::now();
        startPlayingTrack(mp3);
        for (int i = 0; i < 3000; i++) {
            getSamples(buf.data(), 1024);
            bool sound = false;
            for (int16_t s : buf)
                sound |= s != 0 && s != 1;
            if (sound) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        best = std::min(best, std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    resetPlayback();
    killFfmpegs();
    fprintf(stderr, "playback: play request to first sound (local MP3): %.0f ms (target 250 ms)\n",
            best);
}

long cpuTicks(pid_t pid) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string s((std::istreambuf_iterator<char>(f)), {});
    size_t close = s.rfind(')');
    long utime = 0, stime = 0;
    sscanf(s.c_str() + close + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &utime,
           &stime);
    return utime + stime;
}

void benchDaemonCpu(const std::string& kz, const std::string& work) {
    std::string root = work + "/daemon";
    fs::remove_all(root);
    fs::create_directories(root + "/media/hdd1/music/Tone/Album");
    fs::copy_file(work + "/tone.mp3", root + "/media/hdd1/music/Tone/Album/01 Tone.mp3");
    pid_t pid = fork();
    if (pid == 0) {
        setenv("KZ_ROOT", root.c_str(), 1);
        setenv("KZ_PCM", "null", 1);
        if (!freopen("/dev/null", "w", stdout)) _exit(1);
        execl(kz.c_str(), kz.c_str(), nullptr);
        _exit(127);
    }
    std::string sock = root + "/var/run/fastCgiUnixSocket";
    for (int i = 0; i < 100 && !fs::exists(sock); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    // A FastCGI request for playID of the first album.
    auto rec = [](int type, const std::string& content) {
        std::string r = {1,
                         static_cast<char>(type),
                         0,
                         1,
                         static_cast<char>(content.size() >> 8),
                         static_cast<char>(content.size() & 0xff),
                         0,
                         0};
        return r + content;
    };
    std::string uri = "/api/playID&id=1000000";
    std::string params =
        std::string(1, 11) + std::string(1, static_cast<char>(uri.size())) + "REQUEST_URI" + uri;
    std::string request = rec(1, std::string("\0\1\0\0\0\0\0\0", 8)) + rec(4, params) + rec(4, "");
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", sock.c_str());
    if (connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
        write(s, request.data(), request.size());
        char reply[4096];
        read(s, reply, sizeof reply);
    }
    close(s);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    long before = cpuTicks(pid);
    std::this_thread::sleep_for(std::chrono::seconds(10));
    long used = cpuTicks(pid) - before;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    double percent = 100.0 * used / sysconf(_SC_CLK_TCK) / 10;
    fprintf(stderr,
            "playback: daemon CPU while playing an MP3 (ffmpeg excluded): %.1f %% of one core "
            "(target 2 %%)\n",
            percent);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s KZ_BINARY WORK_FOLDER\n", argv[0]);
        return 2;
    }
    std::string work = fs::absolute(argv[2]).string() + "/playback";
    fs::remove_all(work);
    fs::create_directories(work);
    if (!freopen("/dev/null", "w", stdout)) return 1;
    resetSettings();
    benchPeriod<int16_t>(work);
    benchPeriod<int32_t>(work);
    benchFirstSound(work);
    benchDaemonCpu(argv[1], work);
    return 0;
}
