"""Uploads through a real lighttpd that go wrong: cut off, replaced in
another format, plain form fields, files that hold no audio."""
import json
import os
import socket

from test_web import curl, mp3, wav, web  # noqa: F401 (web is the fixture)


def raw_post(base, path, body, declared=None, content_type=None):
    """Sends a POST by hand; declared > len(body) cuts it off."""
    host, port = base.split("//")[1].split(":")
    s = socket.create_connection((host, int(port)))
    head = (f"POST {path} HTTP/1.1\r\nHost: {host}\r\n"
            f"Content-Type: {content_type or 'multipart/form-data; boundary=XyZ'}\r\n"
            f"Content-Length: {declared or len(body)}\r\nConnection: close\r\n\r\n")
    s.sendall(head.encode() + body)
    if declared:
        s.close()
        return b""
    s.settimeout(20)
    out = b""
    while chunk := s.recv(65536):
        out += chunk
    s.close()
    return out


def part(field, filename, data):
    disposition = f'form-data; name="{field}"'
    if filename is not None:
        disposition += f'; filename="{filename}"'
    return (f"--XyZ\r\nContent-Disposition: {disposition}\r\n"
            f"Content-Type: application/octet-stream\r\n\r\n").encode() + data + b"\r\n"


def album_tracks(base, artist, album):
    found = json.loads(curl(base + f"/api/search&search={album}&albums=1"))
    ids = [i["id"] for i in found if 1000000 <= i["id"] < 2000000 and i.get("album") == album]
    assert len(ids) == 1, found
    return [t["name"] for t in json.loads(curl(base + f"/api/listalbum&id={ids[0]}"))]


def test_cut_off_upload_leaves_nothing_behind(web, tmp_path):
    d, root, base = web
    music = root / "media" / "hdd1" / "music"
    audio = wav(os.urandom(400000))
    raw_post(base, "/api/upload&artist=Cut", part("Half", "01 Half.wav", audio[:200000]),
             declared=len(audio) + 200)
    d.wait_for("Upload cut off, removed")
    assert not (music / "Cut" / "Half" / "01 Half.wav").exists()
    assert curl(base + "/api/checkUpload") == b"false"
    assert curl(base + "/api/checkUpload") == b"true"
    # A later multipart body sent to another command writes nothing.
    raw_post(base, "/api/status", part("Sneaky", "01 Sneaky.wav", audio))
    assert not list(music.rglob("*Sneaky*"))


def test_uploads_keep_one_entry_per_file_and_only_audio(web, tmp_path):
    d, root, base = web
    album = root / "media" / "hdd1" / "music" / "Uno" / "Album"
    uno_mp3 = mp3(tmp_path / "01 Uno.mp3")
    raw_post(base, "/api/upload&artist=Uno", part("Album", "01 Uno.mp3", uno_mp3) + b"--XyZ--\r\n")
    d.wait_for("Posted writeDB complete")
    uno_flac = wav(os.urandom(8000))
    body = (part("Album", "01 Uno.wav", uno_flac) +
            part("Album", None, b"just a form value") +
            part("Album", "02 Notes.mp3", b"these are words, not audio\n") + b"--XyZ--\r\n")
    raw_post(base, "/api/upload&artist=Uno", body)
    d.wait_for("holds no audio: removed")
    assert sorted(p.name for p in album.iterdir()) == ["01 Uno.wav"]
    assert not (album / "upload").exists()
    assert album_tracks(base, "Uno", "Album") == ["Uno"]
    assert curl(base + "/api/checkUpload") == b"false"
