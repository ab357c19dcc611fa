"""Volume, bass and treble heard in what the daemon plays, in 16-bit and in
high resolution, and the time a WAV track reports."""
import json
import math
import struct
import subprocess
import time

import pytest

import fcgi

LOW, HIGH = 100, 10000  # Hz: well below the bass corner, well above treble's
SECONDS = 16


def make_track(music):
    """A WAV with the low tone on the left and the high one on the right."""
    album = music / "Levels" / "Two Tones"
    album.mkdir(parents=True)
    tone = "sine=frequency={}:duration={}:sample_rate=44100"
    subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y",
                    "-f", "lavfi", "-i", tone.format(LOW, SECONDS),
                    "-f", "lavfi", "-i", tone.format(HIGH, SECONDS),
                    "-filter_complex", "[0][1]amerge=inputs=2", str(album / "01 Low High.wav")],
                   check=True)


def samples(raw, width):
    data = raw.read_bytes()
    code = "i" if width == 4 else "h"
    count = len(data) // width // 2 * 2
    return struct.unpack(f"<{count}{code}", data[:count * width])


def windows(values, rate, width):
    """(RMS, frequency) of each 100 ms window of one channel."""
    size = rate // 10
    out = []
    for at in range(0, len(values) - size + 1, size):
        seg = values[at:at + size]
        rms = math.sqrt(sum(float(v) * v for v in seg) / size)
        crossings = sum(1 for a, b in zip(seg, seg[1:]) if (a < 0) != (b < 0))
        out.append((rms / (1 << (8 * width - 16)), crossings * rate / 2 / size))
    return out


def steady_level(values, rate, width, freq):
    """The level of a span in which the tone holds in every window."""
    found = windows(values, rate, width)
    assert found, "span too short"
    for rms, f in found:
        assert abs(f - freq) < freq * 0.03, (f, freq)
    levels = sorted(rms for rms, _ in found)
    assert levels[-1] < levels[0] * 1.05, levels
    return levels[len(levels) // 2]


def db(after, before):
    return 20 * math.log10(after / before)


@pytest.mark.parametrize("hires", [False, True], ids=["16-bit", "hires"])
def test_volume_and_tone_change_the_level_heard(daemon, tmp_path, hires):
    raw = tmp_path / "out.raw"
    root = tmp_path / "root"
    hdd = root / "media" / "hdd1"
    make_track(hdd / "music")
    if hires:
        # Read from the settings at start-up (and not written back).
        (hdd / "kzsettings").write_text("Compression\nNone\nHires\n1\n")
    rate, width = (96000, 4) if hires else (44100, 2)
    frame = 2 * width
    d = daemon(root, env={"KZ_PCM": f"file:FILE={raw},FORMAT=raw"})
    d.wait_for("loadOrScan () finished")
    d.wait_for("Waiting for incoming connections on socket")
    sock = root / "var" / "run" / "fastCgiUnixSocket"

    def call(uri):
        return fcgi.stdout_of(fcgi.call(sock, fcgi.request(uri)))

    call("/api/vol64")
    call("/api/setTone&bass=0&treble=0")
    call("/api/playID&id=1000000")
    # The position in the output of each change is where the file had got
    # to when it was asked for.
    deadline = time.monotonic() + 10
    start = None
    while start is None and time.monotonic() < deadline:
        time.sleep(0.1)
        left = samples(raw, width)[0::2]
        start = next((i for i, v in enumerate(left) if abs(v) > 100 << (8 * width - 16)), None)
    assert start is not None, "no sound"
    time.sleep(2.5)
    at_volume, t_volume = raw.stat().st_size // frame, time.monotonic()
    call("/api/vol32")
    time.sleep(1.0)
    status = json.loads(call("/api/status").split(b"\r\n\n", 1)[1])
    time.sleep(1.5)
    at_tone = raw.stat().st_size // frame
    call("/api/setTone&bass=6&treble=-6")
    time.sleep(2.5)
    end, t_end = raw.stat().st_size // frame, time.monotonic()
    assert d.stop() == 0

    # The header gives a WAV's length, which the decoder reading the fifo
    # cannot tell.
    assert status["duration"] == str(SECONDS)
    assert SECONDS - 6 <= int(status["timeLeft"]) <= SECONDS - 2, status

    data = samples(raw, width)
    # The idle value leads in; in high resolution two 16-bit words of 1.
    assert data[0] == (0x00010001 if hires else 1)
    assert hires == any("High resolution output: 32-bit 96000 Hz" in l for l in d.lines)
    # A device that does not pace itself is paced at the output's rate.
    pace = (end - at_volume) / (t_end - t_volume)
    assert rate * 0.85 < pace < rate * 1.15, pace
    margin = rate // 2  # changes land within a few periods of their request

    def span(a, b, channel, freq):
        return steady_level(data[2 * (a + margin) + channel:2 * b:2], rate, width, freq)

    low = [span(start, at_volume, 0, LOW), span(at_volume, at_tone, 0, LOW),
           span(at_tone, end, 0, LOW)]
    high = [span(start, at_volume, 1, HIGH), span(at_volume, at_tone, 1, HIGH),
            span(at_tone, end, 1, HIGH)]
    # ffmpeg's sine is at an eighth of full scale: RMS 4096 / sqrt(2).
    assert 2800 < low[0] < 3000 and 2800 < high[0] < 3000, (low, high)
    # Volume 32 of 64 takes 24 dB off both.
    assert -24.5 < db(low[1], low[0]) < -23.5
    assert -24.5 < db(high[1], high[0]) < -23.5
    # Bass +6 lifts the low tone by up to 9 dB, treble -6 lowers the high
    # one by as much: each shelf acts on its own end of the range.
    assert 6 < db(low[2], low[1]) < 9.5, (low, high)
    assert -9.5 < db(high[2], high[1]) < -6, (low, high)
