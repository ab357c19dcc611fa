"""kz against MPD: the CPU each whole process tree (the daemon, its threads
and its children, user and system time from /proc) spends per second of
audio while the same 44.1 kHz stereo track plays in real time, kz to the
null PCM and MPD to its null output with sync on. Both play at once over the
same stretch of time, one format after the other (FLAC, MP3, M4A), so a
machine shared with other work disturbs both alike. kz's threads are listed
by name, so the figure can be told apart. Then kz's resident memory while it
plays with a 170,000-track library.
Usage: mpd_bench.py KZ_BINARY WORK_FOLDER   (BENCH_SECONDS: the measured
stretch per format, 60 unless told)"""
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "system"))
import kzdaemon  # noqa: E402
from client import Client  # noqa: E402

TICKS = os.sysconf("SC_CLK_TCK")
SECONDS = int(os.environ.get("BENCH_SECONDS", "60"))
SETTLE = 5  # seconds of playing before the measured stretch starts
TRACK_SECONDS = SETTLE + SECONDS + 30
FORMATS = [("flac", ["-c:a", "flac"]), ("mp3", ["-c:a", "libmp3lame", "-b:a", "192k"]),
           ("m4a", ["-c:a", "aac", "-b:a", "192k"])]

# Two voices of short decaying notes over a drone and a little noise, a
# different melody on each side: FLAC cannot fold the channels together and
# the lossy encoders have real work, as with music.
LEFT = ("0.3*sin(2*PI*t*220*pow(2,floor(mod(t*4,8))/12))*exp(-3*mod(t,0.25))"
        "+0.15*sin(2*PI*110*t)+0.04*(random(0)-0.5)")
RIGHT = ("0.3*sin(2*PI*t*330*pow(2,floor(mod(t*3,5))/12))*exp(-2*mod(t,1/3))"
         "+0.12*sin(2*PI*165*t+1)+0.04*(random(1)-0.5)")


def make_music(album):
    """The three files, made once and kept for the next run."""
    album.mkdir(parents=True, exist_ok=True)
    wav = album.parent / "source.wav"
    stamp = album / f".made-{TRACK_SECONDS}"
    if stamp.exists():
        return
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                    f"aevalsrc=exprs='{LEFT}|{RIGHT}':s=44100:d={TRACK_SECONDS}",
                    "-c:a", "pcm_s16le", str(wav)], check=True)
    for i, (ext, codec) in enumerate(FORMATS):
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-i", str(wav), *codec,
                        str(album / f"{i + 1:02d} Music {ext}.{ext}")], check=True)
    wav.unlink()
    stamp.write_text("")


def stat_fields(pid):
    with open(f"/proc/{pid}/stat") as f:
        return f.read().rsplit(")", 1)[1].split()


def tree_cpu(root_pid):
    """Seconds of CPU of root_pid and every process below it, including
    children already reaped (their time is in their parent's cutime)."""
    parents = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                parents[int(entry)] = int(stat_fields(entry)[1])
            except (OSError, IndexError):
                pass
    tree, todo = [], [root_pid]
    while todo:
        pid = todo.pop()
        tree.append(pid)
        todo += [p for p, pp in parents.items() if pp == pid]
    total = 0
    for pid in tree:
        try:
            f = stat_fields(pid)
        except OSError:
            continue
        total += sum(int(x) for x in f[11:15])
    return total / TICKS


