"""The internet radio against real servers on 127.0.0.1: icecast2 with an
ffmpeg source, playlists and HLS from a local HTTP server, a radio-browser
stand-in, and what kz plays heard in an ALSA file PCM."""
import array
import json
import subprocess
import time

import pytest

from client import Playing, without_dropouts
from radio_servers import Icecast, StreamServer, make_mp3, radio_browser

pytestmark = pytest.mark.skipif(subprocess.run(["which", "icecast2"], capture_output=True).returncode,
                                reason="icecast2 is not installed")


class Radio(Playing):
    def __init__(self, daemon, tmp_path, env=None, name="root"):
        root = tmp_path / name
        (root / "media" / "hdd1").mkdir(parents=True, exist_ok=True)
        super().__init__(daemon, root, tmp_path / f"{name}.raw", env)

    def wait(self, key, value, timeout=20):
        deadline = time.monotonic() + timeout
        seen = None
        while time.monotonic() < deadline:
            seen = self.status().get(key)
            if seen == value:
                return
            time.sleep(0.1)
        raise AssertionError(f"{key} stayed {seen!r}, not {value!r}; log:\n" + "\n".join(self.d.lines))

    def add(self, url, name="Station"):
        reply = json.loads(self.api(f"addStation&name={quote(name)}&url={quote(url)}"))
        return reply["id"]

    def heard(self, seconds=1.0):
        """The frequency of the last seconds played (0 for silence). Quiet
        stretches of 10 ms or more (a reconnection's decoder filling its
        cushion, an MP3's priming) are left out, and a sign change counts
        only from beyond 100 one way to beyond 100 the other."""
        data = self.pcm.read_bytes()
        frames = int(44100 * seconds)
        samples = array.array("h")
        samples.frombytes(data[len(data) // 4 * 4 - frames * 4:len(data) // 4 * 4])
        sound, _ = without_dropouts(samples[0::2], quiet=lambda v: -100 <= v <= 100, shortest=441)
        if len(sound) < frames // 4 or max(abs(v) for v in sound) < 200:
            return 0
        crossings, sign = 0, 0
        for v in sound:
            if -100 <= v <= 100:
                continue
            if sign and (v > 0) != (sign > 0):
                crossings += 1
            sign = v
        return crossings / 2 / (len(sound) / 44100)


def quote(text):
    """Every byte escaped, so no command word can appear in a value."""
    return "".join(f"%{b:02X}" for b in text.encode())


@pytest.fixture
def servers(tmp_path):
    made = []

    def start(kind):
        s = Icecast(tmp_path / "icecast") if kind == "icecast" else StreamServer(tmp_path / "www")
        made.append(s)
        return s

    yield start
    for s in made:
        s.stop()


def test_icecast_station_titles_dropout_reconnect_and_recording(daemon, tmp_path, servers):
    ice = servers("icecast")
    ice.start(freq=440, title="Nina Simone - Don't \"Explain\"")
    r = Radio(daemon, tmp_path)
    station = r.add(ice.url(), "Tone FM")
    started = time.monotonic()
    r.api(f"playID&id={station}")
    r.wait("radioStatus", "Playing", timeout=10)
    first_sound = time.monotonic() - started
    s = r.status()
    assert (s["source"], s["station"], s["track"]) == ("Radio", "Tone FM", "Nina Simone - Don't \"Explain\"")
    r.d.wait_for("webPlayID () Radio URL=" + ice.url())
    time.sleep(1.5)
    assert abs(r.heard() - 440) < 15, r.heard()
    assert first_sound < 5

    ice.set_title("Miles Davis - So What")
    r.wait("track", "Miles Davis - So What", timeout=10)

    # Recording with a limit: event 100 ends it and the file joins the library.
    assert r.api("recordingLimit&limit=10") == '"OK"'
    assert r.api("startRecording") == '"OK"'
    s = r.status()
    assert s["recording"] is True and s["recordingSource"] == "Internet Radio"
    assert "/Radio Recordings/Tone FM/" in s["recordingPath"] and s["recordingPath"].endswith(".mp3")
    path = s["recordingPath"]
    r.d.wait_for("got STOPRECORDING event", timeout=20)
    r.wait("recording", False)
    r.d.wait_for("Recording saved as")
    length = float(subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=duration", "-of",
                                   "csv=p=0", path], capture_output=True, text=True).stdout)
    assert 9.5 < length < 13, length
    found = json.loads(r.api("search&artists=0&albums=0&radio=0&string=" + quote(path.rsplit("/", 1)[1][:10])))
    assert len(found) == 1 and found[0]["album"] == "Tone FM", found

    # The server goes away: reconnecting, then the same station again.
    ice.stop()
    r.wait("radioStatus", "Reconnecting", timeout=15)
    ice.start(freq=440)
    r.wait("radioStatus", "Playing", timeout=30)
    time.sleep(1.5)
    assert abs(r.heard() - 440) < 15

    # The recording plays from the library.
    r.api(f"playID&id={found[0]['id']}")
    r.wait("source", "Library")
    time.sleep(2)
    assert abs(r.heard() - 440) < 15, "\n".join(r.d.lines[-30:])
    assert r.d.stop() == 0


