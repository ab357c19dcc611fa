#include "ripping/wav.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string le32(uint32_t v) {
    uint8_t b[4];
    WavWriteIntIntoBuf(b, v);
    return std::string(reinterpret_cast<char*>(b), 4);
}

struct Owned {
    WavListInfo* info = WavListInfoCreate();
    WavFmt* fmt = WavFmtCreate();
    ~Owned() {
        WavListInfoDestroy(info);
        WavFmtDestroy(fmt);
    }
};

// Lays a file out the way the ripper does, with the sizes patched at the end.
std::string writeFile(const std::string& path, const Owned& r, const std::string& audio) {
    FILE* f = fopen(path.c_str(), "w+b");
    EXPECT_EQ(WavWriteWavHeader(0, f), 12);
    int list = WavListInfoWrite(r.info, f);
    EXPECT_EQ(WavFmtWrite(r.fmt, f), 24);
    EXPECT_EQ(WavWriteDataChunkHeader(audio.size(), f), 8);
    fwrite(audio.data(), 1, audio.size(), f);
    EXPECT_EQ(WavUpdateWavHeaderFileSize(4 + list + 24 + 8 + audio.size(), f), 4);
    fclose(f);
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void fillCdFormat(WavFmt* fmt) {
    WavFmtSetAudioFormat(fmt, 1);
    WavFmtSetNumChannels(fmt, 2);
    WavFmtSetSampleRate(fmt, 44100);
    WavFmtSetByteRate(fmt, 176400);
    WavFmtSetBlockAlign(fmt, 4);
    WavFmtSetBps(fmt, 16);
}

// Parses from a heap copy of exactly len bytes, so any over-read is caught.
int readChunks(const std::string& bytes, size_t len, WavFileInfo* out, WavListInfo* info) {
    std::vector<uint8_t> copy(bytes.begin(), bytes.begin() + len);
    return WavReadChunks(copy.data(), copy.size(), out, info);
}

class WavTest : public ::testing::Test {
  protected:
    std::string path = testing::TempDir() + "kz-wav-" + std::to_string(getpid()) + ".wav";
    void TearDown() override { unlink(path.c_str()); }
};

TEST_F(WavTest, FileBytesAreExactWithPadsAndPatchedSizes) {
    Owned r;
    fillCdFormat(r.fmt);
    WavListInfoSetArtistName(r.info, "Abc", 3);        // size 4: no pad
    WavListInfoSetTrackName(r.info, "Song title", 2);  // "So", size 3: padded
    WavListInfoSetYear(r.info, "1999", 4);
    WavListInfoSetTOC(r.info, "1+96+4000", 9);  // read, never written
    std::string got = writeFile(path, r, std::string("\x01\x02\x03\x04\x05\x06\x07\x08", 8));

    std::string list = "LIST" + le32(42) + "INFO" + "IART" + le32(4) + std::string("Abc\0", 4) +
                       "INAM" + le32(3) + std::string("So\0\0", 4) + "ICRD" + le32(5) +
                       std::string("1999\0\0", 6);
    std::string fmt = "fmt " + le32(16) + std::string("\x01\x00\x02\x00", 4) + le32(44100) +
                      le32(176400) + std::string("\x04\x00\x10\x00", 4);
    std::string expected = "RIFF" + le32(4 + 50 + 24 + 8 + 8) + "WAVE" + list + fmt + "data" +
                           le32(8) + "\x01\x02\x03\x04\x05\x06\x07\x08";
    EXPECT_EQ(got, expected);

    // Read back, the LIST standing before fmt.
    Owned back;
    WavFileInfo file;
    ASSERT_EQ(readChunks(got, got.size(), &file, back.info), 1);
    EXPECT_EQ(file.fmt.sampleRate, 44100u);
    EXPECT_EQ(file.fmt.bps, 16);
    EXPECT_EQ(file.dataOffset, 12 + 50 + 24 + 8);
    EXPECT_EQ(file.dataSize, 8u);
    EXPECT_STREQ(WavListInfoGetArtistName(back.info), "Abc");
    EXPECT_STREQ(WavListInfoGetTrackName(back.info), "So");
    EXPECT_STREQ(WavListInfoGetYear(back.info), "1999");
    EXPECT_EQ(WavListInfoGetAlbumName(back.info), nullptr);
    EXPECT_EQ(WavListInfoGetTOC(back.info), nullptr);
}

TEST_F(WavTest, SettersCopyBoundedAndLengthZeroClears) {
    Owned r;
    EXPECT_EQ(WavListInfoBuild(r.info), "LIST" + le32(4) + "INFO");
    WavListInfoSetGenre(r.info, "Jazz", 4);
    WavListInfoSetGenre(r.info, WavListInfoGetGenre(r.info), 3);
    EXPECT_STREQ(WavListInfoGetGenre(r.info), "Jaz");
    WavListInfoSetGenre(r.info, "Jazz", 0);
    EXPECT_EQ(WavListInfoGetGenre(r.info), nullptr);

    // A stream that cannot be written: the list says so and adds nothing.
    FILE* f = fopen("/dev/null", "r");
    testing::internal::CaptureStdout();
    EXPECT_EQ(WavListInfoWrite(r.info, f), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "WavListInfoWrite: failed to write List Info Chunk\n");
    fclose(f);
}

TEST_F(WavTest, ReaderFindsChunksInAnyOrderAndSkipsUnknownOnes) {
    std::string fmt = "fmt " + le32(16) + std::string(16, '\x07');
    std::string info = "IXYZ" + le32(1) + std::string("x\0", 2) + "ITOC" + le32(4) +
                       std::string("1+2\0", 4) + "IPRD" + le32(6) + std::string("Album\0", 6);
    std::string wav = "RIFF" + le32(0) + "WAVE" + fmt + "junk" + le32(3) + std::string("abc\0", 4) +
                      "LIST" + le32(4 + info.size()) + "INFO" + info + "data" + le32(2352) + "ab";
    Owned r;
    WavFileInfo file;
    testing::internal::CaptureStdout();
    // The data chunk runs past the end, as a short rip's does; it still counts.
    EXPECT_EQ(readChunks(wav, wav.size(), &file, r.info), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unrecognised LIST INFO TAG\n");
    EXPECT_EQ(file.fmt.numChannels, 0x0707);
    EXPECT_EQ(file.dataSize, 2352u);
    EXPECT_EQ(file.dataOffset, static_cast<long>(wav.size() - 2));
    EXPECT_STREQ(WavListInfoGetTOC(r.info), "1+2");
    EXPECT_STREQ(WavListInfoGetAlbumName(r.info), "Album");
}

TEST_F(WavTest, SecondsComeFromTheAudioReallyThere) {
    Owned r;
    fillCdFormat(r.fmt);
    WavListInfoSetAlbumName(r.info, "Album", 5);
    std::string audio(176400 * 3 + 176399, '\0');
    std::string good = writeFile(path, r, audio);
    EXPECT_EQ(WavFileSeconds(path.c_str()), 3);
    const size_t dataSizeAt = good.size() - audio.size() - 4;
    struct Case {
        uint32_t claimed;
        size_t kept;
        int seconds;
    } cases[] = {
        {0, good.size(), 3},                        // an interrupted rip's 0
        {176400 * 10, good.size(), 3},              // more claimed than there
        {176400 * 2, good.size(), 2},               // a chunk that ends early
        {176400 * 3, good.size() - 176400 * 2, 1},  // a file cut short
    };
    for (const Case& c : cases) {
        std::string bytes = good.substr(0, c.kept);
        bytes.replace(dataSizeAt, 4, le32(c.claimed));
        std::ofstream(path, std::ios::binary) << bytes;
        EXPECT_EQ(WavFileSeconds(path.c_str()), c.seconds) << c.claimed << " " << c.kept;
    }
    std::ofstream(path, std::ios::binary) << "ID3" << std::string(5000, 'x');
    EXPECT_EQ(WavFileSeconds(path.c_str()), -1);
    EXPECT_EQ(WavFileSeconds("/nonexistent/x.wav"), -1);
}

TEST_F(WavTest, RewritingNamesKeepsTheOtherTextsAndTheAudio) {
    Owned r;
    fillCdFormat(r.fmt);
    WavListInfoSetArtistName(r.info, "Old Artist", 10);
    WavListInfoSetTrackName(r.info, "Old", 3);
    WavListInfoSetYear(r.info, "1999", 4);
    std::string audio;
    for (int i = 0; i < 70001; i++)
        audio += static_cast<char>(i * 7);
    std::string before = writeFile(path, r, audio.substr(0, 70000));
    ASSERT_EQ(WavRewriteNames(path.c_str(), "New \"Artist\"", "An Album", nullptr), 1);
    std::stringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    std::string after = s.str();
    WavFileInfo wav;
    Owned got;
    ASSERT_EQ(readChunks(after, after.size(), &wav, got.info), 1);
    EXPECT_STREQ(WavListInfoGetArtistName(got.info), "New \"Artist\"");
    EXPECT_STREQ(WavListInfoGetAlbumName(got.info), "An Album");
    EXPECT_STREQ(WavListInfoGetTrackName(got.info), "Old");
    EXPECT_STREQ(WavListInfoGetYear(got.info), "1999");
    EXPECT_EQ(after.substr(wav.dataOffset), audio.substr(0, 70000));
    EXPECT_EQ(wav.dataSize, 70000u);
    // The RIFF size counts everything after its own field.
    uint32_t riff = static_cast<uint8_t>(after[4]) | static_cast<uint8_t>(after[5]) << 8 |
                    static_cast<uint8_t>(after[6]) << 16 |
                    static_cast<uint32_t>(static_cast<uint8_t>(after[7])) << 24;
    EXPECT_EQ(riff, after.size() - 8);

    // A rip cut short: the audio that is there, with sizes that say so.
    std::ofstream(path, std::ios::binary) << before.substr(0, before.size() - 30000);
    ASSERT_EQ(WavRewriteNames(path.c_str(), nullptr, nullptr, "Track"), 1);
    std::stringstream t;
    t << std::ifstream(path, std::ios::binary).rdbuf();
    after = t.str();
    ASSERT_EQ(readChunks(after, after.size(), &wav, nullptr), 1);
    EXPECT_EQ(wav.dataSize, 40000u);
    EXPECT_EQ(after.substr(wav.dataOffset), audio.substr(0, 40000));

    // Not a WAV file: refused and left as it was.
    std::ofstream(path, std::ios::binary) << "ID3 not a wave";
    EXPECT_EQ(WavRewriteNames(path.c_str(), "A", "B", "C"), 0);
    std::stringstream u;
    u << std::ifstream(path, std::ios::binary).rdbuf();
    EXPECT_EQ(u.str(), "ID3 not a wave");
}

TEST_F(WavTest, DamagedBuffersNeverReadOutOfBounds) {
    Owned r;
    fillCdFormat(r.fmt);
    WavListInfoSetArtistName(r.info, "Artist", 6);
    WavListInfoSetSoftware(r.info, "kz", 2);
    std::string good = writeFile(path, r, std::string(16, '\0'));
    testing::internal::CaptureStdout();
    for (size_t len = 0; len < good.size(); len++) {
        Owned back;
        WavFileInfo file;
        EXPECT_EQ(readChunks(good, len, &file, back.info), len >= 12 + 40 + 24 + 8 ? 1 : 0);
    }
    // Sizes that wrap a 32-bit position, at every level.
    for (uint32_t huge : {0xffffffffu, 0xfffffff8u, 0xfffffff9u, 0x80000000u}) {
        for (size_t at : {16u, 28u, 44u, 56u, 80u}) {  // LIST, IART, ISFT, fmt, data
            std::string bad = good;
            bad.replace(at, 4, le32(huge));
            Owned back;
            WavFileInfo file;
            readChunks(bad, bad.size(), &file, back.info);
            std::vector<uint8_t> body(bad.begin() + 24, bad.begin() + 52);
            WavListInfoParseFromBuf(back.info, body.data(), body.size());
        }
    }
    testing::internal::GetCapturedStdout();
}

TEST_F(WavTest, FfprobeAcceptsTheFileAndItsNames) {
    if (access("/usr/bin/ffprobe", X_OK) != 0) GTEST_SKIP() << "no ffprobe";
    Owned r;
    fillCdFormat(r.fmt);
    WavListInfoSetArtistName(r.info, "Some Artist", 11);
    WavListInfoSetTrackName(r.info, "A Track", 7);
    writeFile(path, r, std::string(176400, '\0'));
    std::string cmd =
        "/usr/bin/ffprobe -v error -show_entries format=duration:format_tags=title,"
        "artist -of default=nw=1 '" +
        path + "'";
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char chunk[256];
    while (size_t n = fread(chunk, 1, sizeof chunk, p))
        out.append(chunk, n);
    EXPECT_EQ(pclose(p), 0);
    EXPECT_NE(out.find("duration=1.000000"), std::string::npos) << out;
    EXPECT_NE(out.find("TAG:title=A Track"), std::string::npos) << out;
    EXPECT_NE(out.find("TAG:artist=Some Artist"), std::string::npos) << out;
}

}  // namespace