def thread_cpu(pid):
    """{thread name: CPU seconds} of one process."""
    out = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            name = open(f"/proc/{pid}/task/{tid}/comm").read().strip()
            f = stat_fields(f"{pid}/task/{tid}")
        except OSError:
            continue
        out[name] = out.get(name, 0) + (int(f[11]) + int(f[12])) / TICKS
    return out


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Mpd:
    """Debian's mpd with a config of its own in a temporary folder."""

    def __init__(self, music, work):
        self.port = free_port()
        work.mkdir(parents=True, exist_ok=True)
        conf = work / "mpd.conf"
        conf.write_text(f"""music_directory "{music}"
db_file "{work}/database"
log_file "{work}/log"
state_file "{work}/state"
bind_to_address "127.0.0.1"
port "{self.port}"
zeroconf_enabled "no"
audio_output {{
    type "null"
    name "bench"
    sync "yes"
    mixer_type "software"
}}
""")
        self.proc = subprocess.Popen(["mpd", "--no-daemon", str(conf)],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 20
        while True:
            try:
                self.sock = socket.create_connection(("127.0.0.1", self.port), timeout=10)
                break
            except OSError:
                assert time.monotonic() < deadline, "mpd did not start"
                time.sleep(0.1)
        self.reader = self.sock.makefile("rb")
        assert self.reader.readline().startswith(b"OK MPD")

    def command(self, text):
        self.sock.sendall(text.encode() + b"\n")
        reply = {}
        while True:
            line = self.reader.readline().decode().rstrip("\n")
            if line == "OK":
                return reply
            assert not line.startswith("ACK") and line, f"mpd: {text}: {line}"
            key, _, value = line.partition(": ")
            reply[key] = value

    def play(self, path):
        self.command("clear")
        self.command(f'add "{path}"')
        self.command("play")

    def elapsed(self):
        return float(self.command("status").get("elapsed", 0))

    def stop(self):
        try:
            self.command("stop")
            self.sock.close()
        except OSError:
            pass
        self.proc.terminate()
        try:
            self.proc.wait(10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()


def kz_track_ids(kz):
    tracks = kz.json("search&artists=0&albums=0&radio=0&string=Music")
    return {t["track"].rsplit(" ", 1)[-1]: t["id"] for t in tracks}


def side_by_side(kz, mpd, ids, ext, index):
    kz.api(f"playID&id={ids[ext]}")
    mpd.play(f"Bench/Formats/{index + 1:02d} Music {ext}.{ext}")
    kz.until(lambda: kz.status()["playing"] == 1, what="playing")
    time.sleep(SETTLE)
    pid = kz.d.proc.pid
    kz0, mpd0, threads0 = tree_cpu(pid), tree_cpu(mpd.proc.pid), thread_cpu(pid)
    el0, t0 = mpd.elapsed(), time.monotonic()
    time.sleep(SECONDS)
    kz1, mpd1, threads1 = tree_cpu(pid), tree_cpu(mpd.proc.pid), thread_cpu(pid)
    wall, played = time.monotonic() - t0, mpd.elapsed() - el0
    status = kz.status()
    assert status["playing"] == 1, "kz stopped playing during the measurement"
    assert abs(played - wall) < 1, f"mpd played {played:.1f} s in {wall:.1f} s"
    kz_ms, mpd_ms = (kz1 - kz0) * 1000 / wall, (mpd1 - mpd0) * 1000 / wall
    threads = {n: (threads1[n] - threads0.get(n, 0)) * 1000 / wall for n in threads1}
    own = sum(threads.values())
    busy = ", ".join(f"{n} {ms:.2f}" for n, ms in sorted(threads.items(), key=lambda x: -x[1])
                     if ms >= 0.05)
    print(f"mpd_bench {ext:4s}: kz {kz_ms:5.2f} ms per audio second, mpd {mpd_ms:5.2f}, "
          f"ratio {kz_ms / mpd_ms if mpd_ms else float('inf'):.2f} "
          f"(kz's own threads {own:.2f}: {busy or 'none'}; decoder {kz_ms - own:.2f})",
          flush=True)
    kz.api("stop")
    mpd.command("stop")


def resident_memory(work, music):
    """kz's VmRSS while it plays the FLAC with a 170,000-track library."""
    root = work / "memory"
    shutil.rmtree(root, ignore_errors=True)
    hdd = root / "media" / "hdd1"
    shutil.copytree(music, hdd / "music")
    albums, tracks, artists = 15000, 170000, 3000
    with open(hdd / "kzdb", "w") as f:
        f.write(f"Version 3\n{albums + 1} Albums 0 mirror\n")
        f.write(f"Bench/Formats\n{len(FORMATS)} tracks\n")
        for i, (ext, _) in enumerate(FORMATS):
            f.write(f"{i + 1:02d} Music {ext}.{ext}\n")
        for a in range(albums):
            n = tracks // albums + (1 if a < tracks % albums else 0)
            f.write(f"Artist Name {a % artists}/The Album Title {a}\n{n} tracks\n")
            for i in range(n):
                f.write(f"{i + 1:02d} A Song Title {a}.flac\n")
    started = []

    def daemon(r, env=None, **kw):
        started.append(kzdaemon.Daemon(r, env, **kw))
        return started[-1]

    try:
        kz = Client(daemon, root, {"KZ_PCM": "null"})
        kz.api(f"playID&id={kz_track_ids(kz)['flac']}")
        kz.until(lambda: kz.status()["playing"] == 1, what="playing")
        time.sleep(10)
        status = open(f"/proc/{kz.d.proc.pid}/status").read().splitlines()
        rss = [s.split()[1] for s in status if s.startswith("VmRSS:")][0]
        hwm = [s.split()[1] for s in status if s.startswith("VmHWM:")][0]
        print(f"mpd_bench memory: kz playing with a 170,000-track library: VmRSS "
              f"{int(rss) / 1024:.1f} MiB, peak {int(hwm) / 1024:.1f} MiB (aim: under 32 MiB)")
    finally:
        for d in started:
            d.stop()


def main():
    kzdaemon.KZ_BIN = sys.argv[1]
    work = pathlib.Path(sys.argv[2]).absolute() / "mpd"
    music = work / "music"
    album = music / "Bench" / "Formats"
    make_music(album)
    root = work / "kz"
    shutil.rmtree(root, ignore_errors=True)
    shutil.copytree(music, root / "media" / "hdd1" / "music")
    started = []

    def daemon(r, env=None, **kw):
        started.append(kzdaemon.Daemon(r, env, **kw))
        return started[-1]

    mpd = None
    with tempfile.TemporaryDirectory(prefix="kz-mpd-") as tmp:
        try:
            kz = Client(daemon, root, {"KZ_PCM": "null"})
            mpd = Mpd(music, pathlib.Path(tmp))
            mpd.command("update")
            while "updating_db" in mpd.command("status"):
                time.sleep(0.1)
            ids = kz_track_ids(kz)
            print(f"mpd_bench: {SECONDS} s of each format, kz and mpd playing at once", flush=True)
            for i, (ext, _) in enumerate(FORMATS):
                side_by_side(kz, mpd, ids, ext, i)
        finally:
            for d in started:
                d.stop()
            if mpd:
                mpd.stop()
    resident_memory(work, music)


if __name__ == "__main__":
    main()
