// Entry points of the appliance's subsystems that kz does not build yet:
// displays and graphics, internet radio, networking and wireless, storage
// jobs (backup, restore, import, export, upgrade), photos, Sonos, Bluetooth,
// video and the streaming receiver. Start-up, the main loop and shutdown call
// them at their place in the sequence; each does nothing, and the README's
// status table lists them as not built. Whatever they report is the true
// state of a machine without them (no video playing, no job running).
#pragma once

#include <string>

// Displays and graphics.
void init_fonts();
void initJpeg();
void oled_init();
void oled_cls();
void simpleDisplayString(const char* text);
void scrollOff();
void setDefaultBrightness();
void setBrightness(int level);
void brightDisplay();
void dimDisplay();
void displayStandby(int brightness);
void initTV();
void quickClearTV();
void refreshTVStatus();
void initTFT();
void tftIdleScreen();
void startFlipping();

// Storage, backup and upgrade.
void completeUpgrade();
void noatimePatch();
void getFilterparamsPath();
void prepareSD();
// Returns 1 when the partition was made (never, until this is built).
int createThirdSDPartition();
void startGetDiskCapacity(int which);

// Networking and wireless.
void myWifiConnect();
void startWifiWatchdog();
void disableWifi();
void setHotspot(int on);
void dumpEthernetAddress();
void startUdp();
void startSambaInBackground();

// Bluetooth, video, streaming receiver (the networked speakers are in
// sonos/zones.h).
// The DLNA media server on or off.
void setDLNA(int on);
void initBluetooth();
void ytInit();
std::string getVideoName(int index);
bool isVideoPlaying();
void stopVideoCaching();
void startLibrespot();
void killLibrespot();

// The jobs that allStop ends when they run: import, restore, backup,
// SD copy, photo import, scan, cache and backup, export, tagging, soak test.
// True while background work runs that standby must not interrupt.
bool doingSomethingInBackground();
// An upload counts as running for this long after its last mark.
constexpr long long kUploadRunsMs = 30000;
void markUploadUnderWay();
bool uploadUnderWay();
void stopBackgroundJobs();
