#include "playback/cd.h"

void cdInit() {}
void clearChosenCD() {}
