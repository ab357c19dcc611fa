// Ripping, disc lookup and compression as the core sees them. Not built yet:
// nothing is ever ripping.
#pragma once

void initRipper();
void initCompression();
void initFLAC();
bool isRipping();
void uiStopRip();
void clearOfflineFlag();
void startCDDBLookup();
void clearDiscid();
void clearArtURL();
void startGetArt();
