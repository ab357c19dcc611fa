"""Zone figures against a local gmediarender in a private network: the time
from kz's start to the renderer in its zone list, and from "playID&sonos=1"
to the renderer reporting PLAYING (it fetches the track through lighttpd).
Usage: zones_bench.py KZ_BINARY WORK_FOLDER (as root; skipped otherwise)"""
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "system"))
import kzdaemon  # noqa: E402
import webstack  # noqa: E402
from client import Client  # noqa: E402
from netns import AVT, KZ_ADDR, Netns, soap, start_renderer  # noqa: E402


def main():
    kz_bin, work = sys.argv[1], pathlib.Path(sys.argv[2]).absolute() / "zones"
    if not shutil.which("gmediarender"):
        print("zones: skipped (gmediarender is not installed)")
        return
    ns = Netns()
    if not ns.ready:
        print("zones: skipped (no network namespace here)")
        return
    shutil.rmtree(work, ignore_errors=True)
    root = work / "root"
    album = root / "media" / "hdd1" / "music" / "Bench" / "Zone"
    album.mkdir(parents=True)
    for i in range(1, 3):
        subprocess.run(["/usr/bin/ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                        f"sine=frequency={440 * i}:sample_rate=44100:duration=60", "-ac", "2",
                        "-c:a", "flac", str(album / f"0{i} Tone.flac")], check=True)
    port = webstack.free_port()
    subprocess.run([os.path.join(webstack.TOP, "scripts", "install-web"), str(root),
                    os.path.join(webstack.TOP, "www"), KZ_ADDR, str(port)], check=True)
    renderer = start_renderer(ns, "Bench Room", work / "renderer.log")
    time.sleep(1)
    started = []

    def daemon(root, env=None, **kw):
        started.append(kzdaemon.Daemon(root, env, **kw))
        return started[-1]

    try:
        start = time.monotonic()
        kz = Client(daemon, root, {"KZ_PCM": "null"}, command=ns.prefix() + [kz_bin])
        kz.until(lambda: kz.status()["sonos"] == ["Bench Room"], 30, "the renderer")
        found = time.monotonic() - start
        location = kz.d.wait_for("UPnP zone 1: ").split(" at ")[-1].strip()
        desc = ns.run("curl", "-s", location).stdout
        control = desc.split("rendertransport1")[0].rsplit("<controlURL>", 1)[1] + "rendertransport1"
        avt = location.split("/description")[0] + control
        tracks = [t["id"] for t in kz.json("search&artists=0&albums=0&radio=0&string=Tone")]
        times = []
        for i in range(8):
            kz.api("play&sonos=1")
            kz.until(lambda: soap(ns, avt, AVT, "GetTransportInfo").get("CurrentTransportState") != "PLAYING",
                     10, "the zone to stop")
            begin = time.monotonic()
            kz.api(f"playID&id={tracks[i % len(tracks)]}&sonos=1")
            while soap(ns, avt, AVT, "GetTransportInfo").get("CurrentTransportState") != "PLAYING":
                time.sleep(0.01)
            times.append(time.monotonic() - begin)
    finally:
        for d in started:
            d.stop()
        renderer.kill()
        webstack.stop_lighttpd(root)
        ns.close()
    print(f"zones: start to the renderer listed: {found:.2f} s")
    print(f"zones: playID&sonos=1 to the renderer PLAYING, median of {len(times)}: "
          f"{statistics.median(times) * 1000:.0f} ms (min {min(times) * 1000:.0f}, max {max(times) * 1000:.0f}; "
          "each poll of the renderer is a curl in the namespace, ~10 ms)")


if __name__ == "__main__":
    main()
