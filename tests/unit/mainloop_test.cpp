#include "core/mainloop.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/appliance.h"
#include "core/events.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/shutdown.h"
#include "core/ui.h"

namespace {

namespace fs = std::filesystem;

class MainLoopTest : public ::testing::Test {
  protected:
    void SetUp() override {
        root = fs::temp_directory_path() / ("kz-mainloop-" + std::to_string(getpid()));
        fs::create_directories(root / "dev");
        setHostRoot(root.string());
        loop.reset();
        gotoState(0);
        uiQInit();
        initWebDebug();
    }
    void TearDown() override {
        setHostRoot("");
        fs::remove_all(root);
    }

    // Codes the loop posted to itself, taken off the queue.
    std::vector<int> posted() {
        std::vector<int> codes;
        while (uiQ().length() > 0)
            codes.push_back(uiQ().waitEvent());
        return codes;
    }

    std::vector<std::string> logLines() {
        std::vector<std::string> lines;
        char out[WebDebugRing::kLineMax + 1];
        while (webDebugRing().length() > 0) {
            getWebDebugLine(out);
            lines.emplace_back(out);
        }
        return lines;
    }

    void ticks(int n) {
        for (int i = 0; i < n; i++) {
            loop.pass(EVENT_TICK);
            posted();
        }
    }

    fs::path root;
    MainLoop loop;
};

TEST_F(MainLoopTest, IdleTicksDimThenGoToStandbyAndUseWakesIt) {
    ticks(119);
    EXPECT_EQ(loop.kTubeDimTimer, 119);
    ticks(1);
    EXPECT_EQ(loop.kTubeDimTimer, 120);
    ticks(5);
    EXPECT_EQ(loop.kTubeDimTimer, 120);
    EXPECT_EQ(loop.detailsTimer, 20);

    ticks(300 - 125);
    EXPECT_FALSE(isStandby());
    ticks(1);
    EXPECT_TRUE(isStandby());
    // In standby the timer no longer counts.
    ticks(10);
    EXPECT_EQ(loop.standbyTimer, 301);

    // Events that are not use (redraws, track ends) keep it asleep.
    loop.pass(EVENT_REFRESH);
    loop.pass(74);
    EXPECT_TRUE(isStandby());
    loop.pass(EVENT_OK);
    EXPECT_FALSE(isStandby());
    EXPECT_EQ(loop.standbyTimer, 0);
    EXPECT_EQ(loop.kTubeDimTimer, 0);
    EXPECT_EQ(loop.detailsTimer, 0);

    // keepAwake (long work on another thread) holds standby off.
    mainLoop().standbyTimer = 250;
    keepAwake();
    EXPECT_EQ(mainLoop().standbyTimer, 0);
}

TEST_F(MainLoopTest, NetworkChecksAtOnceThenEveryTenTicksOrEveryTickInABurst) {
    std::vector<int> at;
    for (int t = 0; t < 25; t++) {
        loop.pass(EVENT_TICK);
        for (int code : posted())
            if (code == EVENT_IP_CHECK) at.push_back(t);
    }
    EXPECT_EQ(at, (std::vector<int>{0, 10, 20}));

    // A burst: one check on every one of the next 60 ticks, then back to ten.
    loop.IPAddressCheckBurstCount = MainLoop::kIPBurstTicks;
    int checks = 0;
    for (int t = 0; t < 60; t++) {
        loop.pass(EVENT_TICK);
        auto codes = posted();
        ASSERT_EQ(codes, std::vector<int>{EVENT_IP_CHECK}) << t;
        checks++;
    }
    EXPECT_EQ(checks, 60);
    for (int t = 0; t < 4; t++) {
        loop.pass(EVENT_TICK);
        EXPECT_TRUE(posted().empty());
    }
    // Events other than ticks never post checks.
    loop.pass(EVENT_OK);
    EXPECT_TRUE(posted().empty());
}

TEST_F(MainLoopTest, CdDriveComingAndGoingIsNoticedOnTicks) {
    ticks(1);
    EXPECT_EQ(loop.cdpresent, 0);
    std::ofstream(root / "dev" / "sr0") << "";
    loop.pass(EVENT_OK);  // only ticks look at the drive
    EXPECT_EQ(loop.cdpresent, 0);
    ticks(1);
    EXPECT_EQ(loop.cdpresent, 1);
    // The drive reports its status; the change from the start value is logged
    // and an empty drive makes the next disc a new one.
    auto lines = logLines();
    EXPECT_NE(std::find(lines.begin(), lines.end(), "CD Attached"), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "CD state changed 1"), lines.end());
    EXPECT_EQ(loop.cdState, 1);
    EXPECT_EQ(loop.discInserted, 0);
    EXPECT_EQ(loop.newDisc, 1);
    ticks(3);
    EXPECT_TRUE(logLines().empty());  // no change, nothing said

    fs::remove(root / "dev" / "sr0");
    ticks(1);
    EXPECT_EQ(loop.cdpresent, 0);
    lines = logLines();
    EXPECT_NE(std::find(lines.begin(), lines.end(), "CD Detached"), lines.end());
}

TEST_F(MainLoopTest, AllStopHaltsWorkButNotTheProcess) {
    allStop();
    auto lines = logLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), "allStop ()");
    EXPECT_EQ(lines.back(), "allStop () Done");
}

}  // namespace

// An upload keeps the appliance awake for 30 s after its last piece.
TEST_F(MainLoopTest, AnUploadUnderWayHoldsStandbyOff) {
    markUploadUnderWay();
    EXPECT_TRUE(doingSomethingInBackground());
    ticks(400);
    EXPECT_FALSE(isStandby());
    EXPECT_EQ(loop.standbyTimer, 0);
}
