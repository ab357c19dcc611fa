#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "core/paths.h"
#include "playback/cd.h"
#include "playback/control.h"
#include "playback/playback.h"
#include "ripping/cdrom.h"

namespace {

namespace fs = std::filesystem;

class CdPlayTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("kz-cdplay-" + std::to_string(getpid()));
        fs::create_directories(dir);
        setHostRoot(dir.string());
        // Two tracks: 150 sectors of one pattern, 100 of another.
        std::string cue =
            "FILE \"disc.bin\" BINARY\n  TRACK 01 AUDIO\n    INDEX 01 00:00:00\n"
            "  TRACK 02 AUDIO\n    INDEX 01 00:02:00\n";
        for (int s = 0; s < 250; s++) {
            for (int i = 0; i < kSectorBytes / 2; i++) {
                int16_t v = static_cast<int16_t>((s < 150 ? 1000 : -2000) + (s * 7 + i) % 500);
                bin.append(reinterpret_cast<const char*>(&v), 2);
            }
        }
        std::ofstream(dir / "disc.bin", std::ios::binary) << bin;
        std::ofstream(dir / "disc.cue") << cue;
        setHostCdrom((dir / "disc.cue").string());
        resetPlayback();
    }
    void TearDown() override {
        resetPlayback();
        setHighResolution(false);
        stopCDReader();
        setHostRoot("");
        fs::remove_all(dir);
    }
    // Plays until the disc ends or limit periods; returns the frames heard.
    std::string play(int limit) {
        std::string out;
        std::vector<int16_t> p(2048);
        for (int i = 0; i < limit && isPlaying(); i++) {
            getSamples(p.data(), 1024);
            out.append(reinterpret_cast<const char*>(p.data()), p.size() * 2);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return out;
    }
    fs::path dir;
    std::string bin;
};

TEST_F(CdPlayTest, PlaysTheDiscFromATrackToItsEnd) {
    ASSERT_EQ(startPlayingCD(0), 1);
    EXPECT_STREQ(getSourceType(0), "CD");
    std::string out = play(1000);
    EXPECT_FALSE(isPlaying());
    // Silence while the buffer fills, then the disc byte for byte.
    size_t start = out.find_first_not_of('\0');
    ASSERT_NE(start, std::string::npos);
    std::string heard = out.substr(start);
    ASSERT_GE(heard.size(), bin.size());
    EXPECT_EQ(heard.substr(0, bin.size()), bin);
    EXPECT_EQ(heard.find_first_not_of('\0', bin.size()), std::string::npos);

    // From the second track; "previous" early in it goes back to the first.
    ASSERT_EQ(startPlayingCD(1), 1);
    out = play(1000);
    start = out.find_first_not_of('\0');
    EXPECT_EQ(out.substr(start, 100 * kSectorBytes), bin.substr(150 * kSectorBytes));

    // No such track, no disc.
    EXPECT_EQ(startPlayingCD(2), 0);
    setHostCdrom((dir / "missing.cue").string());
    EXPECT_EQ(startPlayingCD(0), 0);
    EXPECT_FALSE(isPlaying());
}

TEST_F(CdPlayTest, HighResolutionHearsTheDiscAtNinetySixKilohertz) {
    setHighResolution(true);
    ASSERT_EQ(startPlayingCD(0), 1);
    std::vector<int32_t> p(2048);
    long first = 0, second = 0, other = 0;
    for (int i = 0; i < 2000 && isPlaying(); i++) {
        getSamples(p.data(), 1024);
        for (int32_t v : p) {
            int level = v / 65536;
            if (level >= 1000 && level < 1500) {
                first++;
            } else if (level >= -2000 && level < -1500) {
                second++;
            } else if (v != 0) {
                other++;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_FALSE(isPlaying());
    // Each track's sectors, 588 frames each, last 96000 / 44100 times as
    // many frames; only the first rise from silence and the step between the
    // tracks, a frame or two each, fall in between.
    const double stretch = 96000.0 / 44100;
    EXPECT_NEAR(first / 2, 150 * 588 * stretch, 4);
    EXPECT_NEAR(second / 2, 100 * 588 * stretch, 4);
    EXPECT_LE(other / 2, 4);
}

}  // namespace
