"""Requests per second and p99 latency of a small command through lighttpd
(ab) and straight on the FastCGI socket, against lighttpd serving a static
file of the same size; then the status command through lighttpd while a long
track plays. Usage: web_bench.py KZ_BINARY WORK_FOLDER"""
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "system"))
import fcgi  # noqa: E402

TOP = os.path.join(os.path.dirname(__file__), "..")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def ab(url, n=5000):
    out = subprocess.run(["ab", "-q", "-n", str(n), "-c", "1", url], capture_output=True,
                         text=True, check=True).stdout
    rps = float(re.search(r"Requests per second:\s+([\d.]+)", out).group(1))
    p99 = float(re.search(r"\s99%\s+(\d+)", out).group(1))
    return rps, p99


def main():
    kz, work = sys.argv[1], os.path.abspath(sys.argv[2])
    root = os.path.join(work, "web")
    shutil.rmtree(root, ignore_errors=True)
    os.makedirs(os.path.join(root, "media", "hdd1", "music"))
    www = os.path.join(root, "www")
    os.makedirs(www)
    with open(os.path.join(www, "same.txt"), "w") as f:
        f.write("true")  # the size of the command's reply
    # A ten-minute track (made once) for the status figure while playing.
    flac = os.path.join(work, "long.flac")
    if not os.path.exists(flac):
        subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                        "sine=frequency=440:duration=600", "-ac", "2", "-ar", "44100", flac],
                       check=True)
    album = os.path.join(root, "media", "hdd1", "music", "Long", "Play")
    os.makedirs(album)
    shutil.copy(flac, os.path.join(album, "01 Ten Minutes.flac"))
    port = free_port()
    subprocess.run([os.path.join(TOP, "scripts", "install-web"), root, www, "127.0.0.1", str(port)],
                   check=True)
    env = dict(os.environ, KZ_ROOT=root, KZ_PCM="null")
    proc = subprocess.Popen([kz], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        sock = os.path.join(root, "var", "run", "fastCgiUnixSocket")
        for _ in range(100):
            if os.path.exists(sock) and os.path.exists(os.path.join(root, "var", "run", "lighttpd.pid")):
                break
            time.sleep(0.1)
        time.sleep(0.5)
        base = f"http://127.0.0.1:{port}"
        cmd_rps, cmd_p99 = ab(base + "/api/checkUpload")
        static_rps, static_p99 = ab(base + "/same.txt")
        times = []
        data = fcgi.request("/api/checkUpload")
        for _ in range(5000):
            t0 = time.perf_counter()
            fcgi.call(sock, data)
            times.append(time.perf_counter() - t0)
        times.sort()
        direct_rps = len(times) / sum(times)
        direct_p99 = times[int(len(times) * 0.99)] * 1000
        print(f"web: command through lighttpd {cmd_rps:.0f} req/s, p99 {cmd_p99:.0f} ms; "
              f"static file {static_rps:.0f} req/s, p99 {static_p99:.0f} ms; "
              f"ratio {cmd_rps / static_rps:.2f}", file=sys.stderr)
        print(f"web: straight on the socket {direct_rps:.0f} req/s, p99 {direct_p99:.2f} ms",
              file=sys.stderr)
        fcgi.call(sock, fcgi.request("/api/playID&id=2000000"))
        time.sleep(2)
        playing = b'"playing":1' in fcgi.stdout_of(fcgi.call(sock, fcgi.request("/api/status")))
        status_rps, status_p99 = ab(base + "/api/status", 3000)
        print(f"web: status through lighttpd while a FLAC plays {status_rps:.0f} req/s, "
              f"p99 {status_p99:.0f} ms{'' if playing else ' (the track did not play)'}; "
              f"output underruns: see commands_bench", file=sys.stderr)
    finally:
        proc.send_signal(signal.SIGTERM)
        proc.wait(10)
        pid = os.path.join(root, "var", "run", "lighttpd.pid")
        if os.path.exists(pid):
            try:
                os.kill(int(open(pid).read()), signal.SIGTERM)
            except (ProcessLookupError, ValueError):
                pass


main()
