#include "ripping/encode.h"

#include <FLAC/metadata.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string le(uint32_t v, int bytes) {
    std::string s;
    for (int i = 0; i < bytes; i++) s += static_cast<char>((v >> (8 * i)) & 0xff);
    return s;
}

std::string chunk(const std::string& id, const std::string& body) {
    std::string s = id + le(static_cast<uint32_t>(body.size()), 4) + body;
    if (body.size() % 2) s += '\0';
    return s;
}

std::string fmtBody(int format, int channels, int rate, int bits) {
    int block = channels * bits / 8;
    return le(format, 2) + le(channels, 2) + le(rate, 4) + le(rate * block, 4) + le(block, 2) + le(bits, 2);
}

std::string riff(const std::string& chunks) {
    return "RIFF" + le(static_cast<uint32_t>(4 + chunks.size()), 4) + "WAVE" + chunks;
}

// Interleaved 16-bit stereo: a tone under some noise, so nothing is trivial.
std::string stereo16(int frames, unsigned seed = 1) {
    std::mt19937 rng(seed);
    std::string pcm;
    for (int n = 0; n < frames; n++) {
        for (int c = 0; c < 2; c++) {
            int v = static_cast<int>(9000 * std::sin(n * (0.05 + 0.01 * c))) + static_cast<int>(rng() % 2001) - 1000;
            pcm += le(static_cast<uint32_t>(static_cast<int16_t>(v)), 2);
        }
    }
    return pcm;
}

class Dir : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/kz-encode-XXXXXX";
        dir = mkdtemp(tmpl);
    }
    void TearDown() override {
        std::string cmd = dir;
        for (const char* name : {"a.wav", "b.wav", "a.flac", "a.mp3", "junk.mp3"}) unlink((dir + "/" + name).c_str());
        rmdir(cmd.c_str());
    }
    std::string put(const std::string& name, const std::string& bytes) {
        std::string path = dir + "/" + name;
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    std::string get(const std::string& path) {
        std::stringstream s;
        s << std::ifstream(path, std::ios::binary).rdbuf();
        return s.str();
    }
    std::string dir;
};

using WavReaderTest = Dir;
using FlacTest = Dir;
using Mp3Test = Dir;

TEST_F(WavReaderTest, FindsTheAudioWhereverItsChunksStand) {
    // An odd-sized unknown chunk (padded), LIST/INFO, then an extensible fmt
    // naming PCM, 24-bit, and a data chunk that claims more than is there.
    std::string info = "INFO" + chunk("IART", std::string("Band\0", 5)) + chunk("ITRK", std::string("7\0", 2));
    std::string ext = fmtBody(0xFFFE, 2, 48000, 24) + le(22, 2) + le(24, 2) + le(3, 4) + le(1, 2) + std::string(14, 'g');
    const std::string audio("\x01\x00\x80" "\xff\xff\x7f" "\x00\x00\x00" "\x10\x20\x30" "\x99", 13);  // 2 frames and a byte
    std::string data = "data" + le(1000, 4) + audio;
    std::string path = put("a.wav", riff(chunk("junk", "odd") + chunk("LIST", info) + chunk("fmt ", ext) + data));
    WavReader r;
    std::string why;
    ASSERT_TRUE(r.open(path, &why)) << why;
    EXPECT_EQ(r.channels, 2);
    EXPECT_EQ(r.bits, 24);
    EXPECT_EQ(r.rate, 48000);
    EXPECT_EQ(r.frames, 2);
    EXPECT_EQ(r.artist, "Band");
    EXPECT_EQ(r.trackNumber, "7");
    int32_t s[8] = {};
    ASSERT_EQ(r.read(s, 8), 2);
    EXPECT_EQ(s[0], -8388607);  // 0x800001, sign-extended
    EXPECT_EQ(s[1], 8388607);
    EXPECT_EQ(s[2], 0);
    EXPECT_EQ(s[3], 0x302010);
    EXPECT_EQ(r.read(s, 8), 0);

    // 8-bit samples are unsigned around 128.
    path = put("b.wav", riff(chunk("fmt ", fmtBody(1, 1, 8000, 8)) + chunk("data", std::string("\x80\x00\xff", 3))));
    WavReader eight;
    ASSERT_TRUE(eight.open(path, &why)) << why;
    ASSERT_EQ(eight.read(s, 8), 3);
    EXPECT_EQ(s[0], 0);
    EXPECT_EQ(s[1], -128);
    EXPECT_EQ(s[2], 127);

    // What is not integer PCM of one or two channels, or no WAV at all.
    const std::string refused[] = {
        riff(chunk("fmt ", fmtBody(3, 2, 44100, 32)) + chunk("data", std::string(8, 0))),  // float
        riff(chunk("fmt ", fmtBody(1, 6, 44100, 16)) + chunk("data", std::string(12, 0))),
        riff(chunk("fmt ", fmtBody(1, 2, 44100, 12)) + chunk("data", std::string(12, 0))),
        riff(chunk("fmt ", fmtBody(1, 2, 44100, 16))),  // no data
        riff(chunk("data", std::string(12, 0))),        // no fmt
        std::string("RIFF\x04\0\0\0WAVE", 12), "RIFX", "",
        riff("fmt " + le(0xFFFFFFF0u, 4) + "x"),  // a chunk size past the end
    };
    for (const std::string& bytes : refused) {
        WavReader bad;
        EXPECT_FALSE(bad.open(put("b.wav", bytes), &why)) << bytes.size();
        EXPECT_FALSE(why.empty());
    }
}

