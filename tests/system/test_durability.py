"""The library file survives a quit or a crash at any moment of a load, a
first scan or a save: the next start always finds the whole library."""
import random
import signal
import time

from test_library import read_albums


def kzdb_text(albums):
    parts = ["Version 3\n", f"{albums} Albums 0 mirror\n"]
    for a in range(albums):
        parts.append(f"Artist {a % 700}/Album number {a}\n2 tracks\n"
                     f"01 First song {a}.flac\n02 Second song {a}.mp3\n")
    return "".join(parts)


def stop_at(d, delay, sig, after="Printf to stdout"):
    # A signal before the program has started at all is not a quit.
    d.wait_for(after)
    time.sleep(delay)
    status = d.stop(sig)
    if sig == signal.SIGTERM:
        assert status == 0, "\n".join(d.lines)


def test_quit_or_crash_while_loading_keeps_the_whole_kzdb(daemon, tmp_path):
    hdd = tmp_path / "root" / "media" / "hdd1"
    (hdd / "music").mkdir(parents=True)
    text = kzdb_text(10000)
    (hdd / "kzdb").write_text(text)
    rng = random.Random(14)
    for round in range(50):
        d = daemon()
        stop_at(d, rng.uniform(0, 0.03), signal.SIGTERM if round % 2 else signal.SIGKILL,
                after="loadOrScan 1")
        assert (hdd / "kzdb").read_text() == text, f"round {round}"
    d = daemon()
    d.wait_for("loadOrScan () finished")
    assert "10000 albums" in d.lines
    assert d.stop() == 0
    assert (hdd / "kzdb").read_text() == text


def test_quit_or_crash_during_the_first_scan_leaves_no_part_of_the_library(daemon, tmp_path):
    hdd = tmp_path / "root" / "media" / "hdd1"
    music = hdd / "music"
    for a in range(1500):
        album = music / f"Artist {a % 100}" / f"Album {a}"
        album.mkdir(parents=True)
        (album / "01 Song.mp3").write_bytes(b"\0" * 100)
    rng = random.Random(15)
    for round in range(50):
        d = daemon()
        stop_at(d, rng.uniform(0, 0.15), signal.SIGTERM if round % 2 else signal.SIGKILL)
        # Either no kzdb yet (the next start scans again) or the whole one.
        if (hdd / "kzdb").exists():
            assert len(read_albums(hdd / "kzdb")) == 1500, f"round {round}"
            (hdd / "kzdb").unlink()
    d = daemon()
    d.wait_for("loadOrScan () finished")
    assert d.stop() == 0
    assert len(read_albums(hdd / "kzdb")) == 1500
