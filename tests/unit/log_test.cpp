#include "core/log.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

std::string line(WebDebugRing& ring) {
    char out[WebDebugRing::kLineMax + 1];
    int n = ring.getLine(out);
    EXPECT_EQ(static_cast<size_t>(n), strlen(out));
    return std::string(out, n);
}

TEST(WebDebugRing, LinesComeBackInPiecesOf199) {
    WebDebugRing ring;
    ring.put("first\nsecond\n");
    EXPECT_EQ(line(ring), "first");
    EXPECT_EQ(line(ring), "second");
    EXPECT_EQ(ring.length(), 0u);
    EXPECT_EQ(line(ring), "");

    std::string exact(199, 'a');
    ring.put(exact + "\n");
    EXPECT_EQ(line(ring), exact);
    // The line feed stays behind as an empty line.
    EXPECT_EQ(line(ring), "");

    std::string longer(450, 'b');
    ring.put(longer + "\n");
    EXPECT_EQ(line(ring), std::string(199, 'b'));
    EXPECT_EQ(line(ring), std::string(199, 'b'));
    EXPECT_EQ(line(ring), std::string(52, 'b'));
    EXPECT_EQ(ring.length(), 0u);
}

TEST(WebDebugRing, FullRingDropsWholeOldestLinesAndWraps) {
    WebDebugRing ring;
    // 1000 lines of 100 bytes fill the ring exactly.
    for (int i = 0; i < 1000; i++) {
        char text[101];
        snprintf(text, sizeof text, "%05d%094d\n", i, 0);
        ring.put(text);
    }
    EXPECT_EQ(ring.length(), WebDebugRing::kSize);
    ring.put("one more line\n");
    // Exactly one old line made room; the next one is whole.
    EXPECT_EQ(ring.length(), WebDebugRing::kSize - 100 + 14);
    EXPECT_EQ(line(ring).substr(0, 5), "00001");
    for (int i = 2; i < 1000; i++)
        ASSERT_EQ(line(ring).substr(0, 5), std::to_string(100000 + i).substr(1));
    EXPECT_EQ(line(ring), "one more line");
    EXPECT_EQ(ring.length(), 0u);
}

TEST(WebDebugRing, ConcurrentWritersNeverOverrunIt) {
    WebDebugRing ring;
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; t++) {
        writers.emplace_back([&ring, t] {
            std::string text(60 + t, static_cast<char>('a' + t));
            text += "\n";
            for (int i = 0; i < 20000; i++)
                ring.put(text);
        });
    }
    std::thread reader([&ring] {
        char out[WebDebugRing::kLineMax + 1];
        for (int i = 0; i < 50000; i++)
            ring.getLine(out);
    });
    for (auto& w : writers)
        w.join();
    reader.join();
    EXPECT_LE(ring.length(), WebDebugRing::kSize);
    // Whatever is left is made of whole lines of one writer each.
    while (ring.length() > 0) {
        std::string l = line(ring);
        ASSERT_FALSE(l.empty());
        ASSERT_EQ(l.size(), 60u + (l[0] - 'a'));
        ASSERT_EQ(l.find_first_not_of(l[0]), std::string::npos);
    }
}

TEST(KzLog, CutsTheRingCopyTo199Bytes) {
    initWebDebug();
    kzLog("hello %d\n", 42);
    std::string longText(300, 'x');
    kzLog("%s\n", longText.c_str());
    verbose = 0;
    kzInfo("quiet\n");
    verbose = 1;
    kzInfo("loud\n");
    verbose = 0;
    char out[WebDebugRing::kLineMax + 1];
    getWebDebugLine(out);
    EXPECT_STREQ(out, "hello 42");
    // The cut text lost its line feed, so the next line runs on.
    EXPECT_EQ(getWebDebugLine(out), 199);
    EXPECT_EQ(std::string(out), std::string(199, 'x'));
    getWebDebugLine(out);
    EXPECT_STREQ(out, "loud");
    EXPECT_EQ(webDebugRing().length(), 0u);
}

}  // namespace
