"""What feeding the rooms costs: the CPU time of the kz process (user and
system, from /proc/<pid>/stat) per second while a library track plays to
the null device, with Snapcast off and then with Snapcast "also" into a
real snapserver on 127.0.0.1 that a snapclient is listening to.
Usage: snapcast_bench.py KZ_BINARY WORK_FOLDER"""
import os
import pathlib
import shutil
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "system"))
import kzdaemon  # noqa: E402
from client import Client  # noqa: E402
from test_snapcast import Room, tone  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")
SECONDS = 20


def cpu_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def playing_cpu(work, mode):
    """CPU seconds per second of kz while the track plays, Snapcast in mode."""
    root = work / mode / "root"
    album = root / "media" / "hdd1" / "music" / "Bench" / "Rooms"
    shutil.copytree(work / "track", album)
    (root / "media" / "hdd1" / "kzsnapcast").write_text(f"snapcast {mode}\n")
    fifo = work / mode / "snapfifo"
    room = Room(work / mode, fifo) if mode != "off" else None
    started = []

    def daemon(root, env=None, **kw):
        started.append(kzdaemon.Daemon(root, env, **kw))
        return started[-1]

    try:
        kz = Client(daemon, root, {"KZ_PCM": "null", "KZ_SNAPCAST_FIFO": str(fifo)})
        if room:
            kz.d.wait_for("Snapcast: playing into", timeout=10)
        track = kz.json("search&artists=0&albums=0&radio=0&string=Long")[0]["id"]
        kz.api(f"playID&id={track}")
        kz.until(lambda: kz.status()["playing"] == 1, what="playing")
        time.sleep(3)
        pid = kz.d.proc.pid
        start_cpu, start = cpu_seconds(pid), time.monotonic()
        time.sleep(SECONDS)
        cpu = (cpu_seconds(pid) - start_cpu) / (time.monotonic() - start)
        assert kz.status()["playing"] == 1
        # What the room's client wrote in all (it writes silence too).
        heard = room.out.stat().st_size / 4 / 44100 if room else None
    finally:
        for d in started:
            d.stop()
        if room:
            room.close()
    return cpu, heard


def main():
    kz, work = sys.argv[1], pathlib.Path(sys.argv[2]).absolute() / "snapcast"
    kzdaemon.KZ_BIN = kz
    shutil.rmtree(work, ignore_errors=True)
    tone(work / "track" / "01 Long.wav", SECONDS + 15)
    off, _ = playing_cpu(work, "off")
    also, heard = playing_cpu(work, "also")
    print(f"snapcast: kz CPU while playing, {SECONDS} s each: off {off * 100:.2f} %, "
          f"also {also * 100:.2f} % ({(also - off) * 100:+.2f} points); "
          f"the room's client wrote {heard:.1f} s of audio")


if __name__ == "__main__":
    main()
