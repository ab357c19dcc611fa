#include "library/edit.h"

#include <gtest/gtest.h>

#include "library/ids.h"
#include "library/library.h"
#include "library/scan.h"
#include "tests/unit/libfixture.h"

namespace {

class EditTest : public LibraryFixture {
  protected:
    int album(const char* artist, const char* name) {
        int r = addArtistToDb(artist);
        int a = addAlbumToDb(name, r);
        touch(std::string(artist) + "/" + name + "/01 One.mp3");
        addTrackToDb("01 One.mp3", a);
        return a;
    }
};

// An artist left without albums, by a move or a delete, leaves the lists
// and its empty folder; one that keeps another album stays.
TEST_F(EditTest, AnArtistWithoutAlbumsDisappears) {
    album("Old Name", "Only");
    album("Keeps", "First");
    album("Keeps", "Second");
    album("Gone", "Last");
    ASSERT_TRUE(moveAlbumToArtist(findAlbumByNameAndArtist("Only", findArtistByName("Old Name")),
                                  "New Name"));
    EXPECT_LT(findArtistByName("Old Name"), 0);
    EXPECT_FALSE(exists("Old Name"));
    EXPECT_TRUE(exists("New Name/Only/01 One.mp3"));
    int only = findAlbumByNameAndArtist("Only", findArtistByName("New Name"));
    ASSERT_GE(only, 0);
    EXPECT_STREQ(getArtistName(getAlbumArtist(only)), "New Name");

    ASSERT_TRUE(moveAlbumToArtist(findAlbumByNameAndArtist("First", findArtistByName("Keeps")),
                                  "New Name"));
    EXPECT_GE(findArtistByName("Keeps"), 0);

    // A picture of the user's keeps the folder, but not the artist's entry.
    touch("Gone/artist.jpg");
    ASSERT_TRUE(deleteID(albumToID(findAlbumByNameAndArtist("Last", findArtistByName("Gone")))));
    EXPECT_LT(findArtistByName("Gone"), 0);
    EXPECT_TRUE(exists("Gone/artist.jpg"));
    for (int a = 0; a < getAlbumCount(); a++) {
        ASSERT_GE(getAlbumArtist(a), 0);
        ASSERT_LT(getAlbumArtist(a), getArtistCount());
    }
    EXPECT_EQ(getArtistCount(), 2);
    EXPECT_EQ(getAlbumCount(), 3);
}

}  // namespace
