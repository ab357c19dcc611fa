"""Networked zones: a real UPnP AV renderer (gmediarender) found over SSDP
and driven over SOAP, fetching kz's tracks through lighttpd. Everything runs
in a network namespace the test makes: a veth pair between 10.77.0.1 (kz and
lighttpd) and 10.77.0.2 (the renderer), nothing leaves the machine."""
import os
import re
import shutil
import signal
import subprocess
import sys
import time

import pytest

import webstack
from client import Client
from kzdaemon import KZ_BIN
from netns import AVT, KZ_ADDR, PEER_ADDR, RC, Netns, soap, start_renderer

NAME = 'Kitchen <&> "Room"'


def tone(path, freq, seconds):
    subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    f"sine=frequency={freq}:sample_rate=44100:duration={seconds}", "-ac", "2", str(path)],
                   check=True)


def network(daemon, tmp_path, start_peer):
    """kz and lighttpd at 10.77.0.1 with a small library, and the peer that
    start_peer(ns) starts at 10.77.0.2; yields the client."""
    for tool in ("gmediarender", "lighttpd", "nsenter", "unshare", "curl"):
        if not shutil.which(tool):
            pytest.skip(f"{tool} is not installed")
    ns = Netns()
    if not ns.ready:
        pytest.skip("no network namespace with a veth pair here: " + ns.why)
    peer = None
    root = tmp_path / "root"
    try:
        album = root / "media" / "hdd1" / "music" / "Zone Artist" / "Far & Away"
        album.mkdir(parents=True)
        tone(album / "01 First # Song.wav", 440, 3)
        tone(album / "02 Second.wav", 660, 3)
        tone(album / "03 Third.wav", 880, 30)
        port = webstack.free_port()
        subprocess.run([os.path.join(webstack.TOP, "scripts", "install-web"), str(root),
                        os.path.join(webstack.TOP, "www"), KZ_ADDR, str(port)], check=True)
        # The served files, as lighttpd saw them.
        with open(root / "etc" / "lighttpd" / "lighttpd.conf", "a") as conf:
            conf.write(f'server.modules += ( "mod_accesslog" )\n'
                       f'accesslog.filename = "{root}/var/log/access.log"\n')
        peer = start_peer(ns)
        kz = Client(daemon, root, env={"KZ_PCM": "null"}, command=ns.prefix() + [KZ_BIN])
        kz.ns, kz.renderer, kz.port = ns, peer, port
        yield kz
    finally:
        if peer:
            peer.kill()
        webstack.stop_lighttpd(root)
        ns.close()


@pytest.fixture
def stack(daemon, tmp_path):
    yield from network(daemon, tmp_path, lambda ns: start_renderer(ns, NAME, tmp_path / "renderer.log"))


@pytest.fixture
def hostile(daemon, tmp_path):
    def start(ns):
        peer = subprocess.Popen(ns.prefix() + [sys.executable, os.path.join(os.path.dirname(__file__), "bad_renderer.py"),
                                               PEER_ADDR], stdout=subprocess.PIPE, text=True)
        assert peer.stdout.readline().strip() == "ready"
        return peer
    yield from network(daemon, tmp_path, start)


def test_a_renderer_is_found_plays_the_library_and_follows_on(stack):
    kz = stack
    kz.until(lambda: kz.status()["sonos"] == [NAME], 20, "the renderer to be found")
    assert kz.status()["sonosActive"] == [False]
    zones = kz.json("sonosStatus")
    assert zones[0]["name"] == NAME and zones[0]["reachable"] is True
    # Its control address, for asking it what it does.
    found = kz.d.wait_for("UPnP zone 1: ")
    location = found.split(" at ")[-1].strip()
    desc = kz.ns.run("curl", "-s", location).stdout
    control = re.search(r"<controlURL>([^<]*rendertransport[^<]*)</controlURL>", desc).group(1)
    origin = re.match(r"http://[^/]+", location).group(0)
    avt, rc = origin + control, origin + control.replace("transport", "control")

    tracks = kz.json("search&artists=0&albums=0&radio=0&string=First")
    assert kz.api(f"playID&id={tracks[0]['id']}&sonos=1") == "thanks\n"
    base = f"http://{KZ_ADDR}:{kz.port}/hdd1/music/Zone%20Artist/Far%20%26%20Away/"
    kz.until(lambda: soap(kz.ns, avt, AVT, "GetTransportInfo").get("CurrentTransportState") == "PLAYING",
             10, "the renderer to play")
    assert soap(kz.ns, avt, AVT, "GetPositionInfo")["TrackURI"] == base + "01%20First%20%23%20Song.wav"
    kz.until(lambda: kz.status()["sonosActive"] == [True], 10, "the zone to show as playing")
    assert kz.status()["zone"] == NAME
    # The metadata went as DIDL-Lite, the name's markup escaped.
    info = soap(kz.ns, avt, AVT, "GetMediaInfo")
    assert "First # Song" in info.get("CurrentURIMetaData", "").replace("&amp;", "&"), info

    # When the track ends, the zone plays the next one of the album.
    kz.until(lambda: soap(kz.ns, avt, AVT, "GetPositionInfo").get("TrackURI") == base + "02%20Second.wav",
             15, "the second track")
    access = (kz.root / "var" / "log" / "access.log").read_text()
    assert re.search(r'"GET /hdd1/music/Zone%20Artist/Far%20%26%20Away/01%20First%20%23%20Song.wav HTTP/1.1" 200',
                     access), access
    # The daemon's own files beside the music are not served.
    got = kz.ns.run("curl", "-s", "-o", "/dev/null", "-w", "%{http_code}",
                    f"http://{KZ_ADDR}:{kz.port}/hdd1/kzdb").stdout
    assert got == "404"

    # Volume on the pages' scale of 64: 7 is (100 * 7 + 32) / 64 = 11.
    kz.api("vol7&sonos=1")
    kz.until(lambda: soap(kz.ns, rc, RC, "GetVolume", "<Channel>Master</Channel>").get("CurrentVolume") == "11",
             5, "the zone's volume")
    kz.until(lambda: kz.json("sonosStatus")[0]["volume"] == 11, 5, "the volume in the status")
    assert kz.status()["volume"] != "7"

    # Next moves kz's list on; play stops the zone.
    kz.api("next&sonos=1")
    kz.until(lambda: soap(kz.ns, avt, AVT, "GetPositionInfo").get("TrackURI") == base + "03%20Third.wav",
             10, "the third track")
    kz.api("play&sonos=1")
    kz.until(lambda: soap(kz.ns, avt, AVT, "GetTransportInfo").get("CurrentTransportState") == "STOPPED",
             10, "the zone to stop")
    time.sleep(2)
    # A stop asked for is not the end of a track: nothing else starts.
    assert soap(kz.ns, avt, AVT, "GetTransportInfo")["CurrentTransportState"] == "STOPPED"


