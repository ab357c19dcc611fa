#include "library/scan.h"

#include <gtest/gtest.h>

#include "library/database.h"
#include "library/edit.h"
#include "library/ids.h"
#include "library/library.h"
#include "tests/unit/libfixture.h"

namespace {

using ScanTest = LibraryFixture;

int trackIn(const char* artist, const char* album, const char* track) {
    return findTrackByThreeNames(artist, album, track);
}

TEST_F(ScanTest, FolderLayoutDecidesWhatIsAlbumAndTrack) {
    touch("Bjork/Post/01 Army of Me.flac", std::string(5000, 'a'));
    touch("Bjork/Post/02 Hyperballad.MP3");
    touch("Bjork/Post/01 Intro.mp3.mp3");  // the first ".mp3" is not at the end
    touch("Bjork/Post/cover.jpg");
    touch("Bjork/Post/Extras/03 Bonus.flac");  // below an album: ignored
    touch("Bjork/Post/mirror/01 Army of Me.mp3");
    touch("Bjork/Loose Track.mp3");  // directly in an artist folder
    touch("Stray.mp3");              // directly in the music folder
    std::filesystem::create_directories(root + "/music/Bjork/Empty Album");

    scanLocalEnabled = 1;
    scanDB();
    EXPECT_EQ(getArtistCount(), 1);
    EXPECT_EQ(getAlbumCount(), 2);  // Post and Empty Album
    EXPECT_EQ(getTrackCount(), 2);
    EXPECT_GE(trackIn("Bjork", "Post", "01 Army of Me.flac"), 0);
    EXPECT_GE(trackIn("Bjork", "Post", "02 Hyperballad.MP3"), 0);
    EXPECT_EQ(trackIn("Bjork", "Post", "01 Intro.mp3.mp3"), -1);
    // The visible mirror folder became hidden and its copy was counted.
    EXPECT_TRUE(exists("Bjork/Post/.mirror/01 Army of Me.mp3"));
    EXPECT_FALSE(exists("Bjork/Post/mirror"));
    EXPECT_EQ(lib().mirrorCount, 1);
    // (5000 >> 10) + 2 and (1 >> 10) + 2
    EXPECT_EQ(getKbUsed(), 6 + 2);

    // A cleared flag stops a scan before its next entry.
    clearDB();
    scanLocalEnabled = 0;
    scanDB();
    EXPECT_EQ(getAlbumCount(), 0);

    // One album after a rip: only what is new is added.
    scanLocalEnabled = 1;
    scanDB();
    scanLocalEnabled = 0;
    touch("Bjork/Post/03 Isobel.wav");
    scanAlbum("Post", "Bjork");
    EXPECT_EQ(getTrackCount(), 3);
    EXPECT_EQ(scanLocalEnabled, 0);
    EXPECT_TRUE(isDirty());
    // An album added while a full scan runs must not stop that scan.
    scanLocalEnabled = 1;
    touch("Bjork/Post/04 Possibly Maybe.wav");
    scanAlbum("Post", "Bjork");
    EXPECT_EQ(scanLocalEnabled, 1);
    EXPECT_EQ(getTrackCount(), 4);
}

// Names a line-based kzdb cannot give back are left out at scan time; the
// albums after them survive a save and a reload.
TEST_F(ScanTest, NamesKzdbCannotHoldAreLeftOut) {
    touch("Bad\nArtist/Album/01 a.mp3");
    touch("Good/Line\nFeed/01 a.mp3");
    touch("Good/Fine/01 tab\there.mp3");
    touch("Good/Fine/02 ok.mp3");
    touch("Good/" + std::string(200, 'a') + "/01 ok.mp3");  // "Good/" + 200 fits
    touch("Good/" + std::string(245, 'b') + "/01 ok.mp3");  // "Good/" + 245 does not
    touch("Zed/Last/01 z.mp3");
    scanLocalEnabled = 1;
    scanDB();
    scanLocalEnabled = 0;
    ASSERT_EQ(writeDB(), 1);
    clearDB();
    ASSERT_EQ(readDB(), 1);
    EXPECT_EQ(findArtistByName("Bad\nArtist"), -1);
    EXPECT_EQ(getArtistCount(), 2);
    EXPECT_EQ(getAlbumCount(), 3);  // Fine, the 200-letter one, Last
    EXPECT_EQ(trackIn("Good", "Fine", "02 ok.mp3") >= 0, true);
    EXPECT_EQ(trackIn("Good", "Fine", "01 tab\there.mp3"), -1);
    EXPECT_GE(trackIn("Good", std::string(200, 'a').c_str(), "01 ok.mp3"), 0);
    EXPECT_GE(trackIn("Zed", "Last", "01 z.mp3"), 0);
    EXPECT_EQ(getTrackCount(), 3);
}

TEST_F(ScanTest, UsbDriveIsWalkedSevenLevelsDeep) {
    std::string usb = root + "/usb";
    auto make = [&](const std::string& rel) {
        std::filesystem::path p = usb + "/" + rel;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p) << "x";
    };
    make("Artist/Album/01.mp3");
    make("Artist/Album/02 Two.flac");
    make("Artist/Album/notes.mp3.txt");
    make(".Trashes/Artist/Album/x.mp3");
    make("$RECYCLE.BIN/y.mp3");
    make("1/2/3/4/5/6/7/deep.mp3");      // seven folders down: found
    make("1/2/3/4/5/6/7/8/deeper.mp3");  // eight: not
    std::filesystem::create_directory_symlink(usb, usb + "/Artist/loop");

