#include "library/library.h"

#include <gtest/gtest.h>

#include "library/ids.h"
#include "library/names.h"
#include "tests/unit/libfixture.h"

namespace {

TEST(Identifiers, BandsTypesAndConversions) {
    EXPECT_FALSE(idIsTrack(1999999));
    EXPECT_TRUE(idIsTrack(2000000));
    EXPECT_TRUE(idIsCDTrack(12999999));
    EXPECT_FALSE(idIsCDTrack(13000000));
    EXPECT_EQ(invalidId(), 13000000);
    // No range checks: conversions are plain offsets.
    EXPECT_EQ(trackToID(-5), 1999995);
    EXPECT_EQ(idToAlbum(trackToID(7)), 1000007);

    EXPECT_STREQ(idType(999999), "Bad ID");
    EXPECT_STREQ(idType(1000000), "Album");
    EXPECT_STREQ(idType(2500000), "Track");
    EXPECT_STREQ(idType(3999999), "Artist");
    for (int id : {4000000, 5000000, 7000001, 9000000, 12999999})
        EXPECT_STREQ(idType(id), "Playlist");
    EXPECT_STREQ(idType(13000000), "Bad ID");
    EXPECT_STREQ(idType(-1), "Bad ID");

    EXPECT_EQ(idName(12000005), "Invalid");
    EXPECT_EQ(idName(13000000), "Bad ID");
    EXPECT_EQ(idName(7000003), "Tag");
    // Nothing in the USB library, no radio stations, no playlists yet.
    EXPECT_EQ(idName(USBAlbumToID(0)), "Invalid");
    EXPECT_EQ(idName(presetToID(2)), "Invalid");
    EXPECT_EQ(getParentId(radioToID(3)), 0);
    EXPECT_EQ(getIdPath(radioToID(3)), "");
}

TEST_F(LibraryFixture, TablesLookUpsAndParents) {
    int r = addArtistToDb("Miles Davis");
    EXPECT_EQ(addArtistToDb("MILES davis"), r);
    int a = addAlbumToDb("Kind of Blue [J]", r);
    EXPECT_EQ(addAlbumToDb("kind of blue [j]", r), a);
    int t1 = addTrackToDb("01 So What.flac", a);
    int t2 = addTrackToDb("02 - Freddie Freeloader.wav", a);
    EXPECT_EQ(addTrackToDb("01 SO WHAT.flac", a), t1);
    EXPECT_EQ(getTrackCount(), 2);
    EXPECT_TRUE(isDirty());

    EXPECT_EQ(
        findTrackByThreeNames("miles davis", "KIND OF BLUE [J]", "02 - freddie freeloader.wav"),
        t2);
    EXPECT_EQ(findAlbumByName("KIND of Blue [J]"), a);
    EXPECT_EQ(findAlbumByNames("Kind of Blue [J]", "Nobody"), -1);
    EXPECT_EQ(getParentId(trackToID(t2)), albumToID(a));
    EXPECT_EQ(getParentId(albumToID(a)), artistToID(r));
    EXPECT_EQ(getIdPath(trackToID(t1)),
              root + "/music/Miles Davis/Kind of Blue [J]/01 So What.flac");
    EXPECT_EQ(idName(trackToID(t2)), "Freddie Freeloader");
    EXPECT_EQ(idName(albumToID(a)), "Kind of Blue [J]");
    EXPECT_STREQ(getTrackExt(t1), "FLAC");
    EXPECT_STREQ(getIDTrackExt(trackToID(t2)), "WAV");
    EXPECT_EQ(lib().albumClass[a], 1 << ('J' - 'A'));

    // Removing the album takes its tracks and renumbers what follows.
    int b = addAlbumToDb("Sketches", r);
    int t3 = addTrackToDb("Saeta.mp3", b);
    EXPECT_EQ(t3, 2);
    removeAlbum(a);
    EXPECT_EQ(getAlbumCount(), 1);
    EXPECT_EQ(getTrackCount(), 1);
    EXPECT_STREQ(getTrackName(0), "Saeta.mp3");
    EXPECT_EQ(getParentAlbum(0), 0);
    EXPECT_EQ(findAlbumByNameAndArtist("Sketches", r), 0);
    EXPECT_EQ(findTrackByThreeNames("Miles Davis", "Sketches", "saeta.mp3"), 0);
}

TEST_F(LibraryFixture, FullTablesGiveZeroLocallyAndMinusOneOnUsb) {
    for (int i = 0; i < Library::kMaxArtists; i++) {
        ASSERT_EQ(addArtistToDb(("Artist " + std::to_string(i)).c_str()), i);
    }
    EXPECT_EQ(addArtistToDb("One too many"), 0);
    EXPECT_EQ(getArtistCount(), Library::kMaxArtists);

    for (int i = 0; i < Library::kMaxUSBArtists; i++) {
        ASSERT_EQ(addArtistToUSBDb(("/m/" + std::to_string(i)).c_str()), i);
    }
    EXPECT_EQ(addArtistToUSBDb("/m/extra"), -1);
    // The USB track heap (1,000,000 bytes) runs out before its table.
    int a = addAlbumToUSBDb("Album", 0);
    std::string longName(240, 'x');
    int added = 0;
    while (addTrackToUSBDb((std::to_string(added) + longName).c_str(), a) >= 0)
        added++;
    EXPECT_GT(added, 3000);
    EXPECT_LT(added, 5000);
}

TEST_F(LibraryFixture, FullLocalHeapStopsTheCallingThread) {
    // The stop parks the thread for good, so watch it from a child process.
    fflush(stdout);
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        setvbuf(stdout, nullptr, _IOLBF, 0);
        std::string name(200, 'r');
        for (int i = 0;; i++)
            addArtistToDb((std::to_string(i) + name).c_str());
    }
    close(out[1]);
    std::string text;
    char buf[512];
    ssize_t n;
    while (text.find(" Tracks\n") == std::string::npos && (n = read(out[0], buf, sizeof buf)) > 0) {
        text.append(buf, n);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(out[0]);
    EXPECT_NE(text.find("artist heap 199"), std::string::npos) << text;
    EXPECT_NE(text.find("0 Tracks\n"), std::string::npos) << text;
}

TEST(Names, ExtensionsAndTrackNumbers) {
    EXPECT_FALSE(allowedMusicTrack("01 Intro.mp3.mp3"));
    EXPECT_TRUE(allowedMusicTrack("Song.FLAC"));
    EXPECT_TRUE(allowedMusicTrack("a.m4a"));
    EXPECT_FALSE(allowedMusicTrack("cover.jpg"));
    EXPECT_TRUE(hasMusicExtension("01 Intro.mp3.mp3"));
    EXPECT_TRUE(isArtFile("Folder.JPEG"));
    EXPECT_TRUE(isVideoFile("clip.mov"));
    EXPECT_STREQ(extensionWord("x.flac.wav"), "WAV");
    EXPECT_STREQ(extensionWord("x.ogg"), "NIY");

    EXPECT_EQ(trackOrderOfName("1-12 Name.flac"), 112);
    EXPECT_EQ(trackOrderOfName("2-05 Song.wav"), 205);
    EXPECT_EQ(trackOrderOfName("12 Name.flac"), 12);
    EXPECT_EQ(trackOrderOfName("Name.flac"), 0);
    EXPECT_EQ(trackOrderOfName("3- x.flac"), 0);

    EXPECT_EQ(cleanTrackName("03 - Song.flac"), "Song");
    EXPECT_EQ(cleanTrackName("2-05 Song.wav"), "Song");
    EXPECT_EQ(cleanTrackName("Song.mp3"), "Song");
    EXPECT_EQ(cleanTrackName("  7 Seven Nation Army.mp3"), "Seven Nation Army");

    EXPECT_EQ(beginsWithTrackNumber("03 Song"), 'S');
    EXPECT_EQ(beginsWithTrackNumber("03"), 0);
    EXPECT_EQ(beginsWithTrackNumber("Song"), 0);
    char number[16];
    copyTrackNumber("2-05 Song", number);
    EXPECT_STREQ(number, "2-05");
    EXPECT_STREQ(skipTno("12   Song"), "Song");
    EXPECT_STREQ(skipTno("Song 12"), "Song 12");
}

TEST(Names, TagLettersAndStripping) {
    EXPECT_EQ(getClassFromName("Blue Train [J]"), 1 << 9);
    EXPECT_EQ(getClassFromName("X [JB]"), (1 << 9) | (1 << 1));
    // Letters are added, not or-ed: AA is B.
    EXPECT_EQ(getClassFromName("X [AA]"), 2);
    EXPECT_EQ(getClassFromName("X []"), 0);
    EXPECT_EQ(getClassFromName("X [J"), 0);
    EXPECT_EQ(getClassFromName("Live [2001] [C]"), 4);
    EXPECT_EQ(getClassFromName("No tags"), 0);

    EXPECT_EQ(stripClass("Blue Train [J]"), "Blue Train ");
    EXPECT_EQ(stripClass("Live [2001] [CD]"), "Live [2001] ");
    EXPECT_EQ(stripClass("Open [AB"), "Open [AB");
    EXPECT_EQ(stripClass("[A][B]x"), "x");

    EXPECT_TRUE(badName(nullptr));
    EXPECT_TRUE(badName(""));
    EXPECT_TRUE(badName("   "));
    EXPECT_TRUE(badName("a*b"));
    EXPECT_FALSE(badName(" a "));

    EXPECT_EQ(cleanPathName("AC/DC"), "AC_DC");
    EXPECT_EQ(cleanPathName(".."), "__");
    EXPECT_EQ(cleanPathName(".hidden"), "_hidden");
    EXPECT_EQ(cleanPathName("$(touch x)"), "$(touch x)");
}

}  // namespace
