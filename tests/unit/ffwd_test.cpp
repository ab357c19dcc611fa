#include "playback/ffwd.h"

#include <algorithm>

#include "decoder_fixture.h"

namespace {

using namespace decoder_test;

using FeederTest = DecoderTest;

TEST(TrackFileType, FirstKnownExtensionAnywhereInAnyCase) {
    EXPECT_EQ(trackFileType("/music/a/b/01 Song.WAV"), FILE_WAV);
    EXPECT_EQ(trackFileType("/music/x.flac"), FILE_FLAC);
    EXPECT_EQ(trackFileType("/music/x.Mp3"), FILE_MP3);
    EXPECT_EQ(trackFileType("/music/x.m4a"), FILE_M4A);
    EXPECT_EQ(trackFileType("/music/x.ogg"), FILE_OTHER);
    // Tested in order, anywhere: a folder named like a WAV wins.
    EXPECT_EQ(trackFileType("/music/live.wav.d/x.mp3"), FILE_WAV);
}

TEST_F(FeederTest, SeekArmsTheDiscardForTheFileType) {
    struct Case {
        int type;
        int discard;
    } cases[] = {
        {FILE_WAV, 352800}, {FILE_FLAC, 352800}, {FILE_MP3, 1058400}, {FILE_OTHER, 1058400}};
    for (const Case& c : cases) {
        fetchFeeder().channel(1).channelFileExt = c.type;
        setSkipping(1);
        EXPECT_EQ(isSkipping(c.discard - 1), 1) << c.type;
        EXPECT_EQ(isSkipping(1), 1) << c.type;
        EXPECT_EQ(isSkipping(4096), 0) << c.type;
    }
}

TEST_F(FeederTest, SeekLandsInTheFileAndDropsTheAudioAlreadyUnderWay) {
    std::string path = file("seek.wav");
    makeAudio(path, "anoisesrc=d=10:r=44100:seed=3", {"-ac", "2", "-bitexact"});
    Bytes expected = referencePcm(path);
    ASSERT_EQ(expected.size(), 1764000u);

    int slot = fetchFeeder().startTrackDecoder(0, path);
    ASSERT_GE(slot, 0);
    uint8_t period[4096];
    while (isPipeStarting(slot))
        getPipeSamples(slot, period, 1024);
    // The duration the fifo does not tell comes from the file's header.
    EXPECT_EQ(getPipeDuration(slot), 10);
    ASSERT_EQ(seek(0, 500), 1);
    EXPECT_EQ(getPipeTime(slot), 5);
    EXPECT_EQ(getPipeOccupancy(slot), 0);

    Bytes got = drainSlot(slot);
    // What plays after the seek is the end of the track from one place on,
    // with nothing of the old position mixed in.
    ASSERT_FALSE(got.empty());
    EXPECT_TRUE(std::equal(got.begin(), got.end(), expected.end() - got.size()));
    // From byte 882,022 of the file (the PCM's byte 881,978) on: nothing
    // from before the seek point, and no more lost than the armed 352,800
    // bytes and the read that ends the discard (at most a kernel fifo's
    // 64 KiB). How much of the discard is old audio depends on how far the
    // feeder and decoder had run ahead, so that is not pinned down.
    long long fromSeek = 1764000 - 881976;
    EXPECT_LE(static_cast<long long>(got.size()), fromSeek);
    EXPECT_GE(static_cast<long long>(got.size()), fromSeek - 352800 - 65536);

    // Once the feeder has finished there is nothing to move.
    EXPECT_TRUE(eventually([] { return fetchFeeder().channel(0).track->exists == 0; }));
    EXPECT_EQ(seek(0, 100), 0);
}

namespace {
void put32(Bytes& b, uint32_t v) {
    for (int i = 0; i < 4; i++) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void putChunk(Bytes& b, const char* id, const Bytes& body) {
    b.insert(b.end(), id, id + 4);
    put32(b, static_cast<uint32_t>(body.size()));
    b.insert(b.end(), body.begin(), body.end());
}
}  // namespace

// A WAV as other programs write them: a chunk before the audio that leaves
// it two bytes off a four-byte boundary, tags after it. Seeking back after
// the feeder has run ahead must still play to the very end, frame-aligned,
// and the tags must never sound.
TEST_F(FeederTest, SeekBackInAWavWithChunksAroundItsAudioPlaysToTheEnd) {
    std::string made = file("plain.wav");
    makeAudio(made, "anoisesrc=d=10:r=44100:seed=5", {"-ac", "2", "-bitexact"});
    Bytes plain = readAll(made);
    ASSERT_EQ(plain.size(), 1764044u);
    Bytes wav = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'};
    putChunk(wav, "fmt ", Bytes(plain.begin() + 20, plain.begin() + 36));
    putChunk(wav, "junk", Bytes{1, 2});
    putChunk(wav, "data", Bytes(plain.begin() + 44, plain.end()));
    Bytes tags(4000, 'x');  // loud as audio: 0x7878 in every sample
    putChunk(wav, "LIST", tags);
    for (int i = 0; i < 4; i++) wav[4 + i] = static_cast<uint8_t>((wav.size() - 8) >> (8 * i));
    std::string path = file("chunks.wav");
    {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(wav.data()), wav.size());
    }
    Bytes expected = referencePcm(path);
    ASSERT_EQ(expected.size(), 1764000u);

