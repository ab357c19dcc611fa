"""A daemon started in a root of its own, playing into an ALSA file PCM, and
asked over its FastCGI socket."""
import json

import fcgi


class Client:
    def __init__(self, daemon, root, raw, env=None, library=False):
        self.root, self.raw = root, raw
        self.d = daemon(root, env={"KZ_PCM": f"file:FILE={raw},FORMAT=raw", **(env or {})})
        if library:
            self.d.wait_for("loadOrScan () finished")
        self.d.wait_for("Waiting for incoming connections on socket")
        self.sock = root / "var" / "run" / "fastCgiUnixSocket"
        self.api("vol64")

    def api(self, command):
        """The reply's text, without its headers."""
        out = fcgi.stdout_of(fcgi.call(self.sock, fcgi.request("/api/" + command)))
        return out.split(b"\n\n", 1)[1].decode()

    def status(self):
        return json.loads(self.api("status"))
