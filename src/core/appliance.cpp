#include "core/appliance.h"

#include <atomic>
#include <chrono>

#include "ripping/compress.h"
#include "storage/jobs.h"

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
void prepareSD() {}
int createThirdSDPartition() {
    return 0;
}
void startGetDiskCapacity(int) {}

void myWifiConnect() {}
void startWifiWatchdog() {}
void disableWifi() {}
void setHotspot(int) {}
void dumpEthernetAddress() {}
void startUdp() {}
void startSambaInBackground() {}

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

namespace {
std::atomic<long long> lastUploadMarkMs{-1};

long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
}  // namespace

void markUploadUnderWay() {
    lastUploadMarkMs = nowMs();
}

bool uploadUnderWay() {
    long long mark = lastUploadMarkMs;
    return mark >= 0 && nowMs() - mark < kUploadRunsMs;
}

bool doingSomethingInBackground() {
    // An upload arrives in pieces with pauses between them: the appliance
    // must not fall asleep in the middle of one.
    return uploadUnderWay() || isCompressing() || isStorageJobRunning();
}
void stopBackgroundJobs() {}
