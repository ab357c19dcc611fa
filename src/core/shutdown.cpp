#include "core/shutdown.h"

#include <signal.h>
#include <stdio.h>
#include <syslog.h>
#include <unistd.h>

#include <mutex>
#include <thread>

#include "core/appliance.h"
#include "core/frontpanel.h"
#include "core/log.h"
#include "core/mainloop.h"
#include "core/process.h"
#include "core/storage.h"
#include "library/database.h"
#include "library/library.h"
#include "library/playlists.h"
#include "library/scan.h"
#include "library/settings.h"
#include "playback/output.h"
#include "playback/playback.h"
#include "radio/radio.h"
#include "ripping/compress.h"
#include "ripping/ripper.h"
#include "storage/jobs.h"
#include "web/web.h"

int sleepEnabled = 0;

namespace {

// Taken for good by the first exit: a second one (a web command racing a
// signal) waits here while the first ends the process.
std::mutex exitMutex;

enum class Saves { Both, LibraryOnly, Nothing };

struct ExitPlan {
    const char* screenText;  // null: the screen is left as it is
    Saves saves;
    bool disableKeyboard;
};

void runExitSteps(const ExitPlan& plan) {
    // A track half encoded is given up; tracks done wait in the journal.
    stopCompression();
    // An import lands its album and saves; a backup ends between files.
    stopStorageJobs();
    scrollOff();
    oled_cls();
    if (plan.screenText) simpleDisplayString(plan.screenText);
    if (plan.saves == Saves::Both) flushSettingsRaw();
    if (plan.saves != Saves::Nothing) saveDBifChanged();
    killFfmpegs();
    killLibrespot();
    if (plan.disableKeyboard) disableUsbKeyboard();
    sync();
    unmountAll();
    closeWeb();
}

// Gives the console back its white-on-black colours.
void restoreConsoleColours() {
    fputs("\033[1;37;40m", stdout);
}

}  // namespace

void endProcess(int status) {
    fflush(stdout);
    fflush(stderr);
    closelog();
    // Other threads may still be running: no static destructors under them.
    _exit(status);
}

void quitProgram() {
    exitMutex.lock();
    restoreConsoleColours();
    runExitSteps({"See you later", Saves::Both, true});
    endProcess(0);
}

void failAndExit() {
    exitMutex.lock();
    runExitSteps({"Failed", Saves::Both, true});
    endProcess(0);
}

void quitNoSave() {
    exitMutex.lock();
    runExitSteps({"See you later", Saves::Nothing, true});
    endProcess(0);
}

void restartProgram() {
    exitMutex.lock();
    kzLog("restartProgram ()\n");
    runExitSteps({"Restarting", Saves::LibraryOnly, false});
    endProcess(EXIT_RESTART);
}

void kzReboot() {
    exitMutex.lock();
    restoreConsoleColours();
    runExitSteps({nullptr, Saves::Nothing, true});
    rebootSystem();
    endProcess(0);
}

// The battery model's quit: saves like quitProgram, then the front panel cuts
// the power.
void kTubeQuitProgram() {
    exitMutex.lock();
    restoreConsoleColours();
    runExitSteps({"See you later", Saves::Both, true});
    picPowerOff();
    endProcess(0);
}

void allStop() {
    kzLog("allStop ()\n");
    stopPlay();
    stopStorageJobs();
    stopBackgroundJobs();
    if (isRipping()) uiStopRip();
    if (isCleanupRunning()) stopCleanup();
    stopScanningUSB();
    stopVideoCaching();
    stopAuxRecording();
    stopRadioRecording();
    stopPlaylistPlayback();
    killFfmpegs();
    deleteZombies();
    stopNewRadio();
    flushSettings();
    saveDBifChanged();
    sleepEnabled = 0;
    sync();
    standby_internalhdd();
    kzLog("allStop () Done\n");
}

void powerDownPart2() {
    kzLog("Power down part 2\n");
    picSetBrightness(0);
    flushSettingsRaw();
    allStop();
    picPowerOff();
    tftIdleScreen();
}

void installSignalHandling() {
    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set] {
        nameThread("kz-signals");
        for (;;) {
            int sig = 0;
            if (sigwait(&set, &sig) != 0) continue;
            kzLog("Signal %d received, quitting\n", sig);
            requestQuit();
        }
    }).detach();
}
