"""Radio figures against a local station: the time from "playID" of a
station to the first sound (the status turning to "Playing"; aim: under
1.5 s), and the CPU that kz and its decoder spend per second of audio while
a 128 kbit/s MP3 stream plays, beside the same figure for the same MP3
played from the library.
Usage: radio_bench.py KZ_BINARY WORK_FOLDER"""
import os
import pathlib
import shutil
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "system"))
import kzdaemon  # noqa: E402
from client import Client  # noqa: E402
from radio_servers import StreamServer, make_mp3  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    """CPU time of a process and of its children still running."""
    total = 0
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            fields = open(f"/proc/{entry}/stat").read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if int(entry) == pid or int(fields[1]) == pid:
            total += int(fields[11]) + int(fields[12])
    return total / TICKS


def measure(pid, seconds):
    start_cpu, start = cpu_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return (cpu_seconds(pid) - start_cpu) / (time.monotonic() - start)


def main():
    kz, work = sys.argv[1], pathlib.Path(sys.argv[2]).absolute() / "radio"
    kzdaemon.KZ_BIN = kz
    shutil.rmtree(work, ignore_errors=True)
    album = work / "root" / "media" / "hdd1" / "music" / "Bench" / "Stream"
    album.mkdir(parents=True)
    mp3 = make_mp3(album / "01 Tone.mp3", 440, seconds=120)
    server = StreamServer(work / "www")
    server.stream("/tone", mp3)
    started = []

    def daemon(root, env=None, **kw):
        started.append(kzdaemon.Daemon(root, env, **kw))
        return started[-1]

    try:
        kz = Client(daemon, work / "root", {"KZ_PCM": "null"})
        station = kz.json("addStation&name=Bench&url=" +
                          "".join(f"%{b:02X}" for b in server.url("/tone").encode()))["id"]
        firsts = []
        for _ in range(7):
            kz.api("playID&id=2000000")
            time.sleep(1)
            start = time.monotonic()
            kz.api(f"playID&id={station}")
            while kz.status().get("radioStatus") != "Playing":
                time.sleep(0.005)
            firsts.append(time.monotonic() - start)
        time.sleep(3)
        radio_cpu = measure(kz.d.proc.pid, 20)
        kz.api("playID&id=2000000")
        time.sleep(3)
        library_cpu = measure(kz.d.proc.pid, 20)
    finally:
        for d in started:
            d.stop()
        server.stop()
    print(f"radio: playID to first sound, median of {len(firsts)}: {statistics.median(firsts):.2f} s "
          f"(min {min(firsts):.2f}, max {max(firsts):.2f}; aim under 1.5 s)")
    print(f"radio: CPU per second of audio, 128 kbit/s MP3 stream: {radio_cpu * 1000:.1f} ms; "
          f"the same MP3 from the library: {library_cpu * 1000:.1f} ms (kz and its decoder)")


if __name__ == "__main__":
    main()
