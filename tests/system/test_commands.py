"""The web commands through lighttpd against a generated library."""
import json
import struct
import subprocess
import time
import urllib.request

import webstack
from test_playback import left_channel, make_album, tone_runs


def api(base, command, body=None):
    req = urllib.request.Request(base + "/api/" + command, data=body)
    with urllib.request.urlopen(req, timeout=30) as reply:
        return reply.read()


def japi(base, command):
    return json.loads(api(base, command))


def wait_until(check, timeout=20):
    deadline = time.monotonic() + timeout
    while True:
        value = check()
        if value:
            return value
        assert time.monotonic() < deadline, "timed out"
        time.sleep(0.1)


def disc_image(root, seconds):
    """A one-track audio disc of a 1 kHz tone."""
    frames = 44100 * seconds
    tone = b"".join(struct.pack("<hh", v, v) for v in (
        int(8000 * ((n * 1000 // 22050) % 2 * 2 - 1)) for n in range(frames)))
    (root / "disc.bin").write_bytes(tone)
    (root / "disc.cue").write_text('FILE "disc.bin" BINARY\n  TRACK 01 AUDIO\n    INDEX 01 00:00:00\n')
    return root / "disc.cue"


def test_browse_play_playlists_settings_and_rip(daemon, tmp_path):
    root = tmp_path / "root"
    music = root / "media" / "hdd1" / "music"
    make_album(music)
    cover = bytes(range(256)) * 40
    (music / "Tones" / "Three" / "coverart.jpg").write_bytes(cover)
    extra = music / "abba Band" / "First"
    extra.mkdir(parents=True)
    subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    "sine=frequency=550:duration=3", "-ac", "2", str(extra / "01 Solo.mp3")],
                   check=True)
    raw = tmp_path / "out.raw"
    env = {"KZ_PCM": f"file:FILE={raw},FORMAT=raw", "KZ_CDROM": str(disc_image(root, 3))}
    d, base = webstack.start(daemon, root, env)
    try:
        # Browse: artists in name order (any case), then albums, then tracks.
        artists = japi(base, "search&albums=0&tracks=0&string=")
        assert [a["artist"] for a in artists] == ["abba Band", "Tones"]
        tones = artists[1]["id"]
        albums = japi(base, f"listartist&id={tones}")
        assert [a["name"] for a in albums] == ["Three"]
        tracks = japi(base, f"listalbum&id={albums[0]['id']}")
        assert [t["name"] for t in tracks] == ["A", "E", "A5"]
        assert api(base, "setSorted&sorted=1&reversed=1") == b"[]"
        assert [a["artist"] for a in japi(base, "search&albums=0&tracks=0&string=")] == ["Tones", "abba Band"]
        # A search text that holds a command word is still a search.
        assert japi(base, "search&string=play") == []
        assert [t["track"] for t in japi(base, "search&artists=0&albums=0&string=so")] == ["01 Solo"]

        # Playlists: make one, fill it out of order, the queue on its own.
        pid = japi(base, "newPlaylist&name=Evening%20%22Mix%22")["id"]
        assert api(base, f"addIdToPlaylist&id={tracks[2]['id']}&playlist={pid}&index=0") == b'"OK"'
        assert api(base, f"addIdToPlaylist&id={tracks[0]['id']}&playlist={pid}&index=0") == b'"OK"'
        assert api(base, f"addIdToPlaylist&playlist={pid}&id={tracks[1]['id']}&index=0") == b"[]"
        assert api(base, f"addIdToPlaylist&id=2999999&playlist={pid}&index=0") == b"[]"
        solo = japi(base, "search&artists=0&albums=0&string=solo")[0]["id"]
        assert api(base, f"queueID&id={solo}") == b'"OK"'
        # The queue started at once (nothing was playing), and the track that
        # plays has left it.
        wait_until(lambda: japi(base, "status")["track"] == "Solo")
        lists = japi(base, "listplaylists")
        assert [(p["name"], p["count"]) for p in lists] == [('Evening "Mix"', 2), ("Queue", 0)]

        # Settings go to kzsettings at quit.
        for command in ("setSegue&mode=off", "setCompression&mode=mp3%20256k", "setClassical&classical=1",
                        "setTone&bass=2&treble=-3", "vol40"):
            api(base, command)

        # Playing the playlist: its first entry, its name in the status.
        api(base, f"playID&id={pid}")
        status = wait_until(lambda: (s := japi(base, "status"))["trackid"] == str(tracks[0]["id"]) and s)
        assert status["playlist"] == 'Evening "Mix"' and status["playing"] == 1
        assert status["volume"] == "40" and status["bass"] == "2" and status["segue"] == "Off"
        # Then the next entry: A5 follows A, E is skipped.
        wait_until(lambda: japi(base, "status")["trackid"] == str(tracks[2]["id"]), timeout=30)

        def heard(freq):
            return sum(1 for f in tone_runs(left_channel(raw)) if abs(f - freq) < 30)
        # A second of each (windows of 50 ms); E never.
        wait_until(lambda: heard(880) > 20, timeout=30)
        assert heard(440) > 20 and heard(660) == 0

        # A rip with names sent as the request body.
        wait_until(lambda: japi(base, "status")["cdstatus"] == "Ready")
        names = "artist=Disc Artist\nalbum=Disc / Album\ntrack=First \"Song\"\n"
        assert api(base, "newRip", names.encode()) == b'"OK"'
        d.wait_for("uploadFile <")
        ripped = music / "Disc Artist" / "Disc _ Album" / "01 First _Song_.wav"
        wait_until(lambda: ripped.exists() and "Ready" == japi(base, "status")["cdstatus"], timeout=30)
        found = wait_until(lambda: japi(base, "search&artists=0&tracks=0&string=disc"))
        assert found[0]["artist"] == "Disc Artist"
        # Renamed afterwards from the same disc.
        fixed = "artist=Disc Artist\nalbum=Better Name\ntrack=Track One\n"
        assert api(base, "reindex", fixed.encode()) == b'"OK"'
        # The compression (MP3 256k, set above) may take the track before or
        # after the rename: either file will do, and the names inside follow.
        folder = music / "Disc Artist" / "Better Name"

        def renamed_carries_the_names():
            for ext in (".wav", ".mp3"):
                try:
                    head = (folder / ("01 Track One" + ext)).read_bytes()[:4096]
                except OSError:
                    continue
                return b"Better Name" in head and b"Track One" in head
            return False
        wait_until(renamed_carries_the_names)

        assert d.stop() == 0
        settings = (root / "media" / "hdd1" / "kzsettings").read_text()
        for expected in ("Segue\nOff\n", "Sorted\nOn\n", "Reversed\nOn\n", "Compression\nMP3 256K\n",
                         "Classical\n1\n"):
            assert expected in settings, expected

        # The playlists come back after a restart, by name.
        webstack.stop_lighttpd(root)
        d, base = webstack.start(daemon, root, env)
        lists = japi(base, "listplaylists")
        assert [(p["name"], p["count"]) for p in lists] == [('Evening "Mix"', 2), ("Queue", 0)]
        entries = japi(base, f"listplaylist&id={pid}")
        assert [e["track"] for e in entries] == ["01 A", "03 A5"]
        assert api(base, f"deletePlaylistIndex&playlist={pid}&index=0") == b'"OK"'
        assert api(base, f"deleteID&id={lists[1]['id']}") == b"[]"
        assert [p["name"] for p in japi(base, "listplaylists")] == ['Evening "Mix"']

        # Upload a track, then play it: it is heard.
        up = tmp_path / "01 Upload.mp3"
        subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                        "sine=frequency=1320:duration=4", "-ac", "2", str(up)], check=True)
        reply = subprocess.run(["curl", "-sS", "--max-time", "60", "-F", f"Sent=@{up}",
                                base + "/api/upload&artist=Uploader"], check=True,
                               capture_output=True).stdout
        assert int(reply) > 0
        sent = wait_until(lambda: japi(base, "search&artists=0&albums=0&string=upload"))
        assert (sent[0]["artist"], sent[0]["album"]) == ("Uploader", "Sent")
        api(base, f"playID&id={sent[0]['id']}")
        wait_until(lambda: heard(1320) > 20, timeout=30)

        # Cover art comes back as the file; an album without one is "[]".
        assert api(base, f"getAlbumArt&id={albums[0]['id']}") == cover
        assert api(base, f"getAlbumArt&id={found[0]['id']}") == b"[]"
        # A key code that would end the program is not a key.
        assert api(base, "sendKey&index=97") == b"[]"
        d.wait_for("webSendKey () ignoring 97")
        assert japi(base, "getMasks") == {"orMask": 0x3ffffff, "notMask": 0}
        assert d.stop() == 0
    except (AssertionError, OSError):
        print("\n".join(d.lines[-80:]))
        if d.proc.poll() is not None:
            print("daemon ended with", d.proc.returncode, d.stderr()[-3000:])
        raise
    finally:
        webstack.stop_lighttpd(root)
