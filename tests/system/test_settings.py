import signal

ROWS = [("Brightness", 15), ("LRSwap", 1), ("VUMeter", 0), ("TZoneMinutes", 0),
        ("Classical", 0), ("TVUI", 0), ("HDMIOut", 0), ("bluetoothTandem", 0),
        ("GuestMode", 0), ("Hotspot", 0), ("Bass", 0), ("Treble", 0), ("Prefill", 0),
        ("vCache", 0), ("Screensaver", 1), ("Watchdog", 1), ("equaliser", 0),
        ("tonePreset", 0), ("videoMode", 0), ("DLNAEnable", 0),
        # Start-up turns the DAC output off when no USB DAC is attached.
        ("HeadphoneEnable", 0),
        ("tftBrightness", 21), ("Airable", 1)]


def default_settings():
    text = ("Compression\nFLAC\nSegue\nOff\nJacksense\nOn\nSorted\nOn\nReversed\nOff\n"
            "CurrentRadio\n\n\n")
    text += "".join(f"Preset {i}\n\n\n" for i in range(20))
    text += ("Volume\n25\nHeadphoneVolume\n25\nCurrentTrack\n2000000\nLogging\n0\nkbUsed\n0\n"
             "timezone\n1\nSpeaker\n0\nalarm\n0\n7\n0\n")
    text += "".join(f"{key}\n{value}\n" for key, value in ROWS)
    return text + "SelectedBluetoothMAC\n\nGuestPlaylist\n0\n"


def test_quit_writes_default_settings_and_keeps_them(daemon, tmp_path):
    root = tmp_path / "root"
    hdd = root / "media" / "hdd1"
    hdd.mkdir(parents=True)
    d = daemon(root, compression=None)
    d.wait_for("loadOrScan () finished")
    assert d.stop(signal.SIGTERM) == 0
    assert "loadSettings failed saving defaults!" in d.lines
    assert "########## flushSettings " in d.lines
    assert (hdd / "kzsettings").read_text() == default_settings()
    assert not (hdd / "kzsettings.new").exists()

    # A changed value survives a restart; Ctrl-C saves too.
    text = (hdd / "kzsettings").read_text().replace("Volume\n25\n", "Volume\n31\n")
    (hdd / "kzsettings").write_text(text + "Mystery key\n")
    d = daemon(root)
    d.wait_for("loadOrScan () finished")
    assert d.stop(signal.SIGINT) == 0
    assert "loadSettings failed saving defaults!" not in d.lines
    assert (hdd / "kzsettings").read_text() == default_settings().replace(
        "Volume\n25\n", "Volume\n31\n")


def test_no_storage_writes_no_settings(daemon, tmp_path):
    d = daemon()
    d.wait_for("isUSBdac = ")
    assert d.stop() == 0
    assert not list((tmp_path / "root").rglob("kzsettings*"))
