"""Disc lookup figures: the time from a disc becoming readable to its
candidates in the status, with local MusicBrainz and CDDB stand-ins that
answer at once (aim: under 1 s), and with MusicBrainz accepting the request
but never answering (aim: no longer than its 10 s time-out).
Usage: lookup_bench.py KZ_BINARY WORK_FOLDER"""
import json
import os
import pathlib
import shutil
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "system"))
import fcgi  # noqa: E402
import kzdaemon  # noqa: E402
from lookup_services import Services, disc_xml, release_xml, xmcd  # noqa: E402
from test_lookup import disc_image  # noqa: E402


def run(root, services, rounds):
    """Seconds from "Looking up disc" to the status showing the candidates."""
    times = []
    for _ in range(rounds):
        if root.exists():
            shutil.rmtree(root)
        (root / "media" / "hdd1" / "music").mkdir(parents=True)
        cue = disc_image(root)
        d = kzdaemon.Daemon(root, {"KZ_CDROM": str(cue), "KZ_PCM": "null", **services.env()})
        try:
            d.wait_for("Waiting for incoming connections on socket")
            sock = root / "var" / "run" / "fastCgiUnixSocket"
            d.wait_for("Looking up disc")
            start = time.monotonic()
            while True:
                out = fcgi.stdout_of(fcgi.call(sock, fcgi.request("/api/status")))
                status = json.loads(out.split(b"\r\n\n", 1)[1])
                if status["lookup"] == "done":
                    break
                time.sleep(0.005)
            times.append(time.monotonic() - start)
            assert int(status["cddbmatches"]) >= 1, status
        finally:
            d.stop()
    return times


def main():
    kz, work = sys.argv[1], pathlib.Path(sys.argv[2]).absolute()
    kzdaemon.KZ_BIN = kz
    root = work / "lookup"
    services = Services()

    def musicbrainz(path, query):
        disc = path.rsplit("/", 1)[1]
        return 200, {}, disc_xml(disc, [release_xml("mb-1", "Album", "Artist", "2001", "Official",
                                                    [disc], ["a", "b", "c"])])

    def cddb(cmd):
        w = cmd.split()
        if w[1] == "query":
            return 200, {}, f"200 rock {w[2]} Artist / Album\r\n".encode()
        return 200, {}, xmcd("rock", w[3], "Artist", "Album", "2001", "Rock", ["a", "b", "c"])

    services.mb, services.cddb = musicbrainz, cddb
    try:
        fast = run(root, services, 5)
        print(f"lookup, services answering at once: median {sorted(fast)[2] * 1000:.0f} ms, "
              f"worst {max(fast) * 1000:.0f} ms over 5 discs (aim: under 1000 ms)")
        services.delay["/ws/2/"] = 60
        silent = run(root, services, 1)
        print(f"lookup, MusicBrainz never answering: {silent[0]:.1f} s "
              f"(aim: no longer than its 10 s time-out)")
    finally:
        services.delay.clear()
        services.stop()
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    main()
