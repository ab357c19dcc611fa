"""Local stand-ins for the disc lookup's internet services, speaking their
documented wire formats: MusicBrainz ws/2 XML, CDDB protocol level 6 over
HTTP ("cddb query", then "cddb read" with an xmcd entry) and the Cover Art
Archive's redirect to an image. Every request is recorded."""
import http.server
import threading
import time
import urllib.parse
from xml.sax.saxutils import escape

# A tiny but real JPEG header and some bytes: what a cover download must keep.
JPEG = b"\xff\xd8\xff\xe0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00" + bytes(range(256)) * 8 + b"\xff\xd9"


def release_xml(mbid, title, artist, date, status, disc_ids, tracks):
    discs = "".join(f'<disc id="{escape(d)}"><sectors>1</sectors></disc>' for d in disc_ids)
    items = "".join(
        f'<track id="t{i}"><position>{i + 1}</position><number>{i + 1}</number>'
        f'<recording id="r{i}"><title>{escape(t)}</title></recording></track>'
        for i, t in enumerate(tracks))
    return (f'<release id="{mbid}"><title>{escape(title)}</title><status>{status}</status>'
            f'<date>{date}</date><artist-credit><name-credit><artist id="a-{mbid}">'
            f'<name>{escape(artist)}</name><sort-name>{escape(artist)}</sort-name></artist>'
            f'</name-credit></artist-credit><medium-list count="1"><medium><position>1</position>'
            f'<disc-list count="{len(disc_ids)}">{discs}</disc-list>'
            f'<track-list count="{len(tracks)}" offset="0">{items}</track-list></medium>'
            f'</medium-list></release>')


def disc_xml(disc_id, releases):
    return ('<?xml version="1.0" encoding="UTF-8"?>'
            '<metadata xmlns="http://musicbrainz.org/ns/mmd-2.0#">'
            f'<disc id="{escape(disc_id)}"><sectors>1</sectors>'
            f'<release-list count="{len(releases)}">{"".join(releases)}</release-list>'
            '</disc></metadata>').encode()


def xmcd(category, cddb_id, artist, album, year, genre, tracks, offsets=(150, 375, 600), seconds=11):
    """A whole xmcd entry: the comment block with the frame offsets and the
    disc length is part of the format, and readers go by it."""
    lines = ["# xmcd", "#", "# Track frame offsets:"] + [f"#\t{o}" for o in offsets]
    lines += ["#", f"# Disc length: {seconds} seconds", "#", "# Revision: 0",
              "# Submitted via: kz-test 1.0", "#", f"DISCID={cddb_id}", f"DTITLE={artist} / {album}",
             f"DYEAR={year}", f"DGENRE={genre}"]
    lines += [f"TTITLE{i}={t}" for i, t in enumerate(tracks)]
    lines += ["EXTD="] + [f"EXTT{i}=" for i in range(len(tracks))] + ["PLAYORDER=", "."]
    head = f"210 {category} {cddb_id} CD database entry follows (until terminating `.')"
    return ("\r\n".join([head] + lines) + "\r\n").encode()


class Services:
    """One HTTP server for all three services. Behaviour is set per test:
    mb(path, query) and cddb(cmd) return (status, headers, body); covers
    maps a release id to image bytes (or anything else, to serve junk)."""

    def __init__(self):
        self.requests = []
        self.mb = lambda path, query: (404, {}, b"")
        self.cddb = lambda cmd: (200, {}, b"202 No match\r\n")
        self.covers = {}
        self.delay = {}  # path prefix -> seconds to stall
        services = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.0"

            def log_message(self, *args):
                pass

            def do_GET(self):
                url = urllib.parse.urlsplit(self.path)
                services.requests.append((url.path, urllib.parse.parse_qs(url.query),
                                          self.headers.get("User-Agent", "")))
                for prefix, seconds in services.delay.items():
                    if url.path.startswith(prefix):
                        time.sleep(seconds)
                if url.path.startswith("/ws/2/"):
                    status, headers, body = services.mb(url.path, urllib.parse.parse_qs(url.query))
                elif url.path.startswith("/cddb"):
                    cmd = urllib.parse.parse_qs(url.query).get("cmd", [""])[0]
                    status, headers, body = services.cddb(cmd)
                elif url.path.startswith("/release/"):
                    mbid = url.path.split("/")[2]
                    if mbid in services.covers:
                        status, headers, body = 307, {"Location": f"/images/{mbid}.jpg"}, b""
                    else:
                        status, headers, body = 404, {}, b""
                elif url.path.startswith("/images/"):
                    mbid = url.path.split("/")[2][:-4]
                    status, headers, body = 200, {"Content-Type": "image/jpeg"}, services.covers[mbid]
                else:
                    status, headers, body = 404, {}, b""
                self.send_response(status)
                for k, v in headers.items():
                    self.send_header(k, v)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.base = f"http://127.0.0.1:{self.server.server_address[1]}"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def env(self):
        return {"KZ_MUSICBRAINZ": self.base, "KZ_CDDB": self.base + "/cddb/cddb.cgi",
                "KZ_COVERART": self.base}

    def stop(self):
        self.server.shutdown()
        self.server.server_close()
