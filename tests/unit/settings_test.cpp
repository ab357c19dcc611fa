#include "library/settings.h"

#include <gtest/gtest.h>

#include <sstream>

#include "core/storage.h"
#include "library/library.h"
#include "tests/unit/libfixture.h"

namespace {

class SettingsTest : public LibraryFixture {
  protected:
    void SetUp() override {
        LibraryFixture::SetUp();
        storageMedium = STORAGE_HDD;
        resetSettings();
    }
    void TearDown() override {
        storageMedium = STORAGE_NONE;
        resetSettings();
        LibraryFixture::TearDown();
    }
    std::string fileText() {
        std::ifstream f(getSettingsPath());
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }
    void writeFile(const std::string& text) { std::ofstream(getSettingsPath()) << text; }
};

TEST_F(SettingsTest, FullFileRoundTripsByteForByte) {
    setCompressionMode(4);
    setSegue(2);
    setJackSenseEnabled(2);
    setSorted(0);
    setReversed(1);
    setCurrentRadio({"Radio Paradise", "http://stream.example/rp", "http://logo.example/rp.png"});
    setPreset(0, {"Jazz", "http://jazz.example", ""});
    setPreset(19, {"Last", "http://last.example", "http://logo/last"});
    setWiredVolume(40);
    setHeadphoneVolume(12);
    lib().currentID = 2000042;
    setLoggingMode(1);
    lib().kbUsed = 123456789;
    setTimeZone(-3);
    setSpeaker(2);
    setAlarm(1, 6, 45);
    setBassAndTrebleSettings(-6, 4);
    setScreensaver(16);
    setAirable(0);
    setWifiPassword("Home", "secret", 0);
    setWifiPassword("Cafe", "latte", 1);     // a new entry never gets the WEP flag...
    setWifiPassword("Cafe", "espresso", 1);  // ...a known one does
    setSelectedBluetoothMAC("AA:BB:CC:DD:EE:FF");
    setGuestModePlaylist(3);
    EXPECT_TRUE(settingsChanged());
    flushSettingsRaw();
    EXPECT_FALSE(settingsChanged());

    std::string text = fileText();
    EXPECT_TRUE(text.starts_with(
        "Compression\nFLAC+MP3\nSegue\nShort\nJacksense\nAlwaysOn\nSorted\nOff\nReversed\nOn\n"));
    EXPECT_NE(text.find("CurrentRadio\nRadio Paradise\nhttp://stream.example/rp\n"
                        "logoUrl http://logo.example/rp.png\nPreset 0\nJazz\nhttp://jazz.example\n"
                        "Preset 1\n\n\nPreset 2\n"),
              std::string::npos);
    EXPECT_NE(text.find("Preset 19\nLast\nhttp://last.example\nlogoUrl http://logo/last\n"
                        "Volume\n40\nHeadphoneVolume\n12\nCurrentTrack\n2000042\nLogging\n1\n"
                        "kbUsed\n123456789\ntimezone\n-3\nSpeaker\n2\nalarm\n1\n6\n45\n"
                        "Brightness\n15\nLRSwap\n1\n"),
              std::string::npos);
    EXPECT_NE(text.find("Bass\n-6\nTreble\n4\n"), std::string::npos);
    EXPECT_TRUE(
        text.ends_with("Airable\n0\nWifi\nHome\nsecret\nWifi\nCafe WEP\nespresso\n"
                       "SelectedBluetoothMAC\nAA:BB:CC:DD:EE:FF\nGuestPlaylist\n4\n"))
        << text;

    resetSettings();
    lib().currentID = 0;
    ASSERT_EQ(loadSettings(), 1);
    EXPECT_EQ(getCompressionMode(), 4);
    EXPECT_EQ(getCurrentRadio().logo, "http://logo.example/rp.png");
    EXPECT_EQ(getPreset(0).name, "Jazz");
    EXPECT_EQ(getPreset(0).logo, "");
    EXPECT_EQ(getGuestModePlaylist(), 3);
    EXPECT_EQ(lib().currentID, 2000042);
    EXPECT_EQ(getKnownWifiCount(), 2);
    EXPECT_STREQ(getMatchingWifiPassword("Cafe"), "espresso");
    EXPECT_EQ(getKnownWifiMode(1), 1);
    flushSettingsRaw();
    EXPECT_EQ(fileText(), text);
}

TEST_F(SettingsTest, ReadingIsForgivingAndCaseBlind) {
    writeFile(
        "Compression\nMP3\n"
        "brightness\n3\n"
        "SEGUE\nOn\n"
        "Preset 4\nFour\nhttp://four\n"  // no logo line: the next key is kept back
        "Volume\n33\n"
        "Preset 99\nOut of range\nhttp://x\n"
        "Mystery\n"
        "Screensaver\n99\n"  // out of range values are taken as they stand
        "Impedance\n16\nAuxLevel\n70\nHires\n1\n"
        "TagName 2\n2\nJazz\n"
        "TagMask\n5\n2\n"
        "Wifi\nMy Network\npw1\n"
        "GuestPlaylist\n0\n"
        "Logging\n");
    ASSERT_EQ(loadSettings(), 1);
    EXPECT_EQ(getCompressionMode(), 1);
    EXPECT_STREQ(getCompressionText(), "MP3 128K");
    EXPECT_EQ(getBrightnessSetting(), 3);
    EXPECT_EQ(getSegueMode(), 1);
    EXPECT_EQ(getPreset(4).url, "http://four");
    EXPECT_EQ(getVolume(), 33);
    EXPECT_EQ(getScreensaver(), 99);
    EXPECT_EQ(getImpedance(), 16);
    EXPECT_EQ(getAuxLevel(), 70);
    EXPECT_STREQ(getTagName(2), "Jazz");
    EXPECT_EQ(lib().orMask, 5);
    EXPECT_EQ(lib().notMask, 2);
    // An SSID with a space: its first word, and the second word means WEP.
    EXPECT_STREQ(getKnownWifiName(0), "My");
    EXPECT_EQ(getKnownWifiMode(0), 1);
    EXPECT_EQ(getGuestModePlaylist(), -1);
    EXPECT_EQ(getLoggingMode(), 0);

    // The old "MP3" is written back in today's words; retired keys are not.
    flushSettingsRaw();
    std::string text = fileText();
    EXPECT_TRUE(text.starts_with("Compression\nMP3 128K\n"));
    EXPECT_EQ(text.find("Impedance"), std::string::npos);
    EXPECT_EQ(text.find("TagMask"), std::string::npos);
}

TEST_F(SettingsTest, WifiStoreHoldsFiftyNetworks) {
    std::string file;
    for (int i = 0; i < 1000; i++)
        file += "Wifi\nnet" + std::to_string(i) + "\npw\n";
    file += std::string(10000, 'k') + "\n" + "Volume\n30\n";
    writeFile(file);
    ASSERT_EQ(loadSettings(), 1);
    EXPECT_EQ(getKnownWifiCount(), kMaxWifi);
    EXPECT_EQ(getVolume(), 30);
    setWifiPassword("one more", "pw", 0);
    EXPECT_EQ(getKnownWifiCount(), kMaxWifi);
    EXPECT_EQ(getMatchingWifiPassword("one more"), nullptr);
    setWifiPassword("net7", "new", 0);
    EXPECT_STREQ(getMatchingWifiPassword("net7"), "new");
    setWifiPassword(nullptr, "x", 0);
    clearWifiPasswords();
    EXPECT_EQ(getKnownWifiCount(), 0);
}

TEST_F(SettingsTest, OnlyFlushWritesAndFailuresAreRetried) {
    writeFile("Volume\n20\n");
    ASSERT_EQ(loadSettings(), 1);
    setWiredVolume(50);
    saveSettingsNow();
    flushSettings();
    EXPECT_EQ(fileText(), "Volume\n20\n");

    // Unwritable: the settings stay in memory and the next flush writes them.
    std::filesystem::create_directories(root + "/kzsettings.new/blocker");
    flushSettingsRaw();
    EXPECT_TRUE(settingsChanged());
    EXPECT_EQ(fileText(), "Volume\n20\n");
    std::filesystem::remove_all(root + "/kzsettings.new");
    flushSettingsRaw();
    EXPECT_NE(fileText().find("Volume\n50\n"), std::string::npos);

    // Without storage nothing is written.
    std::filesystem::remove(getSettingsPath());
    storageMedium = STORAGE_NONE;
    flushSettingsRaw();
    EXPECT_FALSE(std::filesystem::exists(getSettingsPath()));

    // A missing file at start: defaults, marked to be written.
    resetSettings();
    initSettings();
    EXPECT_TRUE(settingsChanged());
    EXPECT_EQ(getVolume(), 25);
    EXPECT_EQ(getScreensaver(), 1);
    EXPECT_EQ(findSettingRow("HEADPHONEENABLE"), 20);
    EXPECT_EQ(settingRows[kSettingRows].key, nullptr);
}

}  // namespace