def test_bad_zones_and_a_vanished_renderer_leave_the_box_playing(stack):
    kz = stack
    kz.until(lambda: kz.status()["sonos"] == [NAME], 20, "the renderer to be found")
    track = kz.json("search&artists=0&albums=0&radio=0&string=Third")[0]["id"]
    # A zone past the list: a log line, the local player untouched.
    kz.api(f"playID&id={track}&sonos=9")
    kz.d.wait_for("playID for zone 9: there are 1 zones")
    assert kz.api("queueID&id=1&sonos=5") == "[]"
    assert kz.status()["playing"] == 0
    # A track gone from the disk under the list: the renderer cannot fetch
    # it, and after a while the zone goes on to the next one.
    first = kz.json("search&artists=0&albums=0&radio=0&string=First")[0]["id"]
    (kz.root / "media" / "hdd1" / "music" / "Zone Artist" / "Far & Away" / "02 Second.wav").unlink()
    kz.api(f"playID&id={first}&sonos=1")
    kz.d.wait_for("UPnP zone " + NAME + ": playing")
    kz.d.wait_for("did not start Second; going on", timeout=30)
    kz.d.wait_for("/03%20Third.wav")
    kz.until(lambda: kz.status()["sonosActive"] == [True], 10, "the zone to play")
    # The renderer dies mid-track: one line, the zone shows as gone, and
    # this box plays on its own.
    kz.renderer.send_signal(signal.SIGKILL)
    kz.renderer.wait()
    kz.d.wait_for("does not answer", timeout=15)
    kz.until(lambda: kz.json("sonosStatus")[0]["reachable"] is False, 5, "the zone to show as gone")
    assert kz.status()["sonosActive"] == [False]
    kz.api(f"playID&id={track}")
    kz.until(lambda: kz.status()["playing"] == 1, 10, "the box to play")
    assert kz.status()["zone"] == ""
    # Forgetting the zones empties the list; the search finds nobody now.
    assert kz.api("resetSonos") == '"OK"'
    kz.until(lambda: kz.status()["sonos"] == [], 10, "the zones to be forgotten")


def test_broken_and_hostile_devices_are_logged_and_change_nothing_else(hostile):
    kz = hostile
    # A 10 MB description and one that is not XML are refused with a reason;
    # a renderer whose every answer is a fault is listed, its name as given.
    kz.d.wait_for("huge.xml unusable: reply larger than", timeout=20)
    kz.d.wait_for("broken.xml unusable: not a device description")
    kz.until(lambda: kz.status()["sonos"] == ["Faulty <Zone>"], 10, "the faulty zone")
    track = kz.json("search&artists=0&albums=0&radio=0&string=Third")[0]["id"]
    kz.api(f"playID&id={track}&sonos=1")
    kz.d.wait_for("UPnP zone Faulty <Zone> refused the track: 701 Transition not available")
    kz.api("vol20&sonos=1")
    kz.d.wait_for("UPnP zone Faulty <Zone> refused SetVolume: 701 Transition not available")
    kz.d.wait_for("UPnP zone Faulty <Zone> does not answer: 701")
    assert kz.json("sonosStatus")[0]["reachable"] is False
    # Through all of it the box plays as ever.
    kz.api(f"playID&id={track}")
    kz.until(lambda: kz.status()["playing"] == 1, 10, "the box to play")
    assert kz.status()["volume"] != "20"
