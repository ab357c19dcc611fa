import os
import socket
import struct
import subprocess
import time

import pytest

import fcgi
import webstack


@pytest.fixture
def web(daemon, tmp_path):
    """kz with lighttpd in front, in a fresh root; yields (daemon, root, base URL)."""
    root = tmp_path / "root"
    (root / "media" / "hdd1" / "music").mkdir(parents=True)
    d, base = webstack.start(daemon, root, {"KZ_PCM": "null"})
    yield d, root, base
    webstack.stop_lighttpd(root)


def curl(*args):
    return subprocess.run(["curl", "-sS", "--max-time", "60", *args], check=True,
                          capture_output=True).stdout


def test_pages_and_commands_through_lighttpd(web):
    d, root, base = web
    assert b"kz" in curl(base + "/")
    log = curl(base + "/api/getWebDebug").decode()
    assert "initDisks ()" in log and "Starting Main Loop at " in log
    assert curl(base + "/api/nothingKnown") == b"thanks\n"
    assert curl(base + "/api/upload") == b'"NG"'
    assert curl(base + "/api/checkUpload") == b"true"


def wav(data):
    """A 16-bit stereo 44.1 kHz WAV around data (any bytes: they are its audio)."""
    return (b"RIFF" + struct.pack("<I", 36 + len(data)) + b"WAVEfmt " +
            struct.pack("<IHHIIHH", 16, 1, 2, 44100, 176400, 4, 16) + b"data" +
            struct.pack("<I", len(data)) + data)


def mp3(path, seconds=1):
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", f"sine=d={seconds}",
                    "-q:a", "9", str(path)], check=True)
    return path.read_bytes()


def test_uploads_land_in_the_library_whole(web, tmp_path):
    d, root, base = web
    one = mp3(tmp_path / "01 One.mp3")
    # The body holds bytes that look like the start of the boundary.
    two = wav(b"\r\n--" + os.urandom(5000) + b"\r\n-")
    (tmp_path / "02 Two.wav").write_bytes(two)
    reply = curl("-F", f"Album Name=@{tmp_path / '01 One.mp3'}",
                 "-F", f"Album Name=@{tmp_path / '02 Two.wav'}",
                 base + "/api/upload&artist=Nina%20Simone")
    assert int(reply) > 0
    album = root / "media" / "hdd1" / "music" / "Nina Simone" / "Album Name"
    assert (album / "01 One.mp3").read_bytes() == one
    assert (album / "02 Two.wav").read_bytes() == two
    # Each file is saved as it lands: the save holding both can come after
    # the first "writeDB complete".
    entry = "Nina Simone/Album Name\n2 tracks\n01 One.mp3\n02 Two.wav\n"
    deadline = time.monotonic() + 10
    while entry not in (kzdb := (root / "media" / "hdd1" / "kzdb").read_text()):
        assert time.monotonic() < deadline, kzdb
        time.sleep(0.1)

    # A 50 MB upload arrives whole although the reply is ready at once.
    big = tmp_path / "03 Big.wav"
    with open(big, "wb") as f:
        f.write(wav(os.urandom(1 << 20) * 50))
    curl("-F", f"Big=@{big}", base + "/api/upload&artist=Nina%20Simone")
    got = root / "media" / "hdd1" / "music" / "Nina Simone" / "Big" / "03 Big.wav"
    assert got.stat().st_size == big.stat().st_size
    assert got.read_bytes() == big.read_bytes()

    # A hostile file name stays inside its album.
    mp3(tmp_path / "x.mp3")
    curl("-F", f"Evil=@{tmp_path / 'x.mp3'};filename=../../../escape.mp3",
         base + "/api/upload&artist=..%2F..")
    landed = [p.relative_to(root) for p in root.rglob("*escape.mp3")]
    assert landed == [root.relative_to(root) / "media/hdd1/music/_._../Evil/_._.._.._escape.mp3"]


