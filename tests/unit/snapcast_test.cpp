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

using namespace std::chrono_literals;

constexpr int kSamples = 1024 * 2;

// A period of 32-bit stereo whose every sample is its number: a period cut
// or shifted anywhere shows when the stream is read back.
std::vector<uint8_t> period(int32_t number) {
    std::vector<int32_t> samples(kSamples, number);
    std::vector<uint8_t> bytes(samples.size() * 4);
    memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}

std::string contents(const std::string& path) {
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

class SnapcastTest : public LibraryFixture {
  protected:
    void TearDown() override {
        setSnapcastMode("off");
        LibraryFixture::TearDown();
    }
    void write(SnapcastFeed& feed, int32_t number, bool idle = false) {
        auto p = period(number);
        feed.write(p.data(), p.size(), idle, true);
    }
    std::vector<int32_t> readAll(int fd) {
        std::vector<int32_t> out;
        int32_t chunk[1024];
        ssize_t n;
        while ((n = read(fd, chunk, sizeof chunk)) > 0)
            out.insert(out.end(), chunk, chunk + n / 4);
        return out;
    }
};

TEST_F(SnapcastTest, ServerGetsWholePeriodsInOrderAndNeverHoldsThePlayerUp) {
    signal(SIGPIPE, SIG_IGN);  // as in the daemon
    const std::string fifo = root + "/snapfifo";
    SnapcastFeed feed(fifo, 20ms);
    feed.setMode(SnapcastMode::Also);
    write(feed, 0);
    struct stat st;
    ASSERT_EQ(stat(fifo.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(feed.state(), "waiting for the Snapcast server at " + fifo);

    // snapserver's way of reading: without blocking, before any writer.
    int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    for (int i = 0; i < 200 && feed.state() == "waiting for the Snapcast server at " + fifo; i++) {
        std::this_thread::sleep_for(5ms);
        write(feed, 0, true);
    }
    EXPECT_EQ(feed.state(), "playing into " + fifo + " (96000:32:2)");

    // Idle periods are not sent. More than the pipe holds, read in odd
    // amounts, leaves room for parts of periods: whatever is dropped, what
    // arrives is whole periods in order.
    int32_t number = 1;
    std::vector<int32_t> heard;
    for (int round = 0; round < 6; round++) {
        for (int i = 0; i < 12; i++)
            write(feed, number++, i == 3);
        int32_t some[600];
        ssize_t n = read(reader, some, sizeof some - round * 332);
        ASSERT_GT(n, 0);
        heard.insert(heard.end(), some, some + n / 4);
    }
    EXPECT_GT(feed.dropped(), 0);
    for (int i = 0; i < 3; i++) {
        write(feed, number++);
        auto rest = readAll(reader);
        heard.insert(heard.end(), rest.begin(), rest.end());
    }
    ASSERT_EQ(heard.size() % kSamples, 0u);
    for (size_t at = 0; at < heard.size(); at += kSamples) {
        for (size_t i = at; i < at + kSamples; i++)
            ASSERT_EQ(heard[i], heard[at]) << i;
        EXPECT_NE(heard[at] % 12, 4) << "an idle period was sent";
        if (at) {
            EXPECT_GT(heard[at], heard[at - kSamples]);
        }
    }
    EXPECT_EQ(heard.back(), number - 1);

    // The server goes (EPIPE), the feed waits again; off lets the fifo go.
    close(reader);
    write(feed, number);
    EXPECT_EQ(feed.state(), "waiting for the Snapcast server at " + fifo);
    feed.setMode(SnapcastMode::Off);
    write(feed, number);
    EXPECT_EQ(feed.state(), "off");
}

TEST_F(SnapcastTest, OtherFilesAreLeftAloneAndTheModeIsKept) {
    const std::string file = root + "/not-a-fifo";
    std::ofstream(file) << "someone's";
    SnapcastFeed feed(file, 20ms);
    feed.setMode(SnapcastMode::Only);
    write(feed, 1);
    EXPECT_EQ(feed.state(), file + " is not a fifo");
    EXPECT_EQ(contents(file), "someone's");

    EXPECT_FALSE(setSnapcastMode("loud"));
    EXPECT_FALSE(setSnapcastMode(nullptr));
    EXPECT_STREQ(snapcastModeName(), "off");
    EXPECT_TRUE(setSnapcastMode("only"));
    EXPECT_TRUE(snapcastOnly());
    EXPECT_EQ(contents(root + "/kzsnapcast"), "snapcast only\n");
    std::ofstream(root + "/kzsnapcast") << "also\n";
    loadSnapcastMode();
    EXPECT_STREQ(snapcastModeName(), "also");
    // A damaged file changes nothing.
    std::ofstream(root + "/kzsnapcast") << "snapcast loudly\n";
    loadSnapcastMode();
    EXPECT_STREQ(snapcastModeName(), "also");
}

}  // namespace
