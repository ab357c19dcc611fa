"""Radio figures against a local station: the time from "playID" of a
station to the first sound (the status turning to "Playing"; aim: under
1.5 s), and the CPU that kz and its decoder spend per second of audio while
a 128 kbit/s MP3 stream plays, beside the same figure for the same MP3
played from the library.
Usage: radio_bench.py KZ_BINARY WORK_FOLDER"""
import json
import os
import pathlib
import shutil
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "system"))
import fcgi  # noqa: E402
import kzdaemon  # noqa: E402
from radio_servers import StreamServer, make_mp3  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")


def api(sock, command):
    out = fcgi.stdout_of(fcgi.call(sock, fcgi.request("/api/" + command)))
    return out.split(b"\n\n", 1)[1].decode()


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


def measure(sock, pid, seconds):
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
    d = kzdaemon.Daemon(work / "root", {"KZ_PCM": "null"})
    try:
        d.wait_for("Waiting for incoming connections on socket")
        d.wait_for("loadOrScan () finished")
        sock = work / "root" / "var" / "run" / "fastCgiUnixSocket"
        station = json.loads(api(sock, "addStation&name=Bench&url=" +
                                 "".join(f"%{b:02X}" for b in server.url("/tone").encode())))["id"]
        firsts = []
        for _ in range(7):
            api(sock, "playID&id=2000000")
            time.sleep(1)
            start = time.monotonic()
            api(sock, f"playID&id={station}")
            while json.loads(api(sock, "status")).get("radioStatus") != "Playing":
                time.sleep(0.005)
            firsts.append(time.monotonic() - start)
        time.sleep(3)
        radio_cpu = measure(sock, d.proc.pid, 20)
        api(sock, "playID&id=2000000")
        time.sleep(3)
        library_cpu = measure(sock, d.proc.pid, 20)
    finally:
        d.stop()
        server.stop()
    print(f"radio: playID to first sound, median of {len(firsts)}: {statistics.median(firsts):.2f} s "
          f"(min {min(firsts):.2f}, max {max(firsts):.2f}; aim under 1.5 s)")
    print(f"radio: CPU per second of audio, 128 kbit/s MP3 stream: {radio_cpu * 1000:.1f} ms; "
          f"the same MP3 from the library: {library_cpu * 1000:.1f} ms (kz and its decoder)")


if __name__ == "__main__":
    main()
