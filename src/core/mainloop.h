// The main loop: one event at a time from the queue, the activity timers
// (standby, dimming, battery power-off, details), network-address checks and
// the CD drive's presence and status.
#pragma once

#include <atomic>

class MainLoop {
  public:
    static constexpr int kStandbySeconds = 300;
    static constexpr int kDimSeconds = 120;
    static constexpr int kDetailsSeconds = 20;
    static constexpr int kBatteryOffSeconds = 300;
    static constexpr int kIPBurstTicks = 60;

    // The state start-up leaves before the first pass.
    void reset();
    // Handles one event: bookkeeping, tick work, dispatch, standby, CD.
    void pass(int event);
    // Takes events forever; ends the process through quitProgram once a quit
    // was asked for (SIGTERM, SIGINT).
    [[noreturn]] void run();

    // Seconds without activity. Other threads reset them (keepAwake).
    std::atomic<int> standbyTimer{0};
    std::atomic<int> kTubeStandbyTimer{0};
    std::atomic<int> kTubeDimTimer{0};
    std::atomic<int> detailsTimer{0};
    std::atomic<int> IPAddressCheckBurstCount{0};
    int tenSecondCounter = 10;

    int cdState = 2;
    int discInserted = 1;
    int newDisc = 0;
    int cdpresent = 0;

  private:
    void tick();
    void checkCD();
};

MainLoop& mainLoop();

// Keeps the appliance from falling asleep under long work.
void keepAwake();
bool iskTubeStandby();
// Checks the network address every second for the next minute.
void IPAddressCheckBurst();
void gotoStandby();

// Asks the main loop to quit as soon as it can (safe from any thread).
void requestQuit();
