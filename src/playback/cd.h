// The CD drive as the main loop sees it. CD access is not built yet: the
// drive reports no disc.
#pragma once

enum CdStatus { CD_NO_DISC = 1, CD_NOT_READY = 2, CD_READY = 3, CD_BAD_DISC = 4 };

void cdInit();
int testUnitReady();
void readTOC();
void clearChosenCD();
void ejectCD();
