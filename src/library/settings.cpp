#include "library/settings.h"

#include <fcntl.h>
#include <stdio.h>
#include <strings.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "core/appliance.h"
#include "core/files.h"
#include "core/log.h"
#include "core/storage.h"
#include "library/database.h"
#include "library/library.h"
#include "library/names.h"
#include "playback/output.h"

const SettingRow settingRows[kSettingRows + 1] = {
    {0, 15, 15, "Brightness", "Brightness", "Set OLED Brightness 0-15", setBrightness},
    {0, 1, 1, "LRSwap", "Stereo Swap",
     "Swap Left and Right\non line out\nwhen plug inserted\nSet this for headphones\nClear for "
     "Optical",
     nullptr},
    {0, 1, 0, "VUMeter", "VU Meter", "Set this to see VU meter\nduring playback", nullptr},
    {0, 59, 0, "TZoneMinutes", "Zone Mins", "Set this for some timezones", nullptr},
    {0, 1, 0, "Classical", "Classical", "Set this to see stop play\nafter last track on album",
     nullptr},
    {0, 1, 0, "TVUI", "TV UI", "Set this to enable\nTV User Interface", nullptr},
    {0, 1, 0, "HDMIOut", "HDMI Out", "Set this to enable\naudio on HDMI", nullptr},
    {0, 1, 0, "bluetoothTandem", "BT. Tandem",
     "Set this to enable\naudio on wired spakers\nat the same time as Bluetooth", nullptr},
    {0, 1, 0, "GuestMode", "Guest",
     "Set this to block\nchanges to the system\nand restrict to current playlist", nullptr},
    {0, 1, 0, "Hotspot", "Hotspot", "Set this to enable\nKZ as wireless hotspot", setHotspot},
    {-6, 6, 0, "Bass", "Bass", "Bass in 1.5dB steps", nullptr},
    {-6, 6, 0, "Treble", "Treble", "Treble in 1.5dB steps", nullptr},
    {0, 1, 0, "Prefill", "Prefill",
     "Bigger buffer on radio startup\nhelps with dropouts\nwith poor internet", nullptr},
    {0, 1, 0, "vCache", "Youtube Cache", "Set this to cache\nYoutube videos", nullptr},
    {0, 16, 1, "Screensaver", "Screensaver",
     "Set this to turn on screen saver\nand set Brightness in Standby\n16 turns off the clock in "
     "standby",
     nullptr},
    {0, 1, 1, "Watchdog", "Force", "Set this to force Wifi Watchdog on", nullptr},
    {0, 1, 0, "equaliser", "Equaliser", "Set this to enable equaliser", nullptr},
    {0, 2, 0, "tonePreset", "Tone Preset", "Not available on KZ", nullptr},
    {0, 2, 0, "videoMode", "Video Display Mode", "Not available on KZ", nullptr},
    {0, 1, 0, "DLNAEnable", "DLNA", "Set this to enable DLNA", setDLNA},
    {0, 2, 2, "HeadphoneEnable", "Headphone Enable", "Set this to enable\naudio on USB DAC",
     nullptr},
    {1, 21, 21, "tftBrightness", "TFT Brightness", "KY TFT Brightness", nullptr},
    {0, 1, 1, "Airable", "Airable On/Off", "Set this to use Airable", nullptr},
    {0, 0, 0, nullptr, nullptr, nullptr, nullptr},
};

