// CD playback (the reader thread that feeds the output from the disc). Not
// built yet: nothing is played from a CD.
#pragma once

void cdInit();
void clearChosenCD();
