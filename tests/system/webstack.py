"""kz with lighttpd in front of it, in a temporary root."""
import os
import signal
import socket
import subprocess
import time
import urllib.request

TOP = os.path.join(os.path.dirname(__file__), "..", "..")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start(daemon, root, env):
    """Starts lighttpd and the daemon; returns (daemon, base URL)."""
    port = free_port()
    subprocess.run([os.path.join(TOP, "scripts", "install-web"), str(root),
                    os.path.join(TOP, "www"), "127.0.0.1", str(port)], check=True)
    d = daemon(root, env=env)
    d.wait_for("loadOrScan () finished")
    d.wait_for("Waiting for incoming connections on socket")
    base = f"http://127.0.0.1:{port}"
    deadline = time.monotonic() + 10
    while True:
        try:
            urllib.request.urlopen(base + "/", timeout=2).read()
            return d, base
        except OSError:
            assert time.monotonic() < deadline, "lighttpd did not come up"
            time.sleep(0.1)


def stop_lighttpd(root):
    pid_file = root / "var" / "run" / "lighttpd.pid"
    if pid_file.exists():
        try:
            os.kill(int(pid_file.read_text()), signal.SIGTERM)
        except (ProcessLookupError, ValueError):
            pass