namespace {

enum Row {
    ROW_BRIGHTNESS,
    ROW_LRSWAP,
    ROW_VUMETER,
    ROW_TZONE_MINUTES,
    ROW_CLASSICAL,
    ROW_TVUI,
    ROW_HDMI,
    ROW_TANDEM,
    ROW_GUEST,
    ROW_HOTSPOT,
    ROW_BASS,
    ROW_TREBLE,
    ROW_PREFILL,
    ROW_VCACHE,
    ROW_SCREENSAVER,
    ROW_WATCHDOG,
    ROW_EQUALISER,
    ROW_TONE_PRESET,
    ROW_VIDEO_MODE,
    ROW_DLNA,
    ROW_HEADPHONE,
    ROW_TFT_BRIGHTNESS,
    ROW_AIRABLE,
};

struct WifiEntry {
    char ssid[100];
    char password[100];
    int wep;
};

struct Settings {
    int values[kSettingRows];
    int compression, segue, jackSense, sorted, reversed, logging;
    int volume, headphoneVolume, auxLevel, hires, impedance, timeZone, speaker;
    int alarmOn, alarmHours, alarmMinutes;
    int guestPlaylist;
    std::string bluetoothMAC;
    RadioStation currentRadio;
    RadioStation presets[kPresets];
    WifiEntry wifi[kMaxWifi];
    int wifiCount;
    int dirty;
};

Settings& S() {
    // Never destroyed: other threads may still use it while the process ends.
    static Settings& s = *new Settings();
    return s;
}

const char* const compressionModes[] = {"FLAC", "MP3 128K", "MP3 256K", "None", "FLAC+MP3"};
const char* const segueModes[] = {"Off", "On", "Short"};
const char* const loggingModes[] = {"Normal", "File", "TV Off"};

constexpr int kLine = 250;

void setRow(int row, int value) {
    S().values[row] = value;
    saveSettings();
}

void copyText(char* dst, size_t size, const char* src) {
    snprintf(dst, size, "%s", src);
}

int readInt(FILE* f, int fallback) {
    char line[kLine];
    dbGetLine(f, line, kLine);
    int v;
    return sscanf(line, "%d", &v) == 1 ? v : fallback;
}

long readLong(FILE* f, long fallback) {
    char line[kLine];
    dbGetLine(f, line, kLine);
    long v;
    return sscanf(line, "%ld", &v) == 1 ? v : fallback;
}

std::string readText(FILE* f) {
    char line[kLine];
    dbGetLine(f, line, kLine);
    return line;
}

// Name and URL, then an optional "logoUrl " line; any other line is handed
// back to be read as the next key.
RadioStation readStation(FILE* f, char* keptBack, bool* kept) {
    RadioStation s;
    s.name = readText(f);
    s.url = readText(f);
    char line[kLine];
    int got = dbGetLine(f, line, kLine);
    if (strncasecmp(line, "logoUrl ", 8) == 0) {
        s.logo = line + 8;
    } else if (got || line[0]) {
        copyText(keptBack, kLine, line);
        *kept = true;
    }
    return s;
}

void writeStation(FILE* f, const RadioStation& s) {
    fprintf(f, "%s\n%s\n", s.name.c_str(), s.url.c_str());
    if (!s.logo.empty()) fprintf(f, "logoUrl %s\n", s.logo.c_str());
}

void writeAll(FILE* f) {
    const Settings& s = S();
    int c = s.compression;
    fprintf(f, "Compression\n%s\n",
            c == 3   ? "None"
            : c == 1 ? "MP3 128K"
            : c == 2 ? "MP3 256K"
            : c == 4 ? "FLAC+MP3"
                     : "FLAC");
    fprintf(f, "Segue\n%s\n", s.segue == 1 ? "On" : s.segue == 2 ? "Short" : "Off");
    fprintf(f, "Jacksense\n%s\n", s.jackSense == 1 ? "On" : s.jackSense == 2 ? "AlwaysOn" : "Off");
    fprintf(f, "Sorted\n%s\n", s.sorted == 1 ? "On" : "Off");
    fprintf(f, "Reversed\n%s\n", s.reversed == 1 ? "On" : "Off");
    fputs("CurrentRadio\n", f);
    writeStation(f, s.currentRadio);
    for (int i = 0; i < kPresets; i++) {
        fprintf(f, "Preset %d\n", i);
        writeStation(f, s.presets[i]);
    }
    fprintf(f, "Volume\n%d\n", s.volume);
    fprintf(f, "HeadphoneVolume\n%d\n", s.headphoneVolume);
    fprintf(f, "CurrentTrack\n%d\n", lib().currentID);
    fprintf(f, "Logging\n%d\n", s.logging);
    fprintf(f, "kbUsed\n%ld\n", lib().kbUsed);
    fprintf(f, "timezone\n%d\n", s.timeZone);
    fprintf(f, "Speaker\n%d\n", s.speaker);
    fprintf(f, "alarm\n%d\n%d\n%d\n", s.alarmOn, s.alarmHours, s.alarmMinutes);
    for (int r = 0; settingRows[r].key; r++)
        fprintf(f, "%s\n%d\n", settingRows[r].key, s.values[r]);
    for (int i = 0; i < s.wifiCount; i++) {
        fprintf(f, "Wifi\n%s%s\n%s\n", s.wifi[i].ssid, s.wifi[i].wep ? " WEP" : "",
                s.wifi[i].password);
    }
    fprintf(f, "SelectedBluetoothMAC\n%s\n", s.bluetoothMAC.c_str());
    fprintf(f, "GuestPlaylist\n%d\n", s.guestPlaylist + 1);
}

}  // namespace

