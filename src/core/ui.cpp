#include "core/ui.h"

#include <chrono>

#include "core/events.h"
#include "core/log.h"
#include "core/shutdown.h"
#include "library/ids.h"
#include "library/library.h"
#include "library/playlists.h"
#include "library/settings.h"
#include "playback/control.h"
#include "playback/pipe.h"
#include "radio/radio.h"
#include "ripping/cdrom.h"
#include "ripping/ripper.h"
#include "web/web.h"

std::atomic<int> mstate{0};

void initui() {
    mstate = 0;
}
void kyUIInit() {}
void refreshUI() {
    addEvent(EVENT_REFRESH);
}
void gotoState(int state) {
    mstate = state;
}
bool isStandby() {
    return mstate == STATE_STANDBY;
}
// The panel's screens are not built; the web pages show the alert.
void alert(const char* text, int seconds) {
    webAlertFor(text, seconds);
}
int tftEventHandler(int) {
    return 0;
}

void requestRedraw(const char* reason) {
    kzInfo("redraw (%s)\n", reason);
    refreshUI();
}

namespace {

// The key and player events every screen shares, in the order they are
// tried. Actions of parts that are not built (radio, recording, Bluetooth,
// playlists, searching, factory tests) only say so.
void notBuilt(const char* what) {
    kzInfo("%s: not built\n", what);
}

void playlistOff() {
    if (!isPlaylistPlaying()) return;
    stopPlaylistPlayback();
    alert("Playlist Off", 3);
}

void globalHandling(int event) {
    if (event == 6) {
        alert("Saving", 30);
        kzLog("STOPKEYHELD\n");
        auto t0 = std::chrono::steady_clock::now();
        allStop();
        if (std::chrono::steady_clock::now() - t0 > std::chrono::milliseconds(3000)) refreshUI();
        return;
    }
    if (event == 4) restartProgram();

    if (event == 88) {
        startPlayingPrev();
    } else if (event == 90) {
        startPlayingNext();
    } else if (event == 89) {
        playStop();
    } else if (event == 100) {
        kzLog("got STOPRECORDING event\n");
        stopRadioRecording();
    } else if (event == 77) {
        if (getSelectedSource() == SEL_RADIO) {
            kzLog("RESTART received\n");
            restartInternetRadio();
        }
    } else if (event == 1 || event == 23 || event == 108) {
        playStop();
    } else if (isUserNext(event)) {
        startPlayingNext();
    } else if (isPrev(event)) {
        startPlayingPrev();
    } else if (event == 74) {
        int t = idToTrack(lib().currentID);
        if (isClassical() && !isPlaylistPlaying() && !hasQueuedTracks() &&
            idIsTrack(lib().currentID) && t < getTrackCount() && isLastTrackOfAlbum(t)) {
            kzLog("NEXTEVENT Classical mode do nothing at end\n");
            return;
        }
        startPlayingNextAfterEnd();
    } else if (event == 87) {
        kzLog("CLASSICALSTOP event\n");
        stopPlay();
        refreshUI();
    } else if (event == 85 || event == 86) {
        decoderPipes().stopPipe(event - 85);
    } else if (event == 20) {
        // stopWrapUp: the screens show the stopped state at the next redraw.
    } else if (event == 81) {
        kzLog("STOPWEBPLAY event\n");
        notBuilt("web audio");
    } else if (event == 21) {
        recordKey();
    } else if (event == 42) {
        playlistOff();
    } else if (event == 26 || event == 18 || event == 51 || event == 52) {
        notBuilt("search, pairing and factory tests");
    } else if (event == 3) {
        if (!isRipping()) {
            if (getSelectedSource() == SEL_CD) selectHDD();
            ejectCD();
        } else {
            uiStopRip();
        }
        refreshUI();
    } else if (event == 14) {
        notBuilt("network address");
    } else if (event == 82) {
        kzLog("BLUETOOTHINITIALISED\n");
        notBuilt("Bluetooth");
    } else if (event == 97) {
        ejectCD();
        failAndExit();
    } else if (event == 45) {
        if (getChannelSource(0) == SRC_CD) {
            stopPlay();
        } else if (testUnitReady() == CD_READY) {
            selectCD();
            startPlayingCD(0);
        }
    } else if (event == 49) {
        kzLog("IRBLUETOOTHKEY event\n");
        notBuilt("Bluetooth");
    } else if (event == 84 || event == 103 || event == 83) {
        notBuilt("Bluetooth");
    } else if (event == 101) {
        kzLog("BLUETOOTHINPUTPLAYING Event - stopping Wifi\n");
        notBuilt("Bluetooth");
    } else if (event == 102) {
        kzLog("BLUETOOTHINPUTPAUSED Event - starting Wifi\n");
        notBuilt("Bluetooth");
    } else if (event == 50) {
        notBuilt("aux input");
    } else if (event == 46) {
        playlistOff();
        selectHDD();
    } else if (event == 47) {
        radioKey();
    }
}

}  // namespace

void doui(int event) {
    // Standby is a screen, not a process state: any use of the appliance
    // leaves it.
    if (isStandby() && isUserEvent(event)) gotoState(0);
    globalHandling(event);
}
