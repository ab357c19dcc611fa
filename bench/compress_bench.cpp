// Compression speed on one core, beside Debian's reference encoders on the
// same files at the same settings: FLAC level 5 against `flac -5`, MP3 at
// 128 kbit/s against `lame -b 128`. Figures are multiples of real time and
// CPU seconds per hour of audio (what matters on the small ARM board).
// Usage: compress_bench WORK_FOLDER
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "core/process.h"
#include "ripping/encode.h"

namespace fs = std::filesystem;

namespace {

constexpr int kTracks = 4;
constexpr int kSeconds = 60;
constexpr int kRate = 44100;

void put16(std::ofstream& f, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; i++) f.put(static_cast<char>((v >> (8 * i)) & 0xff));
}

// Something like music: chords of a few partials that change every half
// second, an envelope, and a little noise, so neither encoder has it easy.
void makeTrack(const std::string& path, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> hiss(0, 0.01);
    const int frames = kRate * kSeconds;
    std::ofstream f(path, std::ios::binary);
    f << "RIFF";
    put16(f, 36 + frames * 4, 4);
    f << "WAVEfmt ";
    put16(f, 16, 4);
    put16(f, 1, 2);
    put16(f, 2, 2);
    put16(f, kRate, 4);
    put16(f, kRate * 4, 4);
    put16(f, 4, 2);
    put16(f, 16, 2);
    f << "data";
    put16(f, frames * 4, 4);
    double notes[3] = {220, 277, 330};
    for (int n = 0; n < frames; n++) {
        if (n % (kRate / 2) == 0) {
            for (double& note : notes) note = 110 * std::pow(2.0, (rng() % 36) / 12.0);
        }
        double t = static_cast<double>(n) / kRate;
        double env = 0.6 + 0.4 * std::sin(2 * M_PI * 0.5 * t);
        for (int c = 0; c < 2; c++) {
            double v = 0;
            for (int k = 0; k < 3; k++) v += std::sin(2 * M_PI * notes[k] * (1 + 0.002 * c) * t) / (k + 2);
            v = v * env * 0.5 + hiss(rng);
            put16(f, static_cast<uint32_t>(static_cast<int16_t>(std::lround(std::clamp(v, -1.0, 1.0) * 32000))), 2);
        }
    }
}

double threadCpu() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

double childrenCpu() {
    rusage r{};
    getrusage(RUSAGE_CHILDREN, &r);
    return r.ru_utime.tv_sec + r.ru_utime.tv_usec / 1e6 + r.ru_stime.tv_sec + r.ru_stime.tv_usec / 1e6;
}

void report(const char* what, double cpu) {
    const double audio = kTracks * kSeconds;
    printf("  %-34s %6.1fx real time  %6.1f CPU s per hour of audio\n", what, audio / cpu, cpu / audio * 3600);
}

// CPU seconds of each fn over every track, best of five rounds; the rounds
// take turns, so a busy moment of the machine does not favour one of them.
std::vector<double> best(const std::vector<std::function<double(int)>>& fns) {
    std::vector<double> bestCpu(fns.size(), 1e18);
    for (int round = 0; round < 5; round++) {
        for (size_t k = 0; k < fns.size(); k++) {
            double cpu = 0;
            for (int t = 0; t < kTracks; t++) cpu += fns[k](t);
            bestCpu[k] = std::min(bestCpu[k], cpu);
        }
    }
    return bestCpu;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s WORK_FOLDER\n", argv[0]);
        return 2;
    }
    std::string work = fs::absolute(argv[1]).string() + "/compress";
    fs::create_directories(work);
    auto wav = [&](int t) { return work + "/track" + std::to_string(t) + ".wav"; };
    for (int t = 0; t < kTracks; t++) {
        if (!fs::exists(wav(t))) makeTrack(wav(t), static_cast<unsigned>(t + 1));
    }
    printf("Compression, one core, %d tracks of %d s (16-bit stereo 44100 Hz):\n", kTracks, kSeconds);
    TrackTags tags;
    tags.artist = "Bench";
    tags.title = "Track";

    auto ours = [&](const std::function<CodecResult(int)>& encode) -> std::function<double(int)> {
        return [&, encode](int t) {
            double c0 = threadCpu();
            CodecResult r = encode(t);
            if (!r.ok) {
                fprintf(stderr, "encode failed: %s\n", r.why.c_str());
                exit(1);
            }
            return threadCpu() - c0;
        };
    };
    auto theirs = [&](const std::vector<std::string>& argvOf) -> std::function<double(int)> {
        if (access(argvOf[0].c_str(), X_OK) != 0) return [](int) { return 0.0; };
        return [&, argvOf](int t) {
            std::vector<std::string> a;
            for (const std::string& s : argvOf) a.push_back(s == "IN" ? wav(t) : s == "OUT" ? work + "/ref.out" : s);
            double c0 = childrenCpu();
            if (runProgram(a) != 0) return -1.0;
            return childrenCpu() - c0;
        };
    };

    std::function<double(int)> proof = [&](int t) {
        encodeFlac(wav(t), work + "/kz.flac", tags, nullptr);
        double c0 = threadCpu();
        if (!verifyFlac(wav(t), work + "/kz.flac").ok) exit(1);
        return threadCpu() - c0;
    };
    const bool flacCommand = access("/usr/bin/flac", X_OK) == 0;
    const bool lameCommand = access("/usr/bin/lame", X_OK) == 0;
    std::vector<double> flac = best({
        ours([&](int t) { return encodeFlac(wav(t), work + "/kz.flac", tags, nullptr); }),
        proof,
        theirs({"/usr/bin/flac", "-5", "-f", "-s", "-o", "OUT", "IN"}),
    });
    report("FLAC level 5, kz (libFLAC)", flac[0]);
    report("  its proof (decode and compare)", flac[1]);
    if (flacCommand && flac[2] > 0) report("FLAC level 5, flac command", flac[2]);
    if (!flacCommand) printf("  flac command not installed\n");
    std::vector<double> mp3 = best({
        ours([&](int t) { return encodeMp3(wav(t), work + "/kz.mp3", 128, tags, nullptr); }),
        theirs({"/usr/bin/lame", "--silent", "-b", "128", "IN", "OUT"}),
    });
    report("MP3 128k, kz (libmp3lame)", mp3[0]);
    if (lameCommand && mp3[1] > 0) report("MP3 128k, lame command", mp3[1]);
    if (!lameCommand) printf("  lame command not installed\n");
    return 0;
}
