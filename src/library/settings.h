// The user's settings: held in memory, marked when changed, and written whole
// to root + "/kzsettings" only on quit, failure exit, power-down and a few
// explicit occasions. A generic table holds the simple numeric settings of
// the settings menu; a small store keeps known Wi-Fi networks.
#pragma once

#include <string>

struct SettingRow {
    int min;
    int max;
    int defaultValue;
    const char* key;
    const char* label;
    const char* help;
    void (*action)(int value);  // run when the menu changes the value; may be null
};

constexpr int kSettingRows = 23;
// The rows in file order; the list ends with a row whose key is null.
extern const SettingRow settingRows[kSettingRows + 1];
int getSettingValue(int row);
void setSettingValue(int row, int value);
// The row whose key matches without regard to case, or -1.
int findSettingRow(const char* key);

struct RadioStation {
    std::string name;
    std::string url;
    std::string logo;  // empty: no logo
};

constexpr int kPresets = 20;
constexpr int kMaxWifi = 50;

// Every value back to its default (the generic table's defaults, volume 25,
// aux level 50, time zone 1, jack sense on, sorted, alarm off at 7:00, ...).
void resetSettings();
// Defaults, then the file; a missing file is written at the next orderly end.
void initSettings();
// 1 when the file was opened, 0 when not.
int loadSettings();
std::string getSettingsPath();

// Mark the settings changed; nothing is written.
void saveSettings();
void postSaveSettings();
void saveSettingsNow();
void flushSettings();
bool settingsChanged();
// Writes the file (through a temporary file, so it is never half written).
void flushSettingsRaw();

int getCompressionMode();
void setCompressionMode(int mode);
bool isCompressionEnabled();
const char* getCompressionText();
int getSegueMode();
bool isSegue();
void setSegue(int mode);
const char* getSegueText();
int getJackSenseEnabled();
void setJackSenseEnabled(int mode);
bool isSorted();
void setSorted(int on);
bool isReversed();
void setReversed(int on);
int getLoggingMode();
void setLoggingMode(int mode);
const char* getLoggingText();
int getAuxLevel();
void setAuxLevel(int level);
int getMirrorCount();
void setMirrorCount(int count);
int getGuestModePlaylist();
void setGuestModePlaylist(int index);

int getVolume();
int getWiredVolume();
void setWiredVolume(int volume);
int getHeadphoneVolume();
void setHeadphoneVolume(int volume);
int getTimeZone();
void setTimeZone(int hours);
int getSpeaker();
void setSpeaker(int speaker);
int getImpedance();
int getHires();
void getAlarm(int* on, int* hours, int* minutes);
void setAlarm(int on, int hours, int minutes);
std::string getSelectedBluetoothMAC();
void setSelectedBluetoothMAC(const std::string& mac);
const RadioStation& getCurrentRadio();
void setCurrentRadio(const RadioStation& station);
const RadioStation& getPreset(int index);
void setPreset(int index, const RadioStation& station);

// The generic table's accessors.
int getBrightnessSetting();
int getSwapSetting();
int getVUMeterSetting();
int getTZoneMinutes();
bool isClassical();
void setClassical(int on);
bool isTVUIEnabled();
void setTVUI(int on);
bool isHDMIEnabled();
void setHDMI(int on);
bool isTandem();
void setTandem(int on);
bool isGuestMode();
void setGuest(int on);
bool isHotspotEnabled();
void setHotspotSetting(int on);
int getBassSetting();
int getTrebleSetting();
void setBassAndTrebleSettings(int bass, int treble);
bool isPrefill();
bool isvCacheEnabled();
void setvCache(int on);
int getScreensaver();
void setScreensaver(int value);
int getWatchdogSetting();
void setWatchdogSetting(int on);
bool isEqualiserEnabled();
void setEqualiser(int on);
int getTonePresetSetting();
void setTonePresetSetting(int preset);
int getVideoModeSetting();
void setVideoModeSetting(int mode);
int getDLNASetting();
void setDLNASetting(int on);
int getHeadphoneEnabled();
void setHeadphoneEnable(int value);
int getTftBrightnessSetting();
void setTftBrightnessSetting(int value);
bool isAirable();
void setAirable(int on);

// Known Wi-Fi networks.
const char* getMatchingWifiPassword(const char* ssid);
void setWifiPassword(const char* ssid, const char* password, int wep);
const char* getKnownWifiName(int index);
const char* getKnownWifiPassword(int index);
int getKnownWifiMode(int index);
int getKnownWifiCount();
void clearWifiPasswords();
