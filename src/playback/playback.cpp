#include "playback/playback.h"

void initPlay() {}
void stopPlay() {}
bool isPlaying() {
    return false;
}
bool punchThru() {
    return false;
}
std::mutex& playMutex() {
    static std::mutex mutex;
    return mutex;
}
