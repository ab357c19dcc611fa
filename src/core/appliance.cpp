#include "core/appliance.h"

void init_fonts() {}
void initJpeg() {}
void oled_init() {}
void oled_cls() {}
void simpleDisplayString(const char*) {}
void scrollOff() {}
void setDefaultBrightness() {}
void setBrightness(int) {}
void brightDisplay() {}
void dimDisplay() {}
void displayStandby(int) {}
void initTV() {}
void quickClearTV() {}
void refreshTVStatus() {}
void initTFT() {}
void tftIdleScreen() {}
void startFlipping() {}

void completeUpgrade() {}
void noatimePatch() {}
void getFilterparamsPath() {}
void pollUSBMounting() {}
void prepareSD() {}
int createThirdSDPartition() {
    return 0;
}
void startGetDiskCapacity(int) {}

void initInternetRadio() {}
std::string getRadioName(int) {
    return "";
}
void initVtuner() {}
void stopNewRadio() {}
void stopRadioRecording() {}

void myWifiConnect() {}
void startWifiWatchdog() {}
void disableWifi() {}
void setHotspot(int) {}
void dumpEthernetAddress() {}
void startUdp() {}
void startSambaInBackground() {}

void startSonos() {}
void setDLNA(int) {}
void initBluetooth() {}
void ytInit() {}
std::string getVideoName(int) {
    return "";
}
bool isVideoPlaying() {
    return false;
}
void stopVideoCaching() {}
void startLibrespot() {}
void killLibrespot() {}

bool doingSomethingInBackground() {
    return false;
}
void stopBackgroundJobs() {}
