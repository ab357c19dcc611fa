// Shared by the decoder tests: a host root for the whole test process (the
// parser threads live as long as the process), audio files made by ffmpeg,
// and draining a slot the way the output callback does.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "core/paths.h"
#include "core/process.h"
#include "playback/ffwd.h"
#include "playback/pipe.h"
#include "playback/playback.h"
#include "tests/unit/process_root.h"

extern char** environ;

namespace decoder_test {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

inline const std::string& testRoot() {
    return processRoot();
}

class DecoderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setHostRoot(testRoot());
        decoderPipes().startWaitPolls = 60;
        decoderPipes().radioSelected = false;
        initPipe();
    }
    void TearDown() override {
        killFfmpegs();
        reapAll();
    }
    std::string file(const std::string& name) { return testRoot() + "/" + name; }

    // Waits for every child of this process to end and reaps the lot.
    static void reapAll() {
        for (int i = 0; i < 500; i++) {
            deleteZombies();
            if (waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD) return;
            usleep(10000);
        }
    }
};

// "ffmpeg -f lavfi -i <source> <extra...> <path>"; a noise source makes any
// misplaced byte show.
inline void makeAudio(const std::string& path, const std::string& source,
                      const std::vector<std::string>& extra = {}) {
    std::vector<std::string> argv = {"/usr/bin/ffmpeg", "-v", "error", "-y", "-f",
                                     "lavfi",           "-i", source};
    argv.insert(argv.end(), extra.begin(), extra.end());
    argv.push_back(path);
    ASSERT_EQ(runProgram(argv), 0) << path;
}

inline Bytes readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

// What ffmpeg alone makes of the file, read by path.
inline Bytes referencePcm(const std::string& path) {
    std::string out = path + ".ref.raw";
    runProgram({"/usr/bin/ffmpeg", "-v", "error", "-y", "-i", path, "-ac", "2", "-acodec",
                "pcm_s16le", "-f", "s16le", "-ar", "44100", out});
    return readAll(out);
}

// Runs ffmpeg on the file with its standard error in errPath.
inline void captureStderr(const std::string& path, const std::string& errPath) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    std::string out = path + ".cap.raw";
    const char* argv[] = {"ffmpeg", "-y",  "-hide_banner", "-i",        path.c_str(),
                          "-ac",    "2",   "-acodec",      "pcm_s16le", "-f",
                          "u16le",  "-ar", "44100",        out.c_str(), nullptr};
    pid_t pid;
    ASSERT_EQ(
        posix_spawn(&pid, "/usr/bin/ffmpeg", &actions, nullptr, const_cast<char**>(argv), environ),
        0);
    posix_spawn_file_actions_destroy(&actions);
    int status;
    waitpid(pid, &status, 0);
}

// Pulls periods from the slot until it reports the end, as the output
// callback would (without its pacing). The silence of the starting phase is
// left out. Gives up after `limit` so that a hang fails instead of stalling.
inline Bytes drainSlot(int slot, std::chrono::seconds limit = std::chrono::seconds(20)) {
    Bytes all;
    int frameBytes = decoderPipes().highResolution ? 8 : 4;
    uint8_t period[1024 * 8];
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int frames = getPipeSamples(slot, period, 1024);
        if (frames == 0 && !pipeRunning(slot) && getPipeOccupancy(slot) == 0) break;
        if (!isPipeStarting(slot)) all.insert(all.end(), period, period + frames * frameBytes);
        if (frames < 1024) usleep(1000);
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "slot " << slot << " never ended";
            break;
        }
    }
    return all;
}

inline int openFds() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (readdir(d))
        n++;
    closedir(d);
    return n;
}

// Polls cond for up to 5 s (threads and children settle on their own time).
template <typename F>
bool eventually(F cond) {
    for (int i = 0; i < 500; i++) {
        if (cond()) return true;
        usleep(10000);
    }
    return cond();
}

}  // namespace decoder_test
