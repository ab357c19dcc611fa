import os
import signal
import stat
import subprocess
import sys
import time

import fcgi


def test_decoder_fifos_live_in_the_root_and_do_not_hold_up_the_exit(daemon, tmp_path):
    d = daemon()
    d.wait_for("isUSBdac = ")
    root = tmp_path / "root"
    for name in ("kzpipe1", "kzpipe2", "ffso1", "ffso2"):
        assert stat.S_ISFIFO((root / "tmp" / name).stat().st_mode), name
    # The progress readers wait in open() for a decoder; the quit must not.
    assert d.stop(signal.SIGTERM) == 0
    assert not any(l.startswith("Problem opening") for l in d.lines)


def decoders_of(root):
    """Pids of processes whose arguments name one of root's slot fifos."""
    fifos = {str(root / "tmp" / name).encode() for name in ("kzpipe1", "kzpipe2")}
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/cmdline", "rb") as f:
                args = f.read().split(b"\0")
        except OSError:
            continue
        if fifos & set(args):
            found.append(int(entry))
    return found


def eventually(cond, seconds=2.0):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if cond():
            return True
        time.sleep(0.05)
    return cond()


def test_decoders_die_with_the_daemon_and_leftovers_end_at_start(daemon, tmp_path):
    root = tmp_path / "root"
    album = root / "media" / "hdd1" / "music" / "Tones" / "Long"
    album.mkdir(parents=True)
    subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    "sine=frequency=440:duration=60", "-ac", "2", str(album / "01 A.mp3")],
                   check=True)
    d = daemon(root, env={"KZ_PCM": f"file:FILE={tmp_path / 'out.raw'},FORMAT=raw"})
    d.wait_for("loadOrScan () finished")
    d.wait_for("Waiting for incoming connections on socket")
    fcgi.call(root / "var" / "run" / "fastCgiUnixSocket", fcgi.request("/api/playID&id=1000000"))
    assert eventually(lambda: decoders_of(root), 10), "no decoder started"
    d.proc.send_signal(signal.SIGKILL)
    d.proc.wait()
    assert eventually(lambda: not decoders_of(root)), decoders_of(root)

    # A stand-in for a decoder left by a run that died before its children
    # could be tied to it: the next start of the same root ends it.
    # The interpreter itself, not a launcher script that execs it by stages
    # (while a process execs, its command line reads empty); and only once
    # its command line names the fifo does it stand for a decoder.
    fifo = str(root / "tmp" / "kzpipe1")
    leftover = subprocess.Popen([sys.executable, "-c", "import time; time.sleep(60)", fifo])
    try:
        assert eventually(lambda: fifo.encode() in open(f"/proc/{leftover.pid}/cmdline", "rb").read(), 5)
        d = daemon(root)
        # A busy machine may take a while to reach the decoders' start.
        d.wait_for("Killing leftover decoder", 20)
        assert eventually(lambda: leftover.poll() is not None, 5)
        assert d.stop(signal.SIGTERM) == 0
    finally:
        leftover.kill()
        leftover.wait()
