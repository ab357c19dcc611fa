#include "playback/tone.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

// RMS level of a tone at hz after the control, in dB relative to the input.
double levelAfter(ToneControl& tone, double hz) {
    const int frames = 44100;
    std::vector<int16_t> buf(frames * 2);
    for (int i = 0; i < frames; i++) {
        int16_t v = static_cast<int16_t>(8000 * std::sin(2 * M_PI * hz * i / 44100));
        buf[2 * i] = buf[2 * i + 1] = v;
    }
    double in = 8000 / std::sqrt(2.0);
    for (int off = 0; off < frames; off += 1024)
        tone.process(&buf[off * 2], std::min(1024, frames - off));
    double sum = 0;
    int n = 0;
    for (int i = frames / 2; i < frames; i++, n++)
        sum += double(buf[2 * i]) * buf[2 * i];
    return 20 * std::log10(std::sqrt(sum / n) / in);
}

TEST(ToneControl, FlatIsBitExactAndVolumeScales) {
    ToneControl tone;
    EXPECT_TRUE(tone.isFlat());
    std::vector<int16_t> buf = {1, 1, -32768, 32767, 1234, -5};
    auto copy = buf;
    tone.process(buf.data(), 3);
    EXPECT_EQ(buf, copy);

    tone.setVolume(32);
    EXPECT_NEAR(levelAfter(tone, 1000), -24.0, 0.2);
    tone.setVolume(0);
    EXPECT_LT(levelAfter(tone, 1000), -90);
    tone.setVolume(200);  // clamped to full
    EXPECT_EQ(tone.volume(), 64);
}

TEST(ToneControl, BassAndTrebleShelves) {
    ToneControl tone;
    tone.setBassTreble(6, 0);  // +9 dB below the bass corner
    EXPECT_NEAR(levelAfter(tone, 40), 9.0, 0.7);
    EXPECT_NEAR(levelAfter(tone, 10000), 0.0, 0.5);

    tone.setBassTreble(0, -4);  // -6 dB above the treble corner
    EXPECT_NEAR(levelAfter(tone, 15000), -6.0, 0.7);
    EXPECT_NEAR(levelAfter(tone, 60), 0.0, 0.5);

    tone.setBassTreble(-20, 20);  // clamped to -6..6 steps
    EXPECT_NEAR(levelAfter(tone, 40), -9.0, 0.7);
}

}  // namespace
