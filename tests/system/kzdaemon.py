"""Starts build/kz in host mode inside a temporary root and reads its log."""
import os
import re
import signal
import subprocess
import threading
import time

# The console escapes kz writes (blanking off, colours back) are not log text.
CONSOLE_ESCAPE = re.compile(r"\x1b\[[0-9;]*[\]m]")

KZ_BIN = os.environ.get("KZ_BIN") or os.path.join(
    os.path.dirname(__file__), "..", "..", "build", "kz")


class Daemon:
    def __init__(self, root, env=None, compression="None", command=None):
        """compression: the setting a library without kzsettings starts with.
        Tests keep their WAVs as they made them unless they ask for the
        compression job (None: the daemon's own default). command runs
        instead of kz itself (a wrapper that ends in exec of it)."""
        self.root = str(root)
        settings = os.path.join(self.root, "media", "hdd1", "kzsettings")
        if compression and os.path.isdir(os.path.dirname(settings)) and not os.path.exists(settings):
            with open(settings, "w") as f:
                f.write(f"Compression\n{compression}\n")
        full_env = dict(os.environ)
        for name in ("KZ_CDROM", "KZ_PCM", "KZ_FFMPEG", "KZ_VERBOSE"):
            full_env.pop(name, None)
        full_env["KZ_ROOT"] = self.root
        # Tests never reach the internet: the disc lookup's services are off
        # unless a test points them at its own local stand-ins.
        for name in ("KZ_MUSICBRAINZ", "KZ_CDDB", "KZ_COVERART", "KZ_RADIO_DIRECTORY"):
            full_env[name] = ""
        full_env.update(env or {})
        self.proc = subprocess.Popen(command or [KZ_BIN], env=full_env, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE)
        self.lines = []
        self._cond = threading.Condition()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for raw in self.proc.stdout:
            with self._cond:
                text = raw.decode("utf-8", "replace").rstrip("\n")
                self.lines.append(CONSOLE_ESCAPE.sub("", text))
                self._cond.notify_all()
        with self._cond:
            self._cond.notify_all()

    def wait_for(self, text, timeout=20):
        """Waits until a log line contains text; returns that line."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for line in self.lines:
                    if text in line:
                        return line
                left = deadline - time.monotonic()
                if left <= 0 or (self.proc.poll() is not None and not self._reader.is_alive()):
                    raise AssertionError(f"no log line with {text!r}; log:\n" +
                                         "\n".join(self.lines))
                self._cond.wait(min(left, 0.2))

    def stop(self, sig=signal.SIGTERM, timeout=20):
        """Sends sig and returns the exit status."""
        if self.proc.poll() is None:
            self.proc.send_signal(sig)
        try:
            status = self.proc.wait(timeout)
        finally:
            self.kill()
        self._reader.join(5)
        return status

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()

    def stderr(self):
        return self.proc.stderr.read().decode("utf-8", "replace")
