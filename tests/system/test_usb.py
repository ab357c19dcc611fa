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

import kzdaemon
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


def kzdb_albums(root):
    """The "artist/album" lines of kzdb with their track names."""
    lines = (hdd(root) / "kzdb").read_text().split("\n")
    out, i = {}, 2
    while i < len(lines) and lines[i]:
        count = int(lines[i + 1].split()[0])
        out[lines[i]] = sorted(lines[i + 2:i + 2 + count])
        i += 2 + count
    return out


def same_bytes(a, b):
    return a.read_bytes() == b.read_bytes()


def test_import_places_albums_skips_what_is_there_and_survives_a_pulled_drive(daemon, tmp_path):
    root = library_root(tmp_path)
    # The library already holds this artist in other letters: one artist.
    encode(hdd(root) / "music" / "ARTIST A" / "Album X" / "01 One.mp3", tags={"title": "One"})
    built = tmp_path / "drive"
    make_drive(built)
    # Names the library cannot hold as they are.
    encode(built / "Bad" / "Star*Album" / "01 Song.mp3")
    # Many tracks, so that a pull lands in the middle of the copying.
    for n in range(150):
        (built / "Big Artist" / "Big Album").mkdir(parents=True, exist_ok=True)
        (built / "Big Artist" / "Big Album" / f"{n:03d} Noise.wav").write_bytes(
            os.urandom(1 << 19))
    kz = Kz(daemon, root)
    kz.plug(built)

    # One album first, as the USB view asks for it.
    assert kz.json("USBImport&path=" + quote_all("Artist A/Album X")) == "OK"
    done = kz.job_done("import")
    assert "Imported 1 tracks in 1 albums, 1 already there" in done["message"], done
    music = hdd(root) / "music"
    assert sorted(p.name for p in (music / "ARTIST A" / "Album X").iterdir()) == \
        ["01 One.mp3", "02 Two.flac"]
    assert same_bytes(music / "ARTIST A" / "Album X" / "02 Two.flac",
                      kz.usb() / "Artist A" / "Album X" / "02 Two.flac")
    assert not (music / "Artist A").exists()
    # A busy worker says so rather than starting a second copy.
    assert kz.json("USBImport&path=" + quote_all("..")) == "OK"
    kz.job_done("import")

    # The whole drive; pulled out in the middle of the big album.
    assert kz.json("USBImport") == "OK"
    deadline = time.monotonic() + 30
    while kz.json("storageJob")["done"] < 10:
        assert time.monotonic() < deadline
    kz.pull(tmp_path / "away")
    stopped = kz.job_done("import")
    assert "went away" in stopped["message"], stopped
    parts = [p for p in music.rglob("*") if p.name.startswith(".kz-import")]
    assert parts == []
    # Whatever landed is whole.
    away = tmp_path / "away"
    for p in (music / "Big Artist" / "Big Album").glob("*.wav"):
        assert same_bytes(p, away / "Big Artist" / "Big Album" / p.name), p

    # Back in: the import goes on and ends with every track exactly once.
    kz.plug(away)
    assert kz.json("USBImport") == "OK"
    done = kz.job_done("import", timeout=120)
    assert done["message"].startswith("Imported"), done
    for n in range(150):
        name = f"{n:03d} Noise.wav"
        assert same_bytes(music / "Big Artist" / "Big Album" / name,
                          kz.usb() / "Big Artist" / "Big Album" / name)
    # Loose files are placed by their tags; untagged ones by their folder.
    assert sorted(p.name for p in (music / "Heap Artist" / "Heap Album").iterdir()) == \
        ["heap1.mp3", "heap2.flac"]
    assert (music / "Unknown Artist" / "Loose" / "untagged.mp3").exists()
    assert (music / "ARTIST~1" / "ALBUM~1" / "TRACK01.MP3").exists()
    assert (music / "Bad" / "Star_Album" / "01 Song.mp3").exists()
    assert (music / "Artist A" / "Album Y" / "01 Why.m4a").exists() or \
        (music / "ARTIST A" / "Album Y" / "01 Why.m4a").exists()
    # Nothing hidden, nothing behind a link, no junk came over.
    names = {p.name for p in music.rglob("*")}
    assert not names & {"._01 One.mp3", ".hidden.mp3", "gone.mp3", "notes.txt", "03 passwd.mp3",
                        "passwd"}
    # kzdb lists what the disk holds once the import has saved.
    albums = kzdb_albums(root)
    assert albums["Big Artist/Big Album"] == sorted(f"{n:03d} Noise.wav" for n in range(150))
    assert albums["Heap Artist/Heap Album"] == ["heap1.mp3", "heap2.flac"]
    assert albums["ARTIST A/Album X"] == ["01 One.mp3", "02 Two.flac"]
    found = kz.json("search&artists=0&albums=0&count=500&string=Noise")
    assert len(found) == 150

    # Again: nothing to copy.
    assert kz.json("USBImport") == "OK"
    again = kz.job_done("import")
    assert again["message"].startswith("Imported 0 tracks"), again


