// Settings the core reads. The settings store (its file, the generic table and
// the Wi-Fi store) is not built yet: until it is, every accessor answers the
// appliance's default and nothing is saved.
#pragma once

// Loads the settings file, or keeps the defaults (called by initmdb).
void initSettings();

int getLoggingMode();
bool isTVUIEnabled();
int getVolume();
int getHeadphoneVolume();
int getWiredVolume();
int getTonePresetSetting();
int getScreensaver();
bool isHotspotEnabled();
bool isHDMIEnabled();
int getGuestModePlaylist();
int getDLNASetting();
int getHeadphoneEnabled();
void setHeadphoneEnable(int value);
bool isClassical();

// Marks the settings changed; flushSettings does nothing by design.
void saveSettings();
void flushSettings();
// Writes the settings file (not built yet: nothing is written).
void flushSettingsRaw();
