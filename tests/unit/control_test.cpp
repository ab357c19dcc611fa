#include "playback/control.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <vector>

#include "core/events.h"
#include "library/settings.h"
#include "playback/output.h"
#include "playback/playback.h"

namespace {

namespace fs = std::filesystem;

class ControlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("kz-control-" + std::to_string(getpid()));
        fs::create_directories(dir);
        resetSettings();
        resetPlayback();
        uiQInit();
    }
    void TearDown() override {
        resetPlayback();
        setHighResolution(false);
        resetSettings();
        fs::remove_all(dir);
    }
    // A raw file of frames, every sample the same value.
    std::string raw(const std::string& name, int frames, int16_t value) {
        std::string path = (dir / name).string();
        std::vector<int16_t> data(static_cast<size_t>(frames) * 2, value);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(data.data()), data.size() * 2);
        return path;
    }
    std::string raw32(const std::string& name, int frames, int32_t value) {
        std::string path = (dir / name).string();
        std::vector<int32_t> data(static_cast<size_t>(frames) * 2, value);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(data.data()), data.size() * 4);
        return path;
    }
    std::vector<int32_t> period32(int frames = 1024) {
        std::vector<int32_t> out(static_cast<size_t>(frames) * 2);
        getSamples(out.data(), frames);
        return out;
    }
    std::vector<int16_t> period(int frames = 1024) {
        std::vector<int16_t> out(static_cast<size_t>(frames) * 2);
        getSamples(out.data(), frames);
        return out;
    }
    std::vector<int> events() {
        std::vector<int> codes;
        while (uiQ().length() > 0)
            codes.push_back(uiQ().waitEvent());
        return codes;
    }
    fs::path dir;
};

TEST_F(ControlTest, IdleIsOneAndASingleChannelPlaysThrough) {
    auto idle = period();
    EXPECT_TRUE(std::all_of(idle.begin(), idle.end(), [](int16_t s) { return s == 1; }));
    ASSERT_EQ(startPlayingRaw(raw("a.raw", 3000, 1234)), 1);
    EXPECT_TRUE(isPlaying());
    EXPECT_STREQ(getSourceType(0), "WAV");
    auto first = period();
    EXPECT_TRUE(std::all_of(first.begin(), first.end(), [](int16_t s) { return s == 1234; }));
    period();
    auto tail = period();  // 952 frames left, then zeros
    EXPECT_EQ(tail[951 * 2], 1234);
    EXPECT_EQ(tail[952 * 2], 0);
    period();
    EXPECT_FALSE(isPlaying());
}

TEST_F(ControlTest, CrossfadeLastsItsLengthForEachSegueMode) {
    for (int mode : {1, 2}) {
        resetPlayback();
        setSegue(mode);
        ASSERT_EQ(startPlayingRaw(raw("old.raw", 200000, 16000)), 1);
        period();
        ASSERT_EQ(startPlayingRaw(raw("new.raw", 200000, -16000)), 1);
        EXPECT_EQ(inSegue(), 1);
        EXPECT_EQ(getMixStep(), mode == 1 ? 20000 : 80000);
        int frames = 0;
        while (inSegue() && frames < 300000) {
            period();
            frames += 1024;
        }
        // 0x7FFF0000 / step frames, to the period.
        int expected = kMixFull / getSegueStep();
        EXPECT_NEAR(frames, expected, 1024) << "mode " << mode;
        EXPECT_EQ(getChannelSource(0), SRC_IDLE);
        auto after = period();
        EXPECT_EQ(after[0], -16000);
    }
    EXPECT_NEAR(kMixFull / 20000 / 44100.0, 2.43, 0.01);
    EXPECT_NEAR(kMixFull / 80000 / 44100.0, 0.61, 0.01);
}

TEST_F(ControlTest, SegueOffHandsOverWithoutGapOrOverlap) {
    setSegue(0);
    ASSERT_EQ(startPlayingRaw(raw("old.raw", 2500, 100)), 1);
    period();
    ASSERT_EQ(startPlayingRaw(raw("new.raw", 5000, 200)), 1);
    // The old track still has 1476 frames; nearEOF is not set yet, so the
    // channels mix; mark the handover the way the next-track event does.
    std::vector<int16_t> all;
    for (int i = 0; i < 6; i++) {
        auto p = period();
        all.insert(all.end(), p.begin(), p.end());
    }
    // Every frame is one or the other (or their mix), never silence between.
    size_t firstNew = 0;
    while (firstNew < all.size() && all[firstNew] != 200)
        firstNew += 2;
    for (size_t i = 0; i < firstNew; i += 2)
        EXPECT_NE(all[i], 0) << i / 2;
}