TEST_F(FlacTest, DecodesToTheSameSamplesAndAnythingElseIsRefused) {
    std::string pcm = stereo16(50000);
    std::string wav = put("a.wav", riff(chunk("fmt ", fmtBody(1, 2, 44100, 16)) + chunk("data", pcm)));
    std::string flac = dir + "/a.flac";
    TrackTags tags;
    tags.artist = "AC/DC \"Live\"";
    tags.title = "Ünïcode";
    tags.trackNumber = "3";
    // A JPEG's start: an APP0 segment, then the frame header (16 x 32, 3 components).
    tags.cover = std::string("\xff\xd8\xff\xe0\x00\x04..\xff\xc0\x00\x11\x08\x00\x10\x00\x20\x03", 19) + "rest";
    tags.coverMime = "image/jpeg";
    CodecResult r = encodeFlac(wav, flac, tags, nullptr);
    ASSERT_TRUE(r.ok) << r.why;
    EXPECT_LT(get(flac).size(), pcm.size());
    r = verifyFlac(wav, flac);
    EXPECT_TRUE(r.ok) << r.why;

    FLAC__StreamMetadata* comments = nullptr;
    ASSERT_TRUE(FLAC__metadata_get_tags(flac.c_str(), &comments));
    std::vector<std::string> entries;
    for (uint32_t i = 0; i < comments->data.vorbis_comment.num_comments; i++) {
        const auto& e = comments->data.vorbis_comment.comments[i];
        entries.emplace_back(reinterpret_cast<const char*>(e.entry), e.length);
    }
    FLAC__metadata_object_delete(comments);
    EXPECT_EQ(entries, (std::vector<std::string>{"ARTIST=AC/DC \"Live\"", "TITLE=Ünïcode", "TRACKNUMBER=3"}));
    FLAC__StreamMetadata* picture = nullptr;
    ASSERT_TRUE(FLAC__metadata_get_picture(flac.c_str(), &picture, FLAC__STREAM_METADATA_PICTURE_TYPE_FRONT_COVER,
                                           nullptr, nullptr, unsigned(-1), unsigned(-1), unsigned(-1), unsigned(-1)));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(picture->data.picture.data), picture->data.picture.data_length),
              tags.cover);
    EXPECT_EQ(picture->data.picture.width, 32u);
    EXPECT_EQ(picture->data.picture.height, 16u);
    EXPECT_EQ(picture->data.picture.depth, 24u);
    FLAC__metadata_object_delete(picture);

    // New names inside (a reindex): the audio and the other names stay.
    std::string why;
    ASSERT_TRUE(rewriteCompressedNames(flac, "The Band", nullptr, "New Title", &why)) << why;
    EXPECT_TRUE(verifyFlac(wav, flac).ok);
    ASSERT_TRUE(FLAC__metadata_get_tags(flac.c_str(), &comments));
    entries.clear();
    for (uint32_t i = 0; i < comments->data.vorbis_comment.num_comments; i++) {
        const auto& e = comments->data.vorbis_comment.comments[i];
        entries.emplace_back(reinterpret_cast<const char*>(e.entry), e.length);
    }
    FLAC__metadata_object_delete(comments);
    EXPECT_EQ(entries, (std::vector<std::string>{"ARTIST=The Band", "TITLE=New Title", "TRACKNUMBER=3"}));
    EXPECT_FALSE(rewriteCompressedNames(wav, "x", "y", "z", &why));
    EXPECT_EQ(access((dir + "/.kz-names.part").c_str(), F_OK), -1);

    // A WAV one sample away, a damaged FLAC, a cut one: all refused.
    std::string changed = pcm;
    changed[40000] ^= 1;
    put("b.wav", riff(chunk("fmt ", fmtBody(1, 2, 44100, 16)) + chunk("data", changed)));
    r = verifyFlac(dir + "/b.wav", flac);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.why.find("sample 10000 differs"), std::string::npos) << r.why;
    put("b.wav", riff(chunk("fmt ", fmtBody(1, 2, 44100, 16)) + chunk("data", pcm + std::string(4, 0))));
    EXPECT_FALSE(verifyFlac(dir + "/b.wav", flac).ok);
    std::string good = get(flac);
    std::string damaged = good;
    damaged[damaged.size() * 2 / 3] ^= 0x55;
    put("a.flac", damaged);
    EXPECT_FALSE(verifyFlac(wav, flac).ok);
    put("a.flac", good.substr(0, good.size() / 2));
    EXPECT_FALSE(verifyFlac(wav, flac).ok);

    // A cancel gives up at once.
    r = encodeFlac(wav, flac, tags, [] { return true; });
    EXPECT_FALSE(r.ok);
    EXPECT_TRUE(r.cancelled);
    // No file to write in: a failure, not a crash.
    r = encodeFlac(wav, dir + "/missing/a.flac", tags, nullptr);
    EXPECT_FALSE(r.ok);
    EXPECT_FALSE(r.diskFull);
}

