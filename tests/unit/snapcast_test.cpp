#include "playback/snapcast.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "libfixture.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int kFrames = 1024;

// A period of 32-bit stereo whose every sample is its number: a period cut
// or shifted anywhere shows when the stream is read back.
std::vector<uint8_t> highPeriod(int32_t number) {
    std::vector<int32_t> samples(kFrames * 2, number);
    std::vector<uint8_t> bytes(samples.size() * 4);
    memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}

class SnapcastTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // As in the daemon: a server that leaves is EPIPE, not a signal.
        signal(SIGPIPE, SIG_IGN);
        dir = fs::temp_directory_path() / ("kz-snapcast-" + std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir);
        fifo = (dir / "snapfifo").string();
    }
    void TearDown() override {
        if (reader >= 0) close(reader);
        fs::remove_all(dir);
    }
    // Feeds periods until the feed is playing into the fifo (a reader must
    // be open) or a second has passed.
    bool connect(SnapcastFeed& feed, bool high = true) {
        auto p = highPeriod(0);
        for (int i = 0; i < 200; i++) {
            if (feed.state().rfind("playing", 0) == 0) return true;
            feed.write(p.data(), 0, false, high);
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }
    std::vector<uint8_t> readAll() {
        std::vector<uint8_t> out;
        uint8_t chunk[4096];
        ssize_t n;
        while ((n = read(reader, chunk, sizeof chunk)) > 0)
            out.insert(out.end(), chunk, chunk + n);
        return out;
    }

    fs::path dir;
    std::string fifo;
    int reader = -1;
};

