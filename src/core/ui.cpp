#include "core/ui.h"

#include "core/events.h"
#include "core/log.h"

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
void alert(const char*, int) {}
int tftEventHandler(int) {
    return 0;
}

void doui(int event) {
    // Standby is a screen, not a process state: any use of the appliance
    // leaves it.
    if (isStandby() && isUserEvent(event)) gotoState(0);
}

void requestRedraw(const char* reason) {
    kzInfo("redraw (%s)\n", reason);
    refreshUI();
}
