import json
import subprocess
import time

import fcgi

COMMON = ["playing", "source", "punchThru", "recording", "ktube", "kzs", "forceWebRefresh"]
TRACK = ["track", "album", "artist", "trackid", "albumid", "artistid", "duration", "timeLeft",
         "timeIntoTrack", "playlist"]
REST = ["seconds", "btstatus", "cdstatus", "cdloaded",
             "cddbmatches", "discid", "time", "volume", "random", "sorted", "reversed",
             "background", "compression", "logging", "segue", "tvui", "guest", "guestPlaylist",
             "hdmi", "airable", "vCache", "equaliser", "bass", "treble", "DLNA", "breadcrumbs",
             "alert", "zone", "sonos", "sonosActive", "vu",
             # Added keys come after the appliance's own.
             "lookup", "paused", "playMode", "queued", "cddrive", "changes", "zones", "snapcast",
             "snapcastState", "usb", "usbTracks", "usbAlbums", "usbScanning", "storageJob"]
SLOW_ONLY_MISSING = ("duration", "timeLeft", "timeIntoTrack", "seconds", "time", "vu")


def ready(d):
    """The library is loaded and the web listener takes connections."""
    d.wait_for("loadOrScan () finished")
    d.wait_for("Waiting for incoming connections on socket")


def get(sock, uri):
    return fcgi.stdout_of(fcgi.call(sock, fcgi.request(uri))).split(b"\r\n\n", 1)[1]


def test_status_without_a_library(daemon, tmp_path):
    d = daemon()
    d.wait_for("Waiting for incoming connections on socket")
    sock = tmp_path / "root" / "var" / "run" / "fastCgiUnixSocket"
    full = json.loads(get(sock, "/api/status"))
    assert list(full) == COMMON + ["track", "album", "artist"] + REST
    assert (full["track"], full["album"], full["artist"]) == ("empty", "empty", "empty")
    assert full["cdloaded"] is False and full["cddbmatches"] == -1
    assert len(full["vu"]) == 10
    assert d.stop() == 0


def test_status_shapes_and_a_playing_track(daemon, tmp_path):
    root = tmp_path / "root"
    album = root / "media" / "hdd1" / "music" / 'Say "Hi"' / "Back\\slash"
    album.mkdir(parents=True)
    subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    "sine=frequency=440:duration=20", "-ac", "2", str(album / "01 Tone.mp3")], check=True)
    d = daemon(root, env={"KZ_PCM": "null"})
    ready(d)
    sock = root / "var" / "run" / "fastCgiUnixSocket"

    # The current item is the library's first track, playing or not.
    full = json.loads(get(sock, "/api/status"))
    assert list(full) == COMMON + TRACK + REST
    assert full["playing"] == 0
    assert full["forceWebRefresh"] is True
    assert json.loads(get(sock, "/api/status"))["forceWebRefresh"] is False
    slow = json.loads(get(sock, "/api/slowStatus"))
    assert list(slow) == [k for k in COMMON + TRACK + REST if k not in SLOW_ONLY_MISSING]

    get(sock, "/api/playID&id=2000000")
    time.sleep(1.5)
    playing = json.loads(get(sock, "/api/status"))
    assert playing["playing"] == 1
    assert (playing["track"], playing["album"], playing["artist"]) == ("Tone", "Back\\slash", 'Say "Hi"')
    assert (playing["trackid"], playing["albumid"], playing["artistid"]) == ("2000000", "1000000", "3000000")
    assert int(playing["timeIntoTrack"]) >= 1
    assert playing["playlist"] == "All Music"
    assert d.stop() == 0


def test_lists_details_and_info(daemon, tmp_path):
    root = tmp_path / "root"
    music = root / "media" / "hdd1" / "music"
    for album, names in {"Nina/Live": ["2 Two.mp3", "1 One.mp3"], "Nina/Studio": ["01 A.wav"]}.items():
        (music / album).mkdir(parents=True)
        for n in names:
            (music / album / n).write_bytes(b"x")
    d = daemon(root, env={"KZ_PCM": "null"})
    ready(d)
    sock = root / "var" / "run" / "fastCgiUnixSocket"
    albums = json.loads(get(sock, "/api/listartist&id=3000000"))
    assert [a["name"] for a in albums] == ["Live", "Studio"]
    live = next(a["id"] for a in albums if a["name"] == "Live")
    # Tracks in track-number order, by their clean names.
    assert [t["name"] for t in json.loads(get(sock, f"/api/listalbum&id={live}"))] == ["One", "Two"]
    assert get(sock, "/api/listalbum&id=1999999") == b"[]"
    assert json.loads(get(sock, f"/api/albumDetails&id={live}")) == {"name": "Live", "trackcount": 2, "artist": "Nina"}
    assert json.loads(get(sock, "/api/artistDetails&id=3000000")) == {"name": "Nina", "albumcount": 2}
    assert json.loads(get(sock, f"/api/getParent&id={live}")) == {"id": 3000000}
    assert get(sock, "/api/fileExists&artist=Nina&album=Live&name=1%20One.mp3") == b"true"
    assert get(sock, "/api/fileExists&artist=..&album=..&name=kzdb") == b"false"
    info = json.loads(get(sock, "/api/getWebInfo"))
    assert (info["tracks"], info["albums"], info["artists"], info["mp3s"], info["wavs"]) == ("3", "2", "1", "2", "1")
    assert info["maxTracks"] == "170000"
    # Commands of parts not built answer an empty list; no command at all
    # is thanked.
    assert get(sock, "/api/listplaylists") == b"[]"
    assert get(sock, "/api/getBluetoothStatus") == b"[]"
    assert get(sock, "/api/setPreset&id=3") == b"thanks\n"
    assert get(sock, "/api/nothing") == b"thanks\n"
    assert d.stop() == 0


