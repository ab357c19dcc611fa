#include "library/playlists.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "library/ids.h"
#include "library/library.h"
#include "library/settings.h"
#include "library/sorting.h"
#include "tests/unit/libfixture.h"

namespace {

class PlaylistsTest : public LibraryFixture {
  protected:
    void SetUp() override {
        LibraryFixture::SetUp();
        initPlaylists();
        loadPlaylists();  // no file yet: none, and the identifiers count
    }
    // Two artists of two albums of two tracks each.
    void fill() {
        for (const char* artist : {"Nina", "Miles"}) {
            int r = addArtistToDb(artist);
            for (const char* album : {"Live", "Studio"}) {
                int a = addAlbumToDb(album, r);
                addTrackToDb("01 One.mp3", a);
                addTrackToDb("02 Two.mp3", a);
            }
        }
    }
    std::string file() {
        std::ifstream in(root + "/kzplaylists");
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
};

TEST_F(PlaylistsTest, EditingKeepsFlagsAndFileTrue) {
    fill();
    int p = newPlaylist("Evening");
    ASSERT_EQ(p, 0);
    EXPECT_EQ(newPlaylist("Evening"), 0);
    EXPECT_EQ(newPlaylist(""), -1);
    EXPECT_EQ(newPlaylist("two\nlines"), -1);
    EXPECT_TRUE(addToPlaylist(p, trackToID(5), 0));
    EXPECT_TRUE(addToPlaylist(p, albumToID(0), 0));       // before the track
    EXPECT_TRUE(addToPlaylist(p, artistToID(1), 99999));  // appended
    EXPECT_FALSE(addToPlaylist(p, trackToID(8), 0));      // no such track
    EXPECT_FALSE(addToPlaylist(p, radioToID(1), 0));
    EXPECT_FALSE(addToPlaylist(7, trackToID(1), 0));
    EXPECT_EQ(getPlaylistEntries(p), (std::vector<int>{albumToID(0), trackToID(5), artistToID(1)}));
    EXPECT_TRUE(lib().albumInPlaylist[0]);
    EXPECT_TRUE(lib().trackInPlaylist[5]);
    EXPECT_FALSE(lib().trackInPlaylist[0]);  // only through its album
    EXPECT_EQ(file(),
              "kzplaylists 1\nPlaylist\nEvening\nAlbum\nNina\nLive\nTrack\nMiles\nLive\n02 "
              "Two.mp3\nArtist\nMiles\nEnd\n");

    EXPECT_TRUE(removeFromPlaylist(p, 1));
    EXPECT_FALSE(removeFromPlaylist(p, 2));
    EXPECT_FALSE(lib().trackInPlaylist[5]);
    EXPECT_FALSE(renamePlaylist(p, ""));
    EXPECT_EQ(getQueuePlaylist(), 1);
    EXPECT_FALSE(renamePlaylist(p, "Queue"));  // taken
    EXPECT_TRUE(renamePlaylist(p, "Night"));
    EXPECT_TRUE(deletePlaylist(getQueuePlaylist()));
    EXPECT_EQ(getPlaylistCount(), 1);
    EXPECT_EQ(getPlaylistName(0), "Night");
    EXPECT_EQ(getPlaylistName(1), "");
}

TEST_F(PlaylistsTest, RemovalsDropAndRenumberEntries) {
    fill();
    int p = newPlaylist("Mix");
    for (int id : {trackToID(1), trackToID(6), albumToID(3), artistToID(1), albumToID(0)})
        ASSERT_TRUE(addToPlaylist(p, id, 99));
    removeAlbum(0);  // Nina/Live with tracks 0 and 1
    // Track 1 and album 0 are gone; everything after them moved down.
    EXPECT_EQ(getPlaylistEntries(p), (std::vector<int>{trackToID(4), albumToID(2), artistToID(1)}));
    removeArtist(0);  // Nina: album 0 (was Studio) and its tracks
    EXPECT_EQ(getPlaylistEntries(p), (std::vector<int>{trackToID(2), albumToID(1), artistToID(0)}));
    EXPECT_STREQ(getArtistName(0), "Miles");
}

TEST_F(PlaylistsTest, ReloadFindsEntriesByNameAfterRenumbering) {
    fill();
    int p = newPlaylist("Keep");
    addToPlaylist(p, trackToID(7), 0);   // Miles/Studio/02
    addToPlaylist(p, albumToID(1), 99);  // Nina/Studio
    savePlaylists();

    // A rescan that finds Miles first renumbers everything.
    clearDB();
    EXPECT_EQ(getPlaylistCount(), 1);
    newPlaylist("while cleared");  // refused: nothing may be saved now
    savePlaylists();
    EXPECT_NE(file().find("Keep"), std::string::npos);
    EXPECT_EQ(file().find("while cleared"), std::string::npos);
    int r = addArtistToDb("Miles");
    int a = addAlbumToDb("Studio", r);
    addTrackToDb("02 Two.mp3", a);
    r = addArtistToDb("Nina");
    addAlbumToDb("Studio", r);
    loadPlaylists();
    ASSERT_EQ(getPlaylistCount(), 1);
    EXPECT_EQ(getPlaylistEntries(0), (std::vector<int>{trackToID(0), albumToID(1)}));

    // A damaged file: what can be read is kept, the rest is ignored.
    std::ofstream(root + "/kzplaylists")
        << "kzplaylists 1\nPlaylist\nA\nArtist\nNina\nEnd\nPlaylist\nB\nTrack\nMiles\n";
    loadPlaylists();
    ASSERT_EQ(getPlaylistCount(), 2);
    EXPECT_EQ(getPlaylistEntries(0), (std::vector<int>{artistToID(1)}));
    EXPECT_TRUE(getPlaylistEntries(1).empty());
    std::ofstream(root + "/kzplaylists") << "garbage\n";
    loadPlaylists();
    EXPECT_EQ(getPlaylistCount(), 0);
}

TEST_F(PlaylistsTest, PlaybackWalksTheExpandedEntries) {
    fill();
    int p = newPlaylist("Walk");
    addToPlaylist(p, trackToID(7), 99);
    addToPlaylist(p, albumToID(0), 99);
    addToPlaylist(p, trackToID(2), 99);
    EXPECT_EQ(startPlaylistPlayback(p, albumToID(0), false), 0);  // from the album on
    EXPECT_TRUE(isPlaylistPlaying());
    EXPECT_EQ(playlistNextTrack(), 1);
    EXPECT_EQ(playlistNextTrack(), 2);
    EXPECT_EQ(playlistNextTrack(), -1);
    EXPECT_EQ(playlistPrevTrack(), 1);
    // Removing a track ahead renumbers what is lined up.
    removeTrack(0);
    EXPECT_EQ(playlistNextTrack(), 1);  // the old track 2
    stopPlaylistPlayback();
    EXPECT_FALSE(isPlaylistPlaying());
    EXPECT_EQ(startPlaylistPlayback(newPlaylist("Empty"), 0, false), -1);
    EXPECT_FALSE(isPlaylistPlaying());
}

TEST_F(PlaylistsTest, DisplayOrderMasksAndShuffle) {
    addArtistToDb("The Zebras");
    addArtistToDb("abba");
    addArtistToDb("Beatles [R]");
    int r = addArtistToDb("Miles");
    for (const char* name : {"b side [J]", "A Side", "c side [R]"})
        addAlbumToDb(name, r);
    setSorted(1);
    setReversed(0);
    sortAlbumsAndArtists();
    EXPECT_EQ(artistsInDisplayOrder(), (std::vector<int>{1, 2, 3, 0}));
    EXPECT_EQ(albumsInDisplayOrder(), (std::vector<int>{1, 0, 2}));
    setReversed(1);
    sortAlbumsAndArtists();
    EXPECT_EQ(albumsInDisplayOrder(), (std::vector<int>{2, 0, 1}));
    setSorted(0);
    setReversed(0);
    sortAlbumsAndArtists();
    EXPECT_EQ(albumsInDisplayOrder(), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(lib().tagCount['J' - 'A'], 1);

    // Every album shows with the default masks; a narrowed orMask shows its
    // tags only, a notMask hides its tags.
    for (int a = 0; a < 3; a++)
        EXPECT_TRUE(albumVisible(a));
    lib().orMask = 1 << ('J' - 'A');
    EXPECT_TRUE(albumVisible(0));
    EXPECT_FALSE(albumVisible(1));
    lib().orMask = 0x3ffffff;
    lib().notMask = 1 << ('R' - 'A');
    EXPECT_FALSE(albumVisible(2));
    EXPECT_FALSE(artistVisible(2));
    EXPECT_TRUE(artistVisible(3));

    // Shuffle: every track once before any comes again.
    for (int i = 0; i < 20; i++)
        addTrackToDb(("t" + std::to_string(i) + ".mp3").c_str(), 0);
    rebuildShuffle();
    std::vector<int> seen(20, 0);
    int t = shuffleNext(-1);
    for (int i = 0; i < 20; i++) {
        seen[t]++;
        t = shuffleNext(t);
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), 20);
}

}  // namespace