int getSettingValue(int row) {
    return S().values[row];
}
void setSettingValue(int row, int value) {
    if (row < 0 || row >= kSettingRows) return;
    const SettingRow& r = settingRows[row];
    setRow(row, value < r.min ? r.min : value > r.max ? r.max : value);
}

int findSettingRow(const char* key) {
    for (int r = 0; settingRows[r].key; r++) {
        if (strcasecmp(settingRows[r].key, key) == 0) return r;
    }
    return -1;
}

void resetSettings() {
    Settings& s = S();
    for (int r = 0; r < kSettingRows; r++)
        s.values[r] = settingRows[r].defaultValue;
    s.compression = 0;
    s.segue = 0;
    s.jackSense = 1;
    s.sorted = 1;
    s.reversed = 0;
    s.logging = 0;
    s.volume = 25;
    s.headphoneVolume = 25;
    s.auxLevel = 50;
    s.hires = 0;
    s.impedance = 8;
    s.timeZone = 1;
    s.speaker = 0;
    s.alarmOn = 0;
    s.alarmHours = 7;
    s.alarmMinutes = 0;
    s.guestPlaylist = -1;
    s.bluetoothMAC.clear();
    s.currentRadio = {};
    for (auto& p : s.presets)
        p = {};
    s.wifiCount = 0;
    s.dirty = 0;
}

std::string getSettingsPath() {
    return getLocalPath() + "/kzsettings";
}

void initSettings() {
    resetSettings();
    if (!loadSettings()) {
        kzLog("loadSettings failed saving defaults!\n");
        S().logging = 0;
        saveSettings();
    }
}

