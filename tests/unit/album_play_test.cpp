// An album of three tones played through real decoders: what comes out of the
// output callback is each tone in album order, crossfaded by the segue mode.
#include <gtest/gtest.h>

#include <cmath>

#include "core/events.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/scan.h"
#include "library/settings.h"
#include "playback/control.h"
#include "tests/unit/decoder_fixture.h"

namespace {

using decoder_test::DecoderTest;
using decoder_test::makeAudio;
using decoder_test::testRoot;

// The frequency of a stretch of the left channel, from its zero crossings.
double frequency(const std::vector<int16_t>& s, size_t from, size_t frames) {
    int crossings = 0;
    for (size_t i = from + 1; i < from + frames; i++) {
        if ((s[2 * (i - 1)] < 0) != (s[2 * i] < 0)) crossings++;
    }
    return crossings * 44100.0 / 2 / static_cast<double>(frames);
}

class AlbumPlayTest : public DecoderTest {};

TEST_F(AlbumPlayTest, TonesPlayInAlbumOrderWithACrossfade) {
    std::string root = testRoot() + "/lib";
    std::string album = root + "/music/Tones/Three";
    std::filesystem::create_directories(album);
    // Out of table order on purpose: the track numbers decide.
    makeAudio(album + "/03 High.mp3", "sine=frequency=880:duration=4",
              {"-ac", "2", "-ar", "44100"});
    makeAudio(album + "/01 Low.wav", "sine=frequency=440:duration=4", {"-ac", "2", "-ar", "44100"});
    makeAudio(album + "/02 Mid.flac", "sine=frequency=660:duration=4",
              {"-ac", "2", "-ar", "44100"});
    initmdb(root);
    resetSettings();
    setSegue(2);
    scanLocalEnabled = 1;
    scanDB();
    resetPlayback();
    uiQInit();

    ASSERT_EQ(startPlayingID(albumToID(0)), 1);
    std::vector<int16_t> out;
    std::vector<int16_t> p(2048);
    // Pull at about twice real time, answering the next-track event as
    // the main loop does, until the album has played out.
    for (int i = 0; i < 2000 && (isPlaying() || out.empty()); i++) {
        getSamples(p.data(), 1024);
        out.insert(out.end(), p.begin(), p.end());
        while (uiQ().length() > 0) {
            if (uiQ().waitEvent() == 74) startPlayingNext();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(11600));
    }
    ASSERT_FALSE(isPlaying());
    // Each tone in turn, counted once it holds for three windows of 0.1 s
    // (inside a crossfade the mixture can pass for either tone).
    std::vector<double> seen;
    size_t frames = out.size() / 2;
    double last = 0;
    int steady = 0;
    std::string trace;
    for (size_t at = 0; at + 4410 < frames; at += 4410) {
        double f = frequency(out, at, 4410);
        trace += std::to_string(static_cast<int>(f)) + " ";
        double tone = 0;
        for (double t : {440.0, 660.0, 880.0}) {
            if (std::fabs(f - t) < 15) tone = t;
        }
        steady = tone == last ? steady + 1 : 1;
        last = tone;
        if (tone > 0 && steady == 3 && (seen.empty() || seen.back() != tone)) seen.push_back(tone);
    }
    EXPECT_EQ(seen, (std::vector<double>{440.0, 660.0, 880.0})) << "tones every 0.1 s: " << trace;
    // The next track is asked for once the time left, in whole seconds, is
    // 2 or less (under 3 s), and the old one is gone when the crossfade is
    // over: 12 s of tones less about 2 x 2.8 s. Tracks of 3 s were asked to be
    // followed the moment their decoder finished, leaving a first tone too
    // short to tell from the crossfade whenever the next decoder was quick.
    double seconds = 0;
    for (size_t i = 0; i < frames; i++) {
        if (out[2 * i] != 0 && out[2 * i] != 1) seconds += 1.0 / 44100;
    }
    // A loaded machine may starve the decoders for a moment (silence, not
    // lost audio), so only the upper end is tight.
    EXPECT_GT(seconds, 3.0);
    EXPECT_LT(seconds, 7.2);
    killFfmpegs();
}

}  // namespace

namespace {

// Pulls periods until nothing plays, answering the next-track event; returns
// the frames that carried sound.
long playOut(std::vector<int16_t>* keep = nullptr) {
    std::vector<int16_t> p(2048);
    long sound = 0;
    for (long i = 0; i < 3000000 && isPlaying(); i++) {
        getSamples(p.data(), 1024);
        for (int f = 0; f < 1024; f++) {
            if (p[2 * f] != 0 && p[2 * f] != 1) sound++;
        }
        if (keep) keep->insert(keep->end(), p.begin(), p.end());
        while (uiQ().length() > 0) {
            if (uiQ().waitEvent() == 74) startPlayingNext();
        }
        if (i % 64 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return sound;
}

TEST_F(AlbumPlayTest, BrokenTracksAreSkippedAndLongM4aPlaysWhole) {
    std::string root = testRoot() + "/lib2";
    std::string album = root + "/music/Mixed/Album";
    std::filesystem::create_directories(album);
    std::ofstream(album + "/01 Broken.mp3") << std::string(20000, 'x');
    // Longer than the next-track threshold: a shorter one would be handed
    // over while its own decoder may still be starting.
    makeAudio(album + "/02 Good.wav", "sine=frequency=440:duration=6",
              {"-ac", "2", "-ar", "44100"});
    // Five minutes of AAC with its index at the end, as ffmpeg writes it.
    makeAudio(album + "/03 Long.m4a", "sine=frequency=660:duration=300",
              {"-ac", "2", "-ar", "44100"});
    initmdb(root);
    resetSettings();
    setSegue(0);
    scanLocalEnabled = 1;
    scanDB();
    resetPlayback();
    uiQInit();

    ASSERT_EQ(startPlayingID(albumToID(0)), 1);
    long sound = playOut();
    // The broken file gave way to the next track, and every track after it
    // played to its end: six seconds, then five minutes.
    EXPECT_GT(sound, 44100L * 305);
    EXPECT_LT(sound, 44100L * 307);
    killFfmpegs();
}

}  // namespace
