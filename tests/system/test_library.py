import os
import signal
import time

from kzdaemon import Daemon


def make_tree(music):
    tracks = {
        "Nina Simone/Pastel Blues": ["01 Be My Husband.wav", "02 Nobody.flac"],
        "Nina Simone/Live [J]": ["1-01 Intro.mp3"],
        "Bach/Mass in B minor": ["2-05 Credo.flac"],
    }
    for album, names in tracks.items():
        os.makedirs(music / album)
        for name in names:
            (music / album / name).write_bytes(b"\0" * 3000)
    (music / "Bach" / "Mass in B minor" / "cover.jpg").write_bytes(b"jpg")
    (music / "stray.mp3").write_bytes(b"")


def wait_for_file(path, timeout=20):
    deadline = time.monotonic() + timeout
    while not path.exists():
        assert time.monotonic() < deadline, f"{path} never appeared"
        time.sleep(0.05)


def read_albums(kzdb):
    lines = kzdb.read_text().split("\n")
    assert lines[0] == "Version 3"
    count = int(lines[1].split()[0])
    albums, at = {}, 2
    for _ in range(count):
        name, n = lines[at], int(lines[at + 1].split()[0])
        albums[name] = sorted(lines[at + 2: at + 2 + n])
        at += 2 + n
    assert lines[at:] == [""]
    return albums


def test_first_start_scans_and_writes_kzdb_then_loads_it(daemon, tmp_path):
    root = tmp_path / "root"
    hdd = root / "media" / "hdd1"
    make_tree(hdd / "music")

    d = daemon(root)
    d.wait_for("loadOrScan () finished")
    wait_for_file(hdd / "kzdb")
    assert d.stop() == 0
    assert any("readDB () cannot find" in l for l in d.lines)
    assert read_albums(hdd / "kzdb") == {
        "Nina Simone/Pastel Blues": ["01 Be My Husband.wav", "02 Nobody.flac"],
        "Nina Simone/Live [J]": ["1-01 Intro.mp3"],
        "Bach/Mass in B minor": ["2-05 Credo.flac"],
    }
    assert "3 albums" in d.lines and "4 tracks" in d.lines and "2 artists" in d.lines

    # The second start reads the file instead of scanning.
    before = (hdd / "kzdb").read_bytes()
    d = daemon(root)
    d.wait_for("loadOrScan () finished")
    assert d.stop(signal.SIGINT) == 0
    assert "First line Version 3" in d.lines
    assert not any("writeDB ()" in l for l in d.lines)
    assert (hdd / "kzdb").read_bytes() == before
