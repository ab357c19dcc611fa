// The front-panel controller link (serial line to the microcontroller that
// reads the keys and the infrared remote, drives the LEDs, reports mains
// power and cuts the power). No such hardware exists off the appliance and the
// link is not built yet: these entry points do nothing and report a panel on
// mains power with no key pressed.
#pragma once

void pic_init();
void requestInitialSwitchState();
void setLEDs(int which, int on);
void picSetBrightness(int level);
void picPowerOff();
void muteAmp();
// 1 while the appliance runs on external power.
int getDCIn();
void disableUsbKeyboard();
void jackSensePoll();
// True while a plug is in the headphone socket.
bool isHeadphonePlugIn();
// The copy-protection exchange with the controller; not part of kz.
void copyProtectionCheck();
