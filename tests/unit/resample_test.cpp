#include "playback/resample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

// A 16-bit 1 kHz tone at 44100 Hz, handed out in whatever pieces are asked.
struct Tone {
    long at = 0;
    long length;
    int operator()(int16_t* dst, int n) {
        int given = 0;
        for (; given < n && at < length; given++, at++) {
            int16_t v = static_cast<int16_t>(10000 * std::sin(2 * M_PI * 1000 * at / 44100.0));
            dst[2 * given] = v;
            dst[2 * given + 1] = static_cast<int16_t>(-v);
        }
        return given;
    }
};

TEST(Upsampler, KeepsPitchLevelAndPaceThenEnds) {
    Upsampler up;
    Tone tone{0, 44100};
    std::vector<int32_t> out;
    std::vector<int32_t> period(2048);
    int got;
    while ((got = up.pull(period.data(), 1024, [&](int16_t* d, int n) { return tone(d, n); })) > 0)
        out.insert(out.end(), period.begin(), period.begin() + 2 * got);
    // One second in, one second out, give or take the frame held back.
    EXPECT_NEAR(out.size() / 2, 96000, 4);

    int crossings = 0;
    int32_t peak = 0;
    for (size_t i = 2; i < out.size(); i += 2) {
        crossings += (out[i - 2] < 0) != (out[i] < 0);
        peak = std::max(peak, out[i]);
        EXPECT_EQ(out[i + 1], -out[i]) << i;
    }
    EXPECT_NEAR(crossings / 2.0, 1000, 2);
    EXPECT_NEAR(peak, 10000.0 * 65536, 10000.0 * 65536 * 0.01);

    // Nothing more: zeros, and 0 frames.
    EXPECT_EQ(up.pull(period.data(), 1024, [&](int16_t* d, int n) { return tone(d, n); }), 0);
    EXPECT_EQ(period[0], 0);
}

}  // namespace

// A browser's 48000 Hz stream takes 48000 source frames a second of output,
// not 44100: otherwise it plays fast and high.
TEST(Upsampler, TheSourceRateSetsHowFastTheSourceIsRead) {
    for (int rate : {44100, 48000, 32000}) {
        Upsampler up;
        if (rate != 44100) up.setRates(rate, 96000);
        long taken = 0;
        std::vector<int32_t> out(2 * 960);
        for (int period = 0; period < 100; period++) {  // one second of output
            up.pull(out.data(), 960, [&taken](int16_t* d, int n) {
                std::fill(d, d + 2 * n, int16_t{1000});
                taken += n;
                return n;
            });
        }
        EXPECT_NEAR(taken, rate, 2) << rate;
    }
}
