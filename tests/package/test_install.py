"""The package on a Debian 12 root made by debootstrap (make deb-check):
dpkg -i and apt-get -f install bring its Depends, a real systemd runs the
unit there, lighttpd serves the pages and forwards /api/ to the daemon, the
unit restarts on exit status 58 and not on 0, and removing the package takes
it out again. The root runs in its own PID, mount and network namespaces:
nothing it starts listens outside them."""

import os
import re
import shutil
import subprocess
import time
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
ROOT = Path(os.environ.get("KZ_DEB_ROOT", TOP / "build" / "deb-root"))
CGROUP = Path("/sys/fs/cgroup/systemd/init.scope")


def sh(*args, check=True, **kw):
    return subprocess.run(args, check=check, capture_output=True, text=True, **kw)


def timed(what, *args):
    t0 = time.monotonic()
    result = sh(*args, check=False)
    print(f"{what}: {time.monotonic() - t0:.0f} s")
    assert result.returncode == 0, result.stdout[-3000:] + result.stderr[-3000:]
    return result


def in_root(*command):
    """Runs command in the root (not booted), with a /proc of its own."""
    script = f'mount --make-rprivate / && mount -t proc proc "{ROOT}/proc" && exec chroot "{ROOT}" "$@"'
    return ["unshare", "--mount", "--pid", "--fork", "sh", "-c", script, "sh", *command]


@pytest.fixture(scope="module")
def deb():
    version = re.search(r"^project\(kz VERSION ([0-9.]+)", (TOP / "CMakeLists.txt").read_text(), re.M).group(1)
    path = Path(os.environ.get("KZ_DEB", TOP / "build" / f"kz_{version}_amd64.deb"))
    assert path.exists(), f"{path}: make deb first"
    return path, version


@pytest.fixture(scope="module")
def installed(deb):
    path, _ = deb
    if not (ROOT / "var/lib/dpkg/status").exists():
        shutil.rmtree(ROOT, ignore_errors=True)
        timed("debootstrap (minbase, systemd)", "debootstrap", "--variant=minbase", "--include=systemd,systemd-sysv",
              "bookworm", str(ROOT), "http://deb.debian.org/debian")
    # Services are started by the booted systemd, never by a package's
    # scripts on this machine.
    policy = ROOT / "usr/sbin/policy-rc.d"
    policy.write_text("#!/bin/sh\nexit 101\n")
    policy.chmod(0o755)
    shutil.copy("/etc/resolv.conf", ROOT / "etc/resolv.conf")
    (ROOT / "etc/hostname").write_text("kz-check\n")
    shutil.copy(path, ROOT / "tmp/kz.deb")
    sh(*in_root("dpkg", "--purge", "kz"), check=False)
    # On a new root its Depends are missing: dpkg leaves it unconfigured,
    # apt brings them. A root kept from an earlier run has them.
    fresh = "install ok installed" not in sh(*in_root("dpkg-query", "-W", "-f", "${Status}", "lighttpd"),
                                             check=False).stdout
    first = sh(*in_root("dpkg", "-i", "/tmp/kz.deb"), check=False)
    timed("apt-get update", *in_root("apt-get", "update", "-qq"))
    timed("apt-get -f install", *in_root("env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "-f", "install", "-y",
                                         "-qq", "--no-install-recommends"))
    # Installing again over itself changes nothing and fails nothing.
    timed("dpkg -i again", *in_root("dpkg", "-i", "/tmp/kz.deb"))
    return fresh, first


