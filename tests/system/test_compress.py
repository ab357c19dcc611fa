"""The compression job with the real libraries: WAVs in the library become
FLAC or MP3 files that decode to the same audio, carry their names and
cover, stay in playlists, play, and survive kill -9 at any moment."""
import json
import math
import os
import random
import signal
import struct
import subprocess
import time
import pathlib

import pytest

from client import Client
from kzdaemon import KZ_BIN
from test_lookup import disc_image

QUOTED_ARTIST = 'AC/DC "Live"'
LONG = "04 " + "x" * 242 + ".wav"  # 249 bytes, the longest name kzdb keeps


def pcm(seconds, freq, rate=44100, channels=2, bits=16, level=0.4):
    """A tone as little-endian PCM, each channel a little different."""
    width = bits // 8
    scale = (1 << (bits - 1)) - 1
    out = bytearray()
    for n in range(int(seconds * rate)):
        for c in range(channels):
            v = int(level * scale * math.sin(2 * math.pi * (freq + 110 * c) * n / rate))
            out += v.to_bytes(width, "little", signed=True)
    return bytes(out)


def noise(seconds, rate=44100):
    return random.Random(7).randbytes(seconds * rate * 4)


def wav(data, rate=44100, channels=2, bits=16, info=None, claim=None):
    """RIFF/WAVE with a LIST/INFO chunk before "fmt " as the ripper writes
    it; claim is the data size the header states (a file cut short)."""
    list_chunk = b""
    if info:
        body = b"INFO"
        for key, text in info.items():
            raw = text.encode() + b"\0"
            raw += b"\0" * (len(raw) % 2)
            body += key.encode() + struct.pack("<I", len(raw)) + raw
        list_chunk = b"LIST" + struct.pack("<I", len(body)) + body
    block = channels * bits // 8
    fmt = b"fmt " + struct.pack("<IHHIIHH", 16, 1, channels, rate, rate * block, block, bits)
    size = len(data) if claim is None else claim
    body = b"WAVE" + list_chunk + fmt + b"data" + struct.pack("<I", size) + data
    return b"RIFF" + struct.pack("<I", len(body)) + body


def decode(path, fmt="s16le"):
    return subprocess.run(["ffmpeg", "-v", "error", "-i", str(path), "-f", fmt, "-"],
                          check=True, capture_output=True).stdout


def probe(path):
    out = subprocess.run(["ffprobe", "-v", "error", "-show_format", "-show_streams", "-of", "json",
                          str(path)], check=True, capture_output=True).stdout
    info = json.loads(out)
    tags = {k.lower(): v for k, v in info["format"].get("tags", {}).items()}
    return info, tags


def cover(path):
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "color=c=teal:s=64x64",
                    "-frames:v", "1", str(path)], check=True)
    return path.read_bytes()


class Kz(Client):
    until_seconds = 60

    def __init__(self, daemon, root, env=None, compression="None", **kw):
        super().__init__(daemon, root, env, compression=compression, **kw)

    def idle(self, timeout=60):
        """Waits for the job to have nothing left: no WAV it would take."""
        self.until(lambda: self.json("slowStatus")["background"] == "" and
                   not any("Compressing " in l for l in self.d.lines[-1:]), timeout, "the job to finish")

    def tracks(self):
        return [i["track"] for i in self.json("search&artists=0&albums=0&count=500&string=")]


def kzdb_tracks(hdd):
    """(album path, track) pairs that kzdb lists."""
    lines = (hdd / "kzdb").read_text().split("\n")
    out, i = [], 2
    while i < len(lines) and lines[i]:
        album, count = lines[i], int(lines[i + 1].split()[0])
        out += [(album, t) for t in lines[i + 2:i + 2 + count]]
        i += 2 + count
    return out


def wait_for_files(kz, folder, names, timeout=60):
    kz.until(lambda: all((folder / n).exists() for n in names) and
             not kz.json("slowStatus")["background"], timeout, f"{names} in {folder}")


