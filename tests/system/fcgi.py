"""A small FastCGI client: enough to talk to kz's socket byte by byte."""
import socket
import struct


def record(rtype, content=b"", request_id=1, padding=0):
    return struct.pack(">BBHHBB", 1, rtype, request_id, len(content), padding, 0) + content + b"\0" * padding


def pair(name, value):
    def length(n):
        return bytes([n]) if n < 128 else struct.pack(">I", n | 0x80000000)
    return length(len(name)) + length(len(value)) + name + value


def request(uri, body=b"", request_id=1, extra_params=()):
    params = b"".join(pair(n, v) for n, v in extra_params)
    params += pair(b"REQUEST_URI", uri.encode())
    if body:
        params += pair(b"CONTENT_LENGTH", str(len(body)).encode())
    data = record(1, b"\0\1\0\0\0\0\0\0", request_id) + record(4, params, request_id) + record(4, b"", request_id)
    for i in range(0, len(body), 65535):
        data += record(5, body[i:i + 65535], request_id)
    if body:
        data += record(5, b"", request_id)
    return data


def read_records(sock):
    """All records until END_REQUEST: a list of (type, request_id, content)."""
    buf = b""
    out = []
    while True:
        while len(buf) < 8:
            chunk = sock.recv(65536)
            if not chunk:
                return out
            buf += chunk
        _, rtype, rid, length, padding, _ = struct.unpack(">BBHHBB", buf[:8])
        while len(buf) < 8 + length + padding:
            chunk = sock.recv(65536)
            if not chunk:
                return out
            buf += chunk
        out.append((rtype, rid, buf[8:8 + length]))
        buf = buf[8 + length + padding:]
        if rtype == 3:
            return out


def call(path, data, timeout=20):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(timeout)
    s.connect(str(path))
    s.sendall(data)
    try:
        return read_records(s)
    finally:
        s.close()


def stdout_of(records):
    return b"".join(c for t, _, c in records if t == 6)
