"""A private network for tests of what crosses one: a namespace with a veth
pair between 10.77.0.1 (kz) and 10.77.0.2 (its peers), multicast routed
over it, nothing leaving the machine; and SOAP asked of a peer inside it."""
import os
import re
import subprocess

KZ_ADDR, PEER_ADDR = "10.77.0.1", "10.77.0.2"
AVT = "urn:schemas-upnp-org:service:AVTransport:1"
RC = "urn:schemas-upnp-org:service:RenderingControl:1"

SETUP = os.path.join(os.path.dirname(__file__), "..", "in-netns.sh")


class Netns:
    """A network namespace held open by a sleeping process; ready tells
    whether it could be made (as root, with veth), why says why not."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "-n", "sh", SETUP, "sh", "-c", "echo ready; exec sleep 100000"],
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.ready = self.holder.stdout.readline().strip() == "ready"
        self.why = ""
        if not self.ready:
            self.holder.kill()
            self.why = self.holder.stderr.read()

    def prefix(self):
        return ["nsenter", "-t", str(self.holder.pid), "-n"]

    def run(self, *argv, **kw):
        return subprocess.run(self.prefix() + list(argv), capture_output=True, text=True, **kw)

    def close(self):
        self.holder.kill()
        self.holder.wait()


def soap(ns, url, service, action, args=""):
    body = (f'<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            f's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
            f'<u:{action} xmlns:u="{service}"><InstanceID>0</InstanceID>{args}</u:{action}></s:Body></s:Envelope>')
    out = ns.run("curl", "-s", "-m", "5", "-H", 'Content-Type: text/xml; charset="utf-8"',
                 "-H", f'SOAPACTION: "{service}#{action}"', "--data-binary", body, url).stdout
    return dict(re.findall(r"<(\w+)>([^<]*)</\1>", out))


def start_renderer(ns, name, log):
    """gmediarender on the peer's side, playing in real time into nothing."""
    return subprocess.Popen(ns.prefix() + [
        "gmediarender", "-I", "eth1", "-f", name, "-u", "a1b2c3d4-0000-4000-8000-000000000001",
        "--gstout-audiopipe", "fakesink sync=true", "--logfile", str(log)],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
