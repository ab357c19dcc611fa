#include "core/mainloop.h"

#include <unistd.h>

#include "core/appliance.h"
#include "core/events.h"
#include "core/frontpanel.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/shutdown.h"
#include "core/storage.h"
#include "core/ui.h"
#include "library/database.h"
#include "library/library.h"
#include "library/settings.h"
#include "playback/cd.h"
#include "playback/playback.h"
#include "ripping/cdrom.h"
#include "ripping/ripper.h"

namespace {
std::atomic<bool> quitRequested{false};
}

MainLoop& mainLoop() {
    // Never destroyed: other threads may still use it while the process ends.
    static MainLoop& loop = *new MainLoop;
    return loop;
}

void MainLoop::reset() {
    standbyTimer = kTubeStandbyTimer = kTubeDimTimer = detailsTimer = 0;
    IPAddressCheckBurstCount = 0;
    tenSecondCounter = 10;
    cdState = 2;
    discInserted = 1;
    newDisc = 0;
    cdpresent = 0;
}

void MainLoop::pass(int event) {
    const bool user = isUserEvent(event);
    if (user || isRipping() || isPlaying() || punchThru()) standbyTimer = 0;
    if (user || isVideoPlaying() || isRipping()) {
        kTubeDimTimer = 0;
        brightDisplay();
    }
    if (user || isPlaying() || doingSomethingInBackground()) kTubeStandbyTimer = 0;
    if (user || isVideoPlaying() || isRipping()) detailsTimer = 0;

    if (event == EVENT_TICK) tick();

    if (!tftEventHandler(event)) doui(event);

    if (!isStandby() && standbyTimer > kStandbySeconds) gotoStandby();

    checkCD();
    jackSensePoll();
}

void MainLoop::tick() {
    if (isTVUIEnabled()) refreshTVStatus();
    pollUSBMounting();

    bool attached = access(cdDevicePath().c_str(), F_OK) == 0;
    if (!attached && cdpresent) {
        kzLog("CD Detached\n");
        cdpresent = 0;
    } else if (attached && !cdpresent) {
        kzLog("CD Attached\n");
        cdpresent = 1;
        cdInit();
    }

    if (!getDCIn()) {
        if (++kTubeStandbyTimer == kBatteryOffSeconds) powerDownPart2();
        if (kTubeStandbyTimer > kBatteryOffSeconds) kTubeStandbyTimer = kBatteryOffSeconds;
    }

    if (++kTubeDimTimer > kDimSeconds - 1) {
        dimDisplay();
        kTubeDimTimer = kDimSeconds;
    }
    if (++detailsTimer > kDetailsSeconds) detailsTimer = kDetailsSeconds;

    if (!isStandby() && !doingSomethingInBackground()) standbyTimer++;

    if (IPAddressCheckBurstCount != 0) {
        IPAddressCheckBurstCount--;
        addEvent(EVENT_IP_CHECK);
    } else if (++tenSecondCounter > 9) {
        tenSecondCounter = 0;
        addEvent(EVENT_IP_CHECK);
    }
}

void MainLoop::checkCD() {
    if (!getUSBSpeed() || !cdpresent) return;
    int status = testUnitReady();
    if (status != cdState) {
        kzLog("CD state changed %d\n", status);
        if (status == CD_READY) {
            clearOfflineFlag();
            readTOC();
            startCDDBLookup();
            clearArtURL();
            startGetArt();
        }
        if (status == CD_BAD_DISC) {
            alert("Bad Disc", 5);
            addEvent(EVENT_BAD_DISC);
        } else {
            clearDiscid();
        }
        if (status == CD_NO_DISC) clearChosenCD();
        cdState = status;
    }
    // Repeated on every pass until the disc is readable or gone, so the
    // screens keep being told.
    if (!discInserted) {
        if (status == CD_READY) addEvent(EVENT_DISC_READY);
        if (status == CD_NOT_READY) addEvent(EVENT_DISC_NOT_READY);
    }
    if (status == CD_READY) discInserted = 1;
    if (status == CD_NO_DISC) {
        discInserted = 0;
        newDisc = 1;
    }
}

void MainLoop::run() {
    for (;;) {
        int event = waitEvent();
        if (quitRequested) quitProgram();
        pass(event);
    }
}

void keepAwake() {
    mainLoop().standbyTimer = 0;
    mainLoop().kTubeStandbyTimer = 0;
}

bool iskTubeStandby() {
    return mainLoop().kTubeStandbyTimer > 299;
}

void IPAddressCheckBurst() {
    mainLoop().IPAddressCheckBurstCount = MainLoop::kIPBurstTicks;
}

void gotoStandby() {
    int screensaver = getScreensaver();
    if (screensaver != 0) setBrightness(screensaver - 1);
    gotoState(STATE_STANDBY);
    postWriteDB();
    flushSettings();
    sync();
    displayStandby(12);
}

void requestQuit() {
    quitRequested = true;
    addEvent(EVENT_NONE);
}
