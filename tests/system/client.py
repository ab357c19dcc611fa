"""A daemon started in a root of its own and asked over its FastCGI socket;
Playing adds an ALSA file PCM that takes what it plays."""
import json
import time

import fcgi


class Client:
    # Seconds until() waits when not told.
    until_seconds = 20

    def __init__(self, daemon, root, env=None, library=True, **kw):
        self.root = root
        self.d = daemon(root, env=env, **kw)
        if library:
            self.d.wait_for("loadOrScan () finished")
        self.d.wait_for("Waiting for incoming connections on socket")
        self.sock = root / "var" / "run" / "fastCgiUnixSocket"

    def raw(self, command, body=b""):
        """The reply's bytes, without its headers."""
        out = fcgi.stdout_of(fcgi.call(self.sock, fcgi.request("/api/" + command, body=body)))
        return out.split(b"\r\n\n", 1)[1]

    def api(self, command):
        return self.raw(command).decode()

    def json(self, command):
        return json.loads(self.raw(command))

    def status(self):
        return self.json("status")

    def until(self, check, timeout=None, what="condition"):
        deadline = time.monotonic() + (self.until_seconds if timeout is None else timeout)
        while True:
            value = check()
            if value:
                return value
            assert time.monotonic() < deadline, f"timed out waiting for {what}; log:\n" + "\n".join(self.d.lines[-40:])
            time.sleep(0.05)


class Playing(Client):
    def __init__(self, daemon, root, pcm, env=None, library=False):
        self.pcm = pcm
        super().__init__(daemon, root, {"KZ_PCM": f"file:FILE={pcm},FORMAT=raw", **(env or {})}, library)
        self.api("vol64")


def without_dropouts(samples, zero=0, quiet=None, shortest=2):
    """The samples without the runs of zeros a decoder that falls behind the
    output is padded with (a busy machine), and those runs' lengths. A tone
    is never zero twice in a row, so what is left must be the tone whole.
    quiet and shortest widen what a run is (quiet(sample), at least shortest
    samples long)."""
    quiet = quiet or (lambda v: v == zero)
    kept, dropouts, i = [], [], 0
    while i < len(samples):
        j = i
        while j < len(samples) and quiet(samples[j]):
            j += 1
        if j - i >= shortest:
            dropouts.append(j - i)
            i = j
        else:
            j = max(j, i + 1)
            kept.extend(samples[i:j])
            i = j
    return kept, dropouts