int loadSettings() {
    Settings& s = S();
    s.wifiCount = 0;
    s.logging = 0;
    File f(fopen(getSettingsPath().c_str(), "r"));
    if (!f) return 0;

    char key[kLine];
    char keptBack[kLine];
    bool kept = false;
    for (;;) {
        if (kept) {
            copyText(key, kLine, keptBack);
            kept = false;
        } else if (!dbGetLine(f.get(), key, kLine) && key[0] == 0) {
            break;
        }
        FILE* in = f.get();
        if (strcasecmp(key, "Wifi") == 0) {
            char line[kLine], ssid[100], second[100];
            dbGetLine(in, line, kLine);
            int fields = sscanf(line, "%99s %99s", ssid, second);
            std::string password = readText(in);
            // The store holds 50 networks; more are dropped.
            if (fields >= 1 && s.wifiCount < kMaxWifi) {
                WifiEntry& w = s.wifi[s.wifiCount++];
                copyText(w.ssid, sizeof w.ssid, ssid);
                copyText(w.password, sizeof w.password, password.c_str());
                w.wep = fields == 2;
            }
        } else if (strcasecmp(key, "Compression") == 0) {
            std::string v = readText(in);
            s.compression = v == "FLAC"                       ? 0
                            : (v == "MP3" || v == "MP3 128K") ? 1
                            : v == "MP3 256K"                 ? 2
                            : v == "FLAC+MP3"                 ? 4
                                                              : 3;
        } else if (strcasecmp(key, "Segue") == 0) {
            std::string v = readText(in);
            s.segue = v == "On" ? 1 : v == "Short" ? 2 : 0;
        } else if (strcasecmp(key, "Jacksense") == 0) {
            std::string v = readText(in);
            s.jackSense = v == "On" ? 1 : v == "AlwaysOn" ? 2 : 0;
        } else if (strcasecmp(key, "Sorted") == 0) {
            s.sorted = readText(in) == "On" ? 1 : 0;
        } else if (strcasecmp(key, "Reversed") == 0) {
            s.reversed = readText(in) == "On" ? 1 : 0;
        } else if (strcasecmp(key, "Volume") == 0) {
            s.volume = readInt(in, s.volume);
        } else if (strcasecmp(key, "HeadphoneVolume") == 0) {
            s.headphoneVolume = readInt(in, s.headphoneVolume);
        } else if (strcasecmp(key, "CurrentTrack") == 0) {
            lib().currentID = readInt(in, lib().currentID);
        } else if (strcasecmp(key, "Logging") == 0) {
            s.logging = readInt(in, s.logging);
        } else if (strcasecmp(key, "kbUsed") == 0) {
            lib().kbUsed = readLong(in, lib().kbUsed);
        } else if (strcasecmp(key, "timezone") == 0) {
            s.timeZone = readInt(in, s.timeZone);
        } else if (strcasecmp(key, "Speaker") == 0) {
            s.speaker = readInt(in, s.speaker);
        } else if (strcasecmp(key, "alarm") == 0) {
            s.alarmOn = readInt(in, s.alarmOn);
            s.alarmHours = readInt(in, s.alarmHours);
            s.alarmMinutes = readInt(in, s.alarmMinutes);
        } else if (strcasecmp(key, "AuxLevel") == 0) {
            s.auxLevel = readInt(in, s.auxLevel);
        } else if (strcasecmp(key, "Hires") == 0) {
            s.hires = readInt(in, s.hires);
        } else if (strcasecmp(key, "Impedance") == 0) {
            s.impedance = readInt(in, s.impedance);
        } else if (strcasecmp(key, "SelectedBluetoothMAC") == 0) {
            s.bluetoothMAC = readText(in);
        } else if (strcasecmp(key, "GuestPlaylist") == 0) {
            s.guestPlaylist = readInt(in, s.guestPlaylist + 1) - 1;
        } else if (strcasecmp(key, "TagMask") == 0) {
            lib().orMask = static_cast<int32_t>(readLong(in, lib().orMask));
            lib().notMask = static_cast<int32_t>(readLong(in, lib().notMask));
        } else if (findNoCase(key, "TagName")) {
            int tag = readInt(in, -1);
            std::string name = readText(in);
            if (tag >= 0 && tag < Library::kTags) {
                copyText(lib().tagNames[tag], Library::kTagNameSize, name.c_str());
                kzLog("Tag %d = %s\n", tag, lib().tagNames[tag]);
            }
        } else if (strcasecmp(key, "CurrentRadio") == 0) {
            s.currentRadio = readStation(in, keptBack, &kept);
            kzLog("Current Radio = %s\n", s.currentRadio.name.c_str());
        } else if (strncasecmp(key, "Preset", 6) == 0) {
            int index = -1;
            sscanf(key + 6, "%d", &index);
            RadioStation station = readStation(in, keptBack, &kept);
            if (index >= 0 && index < kPresets) s.presets[index] = station;
        } else {
            int row = findSettingRow(key);
            if (row >= 0) s.values[row] = readInt(in, s.values[row]);
        }
    }
    f.reset();
    setBassTreble(getBassSetting(), getTrebleSetting());
    setVolume(getVolume(), 6);
    return 1;
}

void saveSettings() {
    S().dirty = 1;
}
void postSaveSettings() {
    S().dirty = 1;
}
void saveSettingsNow() {
    saveSettings();
    postSaveSettings();
}
void flushSettings() {}
bool settingsChanged() {
    return S().dirty != 0;
}

void flushSettingsRaw() {
    kzLog("########## flushSettings \n");
    S().dirty = 0;
    if (noStorage() || getLocalPath().empty()) return;

    if (writeFileAtomically(getSettingsPath(), [](FILE* f) {
            writeAll(f);
            return true;
        })) {
        return;
    }
    kzLog("Cannot write kzsettings\n");
    // Memory keeps the settings; the next write tries again.
    S().dirty = 1;
}

