#include "library/database.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "library/library.h"
#include "tests/unit/libfixture.h"

namespace {

class DatabaseTest : public LibraryFixture {
  protected:
    std::string dbText() {
        std::ifstream f(root + "/kzdb", std::ios::binary);
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }
    void writeDbText(const std::string& text) {
        std::ofstream(root + "/kzdb", std::ios::binary) << text;
    }
};

TEST_F(DatabaseTest, EmptyLibraryWritesTwoLines) {
    ASSERT_EQ(writeDB(), 1);
    EXPECT_EQ(dbText(), "Version 3\n0 Albums 0 mirror\n");
    EXPECT_FALSE(isDirty());
}

TEST_F(DatabaseTest, RoundTripKeepsAlbumsTracksAndOrder) {
    int r1 = addArtistToDb("Various");
    int r2 = addArtistToDb("Nina Simone");
    int a1 = addAlbumToDb("Live/Part 2", r1);
    int a2 = addAlbumToDb("Pastel Blues", r2);
    // Tracks of two albums interleaved: each block lists its own in order.
    addTrackToDb("01 One.flac", a1);
    addTrackToDb("01 Be My Husband.wav", a2);
    addTrackToDb("02 Two.flac", a1);
    addAlbumToDb("Empty Album", r2);
    lib().mirrorCount = 4;
    ASSERT_EQ(writeDB(), 1);
    const std::string expected =
        "Version 3\n3 Albums 4 mirror\n"
        "Various/Live/Part 2\n2 tracks\n01 One.flac\n02 Two.flac\n"
        "Nina Simone/Pastel Blues\n1 tracks\n01 Be My Husband.wav\n"
        "Nina Simone/Empty Album\n0 tracks\n";
    EXPECT_EQ(dbText(), expected);

    clearDB();
    dirty();
    ASSERT_EQ(readDB(), 1);
    EXPECT_FALSE(isDirty());
    EXPECT_EQ(getAlbumCount(), 3);
    EXPECT_EQ(getArtistCount(), 2);
    EXPECT_EQ(getTrackCount(), 3);
    EXPECT_EQ(lib().mirrorCount, 4);
    EXPECT_STREQ(getArtistName(getAlbumArtist(0)), "Various");
    EXPECT_STREQ(getAlbumName(0), "Live/Part 2");
    // Written again, the file is the same byte for byte.
    ASSERT_EQ(writeDB(), 1);
    EXPECT_EQ(dbText(), expected);
}

TEST_F(DatabaseTest, DamagedFilesLoadWhatTheyCan) {
    // No slash: "unknown" artist. Shared artists. Any version number.
    writeDbText(
        "Version 7\n3 Albums 1 mirror\nLoose Album\n1 tracks\na.mp3\n"
        "Bach/Mass\n1 tracks\nb.flac\nbach/Suites\n1 tracks\nc.flac\n");
    ASSERT_EQ(readDB(), 1);
    EXPECT_EQ(getAlbumCount(), 3);
    EXPECT_EQ(getArtistCount(), 2);
    EXPECT_STREQ(getArtistName(getAlbumArtist(0)), "unknown");
    EXPECT_STREQ(getAlbumName(0), "Loose Album");
    EXPECT_EQ(getAlbumArtist(1), getAlbumArtist(2));

    // No version: nothing is touched, yet the file counts as read.
    writeDbText("Garbage\n1 Albums 0 mirror\nA/B\n1 tracks\nx.mp3\n");
    ASSERT_EQ(readDB(), 1);
    EXPECT_EQ(getAlbumCount(), 3);

    // No album count: an empty library.
    writeDbText("Version 3\nlots of Albums\n");
    ASSERT_EQ(readDB(), 1);
    EXPECT_EQ(getAlbumCount(), 0);

    // A missing track count stops at that album; what came before stays.
    writeDbText("Version 3\n3 Albums 0 mirror\nA/One\n1 tracks\nx.mp3\nA/Two\nmany tracks\n");
    ASSERT_EQ(readDB(), 1);
    EXPECT_EQ(getAlbumCount(), 1);
    EXPECT_EQ(getTrackCount(), 1);

    // Over-long lines are cut to 249 bytes; a truncated file ends the read.
    std::string longName(300, 'n');
    writeDbText("Version 3\n5 Albums 0 mirror\nA/Long\n3 tracks\n" + longName + "\nshort.mp3");
    ASSERT_EQ(readDB(), 1);
    EXPECT_EQ(getTrackCount(), 2);
    EXPECT_EQ(std::string(getTrackName(0)), longName.substr(0, 249));
    EXPECT_STREQ(getTrackName(1), "short.mp3");

    // A count beyond the table's capacity stops at 170000 tracks.
    std::string big = "Version 3\n1 Albums 0 mirror\nA/Big\n200000 tracks\n";
    for (int i = 0; i < 200000; i++)
        big += std::to_string(i) + ".mp3\n";
    writeDbText(big);
    ASSERT_EQ(readDB(), 1);
    EXPECT_EQ(getTrackCount(), Library::kMaxTracks);

    // Binary junk and a missing file never crash.
    std::mt19937 rng(7);
    std::string junk;
    for (int i = 0; i < 100000; i++)
        junk += static_cast<char>(rng());
    writeDbText("Version 3\n9 Albums\n" + junk);
    EXPECT_EQ(readDB(), 1);
    std::filesystem::remove(root + "/kzdb");
    EXPECT_EQ(readDB(), 0);
}

TEST_F(DatabaseTest, UnwritableFileKeepsTheChangeFlag) {
    addArtistToDb("A");
    std::filesystem::create_directories(root + "/kzdb.new/blocker");
    EXPECT_EQ(writeDB(), 0);
    EXPECT_TRUE(isDirty());
    std::filesystem::remove_all(root + "/kzdb.new");
    EXPECT_EQ(writeDB(), 1);
    EXPECT_FALSE(isDirty());
}

// A power cut in the middle of a save leaves the old file or the new one.
TEST_F(DatabaseTest, KilledWriterLeavesAWholeFile) {
    auto fill = [](char tag) {
        clearDB();
        for (int a = 0; a < 3000; a++) {
            int r =
                addArtistToDb((std::string(1, tag) + " artist " + std::to_string(a % 500)).c_str());
            int al = addAlbumToDb((std::string(1, tag) + " album " + std::to_string(a)).c_str(), r);
            for (int t = 0; t < 12; t++) {
                addTrackToDb((std::to_string(t) + " " + tag + " song title here.flac").c_str(), al);
            }
        }
    };
    std::string versions[2];
    for (int v = 0; v < 2; v++) {
        fill("AB"[v]);
        ASSERT_EQ(writeDB(), 1);
        versions[v] = dbText();
    }
    std::mt19937 rng(11);
    for (int round = 0; round < 12; round++) {
        fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            freopen("/dev/null", "w", stdout);
            for (int i = 0;; i++) {
                fill("AB"[i % 2]);
                writeDB();
            }
        }
        usleep(2000 + rng() % 40000);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        std::string now = dbText();
        ASSERT_TRUE(now == versions[0] || now == versions[1]) << "round " << round;
        clearDB();
        ASSERT_EQ(readDB(), 1);
        ASSERT_EQ(getAlbumCount(), 3000);
        ASSERT_EQ(getTrackCount(), 36000);
    }
}

}  // namespace

