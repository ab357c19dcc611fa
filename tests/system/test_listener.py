"""One connection at a time, but no client can hold the listener for long,
and a crowd of browsers through lighttpd gets every answer."""
import socket
import subprocess
import threading
import time

import pytest

import fcgi
import webstack


@pytest.fixture
def web(daemon, tmp_path):
    root = tmp_path / "root"
    album = root / "media" / "hdd1" / "music" / "Artist" / "Album"
    album.mkdir(parents=True)
    (album / "01 Song.mp3").write_bytes(b"\0" * 1000)
    (album / "coverart.jpg").write_bytes(b"\xff" * 3_000_000)
    d, base = webstack.start(daemon, root, {"KZ_PCM": "null"})
    yield d, root, base
    webstack.stop_lighttpd(root)


def status_time(socket_path):
    start = time.monotonic()
    reply = fcgi.stdout_of(fcgi.call(socket_path, fcgi.request("/api/status"), timeout=60))
    assert b'"playing"' in reply
    return time.monotonic() - start


def test_idle_and_non_reading_clients_release_the_listener(web):
    d, root, base = web
    path = root / "var" / "run" / "fastCgiUnixSocket"
    # A client that connects and sends nothing.
    idle = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    idle.connect(str(path))
    waited = status_time(path)
    idle.close()
    assert waited < 10, f"an idle client held the listener {waited:.1f} s"

    # A client that asks for a 3 MB cover and never reads it.
    stuck = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    stuck.connect(str(path))
    stuck.sendall(fcgi.request("/api/getAlbumArt&id=1000000"))
    time.sleep(0.3)
    waited = status_time(path)
    stuck.close()
    assert waited < 12, f"a client that never read held the listener {waited:.1f} s"

    # A client that sends its request a byte a second (each record's header
    # whole, its content dripping): each byte comes well within the receive
    # time-out, but the request as a whole must not take more than about 5 s.
    trickle = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    trickle.connect(str(path))
    request = fcgi.request("/api/status")
    pieces, at = [], 0
    while at < len(request):
        size = int.from_bytes(request[at + 4:at + 6], "big") + request[at + 6]
        pieces.append(request[at:at + 8])
        pieces += [bytes([b]) for b in request[at + 8:at + 8 + size]]
        at += 8 + size
    stop = threading.Event()

    def drip():
        for piece in pieces:
            if stop.is_set():
                return
            try:
                trickle.send(piece)
            except OSError:
                return
            time.sleep(1)

    dripper = threading.Thread(target=drip)
    dripper.start()
    time.sleep(0.5)
    waited = status_time(path)
    stop.set()
    dripper.join()
    trickle.close()
    assert waited < 8, f"a trickling client held the listener {waited:.1f} s"
    assert any("request not complete in time" in l for l in d.lines)

    # The cover itself still arrives whole for a client that reads it.
    body = fcgi.stdout_of(fcgi.call(path, fcgi.request("/api/getAlbumArt&id=1000000")))
    assert body.endswith(b"\xff" * 3_000_000)


def test_crowds_through_lighttpd_get_every_answer(web):
    d, root, base = web
    for clients in (20, 50):
        out = subprocess.run(["ab", "-q", "-n", "500", "-c", str(clients), base + "/api/listalbum&id=1000000"],
                             capture_output=True, text=True, timeout=120).stdout
        fields = dict(line.split(":", 1) for line in out.splitlines() if ":" in line)
        assert int(fields["Complete requests"]) == 500, out
        assert int(fields["Failed requests"]) == 0, out
        assert int(fields.get("Non-2xx responses", "0")) == 0, out
