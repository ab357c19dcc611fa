// The music storage: which medium holds the library, chosen once at start-up.
#pragma once

enum StorageMedium { STORAGE_NONE = 0, STORAGE_HDD = 1, STORAGE_SD = 2 };

extern int storageMedium;
extern int hddpresent;
// A disk-capacity query is running.
extern int dfBusy;
extern int dfBusyFlash;

int getStorageMedium();
bool noStorage();
bool hddStorage();
bool sdStorage();

const char* getHddDevice();
const char* getHddDeviceAndPartition();

// 1 for a high-speed USB bus, 0 for the low-speed board (host mode: 1).
int getUSBSpeed();
// The SD card's size in megabytes (host mode: no card, 0).
long getSDSize();

// Mounts what it can and chooses the medium; starts the library's load.
void initDisks();

// Unmounts the internal disk, the USB disks and the SD partition, in this
// order, ignoring failures (host mode: nothing is mounted).
void unmountAll();
void standby_internalhdd();