def test_flac_replaces_each_wav_proven_tagged_and_playable(daemon, tmp_path):
    root = tmp_path / "root"
    hdd = root / "media" / "hdd1"
    album = hdd / "music" / "Quoted Artist" / 'Songs "in" Quotes'
    album.mkdir(parents=True)
    art = cover(album / "coverart.jpg")
    audio = {
        "01 First.wav": (pcm(2, 440), dict(rate=44100, info={
            "IART": QUOTED_ARTIST, "INAM": "First Light", "IPRD": 'Songs "in" Quotes',
            "ITRK": "1", "ICRD": "1999", "IGNR": "Rock"})),
        "02 Second.wav": (pcm(1.5, 550, rate=48000, bits=24), dict(rate=48000, bits=24)),
        # Cut short: the header claims 10 s, the file holds 1 s and half a frame.
        "03 Short.wav": (pcm(1, 660) + b"\x01\x02", dict(claim=44100 * 4 * 10)),
        LONG: (pcm(1, 330, channels=1), dict(channels=1)),
    }
    for name, (data, kw) in audio.items():
        (album / name).write_bytes(wav(data, **kw))
    (album / "05 Broken.wav").write_bytes(b"RIFF\x10\0\0\0WAVEjunkjunkjunk")
    raw = tmp_path / "out.raw"

    # A playlist made while they are WAVs still holds the track afterwards.
    kz = Kz(daemon, root, env={"KZ_PCM": f"file:FILE={raw},FORMAT=raw"})
    first = next(i["id"] for i in kz.json("search&artists=0&albums=0&string=First") if i["track"] == "01 First")
    pl = kz.json("newPlaylist&name=Keep")["id"]
    kz.raw(f"addIdToPlaylist&id={first}&playlist={pl}&index=0")
    assert not kz.json("slowStatus")["background"]
    assert all((album / n).exists() for n in audio)  # "None" leaves WAVs alone

    kz.raw("setCompression&mode=flac")
    long_flac = LONG[:244] + ".flac"  # cut to stay within 249 bytes
    flacs = ["01 First.flac", "02 Second.flac", "03 Short.flac", long_flac]
    wait_for_files(kz, album, flacs)
    kz.until(lambda: not (album / "01 First.wav").exists(), 20, "the WAVs to go")
    kz.d.wait_for("Compression of")  # the broken one

    # Every sample survives, at its own width; the short file gives what it held.
    assert decode(album / "01 First.flac") == audio["01 First.wav"][0]
    assert decode(album / "02 Second.flac", "s24le") == audio["02 Second.wav"][0]
    assert decode(album / "03 Short.flac") == audio["03 Short.wav"][0][:-2]
    assert decode(album / long_flac) == audio[LONG][0]
    info, tags = probe(album / "01 First.flac")
    assert (tags["artist"], tags["album"], tags["title"], tags["track"], tags["date"], tags["genre"]) == \
        (QUOTED_ARTIST, 'Songs "in" Quotes', "First Light", "1", "1999", "Rock")
    pics = [s for s in info["streams"] if s.get("disposition", {}).get("attached_pic")]
    assert len(pics) == 1 and pics[0]["codec_name"] == "mjpeg"
    _, tags = probe(album / "02 Second.flac")  # no LIST/INFO: the library's names
    assert (tags["artist"], tags["title"], tags["track"]) == ("Quoted Artist", "Second", "2")

    # The library lists each track once under its new name, kzdb too, and
    # nothing half made or pending is left; the broken WAV stays as it was.
    names = sorted(os.listdir(album))
    assert names == sorted(flacs + ["05 Broken.wav", "coverart.jpg"])
    assert sorted(kz.tracks()) == sorted(["01 First", "02 Second", "03 Short", LONG[:244], "05 Broken"])
    listed = [t for a, t in kzdb_tracks(hdd)]
    assert sorted(listed) == sorted(flacs + ["05 Broken.wav"])
    assert not (hdd / "kzcompress").exists()
    assert [e["track"] for e in kz.json(f"listplaylist&id={pl}")] == ["01 First"]
    info = kz.json("getWebInfo")
    assert (info["flacs"], info["wavs"]) == ("4", "1")

    # A compressed track plays.
    kz.raw("vol64")
    kz.raw(f"playID&id={first}")
    kz.until(lambda: kz.json("status")["track"] in ("First", "01 First"), 10, "First to play")
    time.sleep(1.5)
    assert kz.d.stop() == 0
    heard = raw.read_bytes()
    assert max(abs(v) for v in struct.unpack(f"<{len(heard) // 2}h", heard[:len(heard) // 2 * 2])) > 3000
    # After a restart: the same, from kzdb.
    kz = Kz(daemon, root)
    assert sorted(kz.tracks()) == sorted(["01 First", "02 Second", "03 Short", LONG[:244], "05 Broken"])
    assert [e["track"] for e in kz.json(f"listplaylist&id={pl}")] == ["01 First"]


def test_mp3_modes_the_copy_tree_and_a_change_of_mind(daemon, tmp_path):
    root = tmp_path / "root"
    hdd = root / "media" / "hdd1"
    one = hdd / "music" / "Band" / "Small"
    two = hdd / "music" / "Band" / "Copied"
    for folder in (one, two):
        folder.mkdir(parents=True)
    art = cover(one / "coverart.jpg")
    tone = pcm(3, 440)
    info = {"IART": "Bänd Ünicode", "INAM": "Naïve", "IPRD": "Small", "ITRK": "1"}
    (one / "01 Naive.wav").write_bytes(wav(tone, info=info))
    (one / "02 Plain.wav").write_bytes(wav(pcm(2, 300)))
    kz = Kz(daemon, root)
    kz.raw("setCompression&mode=mp3%20128k")
    wait_for_files(kz, one, ["01 Naive.mp3", "02 Plain.mp3"])
    kz.until(lambda: not (one / "01 Naive.wav").exists(), 20, "the WAVs to go")

    info_, tags = probe(one / "01 Naive.mp3")
    audio = next(s for s in info_["streams"] if s["codec_type"] == "audio")
    assert (audio["codec_name"], audio["bit_rate"]) == ("mp3", "128000")
    assert (tags["artist"], tags["title"], tags["album"], tags["track"]) == ("Bänd Ünicode", "Naïve", "Small", "1")
    assert any(s.get("disposition", {}).get("attached_pic") for s in info_["streams"])
    # Length exact to the sample (the Info frame trims the encoder's delay)
    # and the level of the tone within a decibel.
    got = decode(one / "01 Naive.mp3")
    assert abs(len(got) - len(tone)) <= 4 * 1152
    rms = lambda b: math.sqrt(sum(v * v for v in struct.unpack(f"<{len(b) // 2}h", b)) / (len(b) // 2))
    assert abs(20 * math.log10(rms(got[:len(tone)]) / rms(tone))) < 1

    # FLAC+MP3: FLACs in the library, a 256k MP3 copy beside it, not in it.
    for i in range(1, 4):
        (two / f"0{i} Part {i}.wav").write_bytes(wav(pcm(2, 200 * i), info={"IART": "Band", "IPRD": "Copied"}))
    kz.raw("scanDisk")
    kz.raw("setCompression&mode=flac%2Bmp3")
    copies = hdd / "mp3" / "Band" / "Copied"
    wait_for_files(kz, two, [f"0{i} Part {i}.flac" for i in range(1, 4)])
    kz.until(lambda: len(list(copies.glob("*.mp3"))) == 3, 30, "the MP3 copies")
    _, ctags = probe(copies / "02 Part 2.mp3")
    assert ctags["artist"] == "Band"
    audio = next(s for s in probe(copies / "02 Part 2.mp3")[0]["streams"] if s["codec_type"] == "audio")
    assert audio["bit_rate"] == "256000"
    assert not list(copies.glob(".*"))
    assert kz.json("getWebInfo")["flacs"] == "3"
    assert kz.tracks().count("02 Part 2") == 1

    # The setting changed in the middle: what is done stays done, the rest
    # follows the new setting, every track listed once.
    many = hdd / "music" / "Band" / "Changed"
    many.mkdir()
    for i in range(1, 9):
        (many / f"{i:02d} Take {i}.wav").write_bytes(wav(noise(4)))
    kz.raw("scanDisk")
    kz.raw("setCompression&mode=mp3%20256k")
    kz.d.wait_for("Compressing " + str(many / "01 Take 1.wav"))
    kz.raw("setCompression&mode=flac")
    kz.until(lambda: not list(many.glob("*.wav")) and not kz.json("slowStatus")["background"], 90,
             "the album to be compressed")
    files = sorted(os.listdir(many))
    assert len(files) == 8 and all(f.endswith((".mp3", ".flac")) for f in files)
    assert any(f.endswith(".flac") for f in files)
    takes = [t for t in kz.tracks() if "Take" in t]
    assert sorted(takes) == sorted(f"{i:02d} Take {i}" for i in range(1, 9))


def test_kill_at_any_moment_loses_and_doubles_nothing(daemon, tmp_path):
    root = tmp_path / "root"
    hdd = root / "media" / "hdd1"
    album = hdd / "music" / "Durable" / "Album"
    album.mkdir(parents=True)
    originals = {}
    # Noise does not compress, so each encode takes long enough to be cut.
    for i in range(1, 9):
        data = random.Random(i).randbytes(44100 * 4 * 20)
        originals[f"{i:02d} Track {i}"] = data
        (album / f"{i:02d} Track {i}.wav").write_bytes(wav(data))
    rng = random.Random(11)

    def check_on_disk():
        # kzdb lists each track once, and what it lists is there.
        listed = [t for a, t in kzdb_tracks(hdd)]
        stems = sorted(t.rsplit(".", 1)[0] for t in listed)
        assert stems == sorted(originals), listed
        for t in listed:
            assert (album / t).exists(), t

    # The first start scans and writes kzdb with the WAVs.
    kz = Kz(daemon, root, compression="None")
    assert kz.d.stop() == 0
    (hdd / "kzsettings").write_text("Compression\nFLAC\n")
    killed_mid_encode = journal_left = 0
    for _ in range(20):
        d = daemon(root, compression=None)
        d.wait_for("loadOrScan () finished")
        # The journal of the run before may finish the last WAVs at start;
        # otherwise an encode begins, and the kill falls somewhere in it.
        deadline = time.monotonic() + 20
        while any(f.suffix == ".wav" for f in album.iterdir()):
            if any("Compressing " in line for line in list(d.lines)):
                time.sleep(rng.uniform(0, 0.25))
                break
            assert time.monotonic() < deadline, "WAVs left and no encode started:\n" + "".join(d.lines)
            time.sleep(0.05)
        killed_mid_encode += any(f.name.startswith(".kz") for f in album.iterdir())
        journal = hdd / "kzcompress"
        # Tracks done but not yet saved: the next start must finish them.
        journal_left += journal.exists() and "done\t" in journal.read_text()
        d.proc.send_signal(signal.SIGKILL)
        d.proc.wait()
        check_on_disk()
    # The last start finishes the work: FLACs only, every sample there.
    kz = Kz(daemon, root, compression=None)
    kz.until(lambda: not list(album.glob("*.wav")) and not kz.json("slowStatus")["background"], 60,
             "the album to be compressed")
    check_on_disk()
    assert sorted(os.listdir(album)) == sorted(f"{s}.flac" for s in originals)
    for stem, data in originals.items():
        assert decode(album / f"{stem}.flac") == data
    assert not (hdd / "kzcompress").exists()
    # A rescan finds the same tracks: no stray copy on disk.
    kz.raw("scanDisk")
    kz.until(lambda: len(kz.tracks()) == len(originals), 10, "the rescan")
    time.sleep(0.5)
    assert sorted(kz.tracks()) == sorted(originals)
    assert killed_mid_encode > 0 and journal_left > 0, (killed_mid_encode, journal_left)


def test_a_full_disk_pauses_the_job_and_keeps_the_wav(daemon, tmp_path):
    if subprocess.run(["unshare", "-m", "true"], capture_output=True).returncode != 0:
        pytest.skip("no mount namespace here")
    root = tmp_path / "root"
    hdd = root / "media" / "hdd1"
    hdd.mkdir(parents=True)
    # The library on a small file system of its own, in a mount namespace of
    # the daemon's: noise does not compress, so its FLAC cannot fit beside
    # its WAV until the filler goes.
    song = wav(noise(8))
    (tmp_path / "song.wav").write_bytes(song)
    script = ('mount -t tmpfs -o size={}k kz "$KZ_DISK" && mkdir -p "$KZ_DISK/music/Full/Disk" && '
              'cp "$KZ_SONG" "$KZ_DISK/music/Full/Disk/01 Noise.wav" && '
              'head -c 1300000 /dev/zero > "$KZ_DISK/filler" && exec "$0"').format(len(song) // 1024 + 1900)
    env = {"KZ_DISK": str(hdd), "KZ_SONG": str(tmp_path / "song.wav")}
    kz = Kz(daemon, root, env=env, compression=None, command=["unshare", "-m", "sh", "-c", script, KZ_BIN])
    # What the daemon sees, through its own mount namespace.
    seen = lambda *p: pathlib.Path(f"/proc/{kz.d.proc.pid}/root{hdd}", *p)
    folder = seen("music", "Full", "Disk")
    kz.raw("setCompression&mode=flac")
    kz.d.wait_for("Compression paused: the disk is full")
    # The status says so once the job has saved what it had (just after the line).
    kz.until(lambda: kz.json("slowStatus")["background"] == "Compression paused: the disk is full", 10,
             "the status to say the job paused")
    assert sorted(os.listdir(folder)) == ["01 Noise.wav"]
    assert seen("music", "Full", "Disk", "01 Noise.wav").read_bytes() == song
    assert kz.tracks() == ["01 Noise"]
    assert not seen("kzcompress").exists()

    # Room again, and a person asks: the job goes on.
    seen("filler").unlink()
    kz.raw("compressNow")
    kz.until(lambda: sorted(os.listdir(folder)) == ["01 Noise.flac"], 30, "the FLAC")
    assert kz.tracks() == ["01 Noise"]
    assert kz.d.stop() == 0


def test_tracks_in_use_while_they_are_compressed(daemon, tmp_path):
    root = tmp_path / "root"
    album = root / "media" / "hdd1" / "music" / "In Use" / "Album"
    album.mkdir(parents=True)
    (album / "01 Playing.wav").write_bytes(wav(pcm(8, 440, level=0.5)))
    # Long noise at 256k keeps the encoder busy long enough to act under it.
    for name, seed in (("02 Renamed.wav", 2), ("03 Kept.wav", 3)):
        (album / name).write_bytes(wav(random.Random(seed).randbytes(44100 * 4 * 150)))
    raw = tmp_path / "out.raw"
    kz = Kz(daemon, root, env={"KZ_PCM": f"file:FILE={raw},FORMAT=raw"})
    ids = {i["track"]: i["id"] for i in kz.json("search&artists=0&albums=0&string=")}
    kz.raw("vol64")
    kz.raw(f"playID&id={ids['01 Playing']}")
    playing = time.monotonic()
    kz.until(lambda: kz.json("status")["track"] in ("Playing", "01 Playing"), 10, "the track to play")
    kz.raw("setCompression&mode=mp3%20256k")

    # The playing WAV is replaced under the player, which plays on from it.
    kz.until(lambda: (album / "01 Playing.mp3").exists(), 30, "the playing track to be compressed")
    # Renamed while it is encoded: the copy under the old name goes, and the
    # job comes back for the new name.
    kz.d.wait_for("Compressing " + str(album / "02 Renamed.wav"), timeout=60)
    kz.raw(f"renameID&id={ids['02 Renamed']}&name=Second%20Name")
    kz.d.wait_for("02 Renamed.wav changed while it was compressed", timeout=60)
    # Deleted while it is encoded: nothing of it stays.
    kz.d.wait_for("Compressing " + str(album / "02 Second Name.wav"), timeout=60)
    kz.raw(f"deleteID&id={ids['02 Renamed']}")
    kz.d.wait_for("02 Second Name.wav changed while it was compressed", timeout=60)
    kz.until(lambda: not list(album.glob("*.wav")) and not kz.json("slowStatus")["background"], 90,
             "the album to be compressed")
    assert sorted(os.listdir(album)) == ["01 Playing.mp3", "03 Kept.mp3"]
    assert sorted(kz.tracks()) == ["01 Playing", "03 Kept"]
    time.sleep(max(0, playing + 9.5 - time.monotonic()))
    assert kz.d.stop() == 0
    # The whole tone was heard, its 8 s with no gap (the album goes on after it).
    data = raw.read_bytes()
    left = struct.unpack(f"<{len(data) // 2}h", data[:len(data) // 2 * 2])[0::2]
    start = next(i for i in range(0, len(left), 441) if max(abs(v) for v in left[i:i + 441]) > 3000)
    tone = left[start:start + int(7.9 * 44100)]
    assert len(tone) == int(7.9 * 44100)
    assert all(max(abs(v) for v in tone[i:i + 441]) > 3000 for i in range(0, len(tone) - 441, 441))
    crossings = sum(1 for a, b in zip(tone, tone[1:]) if (a < 0) != (b < 0))
    assert abs(crossings / 2 / 7.9 - 440) < 5


def test_a_rip_is_compressed_and_a_reindex_renames_inside(daemon, tmp_path):
    root = tmp_path / "root"
    music = root / "media" / "hdd1" / "music"
    music.mkdir(parents=True)
    cue = disc_image(tmp_path)
    kz = Kz(daemon, root, env={"KZ_CDROM": str(cue)}, compression="FLAC")
    kz.until(lambda: kz.json("slowStatus")["cdstatus"] == "Ready", 20, "the disc")
    names = "artist=Ripper\nalbum=First Names\nyear=2001\ntrack=Alpha\ntrack=Beta\ntrack=Gamma\n"
    assert kz.raw("newRip", names.encode()) == b'"OK"'
    first = music / "Ripper" / "First Names"
    wait_for_files(kz, first, ["01 Alpha.flac", "02 Beta.flac", "03 Gamma.flac"])
    kz.until(lambda: not list(first.glob("*.wav")), 20, "the WAVs to go")
    _, tags = probe(first / "02 Beta.flac")
    assert (tags["artist"], tags["album"], tags["title"], tags["track"], tags["date"]) == \
        ("Ripper", "First Names", "Beta", "2", "2001")

    # Better names after the rip is compressed: folders, files and the names
    # inside follow.
    fixed = "artist=Renamed / Band\nalbum=Better Names\ntrack=Xi\ntrack=Omicron\ntrack=Pi\n"
    assert kz.raw("reindex", fixed.encode()) == b'"OK"'
    better = music / "Renamed _ Band" / "Better Names"
    kz.until(lambda: better.is_dir() and sorted(p.name for p in better.glob("*.flac")) ==
             ["01 Xi.flac", "02 Omicron.flac", "03 Pi.flac"], 20, "the renamed album")
    _, tags = probe(better / "02 Omicron.flac")
    assert (tags["artist"], tags["album"], tags["title"], tags["track"]) == \
        ("Renamed / Band", "Better Names", "Omicron", "2")
    assert not list(better.glob(".*part"))
    assert sorted(kz.tracks()) == ["01 Xi", "02 Omicron", "03 Pi"]
