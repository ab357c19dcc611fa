"""A device on the network that answers SSDP searches like a renderer but
serves what a broken or hostile one would: a 10 MB description, one that is
not XML, and a well-formed renderer whose every SOAP action is a fault.
Run inside the tests' private network: bad_renderer.py ADDRESS."""
import http.server
import socket
import struct
import sys
import threading

ADDRESS = sys.argv[1]
HUGE = b"<root><device><friendlyName>" + b"x" * (10 * 1024 * 1024) + b"</friendlyName></device></root>"
BROKEN = b"<root><device><friendlyName>Broken</friendlyName><serviceList><service>"
FAULTY = b"""<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0"><device>
<deviceType>urn:schemas-upnp-org:device:MediaRenderer:1</deviceType>
<friendlyName>Faulty &lt;Zone&gt;</friendlyName><UDN>uuid:faulty-1</UDN>
<serviceList>
<service><serviceType>urn:schemas-upnp-org:service:AVTransport:1</serviceType><controlURL>/avt</controlURL></service>
<service><serviceType>urn:schemas-upnp-org:service:RenderingControl:1</serviceType><controlURL>/rc</controlURL></service>
</serviceList></device></root>"""
FAULT = b"""<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body>
<s:Fault><faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>
<UPnPError xmlns="urn:schemas-upnp-org:control-1-0"><errorCode>701</errorCode>
<errorDescription>Transition not available</errorDescription></UPnPError></detail></s:Fault></s:Body></s:Envelope>"""
PAGES = {"/huge.xml": HUGE, "/broken.xml": BROKEN, "/faulty.xml": FAULTY}


class Handler(http.server.BaseHTTPRequestHandler):
    def reply(self, code, body):
        self.send_response(code)
        self.send_header("Content-Type", "text/xml")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        try:
            self.wfile.write(body)
        except OSError:
            pass

    def do_GET(self):
        self.reply(200, PAGES[self.path]) if self.path in PAGES else self.reply(404, b"")

    def do_POST(self):
        self.rfile.read(int(self.headers.get("Content-Length", 0)))
        self.reply(500, FAULT)

    def log_message(self, *args):
        pass


web = http.server.ThreadingHTTPServer((ADDRESS, 0), Handler)
threading.Thread(target=web.serve_forever, daemon=True).start()
port = web.server_address[1]

ssdp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
ssdp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
ssdp.bind(("", 1900))
ssdp.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                struct.pack("4s4s", socket.inet_aton("239.255.255.250"), socket.inet_aton(ADDRESS)))
print("ready", flush=True)
while True:
    data, sender = ssdp.recvfrom(4096)
    if not data.startswith(b"M-SEARCH"):
        continue
    for page in PAGES:
        answer = (f"HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=100\r\nEXT:\r\nLOCATION: http://{ADDRESS}:{port}{page}\r\n"
                  f"ST: urn:schemas-upnp-org:device:MediaRenderer:1\r\nUSN: uuid:{page}::renderer\r\n\r\n")
        ssdp.sendto(answer.encode(), sender)