def test_playlist_forms_hls_and_titles_from_a_local_server(daemon, tmp_path, servers):
    web = servers("web")
    mp3 = make_mp3(tmp_path / "tone.mp3", 550)
    web.stream("/tone", mp3)
    stream = web.url("/tone")
    web.text("/list.pls", f"[playlist]\nNumberOfEntries=2\nFile1={web.url('/gone')}\nFile2={stream}\n",
             "audio/x-scpls")
    web.text("/list.m3u", f"#EXTM3U\n#EXTINF:-1,Tone\n{stream}\n", "audio/x-mpegurl")
    web.text("/nolabel", f"#EXTM3U\n{stream}\n", "audio/x-mpegurl")
    web.text("/list.asx", f'<ASX version="3.0"><Entry><Ref href="{stream}"/></Entry></ASX>',
             "video/x-ms-asf")
    web.text("/list.xspf", '<?xml version="1.0"?><playlist version="1" xmlns="http://xspf.org/ns/0/">'
             f"<trackList><track><location>{stream}</location></track></trackList></playlist>",
             "application/xspf+xml")
    web.redirect("/moved", "/list.m3u")
    r = Radio(daemon, tmp_path)
    for path in ("/list.pls", "/list.m3u", "/nolabel", "/list.asx", "/list.xspf", "/moved"):
        r.api(f"playID&id={r.add(web.url(path), path)}")
        r.wait("radioStatus", "Playing", timeout=10)
        r.wait("station", path)
    time.sleep(1.5)
    assert abs(r.heard() - 550) < 15
    assert any(line.endswith("/gone answered 404") for line in r.d.lines)

    # ICY titles with quotes, 4 KB and bad UTF-8: the status stays JSON and
    # shows a clean title.
    titles = [b"StreamTitle='It''s \"quoted\" \\ here';", b"StreamTitle='" + b"x" * 4000 + b"';",
              b"StreamTitle='Bj\xf6rk \xc3 \x01 - J\xc3\xb3ga';"]
    web.stream("/icy", mp3, titles=titles, metaint=4096)
    r.api(f"playID&id={r.add(web.url('/icy'), 'Icy')}")
    r.wait("radioStatus", "Playing", timeout=10)
    seen = set()
    deadline = time.monotonic() + 10
    while len(seen) < 3 and time.monotonic() < deadline:
        seen.add(r.status()["track"])
        time.sleep(0.05)
    assert "x" * 512 in seen
    assert "Bj\u00f6rk \u00c3 - J\u00f3ga".replace(" - ", "   - ") in seen or any("Bj\u00f6rk" in t for t in seen), seen
    assert all(len(t.encode()) <= 512 for t in seen)

    # HLS: a live playlist from ffmpeg's hls muxer behind a master playlist,
    # with a segment missing.
    web.start_hls(660)
    web.text("/master.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=5000000\nhls/index.m3u8\n"
             "#EXT-X-STREAM-INF:BANDWIDTH=128000,CODECS=\"mp4a.40.2\"\nhls/index.m3u8?v=1\n",
             "application/vnd.apple.mpegurl")
    web.missing_segments = {f"index{n}.ts" for n in range(8, 10)}
    r.api(f"playID&id={r.add(web.url('/master.m3u8'), 'HLS')}")
    r.wait("radioStatus", "Playing", timeout=15)
    r.d.wait_for("index8.ts missing", timeout=20)
    time.sleep(3)
    assert abs(r.heard() - 660) < 20, r.heard()
    assert any("hls/index.m3u8?v=1" in q for q in web.requests)

    # Fragmented MP4 segments, after their initialisation segment.
    web.missing_segments = set()
    web.start_hls(880, fmp4=True)
    r.api(f"playID&id={r.add(web.url('/hls/index.m3u8'), 'fMP4')}")
    r.wait("station", "fMP4")
    r.wait("radioStatus", "Playing", timeout=15)
    time.sleep(2.5)
    assert abs(r.heard() - 880) < 20, r.heard()
    assert r.d.stop() == 0


