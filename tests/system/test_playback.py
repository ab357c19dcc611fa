"""Playing the library through the daemon into an ALSA file PCM."""
import math
import struct
import subprocess
import time

import fcgi

TONES = [(440, "01 A.mp3"), (660, "02 E.flac"), (880, "03 A5.wav")]
SECONDS = 5


def make_album(music):
    album = music / "Tones" / "Three"
    album.mkdir(parents=True)
    for freq, name in TONES:
        subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                        f"sine=frequency={freq}:duration={SECONDS}:sample_rate=44100",
                        "-ac", "2", str(album / name)], check=True)


def left_channel(raw):
    data = raw.read_bytes()
    return struct.unpack(f"<{len(data) // 2}h", data[:len(data) // 2 * 2])[0::2]


def tone_runs(left, window=2205):
    """The frequency heard in each window of 50 ms (0 for silence)."""
    runs = []
    for at in range(0, len(left) - window, window):
        seg = left[at:at + window]
        if max(abs(v) for v in seg) < 50:
            runs.append(0)
            continue
        crossings = sum(1 for a, b in zip(seg, seg[1:]) if (a < 0) != (b < 0))
        runs.append(crossings * 44100 / 2 / window)
    return runs


def play_album(daemon, tmp_path, segue, later=None):
    raw = tmp_path / f"out-{segue}.raw"
    root = tmp_path / f"root-{segue}"
    make_album(root / "media" / "hdd1" / "music")
    d = daemon(root, env={"KZ_PCM": f"file:FILE={raw},FORMAT=raw"})
    d.wait_for("loadOrScan () finished")
    sock = root / "var" / "run" / "fastCgiUnixSocket"
    d.wait_for("Waiting for incoming connections on socket")
    assert fcgi.stdout_of(fcgi.call(sock, fcgi.request(f"/api/setSegue&segue={segue}"))).endswith(b"[]")
    assert fcgi.stdout_of(fcgi.call(sock, fcgi.request("/api/vol64"))).endswith(b"thanks\n")
    time.sleep(0.3)
    fcgi.call(sock, fcgi.request("/api/playID&id=1000000"))
    # Short segue asks for the next track with under 3 s to go: the first two
    # tones are heard for about 2 s each and the album lasts about 9.5 s. A
    # later command goes in at 7 s, well inside the last tone.
    time.sleep(len(TONES) * SECONDS - 8)
    if later:
        fcgi.call(sock, fcgi.request(later))
    time.sleep(10)
    assert d.stop() == 0
    return d, left_channel(raw)


def test_album_plays_in_order_with_short_segue(daemon, tmp_path):
    d, left = play_album(daemon, tmp_path, "short", later="/api/vol32")
    # Idle before the first track: the value 1.
    assert left[0] == 1
    runs = tone_runs(left)
    # A tone counts once it holds for three windows: inside a crossfade the
    # mixture can pass for either one.
    heard, last, steady = [], 0, 0
    for f in runs:
        tone = next((t for t, _ in TONES if abs(f - t) < 20), 0)
        steady = steady + 1 if tone == last else 1
        last = tone
        if tone and steady == 3 and (not heard or heard[-1] != tone):
            heard.append(tone)
    assert heard == [t for t, _ in TONES]
    # The time left is counted in whole seconds, so the next track is asked
    # for once less than 3 s remain: about 2 s of each 5 s tone is heard on
    # its own, and some of the 0.6 s crossfade.
    for tone, _ in TONES[:2]:
        alone = sum(1 for f in runs if abs(f - tone) < 20) * 0.05
        assert 1.8 < alone < 2.8, (tone, alone)
    # The next track is asked for 2 s before the end.
    assert sum("NEXTEVENT in startNext" in l for l in d.lines) >= 2
    # At full volume the tones come out at their level (ffmpeg's sine, made
    # stereo, peaks near 2896, a little less through MP3); volume 32 takes
    # 24 dB off the end.
    sound = [i for i, v in enumerate(left) if abs(v) > 20]
    start, end = sound[0], sound[-1]
    assert 2650 < max(abs(v) for v in left[start:start + 44100]) < 3000
    assert 150 < max(abs(v) for v in left[end - 22050:end]) < 220


def test_segue_off_hands_over_without_a_gap(daemon, tmp_path):
    d, left = play_album(daemon, tmp_path, "off")
    runs = tone_runs(left)
    first = next(i for i, f in enumerate(runs) if f > 0)
    last = max(i for i, f in enumerate(runs) if f > 0)
    # From the first sound to the last, no silent window between the tracks.
    assert all(f > 0 for f in runs[first:last + 1])
    assert any("getSamples () switching" in l for l in d.lines)
