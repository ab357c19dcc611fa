import os
import signal
import subprocess
import sys

import pytest

from kzdaemon import KZ_BIN

START_UP_ORDER = [
    "Printf to stdout",
    "Stopwatch started at ",
    "Disabling terminal blanking",
    "Done",
    "Init Disks at ",
    "initDisks ()",
    "initDisks () lowSpeed=0",
    "**** Creating mount point: /media/hdd1 ****",
    "**** Creating mount point: /media/sd3 ****",
    "nowDoCD:",
    "Init Disks done at ",
    "Init Play Done at ",
    "initVTuner Done at ",
    "initBluetooth Done at ",
    "Wifi started at ",
    "Starting TFT at ",
    "Starting Main Loop at ",
    "lstat result -1 st_mode 0 S_ISLNK 0",
    "Creating SONOS link /var/www/hdd1 linked to ",
    "lstat result -1 st_mode 0 S_ISLNK 0",
    "Creating SONOS link /var/www/usb linked to ",
    "DAC removed while selected",
    "KX1 select INTERNAL",
    "isUSBdac = 0",
]


def in_order(lines, expected):
    """Index in lines of each expected prefix, each found after the last."""
    at = 0
    for want in expected:
        while at < len(lines) and not lines[at].startswith(want):
            at += 1
        assert at < len(lines), f"{want!r} missing or out of order in:\n" + "\n".join(lines)
        at += 1


def test_empty_root_starts_without_storage_and_quits_on_sigterm(daemon, tmp_path):
    d = daemon()
    d.wait_for("isUSBdac = ")
    assert d.stop(signal.SIGTERM) == 0
    in_order(d.lines, START_UP_ORDER)
    # No storage: the library is never started.
    assert not any("starting initmdb" in l for l in d.lines)
    # Standard error is closed off early; only the first line reaches it.
    assert d.stderr() == "Printf to stderr\n"
    root = tmp_path / "root"
    assert (root / "media" / "hdd1").is_dir() and (root / "media" / "sd3").is_dir()
    assert os.readlink(root / "var" / "www" / "usb") == str(root / "media" / "usba")
    # Every appliance-only step is logged as skipped, once.
    skipped = [l for l in d.lines if l.startswith("Host mode: skipped ")]
    assert len(skipped) == len(set(skipped))
    assert "Host mode: skipped write to /proc/sys/kernel/core_pattern" in skipped
    assert "Host mode: skipped unmount /media/hdd1" in skipped


def test_a_root_with_no_room_for_the_socket_runs_on_without_the_web(daemon, tmp_path):
    # var is a file: no links, no socket. The web is lost, the daemon is not.
    root = tmp_path / "root"
    (root / "media" / "hdd1").mkdir(parents=True)
    (root / "var").write_text("")
    d = daemon(root)
    d.wait_for("testWebThread bind failed 20 Not a directory")
    d.wait_for("isUSBdac = ")
    assert d.stop(signal.SIGTERM) == 0


def test_storage_choice_and_links(daemon, tmp_path):
    # An internal disk: medium 1, and the speakers' link points into it.
    hdd_root = tmp_path / "hdd"
    (hdd_root / "media" / "hdd1").mkdir(parents=True)
    d = daemon(hdd_root)
    d.wait_for("isUSBdac = ")
    assert d.stop(signal.SIGINT) == 0
    in_order(d.lines, ["initDisks ()", "starting initmdb", "nowDoCD:"])
    assert os.readlink(hdd_root / "var" / "www" / "hdd1") == str(hdd_root / "media" / "hdd1")

    # Both, with the SD card's cookie: the SD card wins.
    sd_root = tmp_path / "sd"
    (sd_root / "media" / "hdd1").mkdir(parents=True)
    (sd_root / "media" / "sd3").mkdir()
    (sd_root / "media" / "sd3" / "cookie").write_text("")
    # A plain file where the link goes is replaced; a link is kept.
    (sd_root / "var" / "www").mkdir(parents=True)
    (sd_root / "var" / "www" / "hdd1").write_text("in the way")
    os.symlink("/elsewhere", sd_root / "var" / "www" / "usb")
    d = daemon(sd_root)
    d.wait_for("isUSBdac = ")
    assert d.stop() == 0
    assert not any("starting initmdb" in l for l in d.lines)
    assert os.readlink(sd_root / "var" / "www" / "hdd1") == str(sd_root / "media" / "sd3")
    assert os.readlink(sd_root / "var" / "www" / "usb") == "/elsewhere"
    assert any(l.startswith("lstat result 0 ") and l.endswith("S_ISLNK 1") for l in d.lines)


def test_lighttpd_restart_is_confined_to_the_root(daemon, tmp_path):
    root = tmp_path / "root"
    (root / "etc" / "init.d").mkdir(parents=True)
    (root / "var" / "run").mkdir(parents=True)
    record = tmp_path / "init-args"
    script = root / "etc" / "init.d" / "S50lighttpd"
    script.write_text(f"#!/bin/sh\necho \"$@\" > {record}\n")
    script.chmod(0o755)
    # A pid file naming a process that is not lighttpd: it must survive.
    bystander = subprocess.Popen(["sleep", "60"])
    try:
        (root / "var" / "run" / "lighttpd.pid").write_text(f"{bystander.pid}\n")
        d = daemon(root)
        d.wait_for("isUSBdac = ")
        assert d.stop() == 0
        assert bystander.poll() is None
        assert record.read_text() == "start\n"
    finally:
        bystander.kill()
        bystander.wait()


def test_bad_root_is_refused_with_one_line(tmp_path):
    not_a_folder = tmp_path / "file"
    not_a_folder.write_text("")
    for root in (tmp_path / "missing", not_a_folder):
        env = dict(os.environ, KZ_ROOT=str(root))
        r = subprocess.run([KZ_BIN], env=env, capture_output=True, timeout=20)
        assert r.returncode == 1
        assert r.stdout.decode() == f"KZ_ROOT {root} is not a folder\n"

    env = dict(os.environ, KZ_ROOT="")
    r = subprocess.run([KZ_BIN], env=env, capture_output=True, timeout=20)
    assert (r.returncode, r.stdout.decode()) == (1, "KZ_ROOT is set but empty\n")

    # Root may write anywhere, except on a read-only mount.
    ro = tmp_path / "ro"
    (ro / "media" / "hdd1").mkdir(parents=True)
    r = subprocess.run(["unshare", "-m", "sh", "-c",
                        'mount --bind -o ro "$KZ_ROOT" "$KZ_ROOT" && exec "$0"', KZ_BIN],
                       env=dict(os.environ, KZ_ROOT=str(ro)), capture_output=True, timeout=20)
    if b"mount" in r.stderr and r.returncode != 1:
        pytest.skip("no mount namespace here: " + r.stderr.decode())
    assert (r.returncode, r.stdout.decode()) == (1, f"KZ_ROOT {ro} is not writable\n")