def test_bad_stations_fail_clearly_and_a_cut_stream_comes_back(daemon, tmp_path, servers):
    web = servers("web")
    mp3 = make_mp3(tmp_path / "tone.mp3", 550)
    web.text("/page", "<html><body>Not a radio</body></html>", "text/html")
    web.redirect("/loop", "/loop2")
    web.redirect("/loop2", "/loop")
    web.text("/self.pls", "", "audio/x-scpls")
    web.routes["/self.pls"] = lambda h: h.reply(f"[playlist]\nFile1={web.url('/self.pls')}\n", "audio/x-scpls")
    web.text("/empty.m3u", "#EXTM3U\n# nothing\n", "audio/x-mpegurl")
    web.text("/fake.mp3", "<html>" + "x" * 5000 + "</html>", "audio/mpeg")
    web.stream("/cut", mp3, cut_after=150000)
    r = Radio(daemon, tmp_path)
    for path, why in (("/missing", "answered 404"), ("/page", "sends text/html, not audio"),
                      ("/loop", "cannot reach"), ("/self.pls", "leads back to itself"),
                      ("/empty.m3u", "names no stream"),
                      ("/fake.mp3", "the decoder could not read the stream")):
        started = time.monotonic()
        r.api(f"playID&id={r.add(web.url(path), path)}")
        r.wait("radioStatus", "Stream failed", timeout=15)
        assert time.monotonic() - started < 10
        assert r.status()["playing"] == 0 or path == "/fake.mp3"
        r.d.wait_for(why)
    r.api(f"playID&id={r.add('http://127.0.0.1:9/nothing', 'Closed')}")
    r.wait("radioStatus", "Reconnecting", timeout=10)

    # A stream that stops mid-frame is reconnected and plays on.
    r.api(f"playID&id={r.add(web.url('/cut'), 'Cut')}")
    r.wait("radioStatus", "Playing", timeout=10)
    r.d.wait_for("Radio: reconnecting to " + web.url("/cut"), timeout=20)
    r.wait("radioStatus", "Playing", timeout=10)
    time.sleep(1)
    assert abs(r.heard() - 550) < 15
    assert r.d.stop() == 0


def test_presets_directory_and_station_list_survive_a_restart(daemon, tmp_path, servers):
    web = servers("web")
    mp3 = make_mp3(tmp_path / "tone.mp3", 550)
    web.stream("/tone", mp3)
    web.stream("/jazz", mp3)
    radio_browser(web, [
        {"name": "Jazz \"Cafe\"", "url": web.url("/jazz"), "favicon": web.url("/logo.png"),
         "tags": "jazz,smooth", "country": "France"},
        {"name": "Tone Radio", "url": "ftp://bad.example/", "url_resolved": web.url("/tone"),
         "tags": "test", "country": "Germany"},
        {"name": "No Address", "url": "file:///etc/passwd"},
    ], tags=[("jazz", 2), ("test", 1)], countries=[("France", 1), ("Germany", 1)])
    env = {"KZ_RADIO_DIRECTORY": web.url("")}
    r = Radio(daemon, tmp_path, env)
    top = json.loads(r.api("vTunerTop"))
    assert [t["radio"] for t in top] == ["Jazz \"Cafe\"", "Tone Radio"]
    found = json.loads(r.api("vTunerSearch&string=" + quote("tone")))
    assert [t["radio"] for t in found] == ["Tone Radio"]
    assert any("name=tone" in q for q in web.requests)
    assert json.loads(r.api("vTunerLink")) == [{"name": "Genres", "link": "genres", "count": 0},
                                               {"name": "Countries", "link": "countries", "count": 0}]
    genres = json.loads(r.api("vTunerLink&link=genres"))
    assert genres[0] == {"name": "jazz", "link": "genre/jazz", "count": 2}
    jazz = json.loads(r.api("vTunerLink&link=" + quote("genre/jazz")))
    assert [j["radio"] for j in jazz] == ["Jazz \"Cafe\""]
    assert json.loads(r.api("vTunerBack")) == genres
    countries = json.loads(r.api("vTunerLink&link=countries"))
    assert [c["name"] for c in countries] == ["France", "Germany"]

    # A directory station plays by its identifier and is kept once played.
    assert r.api(f"vTunerPlaySearchItem&id={found[0]['id']}") == '"OK"'
    r.wait("radioStatus", "Playing", timeout=10)
    assert r.status()["station"] == "Tone Radio"
    r.api(f"playID&id={jazz[0]['id']}")
    r.wait("station", "Jazz \"Cafe\"")
    assert r.status()["logo"] == web.url("/logo.png")
    assert r.api("search&artists=0&albums=0&tracks=0&string=cafe") == \
        json.dumps([{"id": jazz[0]["id"], "radio": "Jazz \"Cafe\""}], separators=(",", ":"))

    # Presets: from a station, from name and address, played by identifier.
    assert r.api(f"setPresetFromID&id={jazz[0]['id']}&preset=2") == '"OK"'
    assert r.api("setPreset&preset=5&name=" + quote("My & Tone") + "&url=" + quote(web.url("/tone?a=1&b=2"))) == "thanks\n"
    presets = json.loads(r.api("getPresets"))
    assert len(presets) == 20
    assert presets[2] == {"name": "Jazz \"Cafe\"", "url": web.url("/jazz")}
    assert presets[5] == {"name": "My & Tone", "url": web.url("/tone?a=1&b=2")}
    r.api("playID&id=6000005")
    r.d.wait_for("preset 5 is a NOT a Playlist")
    r.wait("station", "My & Tone")
    r.wait("radioStatus", "Playing", timeout=10)
    assert any(q == "/tone?a=1&b=2" for q in web.requests)
    assert r.d.stop() == 0

    kzradio = (r.root / "media" / "hdd1" / "kzradio").read_text()
    assert "Tone Radio" in kzradio and "Jazz" in kzradio and "No Address" not in kzradio
    settings = (r.root / "media" / "hdd1" / "kzsettings").read_text()
    assert f"Preset 5\nMy & Tone\n{web.url('/tone?a=1&b=2')}\n" in settings
    assert "CurrentRadio\nMy & Tone\n" in settings

    # After a restart: the stations and the presets.
    web.requests.clear()
    r2 = Radio(daemon, tmp_path, {"KZ_RADIO_DIRECTORY": ""}, name="root")
    assert json.loads(r2.api("getPresets"))[5]["name"] == "My & Tone"
    assert json.loads(r2.api("search&artists=0&albums=0&tracks=0&string=tone"))[0]["radio"] == "Tone Radio"
    assert r2.api("vTunerTop") == "[]"
    r2.api("playID&id=6000005")
    r2.wait("radioStatus", "Playing", timeout=10)
    assert r2.status()["station"] == "My & Tone"
    assert r2.d.stop() == 0