TEST_F(Mp3Test, EncodesToTheWavsLengthAndTheCheckNoticesOtherwise) {
    std::string pcm = stereo16(44100 * 2);
    std::string wav = put("a.wav", riff(chunk("fmt ", fmtBody(1, 2, 44100, 16)) + chunk("data", pcm)));
    std::string mp3 = dir + "/a.mp3";
    TrackTags tags;
    tags.album = "Bänd";
    CodecResult r = encodeMp3(wav, mp3, 128, tags, nullptr);
    ASSERT_TRUE(r.ok) << r.why;
    std::string bytes = get(mp3);
    ASSERT_EQ(bytes.compare(0, 3, "ID3"), 0);
    EXPECT_LT(bytes.size(), pcm.size() / 8);
    EXPECT_TRUE(verifyMp3(wav, mp3, r.rms, nullptr).ok);
    // Renamed inside: the new names lead the tag, the rest and the audio stay.
    std::string why;
    ASSERT_TRUE(rewriteCompressedNames(mp3, "New Band", nullptr, "Ütitle", &why)) << why;
    std::string renamed = get(mp3);
    auto tagEnd = [](const std::string& b) {
        size_t n = 0;
        for (int i = 6; i < 10; i++) n = (n << 7) | static_cast<unsigned char>(b[static_cast<size_t>(i)]);
        return 10 + n;
    };
    EXPECT_EQ(renamed.substr(tagEnd(renamed)), bytes.substr(tagEnd(bytes)));
    EXPECT_NE(renamed.find("New Band"), std::string::npos);
    EXPECT_NE(renamed.find(std::string("TALB\0\0\0\x0b\0\0\x01\xff\xfe", 13)), std::string::npos);
    EXPECT_TRUE(verifyMp3(wav, mp3, r.rms, nullptr).ok);
    put("junk.mp3", "no tag here");
    EXPECT_FALSE(rewriteCompressedNames(dir + "/junk.mp3", "a", "b", "c", &why));
    EXPECT_EQ(get(dir + "/junk.mp3"), "no tag here");
    // Against a WAV twice as long, or louder by 12 dB, it does not pass.
    put("b.wav", riff(chunk("fmt ", fmtBody(1, 2, 44100, 16)) + chunk("data", pcm + pcm)));
    CodecResult longer = verifyMp3(dir + "/b.wav", mp3, r.rms, nullptr);
    EXPECT_FALSE(longer.ok);
    EXPECT_NE(longer.why.find("frames"), std::string::npos) << longer.why;
    EXPECT_FALSE(verifyMp3(wav, mp3, r.rms * 4, nullptr).ok);
    put("junk.mp3", "this is no mp3 at all");
    EXPECT_FALSE(verifyMp3(wav, dir + "/junk.mp3", r.rms, nullptr).ok);
}

