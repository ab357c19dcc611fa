#include "core/frontpanel.h"

void pic_init() {}
void requestInitialSwitchState() {}
void setLEDs(int, int) {}
void picSetBrightness(int) {}
void picPowerOff() {}
void muteAmp() {}
int getDCIn() {
    return 1;
}
void disableUsbKeyboard() {}
void jackSensePoll() {}
bool isHeadphonePlugIn() {
    return false;
}
void copyProtectionCheck() {}