def test_raw_records_and_bad_clients(web):
    d, root, base = web
    sock_path = root / "var" / "run" / "fastCgiUnixSocket"

    recs = fcgi.call(sock_path, fcgi.request("/api/checkUpload"))
    # Header bytes end in CR LF LF; then the empty STDOUT and END_REQUEST.
    assert recs[0][2] == b"Content-Type:text/html;charset=UTF-8\r\n\ntrue"
    assert recs[1] == (6, 1, b"")
    assert recs[2] == (3, 1, b"\0" * 8)

    # Request id 2 is answered as 1; a 2,000-byte parameter first.
    long_param = [(b"HTTP_X_LONG", b"v" * 2000)]
    recs = fcgi.call(sock_path, fcgi.request("/api/checkUpload", request_id=2, extra_params=long_param))
    assert all(rid == 1 for _, rid, _ in recs)
    assert fcgi.stdout_of(recs).endswith(b"true")
    d.wait_for("*************** getFcgiRecord id=2")

    # Broken clients: a short header, a body that never comes, PARAMS without
    # end, junk. Each ends its connection; the next request is served.
    for junk in (b"\1\4\0", fcgi.record(4, b"")[:8] + b"\1\4\0\1\1\0\0\0abc",
                 fcgi.record(4, fcgi.pair(b"REQUEST_URI", b"/api/x")), os.urandom(3000)):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect(str(sock_path))
        s.sendall(junk)
        s.close()
    for _ in range(200):
        recs = fcgi.call(sock_path, fcgi.request("/api/whatever"))
        assert fcgi.stdout_of(recs).endswith(b"thanks\n")
    def fds():
        # The output thread may hold a device open for a moment: take the least.
        return min(len(os.listdir(f"/proc/{d.proc.pid}/fd")) for _ in range(20))
    before = fds()
    for _ in range(200):
        fcgi.call(sock_path, fcgi.request("/api/whatever"))
    # A leak would show as one descriptor a request; allow a passing one.
    assert fds() <= before + 1


def test_browser_audio_comes_out_of_the_output(daemon, tmp_path):
    import math
    import struct
    raw = tmp_path / "out.raw"
    root = tmp_path / "root"
    (root / "media" / "hdd1" / "music").mkdir(parents=True)
    d = daemon(root, env={"KZ_PCM": f"file:FILE={raw},FORMAT=raw"})
    d.wait_for("Waiting for incoming connections on socket")
    sock_path = root / "var" / "run" / "fastCgiUnixSocket"
    assert fcgi.stdout_of(fcgi.call(sock_path, fcgi.request("/api/startWebAudio&buffer=100"))).endswith(b'"OK"')
    # Two seconds of a 1 kHz tone behind a WAV header, in records of odd sizes
    # so that frames are split between records.
    frames = b"".join(struct.pack("<hh", v, v) for v in
                      (int(12000 * math.sin(2 * math.pi * 1000 * n / 44100)) for n in range(88200)))
    header = (b"RIFF" + struct.pack("<I", 36 + len(frames)) + b"WAVEfmt " +
              struct.pack("<IHHIIHH", 16, 1, 2, 44100, 176400, 4, 16) + b"data" + struct.pack("<I", len(frames)))
    body = header + frames
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.connect(str(sock_path))
    params = fcgi.pair(b"REQUEST_URI", b"/api/blob&title=Tone") + fcgi.pair(b"CONTENT_LENGTH", str(len(body)).encode())
    s.sendall(fcgi.record(1, b"\0\1\0\0\0\0\0\0") + fcgi.record(4, params) + fcgi.record(4))
    at = 0
    while at < len(body):
        n = 997 if at % 2 else 1501
        s.sendall(fcgi.record(5, body[at:at + n]))
        at += n
    s.sendall(fcgi.record(5))
    assert fcgi.stdout_of(fcgi.read_records(s)).endswith(b'"OK"')
    s.close()
    time.sleep(2.5)
    assert d.stop() == 0
    out = raw.read_bytes()
    samples = struct.unpack(f"<{len(out) // 2}h", out[:len(out) // 2 * 2])
    left = samples[0::2]
    # The tone is there: a long stretch at about 1 kHz, at the stored volume
    # (25 of 64: 29.25 dB down, 12000 becomes about 415).
    loud = [i for i, v in enumerate(left) if abs(v) > 300]
    assert len(loud) > 20000
    assert 380 < max(abs(v) for v in left) < 460
    start = loud[0]
    # The chime of startWebAudio came first, quieter than the tone.
    assert 120 < max(abs(v) for v in left[:start]) < 300
    seg = left[start:start + 44100]
    crossings = sum(1 for a, b in zip(seg, seg[1:]) if (a < 0) != (b < 0))
    assert 1900 < crossings < 2100, crossings