def test_every_common_stream_form_plays_and_records(daemon, tmp_path, servers):
    web = servers("web")
    forms = [("aac", "audio/aac", ["-c:a", "aac", "-b:a", "96k", "-f", "adts"], 600),
             ("ogg", "application/ogg", ["-c:a", "libvorbis", "-f", "ogg"], 700),
             ("opus", "audio/ogg", ["-c:a", "libopus", "-b:a", "96k", "-f", "ogg"], 800),
             ("flac", "audio/flac", ["-c:a", "flac", "-f", "flac"], 900)]
    for name, kind, codec, freq in forms:
        path = tmp_path / f"tone.{name}"
        subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                        f"sine=frequency={freq}:sample_rate=48000:duration=30", "-ac", "2", *codec,
                        str(path)], check=True)
        data = path.read_bytes()

        def serve(h, data=data, kind=kind):
            # One copy of the 30 s file at twice real time, like a station
            # filling a player's cushion: the stream lasts 15 s whatever the
            # bit rate, so a loaded machine still records it before it ends.
            h.send_response(200)
            h.send_header("Content-Type", kind)
            h.end_headers()
            pause = 15 / (len(data) / 8192)
            for at in range(0, len(data), 8192):
                if web.stopping:
                    return
                h.wfile.write(data[at:at + 8192])
                time.sleep(pause)
        web.routes["/" + name] = serve
    r = Radio(daemon, tmp_path)
    for name, kind, codec, freq in forms:
        r.api(f"playID&id={r.add(web.url('/' + name), name)}")
        r.wait("station", name)
        r.wait("radioStatus", "Playing", timeout=10)
        r.d.wait_for(f"/{name} streams {kind}")
        time.sleep(1.5)
        assert abs(r.heard() - freq) < 20, (name, r.heard())
        if name == "opus":
            # Started mid-stream: the Ogg headers are put in front.
            assert r.api("startRecording") == '"OK"'
            time.sleep(2.5)
            path = r.status()["recordingPath"]
            assert path.endswith(".m4a")
            assert r.api("stopRecording") == '"OK"'
            probe = subprocess.run(["ffprobe", "-v", "error", "-show_entries",
                                    "stream=codec_name:format=duration", "-of", "json", path],
                                   capture_output=True, text=True)
            info = json.loads(probe.stdout)
            assert info["streams"][0]["codec_name"] == "opus", info
            assert 1.5 < float(info["format"]["duration"]) < 5, info
    assert r.d.stop() == 0