def tree(folder):
    """Every file under folder by its relative path, with its bytes."""
    return {str(p.relative_to(folder)): p.read_bytes() for p in sorted(folder.rglob("*"))
            if p.is_file() and not p.is_symlink()}


def test_backup_is_incremental_resumes_and_restores_every_byte(daemon, tmp_path):
    root = library_root(tmp_path)
    music = hdd(root) / "music"
    for n in range(30):
        (music / "Big Artist" / "Big Album").mkdir(parents=True, exist_ok=True)
        (music / "Big Artist" / "Big Album" / f"{n:02d} Noise.wav").write_bytes(os.urandom(1 << 20))
    # Enough files that a pull lands in the middle of them.
    for a in range(20):
        folder = music / "Many" / f"Album {a:02d}"
        folder.mkdir(parents=True)
        for t in range(60):
            (folder / f"{t:02d} Bit.mp3").write_bytes(os.urandom(32768))
    encode(music / "Small" / "One" / "01 Keep.flac")
    encode(music / "Small" / "One" / "02 Drop.flac", freq=500)
    drive = tmp_path / "drive"
    drive.mkdir()
    (drive / "Holiday photos").mkdir()
    (drive / "Holiday photos" / "a.jpg").write_bytes(b"jpeg")
    kz = Kz(daemon, root)
    kz.plug(drive)
    assert kz.json("usbDrives")[0]["lastBackup"] == ""
    assert kz.json("startBackup") == "Say which drive: &drive=usba"

    # Pulled out in the middle; the next backup goes on.
    assert kz.json("startBackup&drive=usba") == "OK"
    deadline = time.monotonic() + 30
    while kz.json("storageJob")["done"] < 5:
        assert time.monotonic() < deadline
    os.rename(kz.usb(), tmp_path / "away")
    kz.until(lambda: kz.status()["usb"] == "", what="the drive to go")
    cut = kz.job_done("backup")
    assert "complete" not in cut["message"], cut
    kz.plug(tmp_path / "away")
    assert kz.json("startBackup&drive=usba") == "OK"
    done = kz.job_done("backup", timeout=120)
    assert "complete" in done["message"].lower(), done
    backup = kz.usb() / "kz-backup"
    assert tree(backup / "music") == tree(music)
    assert (backup / "state" / "kzdb").read_bytes() == (hdd(root) / "kzdb").read_bytes()
    assert kz.json("usbDrives")[0]["lastBackup"] != ""
    # The drive's own files are left alone.
    assert (kz.usb() / "Holiday photos" / "a.jpg").read_bytes() == b"jpeg"

    # One track gone, one added: the next backup copies one and moves one
    # to the trash.
    (music / "Small" / "One" / "02 Drop.flac").unlink()
    encode(music / "Small" / "One" / "03 New.flac", freq=600)
    assert kz.json("startBackup&drive=usba") == "OK"
    done = kz.job_done("backup")
    assert tree(backup / "music") == tree(music)
    trashed = [p.name for p in (backup / "trash").rglob("*") if p.is_file()]
    assert trashed == ["02 Drop.flac"]

    # Damage: an album gone, a track cut short, one changed in place, kzdb
    # gone. The restore brings every byte back and the library reads it.
    before = tree(music)
    shutil.rmtree(music / "Small")
    big = music / "Big Artist" / "Big Album"
    with open(big / "03 Noise.wav", "r+b") as f:
        f.truncate(1000)
    data = bytearray((big / "04 Noise.wav").read_bytes())
    data[500] ^= 0xFF
    (big / "04 Noise.wav").write_bytes(bytes(data))
    os.utime(big / "04 Noise.wav", (1, 1))
    (hdd(root) / "kzdb").unlink()
    assert kz.json("startRestore&drive=usba") == "OK"
    done = kz.job_done("restore", timeout=120)
    assert tree(music) == before, done
    kz.until(lambda: len(kz.json("search&artists=0&albums=0&count=500&string=Noise")) == 30,
             what="the library to be read again")
    assert kz.json("search&artists=0&albums=0&count=500&string=Keep")
    assert (hdd(root) / "kzdb").exists()
    assert kz.d.proc.poll() is None


