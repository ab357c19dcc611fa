#include "playback/fifo.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <vector>

namespace {

// Fills the ring the way the decoder drain does: in place, run by run.
int fillInPlace(Fifo& f, const uint8_t* src, int n) {
    int done = 0;
    while (done < n) {
        uint8_t* at;
        int run = std::min(fifoContiguous(f, &at), n - done);
        if (run == 0) break;
        memcpy(at, src + done, run);
        fifoAdd(f, run);
        done += run;
    }
    return done;
}

TEST(Fifo, FillsInPlaceAndWrapsWithoutGapOrLoss) {
    Fifo f(10);
    std::vector<uint8_t> data(40);
    std::iota(data.begin(), data.end(), 0);

    EXPECT_EQ(fillInPlace(f, data.data(), 7), 7);
    std::vector<uint8_t> out(10);
    fifoGet(f, 5, out.data());
    // Write position 7, 2 held: the free run stops at the end of storage.
    uint8_t* at;
    EXPECT_EQ(fifoContiguous(f, &at), 3);
    EXPECT_EQ(fillInPlace(f, data.data() + 7, 8), 8);
    EXPECT_EQ(fifoUsed(f), 10);
    EXPECT_EQ(fifoSpace(f), 0);
    EXPECT_EQ(fifoContiguous(f, &at), 0);
    // The read crosses the end as well.
    fifoGet(f, 10, out.data());
    EXPECT_EQ(out, std::vector<uint8_t>(data.begin() + 5, data.begin() + 15));
    EXPECT_EQ(fifoUsed(f), 0);

    clearFifo(f);
    EXPECT_EQ(fifoContiguous(f, &at), 10);
    EXPECT_DOUBLE_EQ((fillInPlace(f, data.data(), 4), f.percentage()), 40.0);
}

}  // namespace
