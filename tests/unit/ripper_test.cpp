#include "ripping/ripper.h"

#include <discid/discid.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <cmath>
#include <sstream>
#include <thread>

#include "library/database.h"
#include "library/library.h"
#include "ripping/cdrom.h"
#include "ripping/wav.h"
#include "tests/unit/libfixture.h"

namespace {

namespace fs = std::filesystem;

struct ImageTrack {
    int sectors;
    double hz;  // 0: a data track
};

std::string readAll(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

class RipperTest : public LibraryFixture {
  protected:
    void SetUp() override {
        LibraryFixture::SetUp();
        setHostRoot(root);
        ripUserChoice = 0;
        numTracksToRip = 99;
        cdFramesPerRead = 50;
    }
    void TearDown() override {
        setHostRoot("");
        LibraryFixture::TearDown();
    }

    // Writes disc.bin and disc.cue; returns the .bin's bytes.
    std::string makeImage(const std::vector<ImageTrack>& tracks) {
        std::string bin;
        std::string cue = "FILE \"disc.bin\" BINARY\n";
        int lsn = 0;
        for (size_t i = 0; i < tracks.size(); i++) {
            char line[128];
            snprintf(line, sizeof line, "  TRACK %02zu %s\n    INDEX 01 %02d:%02d:%02d\n", i + 1,
                     tracks[i].hz > 0 ? "AUDIO" : "MODE1/2352", lsn / 4500, lsn / 75 % 60,
                     lsn % 75);
            cue += line;
            for (int s = 0; s < tracks[i].sectors; s++) {
                for (int frame = 0; frame < 588; frame++) {
                    int n = (lsn + s) * 588 + frame;
                    int16_t v = static_cast<int16_t>(
                        tracks[i].hz > 0 ? 12000 * sin(2 * M_PI * tracks[i].hz * n / 44100)
                                         : (n * 7) & 0x7fff);
                    for (int ch = 0; ch < 2; ch++) {
                        bin += static_cast<char>(v & 0xff);
                        bin += static_cast<char>((v >> 8) & 0xff);
                    }
                }
            }
            lsn += tracks[i].sectors;
        }
        std::ofstream(root + "/disc.bin", std::ios::binary) << bin;
        std::ofstream(root + "/disc.cue") << cue;
        setHostCdrom(root + "/disc.cue");
        return bin;
    }
};

TEST_F(RipperTest, RipsAnImageIntoAnAlbumWithNamesTocAndDiscId) {
    std::vector<ImageTrack> tracks = {{225, 440}, {301, 660}, {150, 880}};
    std::string bin = makeImage(tracks);
    EXPECT_EQ(testUnitReady(), CD_READY);

    RipNames names;
    names.artist = "AC/DC \"Live\"";
    names.album = "../Back in Black";
    names.year = "1980";
    names.tracks = {"Hells Bells", std::string(500, 'x'), "Shoot/To..Thrill"};
    setUploadedRipNames(names);
    ripUserChoice = -1;
    ripEnabled = 1;
    rip();

    std::string folder = root + "/music/AC_DC _Live_/_._Back in Black";
    ASSERT_TRUE(fs::is_directory(folder));
    std::vector<std::string> files = {"01 Hells Bells.wav", "02 " + std::string(143, 'x') + ".wav",
                                      "03 Shoot_To..Thrill.wav"};
    size_t offset = 0;
    for (int i = 0; i < 3; i++) {
        std::string wav = readAll(folder + "/" + files[i]);
        ASSERT_FALSE(wav.empty()) << files[i];
        WavFileInfo fileInfo;
        WavListInfo* info = WavListInfoCreate();
        ASSERT_EQ(WavReadChunks(reinterpret_cast<const uint8_t*>(wav.data()), wav.size(), &fileInfo,
                                info),
                  1);
        size_t audio = static_cast<size_t>(tracks[i].sectors) * kSectorBytes;
        EXPECT_EQ(fileInfo.dataSize, audio);
        EXPECT_EQ(wav.substr(fileInfo.dataOffset), bin.substr(offset, audio)) << "track " << i;
        offset += audio;
        EXPECT_EQ(fileInfo.fmt.sampleRate, 44100u);
        EXPECT_EQ(fileInfo.fmt.byteRate, 176400u);
        EXPECT_EQ(fileInfo.fmt.blockAlign, 4);
        EXPECT_STREQ(WavListInfoGetArtistName(info), "AC/DC \"Live\"");
        EXPECT_STREQ(WavListInfoGetAlbumName(info), "../Back in Black");
        EXPECT_STREQ(WavListInfoGetTrackNum(info), std::to_string(i + 1).c_str());
        EXPECT_STREQ(WavListInfoGetYear(info), "1980");
        WavListInfoDestroy(info);
        // RIFF size: everything after the first eight bytes.
        uint32_t riff = static_cast<uint8_t>(wav[4]) | static_cast<uint8_t>(wav[5]) << 8 |
                        static_cast<uint8_t>(wav[6]) << 16 |
                        static_cast<uint32_t>(static_cast<uint8_t>(wav[7])) << 24;
        EXPECT_EQ(riff, wav.size() - 8);
    }
    EXPECT_FALSE(isRipping());

    // Table of contents and identifiers, computed here with libdiscid.
    EXPECT_EQ(readAll(folder + "/toc"), "0,2,0\n0,5,0\n0,9,1\n0,11,1\n");
    DiscId* disc = discid_new();
    int offsets[4] = {676 + 150, 150, 225 + 150, 526 + 150};
    ASSERT_TRUE(discid_put(disc, 1, 3, offsets));
    std::string expected = std::string(discid_get_id(disc)) + "\n" + discid_get_freedb_id(disc);
    for (char& c : expected)
        c = static_cast<char>(toupper(c));
    std::string got = readAll(folder + "/discid");
    discid_free(disc);
    std::string gotUpper = got;
    for (char& c : gotUpper)
        c = static_cast<char>(toupper(c));
    EXPECT_EQ(gotUpper, expected + "\n");

    // The album is in the library and in kzdb.
    EXPECT_GE(findTrackByThreeNames("AC_DC _Live_", "_._Back in Black", "01 Hells Bells.wav"), 0);
    EXPECT_EQ(getTrackCount(), 3);
    EXPECT_NE(readAll(getDBPath()).find("AC_DC _Live_/_._Back in Black\n3 tracks\n"),
              std::string::npos);
}

TEST_F(RipperTest, DataTracksAndMissingNames) {
    // Audio, audio, data: the data track at the end does not fail the album.
    makeImage({{80, 500}, {75, 600}, {90, 0}});
    ripEnabled = 1;
    rip();
    std::string folder = root + "/music/Unknown/Album 1";
    EXPECT_TRUE(fs::exists(folder + "/01 track1.wav"));
    EXPECT_TRUE(fs::exists(folder + "/02 track2.wav"));
    EXPECT_FALSE(fs::exists(folder + "/03 track3.wav"));

    // Data first: skipped, and the audio after it is ripped into Album 2.
    makeImage({{90, 0}, {75, 600}});
    ripEnabled = 1;
    rip();
    EXPECT_TRUE(fs::exists(root + "/music/Unknown/Album 2/02 track2.wav"));
    EXPECT_EQ(getAlbumCount(), 2);
}

TEST_F(RipperTest, DamagedImagesAndStoppedRips) {
    // A .cue naming a missing .bin, and no image at all.
    std::ofstream(root + "/bad.cue")
        << "FILE \"gone.bin\" BINARY\n  TRACK 01 AUDIO\n    INDEX 01 00:00:00\n";
    setHostCdrom(root + "/bad.cue");
    EXPECT_EQ(testUnitReady(), CD_BAD_DISC);
    setHostCdrom(root + "/nothing.cue");
    EXPECT_EQ(testUnitReady(), CD_NO_DISC);

    // A read failure in the third minute keeps the track (it is the last).
    const int third = 75 * 130;
    std::string bin = makeImage({{75 * 150, 440}});
    fs::resize_file(root + "/disc.bin", static_cast<uintmax_t>(third) * kSectorBytes);
    ripEnabled = 1;
    rip();
    std::string kept = root + "/music/Unknown/Album 1/01 track1.wav";
    ASSERT_TRUE(fs::exists(kept));
    EXPECT_GT(fs::file_size(kept), 21167999u);
    EXPECT_EQ(getTrackCount(), 1);

    // A full disk in the middle of a track: the part written is removed.
    makeImage({{225, 440}, {75, 660}});
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        struct rlimit limit = {300000, 300000};
        setrlimit(RLIMIT_FSIZE, &limit);
        signal(SIGXFSZ, SIG_IGN);
        ripEnabled = 1;
        rip();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_FALSE(fs::exists(root + "/music/Unknown/Album 2/01 track1.wav"));
    EXPECT_FALSE(fs::exists(root + "/music/Unknown/Album 2/02 track2.wav"));
    fs::remove_all(root + "/music/Unknown/Album 2");

    // Stopping in the third minute deletes the track. The disc runs to ten
    // minutes, so that a loaded machine cannot finish the rip between the
    // progress seen and the stop.
    makeImage({{75 * 600, 440}});
    ASSERT_EQ(startRip(), 1);
    while (isRipping() && getCDProgress().done < 75 * 125)
        std::this_thread::yield();
    uiStopRip();
    while (isRipping())
        std::this_thread::yield();
    EXPECT_FALSE(fs::exists(root + "/music/Unknown/Album 2/01 track1.wav"));
    EXPECT_EQ(getTrackCount(), 1);
}

TEST_F(RipperTest, TheImageOpensWhileAnotherThreadOpensIt) {
    // The main loop polls the drive while a rip or the CD player opens it
    // too; libcdio parses a .cue with strtok, which two threads at once
    // garble into "no disc".
    makeImage({{160, 440}, {160, 660}, {160, 880}});
    std::atomic<int> failed{0};
    auto open = [&] {
        for (int i = 0; i < 300; i++) {
            CdDrive drive;
            CdHeader header;
            if (!drive.ok() || !drive.readHeader(&header) || header.numTracks() != 3) failed++;
        }
    };
    std::thread other(open);
    open();
    other.join();
    EXPECT_EQ(failed, 0);
}

TEST(RipNamesTest, CleaningKeepsUtf8AndStaysOneName) {
    EXPECT_EQ(cleanRipName("a/b\\c:d*e?f\"g<h>i|j"), "a_b_c_d_e_f_g_h_i_j");
    EXPECT_EQ(cleanRipName(".."), "_");
    EXPECT_EQ(cleanRipName(".hidden"), "_hidden");
    EXPECT_EQ(cleanRipName("Björk"), "Björk");
    // 142 ASCII bytes and a two-byte letter: the letter does not fit whole.
    EXPECT_EQ(cleanRipName(std::string(142, 'a') + "é"), std::string(142, 'a'));
    EXPECT_EQ(cleanRipName(std::string(500, 'z')).size(), 143u);
    EXPECT_EQ(cleanRipName(""), "_");
}

}  // namespace