int getCompressionMode() {
    return S().compression;
}
void setCompressionMode(int mode) {
    kzLog("setCompressionMode (%d)\n", mode);
    S().compression = mode;
    saveSettings();
}
bool isCompressionEnabled() {
    return S().compression != 3;
}
const char* getCompressionText() {
    int c = S().compression;
    return c >= 0 && c <= 4 ? compressionModes[c] : "FLAC";
}
int getSegueMode() {
    return S().segue;
}
bool isSegue() {
    return S().segue != 0;
}
void setSegue(int mode) {
    S().segue = mode;
    saveSettings();
}
const char* getSegueText() {
    int m = S().segue;
    return m >= 0 && m <= 2 ? segueModes[m] : "Off";
}
int getJackSenseEnabled() {
    return S().jackSense;
}
void setJackSenseEnabled(int mode) {
    S().jackSense = mode;
    saveSettings();
}
bool isSorted() {
    return S().sorted != 0;
}
void setSorted(int on) {
    S().sorted = on;
    saveSettings();
}
bool isReversed() {
    return S().reversed != 0;
}
void setReversed(int on) {
    S().reversed = on;
    saveSettings();
}
int getLoggingMode() {
    return S().logging;
}
void setLoggingMode(int mode) {
    S().logging = mode;
    saveSettings();
}
const char* getLoggingText() {
    int m = S().logging;
    return m >= 0 && m <= 2 ? loggingModes[m] : "Normal";
}
int getAuxLevel() {
    return S().auxLevel;
}
void setAuxLevel(int level) {
    S().auxLevel = level;
    saveSettings();
}
int getMirrorCount() {
    return lib().mirrorCount;
}
void setMirrorCount(int count) {
    lib().mirrorCount = count;
}
int getGuestModePlaylist() {
    return S().guestPlaylist;
}
void setGuestModePlaylist(int index) {
    S().guestPlaylist = index;
    saveSettings();
}

int getVolume() {
    return S().volume;
}
int getWiredVolume() {
    return S().volume;
}
void setWiredVolume(int volume) {
    S().volume = volume;
    saveSettings();
}
int getHeadphoneVolume() {
    return S().headphoneVolume;
}
void setHeadphoneVolume(int volume) {
    S().headphoneVolume = volume;
    saveSettings();
}
int getTimeZone() {
    return S().timeZone;
}
void setTimeZone(int hours) {
    S().timeZone = hours;
    saveSettings();
}
int getSpeaker() {
    return S().speaker;
}
void setSpeaker(int speaker) {
    S().speaker = speaker;
    saveSettings();
}
int getImpedance() {
    return S().impedance;
}
int getHires() {
    return S().hires;
}
void getAlarm(int* on, int* hours, int* minutes) {
    *on = S().alarmOn;
    *hours = S().alarmHours;
    *minutes = S().alarmMinutes;
}
void setAlarm(int on, int hours, int minutes) {
    S().alarmOn = on;
    S().alarmHours = hours;
    S().alarmMinutes = minutes;
    saveSettings();
}
std::string getSelectedBluetoothMAC() {
    return S().bluetoothMAC;
}
void setSelectedBluetoothMAC(const std::string& mac) {
    S().bluetoothMAC = mac;
    saveSettings();
}
const RadioStation& getCurrentRadio() {
    return S().currentRadio;
}
void setCurrentRadio(const RadioStation& station) {
    S().currentRadio = station;
    saveSettings();
}
const RadioStation& getPreset(int index) {
    static const RadioStation none;
    return index >= 0 && index < kPresets ? S().presets[index] : none;
}
void setPreset(int index, const RadioStation& station) {
    if (index < 0 || index >= kPresets) return;
    S().presets[index] = station;
    saveSettings();
}

