"""Rooms through Snapcast: a real snapserver reading the daemon's fifo and a
real snapclient writing what it plays to a file, all on 127.0.0.1."""
import array
import socket
import subprocess
import time
import wave

from client import Client, Playing, without_dropouts

TONE_HZ = 441
VOL48 = 10 ** (-12 / 20)  # 0.75 dB a step below 64


def tone(path, seconds):
    """Makes the track; returns its peak."""
    path.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    f"sine=frequency={TONE_HZ}:sample_rate=44100:duration={seconds}", "-ac", "2",
                    str(path)], check=True)
    with wave.open(str(path)) as w:
        data = array.array("h", w.readframes(w.getnframes()))
    return max(abs(v) for v in data)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Room:
    """snapserver with a pipe source at fifo (PCM, no compression) and one
    snapclient that writes what it plays to room.raw."""

    def __init__(self, tmp, fifo):
        port = free_port()
        conf = tmp / "snapserver.conf"
        conf.write_text(f"[server]\ndatadir = {tmp}\n[http]\nenabled = false\n[tcp]\nenabled = false\n"
                        f"[stream]\nbind_to_address = 127.0.0.1\nport = {port}\ncodec = pcm\nbuffer = 400\n"
                        f"source = pipe://{fifo}?name=kz&sampleformat=44100:16:2&mode=create\n")
        self.server = subprocess.Popen(["/usr/bin/snapserver", "-c", str(conf), "--logging.sink=null"])
        deadline = time.monotonic() + 10
        while socket.socket().connect_ex(("127.0.0.1", port)) != 0:
            assert time.monotonic() < deadline and self.server.poll() is None, "snapserver did not start"
            time.sleep(0.05)
        self.out = tmp / "room.raw"
        self.client = subprocess.Popen(
            ["/usr/bin/snapclient", "-h", "127.0.0.1", "-p", str(port), "--hostID", "kz-test-room",
             "--player", f"file:filename={self.out}", "--logsink", "null"])

    def close(self):
        for p in (self.client, self.server):
            if p.poll() is None:
                p.terminate()
                p.wait(10)