TEST_F(ControlTest, NextTrackIsAskedForAtTheThreshold) {
    for (int mode : {0, 2}) {
        resetPlayback();
        events();
        setSegue(mode);
        ASSERT_EQ(startPlayingRaw(raw("ten.raw", 44100 * 10, 50)), 1);
        int asked = -1;
        for (int p = 0; p < 440 && asked < 0; p++) {
            period();
            for (int code : events()) {
                if (code == 74) asked = p;
            }
        }
        // 10 s of audio: asked once the time left is at the threshold.
        double at = (asked + 1) * 1024 / 44100.0;
        EXPECT_GT(at, 10 - getSegueThreshold() - 1) << "mode " << mode;
        EXPECT_LE(at, 10 - getSegueThreshold() + 0.1) << "mode " << mode;
        EXPECT_EQ(getSegueThreshold(), mode == 2 ? 2 : 4);
    }
}

TEST_F(ControlTest, FadeOutEndsWithSevenSilentPeriodsThenItsCompletion) {
    static int completed = 0;
    completed = 0;
    ASSERT_EQ(startPlayingRaw(raw("long.raw", 200000, 20000)), 1);
    fadeOut([] { completed++; });
    int periods = 0;
    // 22050 frames of fade: 22 periods, the last partly silent.
    while (isFading() && periods < 100) {
        auto p = period();
        periods++;
        if (periods > 22 && periods <= 29) {
            EXPECT_TRUE(std::all_of(p.begin(), p.end(), [](int16_t s) { return s == 0; }))
                << periods;
        }
    }
    EXPECT_EQ(periods, 22 + 7);
    EXPECT_EQ(completed, 1);

    // A fade in climbs back to full level.
    fadeIn(nullptr);
    auto p = period();
    EXPECT_LT(p[0], 100);
    for (int i = 0; i < 25; i++)
        p = period();
    EXPECT_GE(p.back(), 19990);
    EXPECT_FALSE(isFading());
}

TEST_F(ControlTest, AThirdTrackReversesTheCrossfade) {
    setSegue(1);
    ASSERT_EQ(startPlayingRaw(raw("a.raw", 200000, 1000)), 1);
    ASSERT_EQ(startPlayingRaw(raw("b.raw", 200000, 2000)), 1);
    EXPECT_GT(getMixStep(), 0);
    period();
    EXPECT_EQ(prepareSegue2(), 0);
    EXPECT_LT(getMixStep(), 0);
    EXPECT_EQ(prepareSegue2(), 1);
    EXPECT_GT(getMixStep(), 0);
}

TEST_F(ControlTest, HighResolutionMixesAndFadesThirtyTwoBitFrames) {
    setHighResolution(true);
    EXPECT_EQ(outputRate(), 96000);
    // Idle is still 16-bit words of 1.
    auto idle = period32();
    EXPECT_TRUE(std::all_of(idle.begin(), idle.end(), [](int32_t s) { return s == 0x00010001; }));

    // Full scale against full scale of the other sign: the mix must pass
    // through every level in between, never wrap.
    setSegue(1);
    ASSERT_EQ(startPlayingRaw(raw32("old.raw", 400000, INT32_MAX)), 1);
    auto first = period32();
    EXPECT_EQ(first[0], INT32_MAX);
    EXPECT_EQ(first[2047], INT32_MAX);
    ASSERT_EQ(startPlayingRaw(raw32("new.raw", 400000, INT32_MIN)), 1);
    EXPECT_EQ(getMixStep(), 9000);
    int frames = 0;
    int64_t previous = INT32_MAX;
    bool falling = true;
    while (inSegue() && frames < 400000) {
        auto p = period32();
        for (int f = 0; f < 1024; f++) {
            falling &= p[2 * f] <= previous && p[2 * f] == p[2 * f + 1];
            previous = p[2 * f];
        }
        frames += 1024;
    }
    EXPECT_TRUE(falling);
    // About 2.5 s at 96000 Hz, like the 2.4 s at 44100.
    EXPECT_NEAR(frames, kMixFull / 9000, 1024);
    EXPECT_NEAR(frames / 96000.0, 2.49, 0.02);
    EXPECT_LT(previous, INT32_MIN + (1 << 18));
    EXPECT_EQ(period32()[0], INT32_MIN);

    // A fade of 32-bit samples: the same 22050 frames, then seven silent
    // periods.
    static int completed = 0;
    completed = 0;
    fadeOut([] { completed++; });
    auto p = period32();
    EXPECT_LT(p[0], -(1 << 30));
    EXPECT_GT(p[2046], p[0]);
    int periods = 1;
    while (isFading() && periods < 100) {
        p = period32();
        periods++;
    }
    EXPECT_EQ(periods, 22 + 7);
    EXPECT_EQ(completed, 1);
    EXPECT_TRUE(std::all_of(p.begin(), p.end(), [](int32_t s) { return s == 0; }));

    // Time runs at 96000 frames a second, and a raw track's end is judged
    // in 8-byte frames.
    resetPlayback();
    ASSERT_EQ(startPlayingRaw(raw32("ten.raw", 96000 * 10, 5)), 1);
    for (int i = 0; i < 190; i++)
        period32();
    EXPECT_EQ(getTimeIntoTrack(), 2);
    EXPECT_EQ(timeToEOF(0), 7);
}

}  // namespace
