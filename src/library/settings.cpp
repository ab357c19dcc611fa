#include "library/settings.h"

namespace {
int headphoneEnable = 2;
int settingsDirty = 0;
}  // namespace

void initSettings() {}
int getLoggingMode() {
    return 0;
}
bool isTVUIEnabled() {
    return false;
}
int getVolume() {
    return 25;
}
int getHeadphoneVolume() {
    return 25;
}
int getWiredVolume() {
    return 25;
}
int getTonePresetSetting() {
    return 0;
}
int getScreensaver() {
    return 1;
}
bool isHotspotEnabled() {
    return false;
}
bool isHDMIEnabled() {
    return false;
}
int getGuestModePlaylist() {
    return -1;
}
int getDLNASetting() {
    return 0;
}
int getHeadphoneEnabled() {
    return headphoneEnable;
}
void setHeadphoneEnable(int value) {
    headphoneEnable = value;
    saveSettings();
}
bool isClassical() {
    return false;
}

void saveSettings() {
    settingsDirty = 1;
}
void flushSettings() {}
void flushSettingsRaw() {
    settingsDirty = 0;
}