namespace {

using DatabaseSaveTest = DatabaseTest;

// Saves from the background saver, the web thread and quit overlap: each must
// succeed and leave a whole file, whatever the others are doing.
TEST_F(DatabaseSaveTest, OverlappingSavesAllSucceed) {
    for (int a = 0; a < 300; a++) {
        int r = addArtistToDb(("artist " + std::to_string(a % 40)).c_str());
        int al = addAlbumToDb(("album " + std::to_string(a)).c_str(), r);
        for (int t = 0; t < 10; t++)
            addTrackToDb((std::to_string(t) + " song.flac").c_str(), al);
    }
    ASSERT_EQ(writeDB(), 1);
    const std::string whole = dbText();
    std::atomic<int> failures{0};
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; w++) {
        writers.emplace_back([&failures] {
            for (int i = 0; i < 25; i++) {
                if (writeDB() != 1) failures++;
                dirty();
            }
        });
    }
    for (auto& t : writers)
        t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(dbText(), whole);
    EXPECT_FALSE(std::filesystem::exists(root + "/kzdb.new"));
}

// While the tables are being rebuilt they hold part of the library: no save
// may replace the whole kzdb with that part.
TEST_F(DatabaseSaveTest, NoSaveWhileTheLibraryIsRebuilt) {
    int r = addArtistToDb("A");
    addTrackToDb("01 x.mp3", addAlbumToDb("B", r));
    ASSERT_EQ(writeDB(), 1);
    const std::string before = dbText();
    beginLibraryRebuild();
    clearDB();
    addArtistToDb("Only part");
    EXPECT_EQ(writeDB(), 0);
    saveDBifChanged();
    EXPECT_EQ(dbText(), before);
    EXPECT_TRUE(isDirty());
    endLibraryRebuild();
    EXPECT_EQ(writeDB(), 1);
    EXPECT_NE(dbText(), before);
}

// A kzdb whose names overflow a heap: the loader stops without holding the
// library lock (renames and quit go on) and the file is left whole.
TEST_F(DatabaseSaveTest, HeapThatFillsWhileLoadingLeavesTheLockAndTheFile) {
    std::string text = "Version 3\n1500 Albums 0 mirror\n";
    for (int a = 0; a < 1500; a++) {
        text += std::to_string(a) + std::string(200, 'x') + "/Album\n1 tracks\n01 t.mp3\n";
    }
    writeDbText(text);
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        freopen("/dev/null", "w", stdout);
        startLoadOrScan();
        // The loader parks once the heap is full; the lock must be free.
        for (int i = 0; i < 500 && !heapFullCode(); i++)
            usleep(10000);
        if (heapFullCode() != 3) _exit(2);
        bool locked = false;
        for (int i = 0; i < 200 && !locked; i++) {
            locked = lib().dbMutex.try_lock();
            if (!locked) usleep(10000);
        }
        if (!locked) _exit(3);
        lib().dbMutex.unlock();
        dirty();
        if (writeDB() != 0) _exit(4);
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(dbText(), text);
}

}  // namespace
