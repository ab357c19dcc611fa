"""USB drives in host mode: a folder appearing at root/media/usba is a drive
plugged in, its removal the drive pulled out. The drive is browsed, played,
imported from, backed up to and restored from over the web interface."""
import os
import pathlib
import shutil
import subprocess
import time
import urllib.parse

import pytest

from client import Client


def quote_all(path):
    """The pages send every byte percent-encoded."""
    return "".join(f"%{b:02X}" for b in path.encode())


def encode(path, seconds=1.0, freq=440, tags=None):
    """A short real audio file; its format follows its extension."""
    path.parent.mkdir(parents=True, exist_ok=True)
    meta = []
    for k, v in (tags or {}).items():
        meta += ["-metadata", f"{k}={v}"]
    ext = path.suffix.lower()
    codec = {".mp3": ["-c:a", "libmp3lame", "-b:a", "64k", "-f", "mp3"],
             ".flac": ["-c:a", "flac", "-f", "flac"],
             ".m4a": ["-c:a", "aac", "-b:a", "64k", "-f", "ipod"],
             ".wav": ["-c:a", "pcm_s16le", "-f", "wav"]}[ext]
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    f"sine=frequency={freq}:sample_rate=44100:duration={seconds}", "-ac", "2"]
                   + meta + codec + [str(path)], check=True)


def make_drive(where):
    """A drive with albums in folders, a loose heap named by tags, FAT-style
    8.3 names, junk, hidden files and links that go round or off the drive."""
    encode(where / "Artist A" / "Album X" / "01 One.mp3", tags={"title": "One"})
    encode(where / "Artist A" / "Album X" / "02 Two.flac", 4, freq=550, tags={"title": "Two"})
    encode(where / "Artist A" / "Album Y" / "01 Why.m4a", freq=660)
    encode(where / "MUSIC" / "ARTIST~1" / "ALBUM~1" / "TRACK01.MP3", freq=300)
    encode(where / "heap1.mp3", freq=350,
           tags={"artist": "Heap Artist", "album": "Heap Album", "title": "H1"})
    encode(where / "Loose" / "heap2.flac", freq=370,
           tags={"artist": "Heap Artist", "album": "Heap Album", "title": "H2"})
    encode(where / "Loose" / "untagged.mp3", freq=390)
    (where / "notes.txt").write_text("not music")
    (where / "Artist A" / "Album X" / "._01 One.mp3").write_bytes(b"\0" * 100)
    (where / ".hidden.mp3").write_bytes(b"\0" * 100)
    (where / "$RECYCLE.BIN").mkdir()
    shutil.copy(where / "heap1.mp3", where / "$RECYCLE.BIN" / "gone.mp3")
    (where / "Loop").mkdir()
    os.symlink("..", where / "Loop" / "again")
    os.symlink("/etc", where / "Outside")
    os.symlink("/etc/passwd", where / "Artist A" / "Album X" / "03 passwd.mp3")


class Kz(Client):
    until_seconds = 30

    def usb(self):
        return self.root / "media" / "usba"

    def plug(self, built):
        os.rename(built, self.usb())
        self.until(lambda: self.status()["usb"] == "usba" and not self.status()["usbScanning"],
                   what="the drive's scan")

    def pull(self, keep):
        os.rename(self.usb(), keep)
        self.until(lambda: self.status()["usb"] == "", what="the drive to go")

    def job_done(self, kind, timeout=60):
        return self.until(lambda: (lambda j: j["job"] == kind and not j["running"] and j)(
            self.json("storageJob")), timeout, f"the {kind} to end")


def hdd(root):
    return root / "media" / "hdd1"


def library_root(tmp_path):
    root = tmp_path / "root"
    (hdd(root) / "music" / "Old Artist" / "Old Album").mkdir(parents=True)
    encode(hdd(root) / "music" / "Old Artist" / "Old Album" / "01 Old.mp3")
    return root


def test_drive_is_browsed_played_and_forgotten(daemon, tmp_path):
    root = library_root(tmp_path)
    built = tmp_path / "drive"
    make_drive(built)
    pcm = tmp_path / "out.raw"
    kz = Kz(daemon, root, env={"KZ_PCM": f"file:FILE={pcm},FORMAT=raw"})
    assert kz.status()["usb"] == ""
    kz.plug(built)
    s = kz.status()
    # Album X (2, the link is not a track), Album Y, ALBUM~1, the loose two
    # folders' files; nothing hidden, nothing behind a link or in $RECYCLE.BIN.
    assert (s["usbTracks"], s["usbAlbums"]) == (7, 5)
    info = kz.json("getWebInfo")
    assert (info["USBTracks"], info["USBAlbums"]) == ("7", "5")

    top = kz.json("listDir&path=")
    assert top["drive"] == "usba"
    assert top["folders"] == ["Artist A", "Loop", "Loose", "MUSIC"]
    assert [f["name"] for f in top["files"]] == ["heap1.mp3"]
    album = kz.json("listDir&path=" + quote_all("Artist A/Album X"))
    assert [f["name"] for f in album["files"]] == ["01 One.mp3", "02 Two.flac"]
    assert all(f["id"] >= 10000000 for f in album["files"])
    # Plain text works as well as the pages' encoding.
    assert kz.json("listDir&path=Artist%20A/Album%20X") == album
    # Nothing leaves the drive: not by "..", not through a link.
    for bad in ("..", "Artist A/../..", "Outside", "Loop/again", "/etc", "Nope"):
        out = kz.json("listDir&path=" + quote_all(bad))
        assert out["folders"] == [] and out["files"] == [] and out["error"], bad
    assert kz.json("getTagsForPath&path=" + quote_all("Outside/passwd")) == {}
    assert kz.json("getTagsForPath&path=" + quote_all("Artist A/Album X/03 passwd.mp3")) == {}

    tags = kz.json("getTagsForPath&path=" + quote_all("heap1.mp3"))
    assert (tags["artist"], tags["album"], tags["title"], tags["codec"]) == \
        ("Heap Artist", "Heap Album", "H1", "mp3")
    assert 0.9 < tags["duration"] < 1.2

    # A track of the drive plays by its identifier, named from the drive.
    two = album["files"][1]["id"]
    kz.api(f"playID&id={two}")
    playing = kz.until(lambda: (lambda s: s["track"] == "Two" and s)(kz.status()),
                       what="the USB track to play")
    assert (playing["album"], playing["artist"]) == ("Album X", "Artist A")
    kz.until(lambda: pcm.exists() and pcm.stat().st_size > 44100, what="audio to reach the device")

    # Pulled out: the USB library empties, its identifiers play nothing and
    # nothing breaks; plugged in again, it is back.
    kz.api("allStop")
    kz.pull(tmp_path / "away")
    s = kz.status()
    assert (s["usbTracks"], s["usbAlbums"]) == (0, 0)
    assert kz.json("listDir&path=")["files"] == []
    kz.api(f"playID&id={two}")
    assert kz.json("listalbum&id=9000000") == []
    kz.plug(tmp_path / "away")
    assert kz.status()["usbTracks"] == 7
    assert kz.d.proc.poll() is None
