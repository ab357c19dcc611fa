#include "playback/smartbuffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// Slots numbered from `first`, so order and loss show in what comes out.
std::vector<uint32_t> numbered(uint32_t first, int n) {
    std::vector<uint32_t> v(n);
    for (int i = 0; i < n; i++)
        v[i] = first + i;
    return v;
}

TEST(SmartBuffer, BlockingProducerPrimesToThreeQuartersAndWrapsWithoutLoss) {
    auto b = createSmartBuffer(100);
    // One thread alone: silence (zeros) until 75 of 100 slots are held.
    b->putW(74, numbered(0, 74).data());
    std::vector<uint32_t> out(5, 0xdeadbeef);
    EXPECT_EQ(b->getS(5, out.data()), 0);
    EXPECT_EQ(out, std::vector<uint32_t>(5, 0));
    EXPECT_EQ(b->used(), 74);
    b->putW(1, numbered(74, 1).data());
    EXPECT_EQ(b->getS(5, out.data()), 1);
    EXPECT_EQ(out, numbered(0, 5));
    b->clear();

    // Two threads: the producer pushes 10,000 slots through the ring of 100
    // and blocks whenever it is full; only the consumer's signal wakes it.
    constexpr int kTotal = 10000;
    std::atomic<bool> done{false};
    std::thread producer([&] {
        for (int i = 0; i < kTotal; i += 10)
            b->putW(10, numbered(i, 10).data());
        done = true;
    });
    std::vector<uint32_t> got;
    while (static_cast<int>(got.size()) < kTotal) {
        uint32_t chunk[8];
        if (b->getS(8, chunk)) {
            got.insert(got.end(), chunk, chunk + 8);
            continue;
        }
        for (uint32_t s : chunk)
            ASSERT_EQ(s, 0u);
        // The tail never reaches three quarters again.
        if (done) got.insert(got.end(), chunk, chunk + b->getAvailable(8, chunk));
    }
    producer.join();
    // Whatever priming episodes the scheduling caused, nothing was lost,
    // duplicated or reordered, across a hundred wraps.
    for (size_t i = 0; i < got.size(); i++)
        ASSERT_EQ(got[i], i);
}

TEST(SmartBuffer, LiveGetIdlesAtOneAndOverrunLatchesUntilHalf) {
    auto b = createSmartBuffer(100);
    std::vector<uint16_t> words(20, 0);
    EXPECT_EQ(b->get(10, words.data()), 0);
    EXPECT_EQ(words, std::vector<uint16_t>(20, 1));
    EXPECT_EQ(tvUnderrun.load(), 1);
    EXPECT_EQ(tvSmbOut.load(), 10);

    // Live sources resume at half full.
    b->put(49, numbered(0, 49).data());
    EXPECT_EQ(b->get(10, words.data()), 0);
    b->put(1, numbered(49, 1).data());
    std::vector<uint32_t> slots(10);
    EXPECT_EQ(b->get(10, slots.data()), 1);
    EXPECT_EQ(slots, numbered(0, 10));
    EXPECT_EQ(tvOccupancy.load(), 50);

    // 40 held: exactly 60 more fit, 61 do not.
    b->put(60, numbered(50, 60).data());
    EXPECT_EQ(b->used(), 100);
    b->get(10, slots.data());
    b->put(11, numbered(110, 11).data());
    EXPECT_TRUE(b->overrunLatched());
    EXPECT_EQ(tvOverrun.load(), 1);
    // Latched: even one slot is dropped while there is room.
    b->put(1, numbered(999, 1).data());
    EXPECT_EQ(b->used(), 90);
    // A get that leaves 50 clears the latch; 51 would not.
    std::vector<uint32_t> many(40);
    b->get(39, many.data());
    EXPECT_TRUE(b->overrunLatched());
    b->get(1, many.data());
    EXPECT_FALSE(b->overrunLatched());
    b->put(1, numbered(500, 1).data());
    EXPECT_EQ(b->used(), 51);
    EXPECT_EQ(tvOverrun.load(), 1);

    // A new buffer resets the statistics.
    auto other = createSmartBuffer(10);
    EXPECT_EQ(tvOverrun.load(), 0);
    EXPECT_EQ(tvUnderrun.load(), 0);
}

TEST(SmartBuffer, ReleaseUnblocksOrPreemptsTheBlockingCalls) {
    auto b = createSmartBuffer(10);
    b->putW(8, numbered(0, 8).data());
    // A producer blocked on a full ring gives up when released.
    std::thread producer([&] { b->putW(5, numbered(8, 5).data()); });
    b->releasePendingPut();
    producer.join();
    EXPECT_EQ(b->used(), 8);

    // Released before anybody waits: the next put writes nothing, once.
    b->releasePendingPut();
    b->putW(1, numbered(100, 1).data());
    EXPECT_EQ(b->used(), 8);
    b->putW(1, numbered(8, 1).data());
    EXPECT_EQ(b->used(), 9);

    // The blocking get waits for its count and is released the same way.
    std::vector<uint32_t> out(10);
    std::thread consumer([&] { EXPECT_EQ(b->getW(10, out.data()), 1); });
    b->putW(1, numbered(9, 1).data());
    consumer.join();
    EXPECT_EQ(out, numbered(0, 10));
    std::thread waiting([&] { EXPECT_EQ(b->getW(3, out.data()), 0); });
    b->releasePendingPut();
    waiting.join();

    // clear() forgets a pending release.
    b->releasePendingPut();
    b->clear();
    b->putW(2, numbered(0, 2).data());
    EXPECT_EQ(b->used(), 2);
}

TEST(SmartBuffer, EmptyingRulesOfTheOtherGets) {
    auto b = createSmartBuffer(100);
    std::vector<uint32_t> out(20, 7);

    // Punch-through: the first underrun throws away the 10 left over.
    b->putW(80, numbered(0, 80).data());
    EXPECT_EQ(b->getS2(70, std::vector<uint32_t>(70).data()), 1);
    EXPECT_EQ(b->getS2(20, out.data()), 0);
    EXPECT_EQ(b->used(), 0);
    EXPECT_EQ(out, std::vector<uint32_t>(20, 0));
    // The blocking-producer get keeps them instead.
    b->clear();
    b->putW(80, numbered(0, 80).data());
    b->getS(70, std::vector<uint32_t>(70).data());
    EXPECT_EQ(b->getS(20, out.data()), 0);
    EXPECT_EQ(b->used(), 10);

    // Web audio: asking too much empties the ring and leaves dst alone.
    b->clear();
    b->dumbPut(10, numbered(0, 10).data());
    out.assign(20, 7);
    EXPECT_EQ(b->dumbGet(20, out.data()), 0);
    EXPECT_EQ(b->used(), 0);
    EXPECT_EQ(out, std::vector<uint32_t>(20, 7));

    // The no-fail put takes what fits; the available gets take what is there.
    b->putNF(95, numbered(0, 95).data());
    EXPECT_EQ(b->putNF(10, numbered(95, 10).data()), 5);
    EXPECT_EQ(b->getAvailable2(20, out.data()), 20);
    b->getAvailable(70, std::vector<uint32_t>(70).data());
    EXPECT_EQ(b->getAvailable2(20, out.data()), 0);
    EXPECT_EQ(b->getAvailable(20, out.data()), 10);
    EXPECT_EQ(std::vector<uint32_t>(out.begin(), out.begin() + 10), numbered(90, 10));
}

}  // namespace