int getBrightnessSetting() {
    return S().values[ROW_BRIGHTNESS];
}
int getSwapSetting() {
    return S().values[ROW_LRSWAP];
}
int getVUMeterSetting() {
    return S().values[ROW_VUMETER];
}
int getTZoneMinutes() {
    return S().values[ROW_TZONE_MINUTES];
}
bool isClassical() {
    return S().values[ROW_CLASSICAL] != 0;
}
void setClassical(int on) {
    setRow(ROW_CLASSICAL, on);
}
bool isTVUIEnabled() {
    return S().values[ROW_TVUI] != 0;
}
void setTVUI(int on) {
    setRow(ROW_TVUI, on);
}
bool isHDMIEnabled() {
    return S().values[ROW_HDMI] != 0;
}
void setHDMI(int on) {
    setRow(ROW_HDMI, on);
}
bool isTandem() {
    return S().values[ROW_TANDEM] != 0;
}
void setTandem(int on) {
    setRow(ROW_TANDEM, on);
}
bool isGuestMode() {
    return S().values[ROW_GUEST] != 0;
}
void setGuest(int on) {
    setRow(ROW_GUEST, on);
}
bool isHotspotEnabled() {
    return S().values[ROW_HOTSPOT] != 0;
}
void setHotspotSetting(int on) {
    setRow(ROW_HOTSPOT, on);
}
int getBassSetting() {
    return S().values[ROW_BASS];
}
int getTrebleSetting() {
    return S().values[ROW_TREBLE];
}
void setBassAndTrebleSettings(int bass, int treble) {
    S().values[ROW_BASS] = bass;
    setRow(ROW_TREBLE, treble);
}
bool isPrefill() {
    return S().values[ROW_PREFILL] != 0;
}
bool isvCacheEnabled() {
    return S().values[ROW_VCACHE] != 0;
}
void setvCache(int on) {
    setRow(ROW_VCACHE, on);
}
int getScreensaver() {
    return S().values[ROW_SCREENSAVER];
}
void setScreensaver(int value) {
    setRow(ROW_SCREENSAVER, value);
}
int getWatchdogSetting() {
    return S().values[ROW_WATCHDOG];
}
void setWatchdogSetting(int on) {
    setRow(ROW_WATCHDOG, on);
}
bool isEqualiserEnabled() {
    return S().values[ROW_EQUALISER] != 0;
}
void setEqualiser(int on) {
    setRow(ROW_EQUALISER, on);
}
int getTonePresetSetting() {
    return S().values[ROW_TONE_PRESET];
}
void setTonePresetSetting(int preset) {
    setRow(ROW_TONE_PRESET, preset);
}
int getVideoModeSetting() {
    return S().values[ROW_VIDEO_MODE];
}
void setVideoModeSetting(int mode) {
    setRow(ROW_VIDEO_MODE, mode);
}
int getDLNASetting() {
    return S().values[ROW_DLNA];
}
void setDLNASetting(int on) {
    setRow(ROW_DLNA, on);
}
int getHeadphoneEnabled() {
    return S().values[ROW_HEADPHONE];
}
void setHeadphoneEnable(int value) {
    setRow(ROW_HEADPHONE, value);
}
int getTftBrightnessSetting() {
    return S().values[ROW_TFT_BRIGHTNESS];
}
void setTftBrightnessSetting(int value) {
    setRow(ROW_TFT_BRIGHTNESS, value);
}
bool isAirable() {
    return S().values[ROW_AIRABLE] != 0;
}
void setAirable(int on) {
    setRow(ROW_AIRABLE, on);
}

const char* getMatchingWifiPassword(const char* ssid) {
    if (!ssid) return nullptr;
    for (int i = 0; i < S().wifiCount; i++) {
        if (strcmp(S().wifi[i].ssid, ssid) == 0) return S().wifi[i].password;
    }
    return nullptr;
}

void setWifiPassword(const char* ssid, const char* password, int wep) {
    if (!ssid || !password) return;
    Settings& s = S();
    for (int i = 0; i < s.wifiCount; i++) {
        if (strcmp(s.wifi[i].ssid, ssid) == 0) {
            copyText(s.wifi[i].password, sizeof s.wifi[i].password, password);
            s.wifi[i].wep = wep;
            saveSettings();
            return;
        }
    }
    if (s.wifiCount >= kMaxWifi) {
        kzLog("setWifiPassword () %d networks known, %s not added\n", kMaxWifi, ssid);
        return;
    }
    WifiEntry& w = s.wifi[s.wifiCount++];
    copyText(w.ssid, sizeof w.ssid, ssid);
    copyText(w.password, sizeof w.password, password);
    w.wep = 0;
    saveSettings();
}

const char* getKnownWifiName(int index) {
    return index >= 0 && index < S().wifiCount ? S().wifi[index].ssid : "";
}
const char* getKnownWifiPassword(int index) {
    return index >= 0 && index < S().wifiCount ? S().wifi[index].password : "";
}
int getKnownWifiMode(int index) {
    return index >= 0 && index < S().wifiCount ? S().wifi[index].wep : 0;
}
int getKnownWifiCount() {
    return S().wifiCount;
}
void clearWifiPasswords() {
    S().wifiCount = 0;
}

namespace {
// The defaults hold before any file is read (no storage: none ever is).
struct DefaultsAtStart {
    DefaultsAtStart() { resetSettings(); }
} defaultsAtStart;
}  // namespace