    int slot = fetchFeeder().startTrackDecoder(0, path);
    ASSERT_GE(slot, 0);
    EXPECT_EQ(getPipeDuration(slot), 10);
    // Play well past the point to go back to.
    uint8_t period[4096];
    long long played = 0;
    for (int i = 0; i < 20000 && played < 700000; i++) {
        int frames = getPipeSamples(slot, period, 1024);
        if (!isPipeStarting(slot)) played += frames * 4;
        if (frames < 1024 || isPipeStarting(slot)) usleep(1000);
    }
    ASSERT_GE(played, 700000);
    ASSERT_EQ(seek(0, 200), 1);

    Bytes got = drainSlot(slot);
    ASSERT_FALSE(got.empty());
    EXPECT_TRUE(std::equal(got.begin(), got.end(), expected.end() - got.size()));
    // The file's byte 352,946 is 352,892 bytes into the audio: whole frames
    // from 352,892 on, less the discard and the read that ends it.
    long long fromSeek = 1764000 - 352892;
    EXPECT_LE(static_cast<long long>(got.size()), fromSeek);
    EXPECT_GE(static_cast<long long>(got.size()), fromSeek - 352800 - 65536);
}

TEST_F(FeederTest, M4aIsDecodedByPathAndCannotSeek) {
    std::string path = file("song.m4a");
    makeAudio(path, "sine=f=440:d=8", {"-ac", "2"});
    int slot = fetchFeeder().startTrackDecoder(1, path);
    ASSERT_GE(slot, 0);
    uint8_t period[4096];
    while (isPipeStarting(slot))
        getPipeSamples(slot, period, 1024);
    int held = getPipeOccupancy(slot);
    EXPECT_EQ(seek(1, 500), 0);
    EXPECT_EQ(getPipeOccupancy(slot), held);
    EXPECT_EQ(isSkipping(4), 0);
    // Its end follows the decoder, not a feeder it does not have.
    EXPECT_EQ(fetchFeeder().trackTimeToEOF(1), pipeRunning(slot) ? 1000 : timeInPipe(slot));
    drainSlot(slot);
    EXPECT_EQ(fetchFeeder().trackTimeToEOF(1), 0);
}

TEST_F(FeederTest, BitrateIsEstimatedFromFileBytesAgainstDecodedBytes) {
    std::string path = file("long.mp3");
    makeAudio(path, "anoisesrc=d=120:r=44100:a=0.2", {"-ac", "2", "-b:a", "128k"});
    int slot = fetchFeeder().startTrackDecoder(0, path);
    ASSERT_GE(slot, 0);
    EXPECT_EQ(estimateBitrate(0), 0);  // still starting
    drainSlot(slot);
    int kbps = estimateBitrate(0);
    EXPECT_GE(kbps, 110);
    EXPECT_LE(kbps, 140);
}

}  // namespace