def test_search_finds_names_and_keeps_its_list_valid(daemon, tmp_path):
    root = tmp_path / "root"
    music = root / "media" / "hdd1" / "music"
    (music / "Blue Artist" / "Kind of Blue").mkdir(parents=True)
    (music / "Blue Artist" / "Kind of Blue" / "01 So What.flac").write_bytes(b"x")
    long_album = music / "Many" / "Blues"
    long_album.mkdir(parents=True)
    for i in range(1500):
        (long_album / f"{i:04d} blue track with a long enough name to fill the list.mp3").write_bytes(b"")
    d = daemon(root, env={"KZ_PCM": "null"})
    ready(d)
    sock = root / "var" / "run" / "fastCgiUnixSocket"
    hits = json.loads(get(sock, "/api/search&tracks=0&string=BLUE"))
    # Artists first, then albums (folder order decides the ids).
    assert [h["artist"] for h in hits if "album" not in h] == ["Blue Artist"]
    assert "album" not in hits[0] and 3000000 <= hits[0]["id"] < 4000000
    assert sorted((h["artist"], h["album"]) for h in hits if "album" in h) == [
        ("Blue Artist", "Kind of Blue"), ("Many", "Blues")]
    tracks = json.loads(get(sock, "/api/search&artists=0&albums=0&string=so%20what"))
    assert [(t["artist"], t["album"], t["track"]) for t in tracks] == [("Blue Artist", "Kind of Blue", "01 So What")]
    # 1000 results asked for: cut below 60,000 bytes, still a valid list.
    raw = get(sock, "/api/search&artists=0&albums=0&count=1000&string=blue")
    assert len(raw) < 60000
    assert 300 < len(json.loads(raw)) < 1000
    page = json.loads(get(sock, "/api/search&artists=0&albums=0&offset=10&count=5&string=blue%20track"))
    assert len(page) == 5
    assert d.stop() == 0


def test_rip_and_rescan_through_the_web(daemon, tmp_path):
    import struct
    root = tmp_path / "root"
    (root / "media" / "hdd1" / "music").mkdir(parents=True)
    # A one-track disc image of 100 sectors.
    (root / "disc.bin").write_bytes(b"".join(struct.pack("<hh", i % 300, -(i % 300)) for i in range(100 * 588)))
    (root / "disc.cue").write_text('FILE "disc.bin" BINARY\n  TRACK 01 AUDIO\n    INDEX 01 00:00:00\n')
    d = daemon(root, env={"KZ_PCM": "null", "KZ_CDROM": str(root / "disc.cue")})
    ready(d)
    sock = root / "var" / "run" / "fastCgiUnixSocket"
    d.wait_for("CD state changed 3")
    # The state is logged before the table of contents is read and stored.
    deadline = time.monotonic() + 10
    while not json.loads(get(sock, "/api/status"))["cdloaded"]:
        assert time.monotonic() < deadline
        time.sleep(0.05)
    assert get(sock, "/api/rip&index=0") == b"thanks\n"
    d.wait_for("ripTrack wrote 235200 bytes")
    wav = root / "media" / "hdd1" / "music" / "Unknown" / "Album 1" / "01 track1.wav"
    deadline = time.monotonic() + 10
    while not (root / "media" / "hdd1" / "kzdb").read_text().count("Unknown/Album 1"):
        assert time.monotonic() < deadline
        time.sleep(0.1)
    assert wav.stat().st_size > 235200
    # A rescan finds the same library.
    assert get(sock, "/api/scanDisk") == b"[]"
    d.wait_for("1 albums")
    assert json.loads(get(sock, "/api/getWebInfo"))["wavs"] == "1"
    assert d.stop() == 0
