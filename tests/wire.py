"""The socket protocol of the emulated channel and the session layer above it, once more.

Written from docs/emulation.md and the drawings in the headers alone, without the project's own
libraries: what these tests send and accept is what another client in another language would.
"""
import socket
import struct

MAX_SEGMENT = 524288
REQUESTS, FRAMEWORK = 4, 12


def hello(magic=b"OHDC", version=1, run_env=1, vf_id=0, pid=0):
    return magic + struct.pack("<5I", version, run_env, vf_id, pid, 0)


def frame(payload):
    return struct.pack("<I", len(payload)) + payload


def segment(value, last=1, kind=176, stated=None):
    length = len(value) if stated is None else stated
    return struct.pack("<IIB", length, kind, last) + value + b"\0\0\0"


def request(kind, value, dev_id=0, stated=None):
    return struct.pack("<III", kind, dev_id, len(value) if stated is None else stated) + value


# ---- Profiling: protobuf in an envelope in a request of type 5 -----------------------------

PACKAGE = "analysis.nedra.proto."


def varint(value):
    out = bytearray()
    value &= (1 << 64) - 1
    while value > 127:
        out.append(value & 127 | 128)
        value >>= 7
    return bytes(out + bytes([value]))


def fields(values):
    """Protobuf bytes of {number: integer, text or bytes}."""
    out = b""
    for number, value in values.items():
        if isinstance(value, int):
            out += varint(number << 3) + varint(value)
        else:
            value = value.encode() if isinstance(value, str) else value
            out += varint(number << 3 | 2) + varint(len(value)) + value
    return out


def message(name, values):
    kind = (PACKAGE + name).encode() + b"\0"
    return request(5, struct.pack(">I", len(kind)) + kind + fields(values))


class Peer:
    """One raw connection to a device's socket."""

    def __init__(self, directory, device=0, service=REQUESTS, greeting=hello()):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(20)
        self.socket.connect(str(directory / f"{device}.{service}"))
        if greeting:
            self.raw(greeting)

    def raw(self, data):
        self.socket.sendall(data)

    def message(self, data, limit=MAX_SEGMENT - 12):
        pieces = [data[i:i + limit] for i in range(0, len(data), limit)]
        for i, piece in enumerate(pieces):
            self.raw(frame(segment(piece, 1 if i == len(pieces) - 1 else 0)))

    def _exactly(self, count):
        data = b""
        while len(data) < count:
            more = self.socket.recv(count - len(data))
            if not more:
                raise EOFError(f"closed after {len(data)} of {count} bytes")
            data += more
        return data

    def receive(self):
        """The next message; EOFError when the device closed the session."""
        data = b""
        while True:
            body = self._exactly(struct.unpack("<I", self._exactly(4))[0])
            length, kind, last = struct.unpack_from("<IIB", body)
            assert kind == 176 and len(body) == length + 12
            data += body[9:9 + length]
            if last == 1:
                return data

    def closed(self, timeout=20):
        """Whether the device closes the session within that many seconds, without a byte."""
        self.socket.settimeout(timeout)
        try:
            return self.socket.recv(1) == b""
        except ConnectionResetError:
            return True
        except socket.timeout:
            return False

    def close(self):
        self.socket.close()

    def shut(self):
        """Closes the session also for a thread that waits for it."""
        try:
            self.socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.close()
