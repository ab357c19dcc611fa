"""USB drive figures: the scan of a 50,000-file drive against `find` over the
same tree, and an import against `cp -r` of the same files (the import also
syncs each track to the disk before naming it; `cp -r` followed by `sync` is
printed too, the fair comparison).
Usage: usb_bench.py KZ_BINARY WORK_FOLDER"""
import os
import pathlib
import shutil
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tests", "system"))
import kzdaemon  # noqa: E402
from client import Client  # noqa: E402


def build_big_drive(where):
    """100 artists x 20 albums x 25 tracks (the USB library's limits: 2,000
    albums, 50,000 tracks; short names, as its 1 MB name heap holds 50,000 of
    them only when they average under 20 bytes), empty files: the scan reads
    names only."""
    if (where / ".done").exists():
        return
    shutil.rmtree(where, ignore_errors=True)
    for a in range(100):
        for b in range(20):
            album = where / f"Artist {a:03d}" / f"Album {b:02d}"
            album.mkdir(parents=True)
            for t in range(25):
                (album / f"{t + 1:02d} Song.mp3").touch()
    (where / ".done").touch()


def build_import_drive(where):
    """40 albums of 10 tracks of 512 KiB: 200 MiB."""
    if (where / ".done").exists():
        return
    shutil.rmtree(where, ignore_errors=True)
    for a in range(40):
        album = where / "Bench Artist" / f"Album {a:02d}"
        album.mkdir(parents=True)
        for t in range(10):
            (album / f"{t + 1:02d} Track.mp3").write_bytes(os.urandom(512 * 1024))
    (where / ".done").touch()


def timed(fn):
    start = time.monotonic()
    fn()
    return time.monotonic() - start


def main():
    kz_bin, data = sys.argv[1], pathlib.Path(sys.argv[2]).absolute()
    os.environ["KZ_BIN"] = kz_bin
    kzdaemon.KZ_BIN = kz_bin
    big = data / "usb-50k"
    imp = data / "usb-import"
    build_big_drive(big)
    build_import_drive(imp)
    work = data / "usb-work"
    shutil.rmtree(work, ignore_errors=True)
    root = work / "root"
    (root / "media" / "hdd1" / "music").mkdir(parents=True)
    started = []

    def daemon(root, env=None, **kw):
        started.append(kzdaemon.Daemon(root, env, **kw))
        return started[-1]

    try:
        kz = Client(daemon, root, {"KZ_PCM": "null"})
        usb = root / "media" / "usba"

        # Scan: from the log's "scanning" line to its counts, taken from the
        # daemon's own clock through the status once the counts are in.
        find = min(timed(lambda: subprocess.run(["find", str(big), "-name", "*.mp3"], check=True,
                                                stdout=subprocess.DEVNULL)) for _ in range(3))
        scans = []
        for _ in range(3):
            os.symlink(big, usb)
            # The mount poll looks once a second: the scan is timed from the
            # first status that shows it under way. It stops once 2,000
            # albums are held, so the last album keeps one track: 49,976.
            while not (s := kz.status())["usbScanning"] and s["usbTracks"] == 0:
                time.sleep(0.002)
            start = time.monotonic()
            while (s := kz.status())["usbScanning"] or s["usbTracks"] < 49976:
                time.sleep(0.005)
            scans.append(time.monotonic() - start)
            os.unlink(usb)
            kz.until(lambda: kz.status()["usb"] == "", 10, "the drive to go")
        # The mount poll runs once a second: up to a second of each figure
        # is the wait for it, not the scan.
        print(f"usb scan, 50,000 files: kz {min(scans):.2f} s (best of 3), find {find:.2f} s")

        # Import against cp -r, each into an empty place on the same disk.
        os.symlink(imp, usb)
        kz.until(lambda: kz.status()["usb"] == "usba" and not kz.status()["usbScanning"], 20, "drive")
        music = root / "media" / "hdd1" / "music"
        imports, copies, synced = [], [], []
        for _ in range(3):
            shutil.rmtree(music / "Bench Artist", ignore_errors=True)
            kz.api("scanDisk")
            kz.d.wait_for("loadOrScan () finished")
            time.sleep(0.5)
            start = time.monotonic()
            assert kz.json("USBImport") == "OK"
            while kz.json("storageJob")["running"]:
                time.sleep(0.005)
            imports.append(time.monotonic() - start)
            done = kz.json("storageJob")
            assert done["message"].startswith("Imported 400 tracks"), done
            target = work / "cp"
            shutil.rmtree(target, ignore_errors=True)
            copies.append(timed(lambda: subprocess.run(["cp", "-r", str(imp), str(target)], check=True)))
            shutil.rmtree(target, ignore_errors=True)
            synced.append(timed(lambda: subprocess.run(["sh", "-c", f"cp -r '{imp}' '{target}' && sync"],
                                                        check=True)))
        mib = 200
        best, cp, cps = min(imports), min(copies), min(synced)
        print(f"usb import, {mib} MiB in 400 files: kz {best:.2f} s ({mib / best:.0f} MiB/s), "
              f"cp -r {cp:.2f} s (ratio {best / cp:.2f}), cp -r + sync {cps:.2f} s "
              f"(ratio {best / cps:.2f})")
        os.unlink(usb)
    finally:
        for d in started:
            d.kill()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