def left_channel(path):
    data = array.array("h")
    raw = path.read_bytes()
    data.frombytes(raw[:len(raw) // 4 * 4])
    return data[0::2]


def sound_of(left):
    """(seconds of tone, its typical peak, its frequency) from 10 ms blocks
    louder than the idle value."""
    peaks = []
    crossings = 0
    for at in range(0, len(left) - 441, 441):
        block = left[at:at + 441]
        peak = max(abs(v) for v in block)
        if peak > 100:
            peaks.append(peak)
            crossings += sum(1 for a, b in zip(block, block[1:]) if a < 0 <= b)
    if not peaks:
        return 0, 0, 0
    seconds = len(peaks) * 441 / 44100
    return seconds, sorted(peaks)[len(peaks) // 2], crossings / seconds


def count(lines, text):
    return sum(1 for line in lines if text in line)


def test_rooms_hear_the_box_after_its_volume_and_the_box_never_waits_for_them(daemon, tmp_path):
    root = tmp_path / "root"
    full = tone(root / "media" / "hdd1" / "music" / "Tones" / "Rooms" / "01 Steady.wav", 12)
    (root / "media" / "hdd1" / "kzsnapcast").write_text("snapcast also\n")
    fifo = root / "tmp" / "snapfifo"
    p = Playing(daemon, root, tmp_path / "out.raw", library=True)
    waiting = f"Snapcast: waiting for the Snapcast server at {fifo}"
    p.d.wait_for(waiting)
    assert fifo.is_fifo()
    # The fifo must carry the sound as the speakers get it: 12 dB down.
    p.api("vol48")
    track = p.json("search&artists=0&albums=0&radio=0&string=Steady")[0]["id"]
    p.api(f"playID&id={track}")

    # No server: the speakers play on at their own pace, and the wait is
    # one line however long it lasts.
    size = p.pcm.stat().st_size
    time.sleep(2)
    rate = (p.pcm.stat().st_size - size) / 4 / 2
    assert 44100 * 0.6 < rate < 44100 * 1.4, rate
    assert count(p.d.lines, "Snapcast:") == 1, p.d.lines

    room = Room(tmp_path, fifo)
    try:
        p.d.wait_for(f"Snapcast: playing into {fifo} (44100:16:2)", timeout=10)
        time.sleep(4)
        # The server goes away mid-track: the speakers do not notice.
        room.server.terminate()
        p.until(lambda: count(p.d.lines, waiting) == 2, what="the second wait")
        p.until(lambda: p.status()["playing"] == 0, what="the track's end")
    finally:
        room.close()
    assert p.d.stop() == 0

    # The speakers: the whole track, no sample lost or repeated (441 Hz at
    # 44100 is a period of exactly 100 samples), at volume 48.
    left, dropouts = without_dropouts(left_channel(p.pcm))
    start = next(i for i, v in enumerate(left) if v not in (0, 1))
    end = max(i for i, v in enumerate(left) if v not in (0, 1))
    assert abs((end - start) / 44100 - 12) < 0.1, (end - start) / 44100
    jumps = [n for n in range(start + 100, end - 100) if abs(left[n] - left[n - 100]) > 3]
    assert not jumps, (jumps[:10], "dropouts", dropouts)
    _, local_peak, _ = sound_of(left)
    assert abs(local_peak - full * VOL48) < full * VOL48 * 0.02, (local_peak, full)

    # The room: the same tone at the same level, for the seconds the
    # server ran.
    seconds, peak, hz = sound_of(left_channel(room.out))
    assert seconds > 2.5, seconds
    assert abs(peak - local_peak) <= local_peak * 0.02, (peak, local_peak)
    assert abs(hz - TONE_HZ) < TONE_HZ * 0.02, hz


def test_only_plays_to_the_rooms_without_a_sound_card(daemon, tmp_path):
    root = tmp_path / "root"
    full = tone(root / "media" / "hdd1" / "music" / "Tones" / "Only" / "01 Short.wav", 4)
    (root / "media" / "hdd1" / "kzsnapcast").write_text("snapcast only\n")
    fifo = tmp_path / "snapfifo"
    # The server makes the fifo this time; the daemon takes it as it is.
    room = Room(tmp_path, fifo)
    try:
        c = Client(daemon, root, env={"KZ_PCM": "no_such_device", "KZ_SNAPCAST_FIFO": str(fifo)})
        c.d.wait_for(f"Snapcast: playing into {fifo}")
        status = c.status()
        assert (status["snapcast"], status["snapcastState"]) == ("only", f"playing into {fifo} (44100:16:2)")
        # The pages' command: a word it does not know changes nothing.
        assert c.json("setSnapcast&mode=loud") == {"snapcast": "only"}
        c.api("vol64")
        track = c.json("search&artists=0&albums=0&radio=0&string=Short")[0]["id"]
        c.api(f"playID&id={track}")
        c.until(lambda: c.status()["playing"] == 1, what="playing")
        c.until(lambda: c.status()["playing"] == 0, what="the track's end")
        # The room plays its buffer's worth later.
        time.sleep(2)
    finally:
        room.close()
    # Back to the box's speakers, kept for the next start.
    assert c.json("setSnapcast&mode=off") == {"snapcast": "off"}
    assert c.status()["snapcastState"] == "off"
    assert c.d.stop() == 0
    assert (root / "media" / "hdd1" / "kzsnapcast").read_text().split() in (["snapcast", "off"], ["off"])
    assert "*********** No USB DAC **********" not in c.d.lines
    assert not any("Alsa device no_such_device opened" in line for line in c.d.lines)
    # Paced on the clock: four seconds of tone. Unpaced, all but the pipe's
    # 0.4 s would be dropped.
    seconds, peak, hz = sound_of(left_channel(room.out))
    assert abs(seconds - 4) < 0.5, seconds
    assert abs(peak - full) < full * 0.02, (peak, full)
    assert abs(hz - TONE_HZ) < TONE_HZ * 0.02, hz
