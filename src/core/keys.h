// Key codes of an attached USB keyboard and of the eight analogue front-panel
// keys, turned into event codes.
#pragma once

struct KeyPair {
    int key;    // Linux input key code
    int event;  // event code (a character's code for typed text)
};

// Zero-terminated lists, one for each shift state.
extern const KeyPair unshifted[];
extern const KeyPair shifted[];

// The event code for a keyboard key; 63 ('?') for a key in neither list.
int translateKey(int keyCode, bool shift);

// Event codes of the analogue keys 0 to 7, pressed and held down.
extern const int adcEvents[8];
extern const int adcHeldEvents[8];
