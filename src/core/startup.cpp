#include "core/startup.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/appliance.h"
#include "core/events.h"
#include "core/frontpanel.h"
#include "core/log.h"
#include "core/mainloop.h"
#include "core/paths.h"
#include "core/process.h"
#include "core/shutdown.h"
#include "core/storage.h"
#include "core/ui.h"
#include "library/library.h"
#include "library/playlists.h"
#include "library/settings.h"
#include "playback/output.h"
#include "playback/playback.h"
#include "radio/radio.h"
#include "ripping/compress.h"
#include "ripping/ripper.h"
#include "sonos/zones.h"
#include "web/web.h"

namespace {

// Creates every missing folder of path (host mode: the root's /var/www).
void makeParents(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

// Networked speakers fetch files through the web server by these links.
void ensureMediaLink(const char* fixedLink, const std::string& target) {
    std::string link = hostPath(fixedLink);
    struct stat st;
    int result = lstat(link.c_str(), &st);
    int mode = result == 0 ? static_cast<int>(st.st_mode) : 0;
    int isLink = result == 0 && S_ISLNK(st.st_mode) ? 1 : 0;
    kzLog("lstat result %d st_mode %d S_ISLNK %d\n", result, mode, isLink);
    if (result == 0 && isLink) return;

    kzLog("Creating SONOS link %s linked to %s\n", fixedLink, target.c_str());
    // "rm" then "ln -f -s": a plain file in the way is removed first.
    if (result == 0 && unlink(link.c_str()) != 0) {
        kzLog("Cannot remove %s: %s\n", link.c_str(), strerror(errno));
    }
    if (isHostMode()) makeParents(link);
    if (symlink(target.c_str(), link.c_str()) != 0) {
        kzLog("Cannot link %s: %s\n", link.c_str(), strerror(errno));
    }
}

}  // namespace

int kzMain() {
    if (!configureHostMode()) return 1;
    installSignalHandling();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const char* v = getenv("KZ_VERBOSE");
    verbose = (v && *v && strcmp(v, "0") != 0) ? 1 : 0;

    printf("Printf to stdout\n");
    fprintf(stderr, "Printf to stderr\n");
    initWebDebug();
    startStopwatch();
    stopwatch("Stopwatch started");
    initLogging();

    kzLog("Disabling terminal blanking\n");
    fputs("\033[9;0]", stdout);
    muteAmp();
    kzLog("Done\n");

    completeUpgrade();
    noatimePatch();
    getFilterparamsPath();

    MainLoop& loop = mainLoop();
    loop.reset();
    dfBusy = 0;
    dfBusyFlash = 0;

    init_fonts();
    initJpeg();

    // From here on nothing written to standard error is kept.
    int devNull = open("/dev/null", O_WRONLY | O_NONBLOCK);
    if (devNull >= 0) {
        dup2(devNull, 2);
        if (devNull != 2) close(devNull);
    }

    initInternetRadio();
    initPlaylists();
    ytInit();

    stopwatch("Init Disks");
    initDisks();
    stopwatch("Init Disks done");

    uiQInit();
    pic_init();
    initCompression();
    initPipe();
    initFLAC();
    initPlay();
    stopwatch("Init Play Done");

    setVolume(getVolume(), 6);
    setToneControlFromPreset(getTonePresetSetting());

    IPAddressCheckBurst();
    oled_init();
    setDefaultBrightness();
    initui();
    initRipper();
    initVtuner();
    stopwatch("initVTuner Done");
    initWeb();
    stopwatch("initBluetooth Done");

    requestInitialSwitchState();
    setLEDs(0, 1);
    refreshUI();

    loop.tenSecondCounter = 10;
    loop.standbyTimer = loop.kTubeStandbyTimer = loop.kTubeDimTimer = loop.detailsTimer = 0;

    copyProtectionCheck();

    myWifiConnect();
    startWifiWatchdog();
    stopwatch("Wifi started");

    if (getUSBSpeed() == 0) {
        disableWifi();
        minimise_alsa_playback_buffer();
        startAuxInThread();
        startPlayingAux();
    }

    startUdp();
    initTV();
    initBluetooth();
    stopwatch("Starting TFT");
    initTFT();
    kyUIInit();
    brightDisplay();
    quickClearTV();

    if (isHotspotEnabled()) setHotspot(1);
    if (isHDMIEnabled()) switchAlsaPlaybackDevice(2);
    if (getGuestModePlaylist() >= 0) loadPlaylist(getGuestModePlaylist());

    dumpEthernetAddress();
    startGetDiskCapacity(0);
    killLighttpd();
    startLighttpd();
    startFlipping();
    startSambaInBackground();
    setVolume(getVolume(), 6);
    stopwatch("Starting Main Loop");
    startLibrespot();

    ensureMediaLink("/var/www/hdd1", getLocalPath());
    ensureMediaLink("/var/www/usb", hostPath("/media/usba"));

    if (getDLNASetting()) {
        kzLog("Sonos disabled for DLNA\n");
    } else {
        startSonos();
    }

    if (!isUSBdac()) {
        kzLog("DAC removed while selected\n");
        setHeadphoneEnable(0);
    }
    if (getHeadphoneEnabled()) {
        kzLog("KX1 select DAC\n");
        switchAlsaPlaybackDevice(1);
        setVolume(getHeadphoneVolume(), 1);
    } else {
        kzLog("KX1 select INTERNAL\n");
        switchAlsaPlaybackDevice(0);
        setVolume(getWiredVolume(), 0);
    }

    kzLog("isUSBdac = %d\n", isUSBdac());
    loop.run();
}
