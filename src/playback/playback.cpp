#include "playback/playback.h"

void initPipe() {}
void initPlay() {}
void stopPlay() {}
bool isPlaying() {
    return false;
}
bool punchThru() {
    return false;
}
void killFfmpegs() {}
void deleteZombies() {}