def test_a_full_library_disk_stops_the_import_with_whole_tracks_only(daemon, tmp_path):
    if subprocess.run(["unshare", "-m", "true"], capture_output=True).returncode != 0:
        pytest.skip("no mount namespace here")
    root = tmp_path / "root"
    hdd_dir = hdd(root)
    hdd_dir.mkdir(parents=True)
    built = tmp_path / "drive"
    for n in range(8):
        (built / "Full Artist" / "Full Album").mkdir(parents=True, exist_ok=True)
        (built / "Full Artist" / "Full Album" / f"{n:02d} Big.wav").write_bytes(os.urandom(1 << 20))
    # The library on a 5 MB file system of its own, in the daemon's mount
    # namespace: the eight tracks cannot all fit.
    script = ('mount -t tmpfs -o size=5m kz "$KZ_DISK" && mkdir -p "$KZ_DISK/music/Old/Album" && '
              'exec "$0"')
    kz = Kz(daemon, root, env={"KZ_DISK": str(hdd_dir)},
            command=["unshare", "-m", "sh", "-c", script, kzdaemon.KZ_BIN])
    seen = pathlib.Path(f"/proc/{kz.d.proc.pid}/root{hdd_dir}")
    kz.plug(built)
    assert kz.json("USBImport") == "OK"
    done = kz.job_done("import")
    assert done["message"] == "Import stopped: the library's disk is full", done
    album = seen / "music" / "Full Artist" / "Full Album"
    names = sorted(os.listdir(album))
    assert 0 < len(names) < 8 and all(n.endswith(" Big.wav") for n in names), names
    for n in names:
        assert (album / n).read_bytes() == (kz.usb() / "Full Artist" / "Full Album" / n).read_bytes()
    # The library holds exactly what landed.
    found = sorted(t["track"] for t in kz.json("search&artists=0&albums=0&count=50&string=Big"))
    assert found == [n[:-4] for n in names]
    assert kz.d.proc.poll() is None


def test_a_drive_pulled_during_its_scan_leaves_nothing_behind(daemon, tmp_path):
    root = library_root(tmp_path)
    built = tmp_path / "drive"
    for a in range(40):
        for b in range(10):
            album = built / f"Artist {a}" / f"Album {b}"
            album.mkdir(parents=True)
            for t in range(25):
                (album / f"{t:02d} S.mp3").touch()
    kz = Kz(daemon, root)
    os.rename(built, kz.usb())
    # Pulled as soon as the scan shows; whether it had ended or not, the
    # USB library must end empty, and full again once the drive is back.
    while not (s := kz.status())["usbScanning"] and s["usbTracks"] == 0:
        time.sleep(0.002)
    os.rename(kz.usb(), tmp_path / "away")
    kz.until(lambda: kz.status()["usb"] == "", what="the drive to go")
    time.sleep(1.5)
    s = kz.status()
    assert (s["usb"], s["usbTracks"], s["usbAlbums"], s["usbScanning"]) == ("", 0, 0, False)
    kz.plug(tmp_path / "away")
    assert kz.status()["usbTracks"] == 10000
    assert len(kz.json("listDir&path=" + quote_all("Artist 3/Album 4"))["files"]) == 25
