"""The disc lookup against local stand-ins of MusicBrainz, CDDB and the Cover
Art Archive: candidates, a rip named from one, the offline disc database and
the faults a real network gives."""
import json
import struct
import time
import urllib.parse

from client import Client
from lookup_services import JPEG, Services, disc_xml, release_xml, xmcd

TITLES = ["Opening", "Middle", "Closing"]


def disc_image(root, seconds=(3, 3, 3)):
    """A three-track audio disc; each track a different square tone."""
    pcm = b""
    cue = 'FILE "disc.bin" BINARY\n'
    for i, secs in enumerate(seconds):
        frame = len(pcm) // 2352
        cue += (f"  TRACK {i + 1:02d} AUDIO\n    INDEX 01 "
                f"{frame // 4500:02d}:{frame // 75 % 60:02d}:{frame % 75:02d}\n")
        period = 40 + 20 * i
        one = b"".join(struct.pack("<hh", v, v) for v in
                       (4000 if n % period < period // 2 else -4000 for n in range(period)))
        samples = 44100 * secs
        pcm += (one * (samples // period + 1))[:samples * 4]
        pcm += b"\0" * (-len(pcm) % 2352)
    (root / "disc.bin").write_bytes(pcm)
    (root / "disc.cue").write_text(cue)
    return root / "disc.cue"


class Kz(Client):
    def log_of_lookup(self):
        words = ("ookup", "MusicBrainz", "CDDB", "cddb", "over art")
        return "\n".join(l for l in self.d.lines if any(w in l for w in words))

    def looked_up(self, timeout=20):
        return self.until(lambda: (s := self.json("status"))["lookup"] == "done" and s,
                          timeout, "the lookup")


def info_chunk(wav_bytes):
    """The LIST/INFO texts of a WAV file."""
    at = wav_bytes.index(b"INFO") + 4
    end = at + struct.unpack("<I", wav_bytes[wav_bytes.index(b"LIST") + 4:][:4])[0] - 4
    out = {}
    while at + 8 <= end:
        key, size = wav_bytes[at:at + 4].decode(), struct.unpack("<I", wav_bytes[at + 4:at + 8])[0]
        out[key] = wav_bytes[at + 8:at + 8 + size].rstrip(b"\0").decode()
        at += 8 + size + (size & 1)
    return out


def test_candidates_rip_offline_and_typed_names(daemon, tmp_path):
    root = tmp_path / "root"
    (root / "media" / "hdd1" / "music").mkdir(parents=True)
    cue = disc_image(root)
    services = Services()
    disc = {}

    def musicbrainz(path, query):
        disc["id"] = path.rsplit("/", 1)[1]
        official = release_xml("mb-1", 'Songs "Live"', "AC/DC", "1999-05-01", "Official",
                               [disc["id"]], TITLES)
        bootleg = release_xml("mb-2", "Songs (bootleg)", "AC/DC", "2001", "Bootleg",
                              [disc["id"]], ["A", "B", "C"])
        other = release_xml("mb-3", "Elsewhere", "Someone", "", "Official", ["x" * 28], ["1", "2", "3"])
        # Listed worst first: the daemon puts the official release of this disc first.
        return 200, {"Content-Type": "application/xml"}, disc_xml(disc["id"], [other, bootleg, official])

    def cddb(cmd):
        words = cmd.split()
        if words[:2] == ["cddb", "query"]:
            disc["cddb"] = words[2]
            return 200, {}, (f"211 Found inexact matches, list follows (until terminating `.')\r\n"
                             f"rock {words[2]} CDDB Artist / CDDB Album\r\n"
                             f"misc {words[2]} Gone / Away\r\n.\r\n").encode()
        if words[:2] == ["cddb", "read"] and words[2] == "rock":
            return 200, {}, xmcd("rock", words[3], "CDDB Artist", "CDDB Album", "1987", "Rock",
                                 ["Uno", "Dos", "Tres"])
        return 200, {}, b"401 No such CD entry in database.\r\n"

    services.mb, services.cddb = musicbrainz, cddb
    services.covers["mb-1"] = JPEG
    env = {"KZ_CDROM": str(cue), **services.env()}
    try:
        kz = Kz(daemon, root, env)
        status = kz.looked_up()
        # Two MusicBrainz releases hold this disc (the third does not and has
        # no medium of three tracks... it has: it counts too), and one of the
        # two CDDB matches could be read.
        assert status["cddbmatches"] == "4", kz.log_of_lookup()
        first = kz.json("getCandidate&index=1")
        assert first == {"artist": "AC/DC", "album": 'Songs "Live"', "year": "1999", "genre": "",
                         "art": services.base + "/release/mb-1/front-500",
                         "source": "musicbrainz", "tracks": TITLES}
        assert kz.json("getCandidate&index=2")["album"] == "Songs (bootleg)"
        assert [kz.json(f"getCandidate&index={i}")["source"] for i in (3, 4)] == ["musicbrainz", "cddb"]
        cddb_one = kz.json("getCandidate&index=4")
        assert (cddb_one["artist"], cddb_one["album"], cddb_one["year"], cddb_one["genre"],
                cddb_one["tracks"]) == ("CDDB Artist", "CDDB Album", "1987", "Rock", ["Uno", "Dos", "Tres"])
        # The older reply keeps its shape.
        assert list(kz.json("getCDDB&index=1")) == ["artist", "album", "art", "tracks"]
        assert kz.raw("getCandidate&index=5") == b"[]"
        # Every MusicBrainz request names the client and carries the TOC.
        mb_requests = [r for r in services.requests if r[0].startswith("/ws/2/")]
        assert mb_requests and all(r[2].startswith("kz/") and "(" in r[2] for r in mb_requests)
        assert mb_requests[0][1]["toc"][0].startswith("1 3 ")
        assert any("Looking up disc" in l for l in kz.d.lines)

        # Rip with the first candidate: folder, file names, names inside, cover.
        assert kz.raw("rip&index=1") != b""
        album = root / "media" / "hdd1" / "music" / "AC_DC" / "Songs _Live_"
        kz.until(lambda: len(list(album.glob("*.wav"))) == 3 and "Ready" == kz.json("status")["cdstatus"],
                 60, "the rip")
        assert sorted(p.name for p in album.glob("*.wav")) == [f"{i + 1:02d} {t}.wav" for i, t in enumerate(TITLES)]
        info = info_chunk((album / "02 Middle.wav").read_bytes())
        assert (info["IART"], info["IPRD"], info["INAM"]) == ("AC/DC", 'Songs "Live"', "Middle")
        assert (album / "coverart.jpg").read_bytes() == JPEG
        assert (album / "discid").read_text().split("\n")[0] == disc["id"]

        # Another cover for the ripped album, by address: only an image replaces it.
        other = JPEG[:-2] + b"another" + b"\xff\xd9"
        services.covers["alt"], services.covers["junk"] = other, b"<html>no</html>"
        url = lambda mbid: urllib.parse.quote(f"{services.base}/release/{mbid}/front-500", safe="")
        assert kz.raw("getArtFromURL&url=" + url("junk")) == b"true"
        kz.d.wait_for("junk/front-500 is not an image")
        assert kz.raw("getArtFromURL&url=" + url("nothing-here")) == b"true"
        kz.d.wait_for("nothing-here/front-500 not fetched: HTTP 404")
        assert (album / "coverart.jpg").read_bytes() == JPEG
        assert kz.raw("getArtFromURL&url=" + url("alt")) == b"true"
        kz.until(lambda: (album / "coverart.jpg").read_bytes() == other, 10, "the new cover")
        assert not [p for p in album.iterdir() if p.name.startswith("coverart.jpg.")]

        # The offline database is readable JSON holding what the services said.
        kept = json.loads((root / "media" / "hdd1" / "kzdiscs").read_text())
        assert kept["discs"][disc["id"]]["cddb"] == disc["cddb"].upper()
        assert len(kept["discs"][disc["id"]]["found"]) == 4
        assert kz.d.stop() == 0
    finally:
        services.stop()

    # No network at all: the same disc is named from the offline database.
    dead = {"KZ_CDROM": str(cue), "KZ_MUSICBRAINZ": "http://127.0.0.1:9",
            "KZ_CDDB": "http://127.0.0.1:9/cddb", "KZ_COVERART": "http://127.0.0.1:9"}
    kz = Kz(daemon, root, dead)
    status = kz.looked_up()
    assert status["cddbmatches"] == "4"
    assert kz.json("getCandidate&index=1")["album"] == 'Songs "Live"'
    assert any("MusicBrainz lookup failed" in l for l in kz.d.lines)

    # A correction typed for the disc renames the ripped album and leads the
    # list from then on, over what the services say.
    body = "artist=Right Artist\nalbum=Right Album\nyear=2000\ntrack=Eins\ntrack=Zwei\ntrack=Drei\n".encode()
    assert kz.raw("reindex", body=body) == b'"OK"'
    kz.until(lambda: (root / "media" / "hdd1" / "music" / "Right Artist" / "Right Album" / "01 Eins.wav").exists(),
             20, "the reindex")
    assert kz.json("getCandidate&index=1")["source"] == "typed"
    assert kz.d.stop() == 0
    kz = Kz(daemon, root, dead)
    kz.looked_up()
    typed = kz.json("getCandidate&index=1")
    assert (typed["source"], typed["artist"], typed["album"], typed["year"], typed["tracks"]) == (
        "typed", "Right Artist", "Right Album", "2000", ["Eins", "Zwei", "Drei"])
    assert kz.json("status")["cddbmatches"] == "5"
    assert kz.d.stop() == 0


def test_faulty_services_give_fewer_candidates_never_a_crash(daemon, tmp_path):
    root = tmp_path / "root"
    (root / "media" / "hdd1" / "music").mkdir(parents=True)
    cue = disc_image(root)
    services = Services()
    calls = {"mb": 0}
    hostile = ['Quote " back \\ slash / and', "tab\there\nnew line", "é" * 300]

    def musicbrainz(path, query):
        calls["mb"] += 1
        if calls["mb"] == 1:
            # The rate limit: one more try after the time it asks for.
            return 503, {"Retry-After": "1"}, b"slow down"
        disc_id = path.rsplit("/", 1)[1]
        xml = disc_xml(disc_id, [release_xml("mb-h", hostile[2], "../..", "2010", "Official",
                                             [disc_id], hostile)])
        return 200, {}, xml

    services.mb = musicbrainz
    services.cddb = lambda cmd: (200, {}, b"202 No match for disc ID 00000000.\r\n")
    services.covers["mb-h"] = b"<html>not an image</html>"
    try:
        kz = Kz(daemon, root, {"KZ_CDROM": str(cue), **services.env()})
        kz.looked_up()
        assert calls["mb"] == 2
        assert any("MusicBrainz is busy (503)" in l for l in kz.d.lines)
        c = kz.json("getCandidate&index=1")  # the reply parses, whatever the names hold
        assert isinstance(c, dict), kz.log_of_lookup()
        assert c["tracks"][0] == hostile[0] and c["tracks"][1] == hostile[1]
        assert len(c["album"].encode()) <= 500
        assert kz.json("status")["cddbmatches"] == "1"

        # A cover that is not an image leaves no file; the names stay inside
        # the music folder.
        kz.raw("rip&index=1")
        music = root / "media" / "hdd1" / "music"
        kz.until(lambda: len(list(music.rglob("*.wav"))) == 3 and "Ready" == kz.json("status")["cdstatus"],
                 60, "the rip")
        wavs = list(music.rglob("*.wav"))
        assert all(music in p.parents for p in wavs)
        assert not list(music.rglob("coverart.jpg"))
        assert any("is not an image" in l for l in kz.d.lines)

        # Malformed XML and a service that never answers: the other service's
        # candidates come once the silent one times out (about 10 s).
        services.mb = lambda path, query: (200, {}, b"<metadata><release-list><rel")
        services.cddb = lambda cmd: (
            (200, {}, f"200 jazz {cmd.split()[2]} Solo / One\r\n".encode())
            if cmd.startswith("cddb query") else
            (200, {}, xmcd("jazz", cmd.split()[3], "Solo", "One", "", "", ["a", "b", "c"])))
        assert kz.raw("lookupDisc") == b'"OK"'
        kz.looked_up()
        assert kz.json("status")["cddbmatches"] == "1"
        assert kz.json("getCandidate&index=1")["album"] == "One"
        assert any("not XML" in l or "no metadata" in l for l in kz.d.lines)

        services.delay["/ws/2/"] = 30
        started = time.monotonic()
        kz.raw("lookupDisc")
        # The listener answers while the lookup waits.
        assert kz.json("status")["lookup"] == "looking"
        kz.looked_up(timeout=25)
        assert time.monotonic() - started < 14
        assert kz.json("getCandidate&index=1")["album"] == "One"
        # A quit does not wait for a service that has not answered.
        kz.raw("lookupDisc")
        started = time.monotonic()
        assert kz.d.stop() == 0
        assert time.monotonic() - started < 5
    finally:
        services.delay.clear()
        services.stop()