TEST_F(SnapcastTest, MakesTheFifoWaitsForAReaderAndSendsMusicButNotIdle) {
    SnapcastFeed feed(fifo, 50ms);
    EXPECT_EQ(feed.state(), "off");
    auto music = highPeriod(7);
    feed.write(music.data(), music.size(), false, true);
    EXPECT_FALSE(fs::exists(fifo)) << "off touches nothing";

    feed.setMode(SnapcastMode::Also);
    feed.write(music.data(), music.size(), false, true);
    struct stat st;
    ASSERT_EQ(stat(fifo.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(feed.state(), "waiting for the Snapcast server at " + fifo);

    // The server's way of reading: without blocking, and no writer yet.
    reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    ASSERT_TRUE(connect(feed));
    EXPECT_EQ(feed.state(), "playing into " + fifo + " (96000:32:2)");
    auto idle = highPeriod(1);
    feed.write(music.data(), music.size(), false, true);
    feed.write(idle.data(), idle.size(), true, true);
    auto more = highPeriod(8);
    feed.write(more.data(), more.size(), false, true);
    auto heard = readAll();
    std::vector<uint8_t> expected = music;
    expected.insert(expected.end(), more.begin(), more.end());
    EXPECT_EQ(heard, expected);

    // The server goes: EPIPE, back to waiting, and playing again once a
    // server reads after the retry time.
    close(reader);
    reader = -1;
    feed.write(music.data(), music.size(), false, true);
    EXPECT_EQ(feed.state(), "waiting for the Snapcast server at " + fifo);
    reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_TRUE(connect(feed));
    feed.write(more.data(), more.size(), false, true);
    EXPECT_EQ(readAll(), more);

    // Off lets the fifo go: the server reads end of file.
    feed.setMode(SnapcastMode::Off);
    feed.write(music.data(), music.size(), false, true);
    EXPECT_EQ(feed.state(), "off");
    uint8_t byte;
    EXPECT_EQ(read(reader, &byte, 1), 0);
}

TEST_F(SnapcastTest, AFullFifoDropsWholePeriodsAndKeepsEveryFrameInPlace) {
    SnapcastFeed feed(fifo, 50ms);
    feed.setMode(SnapcastMode::Only);
    mkfifo(fifo.c_str(), 0600);
    reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_TRUE(connect(feed));

    // A reader that takes odd amounts leaves room for part of a period.
    int32_t number = 1;
    for (int round = 0; round < 6; round++) {
        for (int i = 0; i < 12; i++, number++) {
            auto p = highPeriod(number);
            feed.write(p.data(), p.size(), false, true);
        }
        uint8_t some[1000 + 332 * 4];
        ASSERT_GT(read(reader, some, sizeof some - round * 332), 0);
    }
    EXPECT_GT(feed.dropped(), 0);
    // What is read back from here on, once a partial period's tail has gone
    // in, must be whole periods in order.
    std::vector<uint8_t> stream = readAll();
    for (int i = 0; i < 3; i++, number++) {
        auto p = highPeriod(number);
        feed.write(p.data(), p.size(), false, true);
        auto rest = readAll();
        stream.insert(stream.end(), rest.begin(), rest.end());
    }
    // Skip to the first period boundary: a sample's change of value.
    std::vector<int32_t> samples(stream.size() / 4);
    memcpy(samples.data(), stream.data(), samples.size() * 4);
    size_t start = 0;
    while (start < samples.size() && samples[start] == samples[0])
        start++;
    ASSERT_LT(start, samples.size());
    ASSERT_EQ((samples.size() - start) % (kFrames * 2), 0u);
    int32_t last = samples[0];
    for (size_t at = start; at < samples.size(); at += kFrames * 2) {
        for (size_t i = at; i < at + kFrames * 2; i++)
            ASSERT_EQ(samples[i], samples[at]) << i;
        EXPECT_GT(samples[at], last);
        last = samples[at];
    }
    EXPECT_EQ(last, number - 1);
}

TEST_F(SnapcastTest, SomeoneElsesFileIsLeftAlone) {
    { std::ofstream(fifo) << "not a fifo"; }
    SnapcastFeed feed(fifo, 50ms);
    feed.setMode(SnapcastMode::Also);
    auto p = highPeriod(3);
    for (int i = 0; i < 5; i++) {
        feed.write(p.data(), p.size(), false, false);
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(feed.state(), fifo + " is not a fifo");
    std::stringstream kept;
    kept << std::ifstream(fifo).rdbuf();
    EXPECT_EQ(kept.str(), "not a fifo");

    // A folder that is not there: said so, and tried again later.
    SnapcastFeed nowhere((dir / "gone" / "snapfifo").string(), 50ms);
    nowhere.setMode(SnapcastMode::Also);
    nowhere.write(p.data(), p.size(), false, false);
    EXPECT_EQ(nowhere.state().rfind("cannot make ", 0), 0u) << nowhere.state();
}

TEST_F(SnapcastTest, AWaitingOpenerFollowsAFifoMadeAgain) {
    SnapcastFeed feed(fifo, 20ms);
    feed.setMode(SnapcastMode::Also);
    auto p = highPeriod(5);
    feed.write(p.data(), p.size(), false, false);
    ASSERT_EQ(feed.state(), "waiting for the Snapcast server at " + fifo);
    // The fifo is removed and made again while the opener waits on the old
    // one: a server reading the new one must still be fed.
    fs::remove(fifo);
    mkfifo(fifo.c_str(), 0600);
    reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_TRUE(connect(feed, false));
    feed.write(p.data(), p.size(), false, false);
    EXPECT_EQ(readAll().size(), p.size());
    EXPECT_EQ(feed.state(), "playing into " + fifo + " (44100:16:2)");
}

class SnapcastSettingTest : public LibraryFixture {
  protected:
    void TearDown() override {
        setSnapcastMode("off");
        LibraryFixture::TearDown();
    }
    std::string saved() {
        std::stringstream s;
        s << std::ifstream(root + "/kzsnapcast").rdbuf();
        return s.str();
    }
};

TEST_F(SnapcastSettingTest, KeptBesideTheDatabaseAndReadAtStart) {
    EXPECT_STREQ(snapcastModeName(), "off");
    EXPECT_FALSE(setSnapcastMode("loud"));
    EXPECT_FALSE(setSnapcastMode(nullptr));
    EXPECT_FALSE(fs::exists(root + "/kzsnapcast"));
    EXPECT_TRUE(setSnapcastMode("only"));
    EXPECT_STREQ(snapcastModeName(), "only");
    EXPECT_TRUE(snapcastOnly());
    EXPECT_EQ(saved(), "snapcast only\n");
    EXPECT_TRUE(setSnapcastMode("also"));
    EXPECT_EQ(saved(), "snapcast also\n");
    EXPECT_FALSE(snapcastOnly());

    std::ofstream(root + "/kzsnapcast") << "only\n";
    loadSnapcastMode();
    EXPECT_STREQ(snapcastModeName(), "only");
    // A damaged file changes nothing.
    std::ofstream(root + "/kzsnapcast") << "snapcast loudly\n";
    loadSnapcastMode();
    EXPECT_STREQ(snapcastModeName(), "only");
}

}  // namespace
