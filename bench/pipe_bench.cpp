// The decoder slot and the sample buffer against the output period: the
// callback has 23.2 ms (1024 frames at 44100 Hz) for everything it does.
// Inputs are made with ffmpeg into a scratch host root.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "core/paths.h"
#include "core/process.h"
#include "playback/ffwd.h"
#include "playback/pipe.h"
#include "playback/playback.h"
#include "playback/smartbuffer.h"

namespace {

namespace fs = std::filesystem;

constexpr int kPeriodFrames = 1024;
constexpr double kPeriodUs = kPeriodFrames * 1e6 / 44100;

struct Scratch {
    fs::path root = fs::temp_directory_path() / ("kz-bench-" + std::to_string(getpid()));
    std::string mp3 = (root / "tone.mp3").string();
    std::string wav = (root / "long.wav").string();
    Scratch() {
        fs::create_directories(root);
        setHostRoot(root.string());
        initPipe();
        runProgram({"/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "sine=f=440:d=30",
                    "-ac", "2", mp3});
        runProgram({"/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    "anoisesrc=d=60:r=44100", "-ac", "2", wav});
    }
    ~Scratch() {
        killFfmpegs();
        deleteZombies();
        fs::remove_all(root);
    }
};

Scratch& scratch() {
    static Scratch s;
    return s;
}

// Stops a slot's decoder and waits until it can be started again.
void settle(int slot) {
    killPipe(slot);
    for (int i = 0; i < 200 && (deleteZombies(), pipeRunning(slot)); i++)
        usleep(5000);
    clearPipe(slot);
}

// Polls a new slot until its start is over; false when it never starts.
bool started(int slot, std::vector<uint8_t>& period) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (slot >= 0 && isPipeStarting(slot)) {
        if (getPipeSamples(slot, period.data(), kPeriodFrames) == 0 && !pipeRunning(slot))
            return false;
        if (std::chrono::steady_clock::now() > deadline) return false;
        usleep(200);
    }
    return slot >= 0;
}

// One period as the output callback takes it, one period apart: between
// calls the decoder refills the kernel's fifo, so each call pays for a real drain (read
// straight into the ring) plus the copy out.
void BM_GetPipeSamplesPeriod(benchmark::State& state) {
    Scratch& s = scratch();
    std::vector<uint8_t> period(kPeriodFrames * 4);
    int slot = -1;
    long long delivered = 0, calls = 0;
    std::chrono::nanoseconds spent{0};
    for (auto _ : state) {
        if (slot < 0 || (!pipeRunning(slot) && getPipeOccupancy(slot) < kPeriodFrames * 4)) {
            state.PauseTiming();
            if (slot >= 0) settle(slot);
            slot = fetchFeeder().startTrackDecoder(0, s.wav);
            if (!started(slot, period)) {
                state.SkipWithError("the decoder did not start");
                break;
            }
            state.ResumeTiming();
        }
        state.PauseTiming();
        usleep(static_cast<useconds_t>(kPeriodUs));
        state.ResumeTiming();
        auto t0 = std::chrono::steady_clock::now();
        delivered += getPipeSamples(slot, period.data(), kPeriodFrames);
        spent += std::chrono::steady_clock::now() - t0;
        calls++;
    }
    if (slot >= 0) settle(slot);
    state.counters["frames_per_call"] = static_cast<double>(delivered) / calls;
    double us = spent.count() / 1e3 / calls;
    state.counters["us_per_call"] = us;
    state.counters["period_share_pct"] = 100.0 * us / kPeriodUs;
}
BENCHMARK(BM_GetPipeSamplesPeriod)->Unit(benchmark::kMicrosecond)->Iterations(400);

// A put of 1024 slots on one thread, its get on another, through the FLAC
// buffer size; the consumer uses the non-blocking get of the output callback.
void BM_SmartBufferPutGetPair(benchmark::State& state) {
    constexpr int kBlocks = 2000;
    auto buffer = createSmartBuffer(kFlacBufferSlots);
    std::vector<uint32_t> in(kPeriodFrames, 7), out(kPeriodFrames);
    std::chrono::nanoseconds spent{0};
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        buffer->clear();
        std::atomic<bool> done{false};
        std::thread producer([&] {
            for (int i = 0; i < kBlocks; i++)
                buffer->putW(kPeriodFrames, in.data());
            done = true;
        });
        long long slots = 0;
        while (slots < static_cast<long long>(kBlocks) * kPeriodFrames) {
            if (buffer->getS(kPeriodFrames, out.data()))
                slots += kPeriodFrames;
            else if (done)
                slots += buffer->getAvailable(kPeriodFrames, out.data());
        }
        producer.join();
        spent += std::chrono::steady_clock::now() - t0;
    }
    state.counters["ns_per_slot"] =
        static_cast<double>(spent.count()) /
        (static_cast<double>(kBlocks) * kPeriodFrames * state.iterations());
}
BENCHMARK(BM_SmartBufferPutGetPair)->Unit(benchmark::kMillisecond)->UseRealTime();

// From asking for a library MP3 to the first period that carries sound, with
// the slot polled every millisecond. The argument is the feeder's poll for
// the decoder's input (100 ms on the box), which dominates.
void BM_StartToFirstSound(benchmark::State& state) {
    Scratch& s = scratch();
    std::vector<uint8_t> period(kPeriodFrames * 4);
    int channel = 0;
    fetchFeeder().openPollMs = static_cast<int>(state.range(0));
    for (auto _ : state) {
        int slot = fetchFeeder().startTrackDecoder(channel, s.mp3);
        bool sound = false;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!sound && slot >= 0 && std::chrono::steady_clock::now() < deadline) {
            int frames = getPipeSamples(slot, period.data(), kPeriodFrames);
            if (!isPipeStarting(slot)) {
                for (int i = 0; i < frames * 4 && !sound; i++)
                    sound = period[i] != 0;
            }
            if (!sound) usleep(1000);
        }
        state.PauseTiming();
        if (!sound) {
            state.SkipWithError("no sound came");
            break;
        }
        fetchFeeder().stopFeeder(channel);
        settle(slot);
        channel ^= 1;
        state.ResumeTiming();
    }
}
BENCHMARK(BM_StartToFirstSound)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(20)
    ->UseRealTime()
    ->Arg(100)
    ->Arg(10);

}  // namespace

BENCHMARK_MAIN();
