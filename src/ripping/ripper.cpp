#include "ripping/ripper.h"

void initRipper() {}
void initCompression() {}
void initFLAC() {}
bool isRipping() {
    return false;
}
void uiStopRip() {}
void clearOfflineFlag() {}
void startCDDBLookup() {}
void clearDiscid() {}
void clearArtURL() {}
void startGetArt() {}
