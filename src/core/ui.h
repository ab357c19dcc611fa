// The menu user interface as far as kz has it: the state number, standby and
// the entry points the main loop calls. The front-panel menus, the TFT
// screens, alerts and the line editor are not built yet.
#pragma once

#include <atomic>

constexpr int STATE_STANDBY = 20;

extern std::atomic<int> mstate;

void initui();
void kyUIInit();
void refreshUI();
// Asks the menus to redraw after background work (reason: what changed).
void requestRedraw(const char* reason);
void gotoState(int state);
bool isStandby();
// Shows an alert for some seconds (not built yet: nothing is shown).
void alert(const char* text, int seconds);
// The TFT touch screens see each event first; 0 hands it on to doui.
int tftEventHandler(int event);
// Receives every event the screens decline.
void doui(int event);