    scanUSBPath(usb);
    EXPECT_EQ(getUSBTrackcount(), 3);
    int r = findUSBArtistByName((usb + "/Artist").c_str());
    ASSERT_GE(r, 0);
    EXPECT_STREQ(cleanUSBArtist(getUSBArtistName(r)), "Artist");
    EXPECT_EQ(idName(USBArtistToID(r)), "Artist");
    int t = findUSBTrackByThreeNames((usb + "/Artist").c_str(), "Album", "02 Two.flac");
    ASSERT_GE(t, 0);
    EXPECT_EQ(idName(USBTrackToID(t)), "Two");
    EXPECT_EQ(getIdPath(USBTrackToID(t)), usb + "/Artist/Album/02 Two.flac");
    EXPECT_EQ(getParentId(USBTrackToID(t)), USBAlbumToID(getUSBParentAlbum(t)));
    EXPECT_GE(findUSBTrackByThreeNames((usb + "/1/2/3/4/5/6").c_str(), "7", "deep.mp3"), 0);
}

TEST_F(ScanTest, CleanupRemovesJunkAndEmptyFolders) {
    touch("Keep/Album/01 Song.flac");
    touch("Keep/Album/._01 Song.flac");
    touch("Keep/.AppleDouble/x");
    touch("Keep/Empty/cover.jpg");
    touch("Pictures Only/Album/cover.jpg");
    touch("Pictures Only/Album/back.png");
    cleanupEnabled = 1;
    cleanup();
    EXPECT_TRUE(exists("Keep/Album/01 Song.flac"));
    EXPECT_FALSE(exists("Keep/Album/._01 Song.flac"));
    EXPECT_FALSE(exists("Keep/.AppleDouble"));
    EXPECT_FALSE(exists("Keep/Empty"));
    EXPECT_FALSE(exists("Pictures Only"));
    EXPECT_EQ(cleanupEnabled, 0);
}

TEST_F(ScanTest, RenameAndDeleteWorkOnDiskWithHostileNames) {
    touch("$(touch x)/Album/01 Song.flac");
    touch("$(touch x)/Album/.mirror/01 Song.mp3");
    touch("$(touch x)/Other/01 A.mp3");
    touch("Victim/Album/01 Keep.mp3");
    scanLocalEnabled = 1;
    scanDB();
    int t = trackIn("$(touch x)", "Album", "01 Song.flac");
    ASSERT_GE(t, 0);

    // A title keeps its number and extension; the mirror copy follows.
    EXPECT_EQ(renameID(trackToID(t), "New Title"), 1);
    EXPECT_TRUE(exists("$(touch x)/Album/01 New Title.flac"));
    EXPECT_TRUE(exists("$(touch x)/Album/.mirror/01 New Title.mp3"));
    EXPECT_EQ(idName(trackToID(t)), "New Title");
    EXPECT_FALSE(isDirty());  // saved at once

    // Slashes and dots cannot climb out of the folder.
    int a = findAlbumByNames("Album", "$(touch x)");
    EXPECT_EQ(renameID(albumToID(a), "../../Victim"), 1);
    EXPECT_TRUE(exists("$(touch x)/_._.._Victim/01 New Title.flac"));
    EXPECT_TRUE(exists("Victim/Album/01 Keep.mp3"));
    EXPECT_EQ(renameID(albumToID(a), "Other"), 0);  // the artist has one already
    EXPECT_EQ(renameID(albumToID(a), "  "), 0);
    EXPECT_EQ(renameID(albumToID(a), "a*"), 0);
    EXPECT_EQ(renameID(radioToID(1), "x"), 0);
    int r = getAlbumArtist(a);
    EXPECT_EQ(renameID(artistToID(r), "\"; rm -rf /"), 1);
    EXPECT_TRUE(exists("\"; rm -rf _/Other/01 A.mp3"));

    // Deleting the artist takes every album and the folder.
    int before = getTrackCount();
    EXPECT_EQ(deleteID(artistToID(r)), 1);
    EXPECT_FALSE(exists("\"; rm -rf _"));
    EXPECT_EQ(getTrackCount(), before - 2);
    EXPECT_EQ(getArtistCount(), 1);
    EXPECT_TRUE(exists("Victim/Album/01 Keep.mp3"));
    EXPECT_EQ(deleteID(trackToID(trackIn("Victim", "Album", "01 Keep.mp3"))), 1);
    EXPECT_FALSE(exists("Victim/Album/01 Keep.mp3"));
    EXPECT_EQ(deleteID(presetToID(0)), 0);

    // An entry from a damaged database that would leave the music folder is
    // never deleted.
    int bad = addAlbumToDb("..", addArtistToDb(".."));
    EXPECT_EQ(deleteID(albumToID(bad)), 0);
    EXPECT_TRUE(std::filesystem::exists(root + "/music"));
}

}  // namespace
