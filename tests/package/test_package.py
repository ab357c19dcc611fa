"""The Debian package: what scripts/make-deb puts in it, its Depends, the
systemd unit and the lighttpd snippet. Installing it on a Debian 12 root and
the unit's restarts under a real systemd: test_install.py (make deb-check)."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
KZ_BIN = Path(os.environ.get("KZ_BIN", TOP / "build" / "kz"))


def run(*args, **kw):
    return subprocess.run(args, check=True, capture_output=True, text=True, **kw).stdout


@pytest.fixture(scope="module")
def deb(tmp_path_factory):
    build = tmp_path_factory.mktemp("deb")
    shutil.copy(KZ_BIN, build / "kz")
    arch = run("dpkg", "--print-architecture").strip()
    path = Path(run(str(TOP / "scripts" / "make-deb"), arch, str(build)).strip())
    unpacked = build / "unpacked"
    run("dpkg-deb", "-R", str(path), str(unpacked))
    return path, arch, unpacked


def project_version():
    return re.search(r"^project\(kz VERSION ([0-9.]+)", (TOP / "CMakeLists.txt").read_text(), re.M).group(1)


def test_name_fields_and_files(deb):
    path, arch, _ = deb
    version = project_version()
    assert path.name == f"kz_{version}_{arch}.deb"
    fields = {f: run("dpkg-deb", "-f", str(path), f).strip() for f in ("Package", "Version", "Architecture")}
    assert fields == {"Package": "kz", "Version": version, "Architecture": arch}

    listing = run("dpkg-deb", "-c", str(path)).splitlines()
    entries = {line.split()[-1].lstrip("."): line for line in listing}
    assert all(" root/root " in line for line in listing)
    assert entries["/usr/sbin/kz"].startswith("-rwxr-xr-x")
    for name in ("/etc/lighttpd/conf-available/50-kz.conf", "/lib/systemd/system/kz.service"):
        assert entries[name].startswith("-rw-r--r--"), name
    # Every page, script and style sheet, and nothing of the build.
    pages = {"/usr/share/kz/www/" + str(p.relative_to(TOP / "www")) for p in (TOP / "www").rglob("*") if p.is_file()}
    assert pages and pages <= set(entries)
    assert not [e for e in entries if e.endswith((".o", ".a", ".cmake"))]

    control = set(run("dpkg-deb", "-I", str(path)).split())
    assert {"postinst", "prerm", "conffiles"} <= control
    conffiles = subprocess.run(["sh", "-c", f"dpkg-deb --info {path} conffiles"], capture_output=True,
                               text=True).stdout.split()
    assert conffiles == ["/etc/lighttpd/conf-available/50-kz.conf"]


def test_depends_are_the_linked_libraries_and_the_programs_run(deb):
    path, arch, unpacked = deb
    depends = [d.strip() for d in run("dpkg-deb", "-f", str(path), "Depends").split(",")]
    names = {d.split()[0] for d in depends}
    assert {"ffmpeg", "lighttpd"} <= names
    # The library packages are exactly the owners of the binary's NEEDED
    # entries, each with a lowest version.
    needed = re.findall(r"NEEDED\s+(\S+)", run("objdump", "-p", str(unpacked / "usr/sbin/kz")))
    triplet = run("dpkg-architecture", "-qDEB_HOST_MULTIARCH").strip()
    owners = set()
    for soname in needed:
        for line in run("dpkg", "-S", f"*/{triplet}/{soname}").splitlines():
            owners |= {o.strip().split(":")[0] for o in line.split(": ")[0].split(",")}
    assert names - {"ffmpeg", "lighttpd"} == owners
    assert all(re.fullmatch(r"\S+ \(>= [^)]+\)", d) for d in depends if d.split()[0] in owners)


def unit_settings(text):
    settings = {}
    for line in text.splitlines():
        if "=" in line and not line.startswith("#"):
            key, value = line.split("=", 1)
            settings.setdefault(key, []).append(value)
    return settings


def test_unit_verifies_and_restarts_on_58_only_besides_failures(deb, tmp_path):
    _, _, unpacked = deb
    unit = (unpacked / "lib/systemd/system/kz.service").read_text()
    s = unit_settings(unit)
    assert s["ExecStart"] == ["/usr/sbin/kz"]
    assert s["Environment"] == ["KZ_ROOT=/var/lib/kz"]
    # 58 restarts whatever Restart= says; 0 is a clean exit, which
    # Restart=on-failure leaves down (always or on-success would not).
    assert s["RestartForceExitStatus"] == ["58"]
    assert s["Restart"] == ["on-failure"]
    assert "0" not in " ".join(s.get("RestartForceExitStatus", []) + s.get("SuccessExitStatus", [])).split()
    assert s["WantedBy"] == ["multi-user.target"]
    # systemd's own check, with the command pointed at the packaged binary.
    copy = tmp_path / "kz.service"
    copy.write_text(unit.replace("ExecStart=/usr/sbin/kz", f"ExecStart={unpacked}/usr/sbin/kz"))
    result = subprocess.run(["systemd-analyze", "verify", str(copy)], capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    assert "kz.service" not in result.stderr, result.stderr


def test_lighttpd_takes_the_snippet_with_debians_configuration(deb, tmp_path):
    _, _, unpacked = deb
    debian = Path("/etc/lighttpd/lighttpd.conf").read_text()
    snippet = unpacked / "etc/lighttpd/conf-available/50-kz.conf"
    assert "depends: fastcgi" in snippet.read_text()
    conf = tmp_path / "lighttpd.conf"
    conf.write_text(debian.replace('include "/etc/lighttpd/conf-enabled/*.conf"',
                                   f'include "/etc/lighttpd/conf-available/10-fastcgi.conf"\n'
                                   f'include "{snippet}"'))
    result = subprocess.run(["/usr/sbin/lighttpd", "-tt", "-f", str(conf)], capture_output=True, text=True)
    assert result.returncode == 0, result.stdout + result.stderr
    printed = run("/usr/sbin/lighttpd", "-p", "-f", str(conf))
    assert '"/usr/share/kz/www"' in printed
    assert "/var/lib/kz/var/run/fastCgiUnixSocket" in printed
