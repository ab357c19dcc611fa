#include "playback/tone.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

// RMS level of a tone at hz after the control, in dB relative to the input:
// 16-bit samples at 44100 Hz, or 32-bit ones at the rate given.
template <typename Sample = int16_t>
double levelAfter(ToneControl& tone, double hz, int rate = 44100) {
    const int frames = rate;
    const double amplitude = sizeof(Sample) == 2 ? 8000 : 8000.0 * 65536;
    std::vector<Sample> buf(frames * 2);
    for (int i = 0; i < frames; i++) {
        Sample v = static_cast<Sample>(amplitude * std::sin(2 * M_PI * hz * i / rate));
        buf[2 * i] = buf[2 * i + 1] = v;
    }
    double in = amplitude / std::sqrt(2.0);
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

// Volume alone runs in fixed point: every 16-bit value at every volume must
// come out as the volume law rounded (halves away from zero), as the
// floating-point path gave it, and 32-bit samples within one step of it.
TEST(ToneControl, VolumeAloneFollowsTheLawToTheLastBit) {
    ToneControl tone;
    std::vector<int16_t> all(65536);
    std::vector<int32_t> wide;
    for (int64_t v :
         {int64_t{INT32_MIN}, int64_t{INT32_MIN} + 1, int64_t{-65536 * 3 - 1}, int64_t{-1},
          int64_t{0}, int64_t{1}, int64_t{12345678}, int64_t{INT32_MAX} - 1, int64_t{INT32_MAX}})
        wide.push_back(static_cast<int32_t>(v));
    for (int i = 0; i < 4000; i++)
        wide.push_back(static_cast<int32_t>(static_cast<uint32_t>(i) * 2654435761u));
    if (wide.size() % 2) wide.push_back(7);
    for (int volume = 0; volume <= 64; volume++) {
        tone.setVolume(volume);
        const double gain = volume == 0 ? 0.0 : std::pow(10.0, (volume - 64) * 0.75 / 20.0);
        for (int i = 0; i < 65536; i++)
            all[i] = static_cast<int16_t>(i - 32768);
        tone.process(all.data(), 32768);
        int wrong = 0;
        for (int i = 0; i < 65536; i++)
            wrong += all[i] != static_cast<int16_t>(std::round((i - 32768) * gain));
        EXPECT_EQ(wrong, 0) << "volume " << volume;

        std::vector<int32_t> out = wide;
        tone.process(out.data(), static_cast<int>(out.size() / 2));
        for (size_t i = 0; i < out.size(); i++)
            ASSERT_NEAR(out[i], std::round(wide[i] * gain), 1.0) << "volume " << volume;
    }
}

// With bass or treble the filters run in double precision and only the
// rounding is done by hand: held at a constant level, the output settles at
// the level times the shelf's gain at 0 Hz and the volume, rounded with
// halves away from zero as std::round does.
TEST(ToneControl, FilteredLevelsRoundAsBefore) {
    ToneControl tone;
    tone.setVolume(56);
    tone.setBassTreble(6, -3);
    const double gain = std::pow(10.0, 9.0 / 20) * std::pow(10.0, -6.0 / 20);
    std::vector<int16_t> block(2 * 4096);
    int checked = 0;
    for (int x = -20000; x <= 20000; x += 97) {
        for (size_t i = 0; i < block.size(); i += 2) {
            block[i] = static_cast<int16_t>(x);
            block[i + 1] = static_cast<int16_t>(-x / 2);
        }
        tone.process(block.data(), 4096);
        for (int ch = 0; ch < 2; ch++) {
            const double want = (ch == 0 ? x : -x / 2) * gain;
            // A level a hair from a half could go either way.
            if (std::fabs(std::fabs(want - std::trunc(want)) - 0.5) < 1e-3) continue;
            EXPECT_EQ(block[block.size() - 2 + ch], std::round(want)) << x << " channel " << ch;
            checked++;
        }
    }
    EXPECT_GT(checked, 800);
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

TEST(ToneControl, ThirtyTwoBitAtNinetySixKilohertz) {
    ToneControl tone;
    tone.setRate(96000);
    tone.setVolume(32);
    EXPECT_NEAR(levelAfter<int32_t>(tone, 1000, 96000), -24.0, 0.2);
    tone.setVolume(64);
    // The corners stay where they were at 44100 Hz.
    tone.setBassTreble(6, -4);
    EXPECT_NEAR(levelAfter<int32_t>(tone, 40, 96000), 9.0, 0.7);
    EXPECT_NEAR(levelAfter<int32_t>(tone, 15000, 96000), -6.0, 0.7);
    ToneControl cd;
    cd.setBassTreble(6, -4);
    for (double hz : {150.0, 1500.0, 6000.0})
        EXPECT_NEAR(levelAfter<int32_t>(tone, hz, 96000), levelAfter(cd, hz), 0.3) << hz;

    // Boosted past full scale, samples stop at the limits instead of
    // wrapping round to the other sign.
    tone.setBassTreble(6, 0);
    std::vector<int32_t> loud(2048);
    for (size_t i = 0; i < loud.size(); i += 2)
        loud[i] = loud[i + 1] = i < 1024 ? INT32_MAX - 5 : INT32_MIN + 5;
    tone.process(loud.data(), 1024);
    EXPECT_EQ(loud[1000], INT32_MAX);
    EXPECT_EQ(loud[2040], INT32_MIN);
}

}  // namespace