@pytest.fixture(scope="module")
def booted(installed):
    had_cgroup = CGROUP.exists()
    script = (f'set -e; mount --make-rprivate /; mount -t proc proc "{ROOT}/proc"; '
              f'mount --rbind /sys "{ROOT}/sys"; mount -t tmpfs tmpfs "{ROOT}/run"; ip link set lo up; '
              f'exec chroot "{ROOT}" /usr/bin/env container=kz-check /lib/systemd/systemd')
    outer = subprocess.Popen(["unshare", "--pid", "--fork", "--mount", "--uts", "--net", "sh", "-c", script],
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    pid = None
    try:
        for _ in range(300):
            children = sh("pgrep", "-P", str(outer.pid), check=False).stdout.split()
            if children:
                pid = children[0]
                state = sh("nsenter", "-t", pid, "-a", "-r", "-w", "systemctl", "is-system-running", check=False)
                if state.stdout.strip() in ("running", "degraded"):
                    break
            time.sleep(0.2)
        else:
            pytest.fail("systemd did not come up in the root")
        yield pid
    finally:
        if pid:
            sh("nsenter", "-t", pid, "-a", "-r", "-w", "systemctl", "poweroff", check=False)
        try:
            outer.wait(30)
        except subprocess.TimeoutExpired:
            outer.kill()
            outer.wait()
        if not had_cgroup and CGROUP.exists():
            CGROUP.rmdir()


def systemctl(pid, *args, check=True):
    return sh("nsenter", "-t", pid, "-a", "-r", "-w", "systemctl", *args, check=check).stdout.strip()


def unit_state(pid):
    out = systemctl(pid, "show", "kz.service", "-p", "ActiveState", "-p", "SubState", "-p", "NRestarts",
                    "-p", "ExecMainStatus", "-p", "ExecMainPID")
    return dict(line.split("=", 1) for line in out.splitlines())


def wait_for(pid, predicate, seconds=15):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        state = unit_state(pid)
        if predicate(state):
            return state
        time.sleep(0.2)
    return unit_state(pid)


def fetch(pid, path):
    return sh("nsenter", "-t", pid, "-n", "curl", "-s", "-m", "5", "-w", "\n%{http_code}",
              f"http://127.0.0.1{path}", check=False).stdout


def fetch_ok(pid, path, tries):
    """fetch until the answer is a 200, at most tries times 0.2 s apart;
    returns the last answer."""
    answer = ""
    for _ in range(tries):
        answer = fetch(pid, path)
        if answer.endswith("200"):
            break
        time.sleep(0.2)
    return answer


def test_install_brings_the_depends_and_sets_up_lighttpd_and_the_unit(installed):
    fresh, first = installed
    # dpkg alone cannot configure it on a bare root: the Depends are real.
    if fresh:
        assert first.returncode != 0 and "dependency problems" in first.stderr
    status = sh(*in_root("dpkg-query", "-W", "-f", "${Status}", "kz", "ffmpeg", "lighttpd")).stdout
    assert status.count("install ok installed") == 3
    enabled = ROOT / "etc/lighttpd/conf-enabled"
    assert {"10-fastcgi.conf", "50-kz.conf"} <= {p.name for p in enabled.iterdir()}
    assert (ROOT / "etc/systemd/system/multi-user.target.wants/kz.service").is_symlink()
    assert (ROOT / "var/lib/kz/media/hdd1/music").is_dir()
    ldd = sh(*in_root("ldd", "/usr/sbin/kz")).stdout
    assert "not found" not in ldd


def test_pages_and_api_through_lighttpd_and_the_restart_contract(booted, deb):
    pid = booted
    _, version = deb
    state = wait_for(pid, lambda s: s["SubState"] == "running")
    assert state["SubState"] == "running", state
    assert systemctl(pid, "is-active", "lighttpd.service") == "active"

    # The page, and the daemon answering through lighttpd's FastCGI as the
    # web server's user.
    page = fetch_ok(pid, "/", 50)
    assert page.endswith("200") and (TOP / "www/index.html").read_text()[:200] in page
    info = fetch_ok(pid, "/api/getWebInfo", 100)
    assert f'"version":"kz {version}"' in info, info

    # SIGTERM is the daemon's orderly quit, status 0: it stays down.
    systemctl(pid, "kill", "-s", "TERM", "kz.service")
    state = wait_for(pid, lambda s: s["ActiveState"] == "inactive")
    time.sleep(2)
    state = unit_state(pid)
    assert (state["ActiveState"], state["ExecMainStatus"], state["NRestarts"]) == ("inactive", "0", "0"), state

    # The unit's own settings with a stand-in for the daemon that exits
    # with a given status on its first run and stays up on the next.
    dropin = ROOT / "etc/systemd/system/kz.service.d"
    dropin.mkdir(exist_ok=True)
    try:
        for status, restarts in (("58", True), ("3", True), ("0", False)):
            marker = f"/run/kz-ran-{status}"
            (dropin / "stand-in.conf").write_text(
                "[Service]\nExecStart=\n"
                f"ExecStart=/bin/sh -c 'if [ -e {marker} ]; then exec sleep 600; fi; touch {marker}; exit {status}'\n")
            systemctl(pid, "daemon-reload")
            systemctl(pid, "reset-failed", "kz.service", check=False)
            systemctl(pid, "start", "kz.service", check=False)
            if restarts:
                state = wait_for(pid, lambda s: s["SubState"] == "running" and s["NRestarts"] == "1")
                assert (state["SubState"], state["NRestarts"]) == ("running", "1"), (status, state)
                systemctl(pid, "stop", "kz.service")
            else:
                state = wait_for(pid, lambda s: s["ActiveState"] == "inactive")
                time.sleep(2)
                state = unit_state(pid)
                assert (state["ActiveState"], state["NRestarts"]) == ("inactive", "0"), (status, state)
    finally:
        shutil.rmtree(dropin)
        systemctl(pid, "daemon-reload")

    # Removing the package stops the unit and takes the pages out.
    systemctl(pid, "start", "kz.service")
    assert wait_for(pid, lambda s: s["SubState"] == "running")["SubState"] == "running"
    removed = sh("nsenter", "-t", pid, "-a", "-r", "-w", "dpkg", "-r", "kz", check=False)
    assert removed.returncode == 0, removed.stderr
    assert unit_state(pid)["ActiveState"] == "inactive"
    assert not (ROOT / "etc/lighttpd/conf-enabled/50-kz.conf").exists()
    assert "kz" not in fetch(pid, "/api/getWebInfo")