// Reads an ID3v2.3 tag back: frame ids and bodies, in order.
std::vector<std::pair<std::string, std::string>> frames(const std::string& tag) {
    std::vector<std::pair<std::string, std::string>> out;
    EXPECT_EQ(tag.compare(0, 5, std::string("ID3\x03\0", 5)), 0);
    uint32_t size = 0;
    for (int i = 6; i < 10; i++) {
        EXPECT_LT(static_cast<unsigned char>(tag[i]), 0x80);  // syncsafe
        size = (size << 7) | static_cast<unsigned char>(tag[i]);
    }
    EXPECT_EQ(size, tag.size() - 10);
    for (size_t at = 10; at + 10 <= tag.size();) {
        uint32_t n = 0;
        for (size_t i = 4; i < 8; i++) n = (n << 8) | static_cast<unsigned char>(tag[at + i]);
        out.emplace_back(tag.substr(at, 4), tag.substr(at + 10, n));
        at += 10 + n;
        if (at == tag.size()) break;
        EXPECT_LT(at, tag.size());
    }
    return out;
}

TEST(Id3Tag, TextsInLatin1OrUtf16AndTheCover) {
    TrackTags t;
    t.artist = "Plain ASCII";
    t.title = "Été \xf0\x9f\x8e\xb5 \xff!";  // an accent, a note beyond the BMP, a stray byte
    t.trackNumber = "12";
    t.cover = std::string(3 << 20, 'c');  // bigger than 2^21: every size byte must stay under 0x80
    t.coverMime = "image/png";
    auto f = frames(buildId3v2(t));
    ASSERT_EQ(f.size(), 4u);
    EXPECT_EQ(f[0], std::make_pair(std::string("TPE1"), std::string("\0Plain ASCII", 12)));
    EXPECT_EQ(f[1].first, "TIT2");
    const char16_t expect[] = u"Été \U0001F3B5 \uFFFD!";
    std::string utf16("\x01\xff\xfe", 3);
    for (const char16_t* p = expect; *p; p++) {
        utf16 += static_cast<char>(*p & 0xff);
        utf16 += static_cast<char>(*p >> 8);
    }
    EXPECT_EQ(f[1].second, utf16);
    EXPECT_EQ(f[2], std::make_pair(std::string("TRCK"), std::string("\0" "12", 3)));
    EXPECT_EQ(f[3].first, "APIC");
    EXPECT_EQ(f[3].second, std::string("\0image/png\0\x03\0", 13) + t.cover);
    // Nothing to say: a bare header.
    EXPECT_EQ(buildId3v2(TrackTags{}), std::string("ID3\x03\0\0\0\0\0\0", 10));
}

}  // namespace
