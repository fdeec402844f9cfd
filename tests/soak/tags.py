"""The bytes of the soak: every flow has its own, and each place in it has its own, too. A stream begins
with one line that says what the server is to do; the answer with one that says whom the server saw."""

import hashlib
import json
import socket
import struct
import threading

SERVER, WEB, QUIC, DNS = "203.0.113.10", 80, 443, 53
#: How long an application waits for anything, in seconds: longer than a relay for a silent proxy.
PATIENCE = 75
#: Of prime length: what is lost of it, or doubled, shows.
_PERIOD = 8191
_PIECE = 1 << 16
#: Flow, number within the flow, whom the sender believes to be (an address and a port), or whom it
#: saw; then bytes of the flow.
DATAGRAM = struct.Struct("!QI4sH")
DATAGRAM_BYTES = 700


class Wrong(Exception):
    """Other bytes than the flow's."""


class Short(Exception):
    """An end in order before the last byte."""


class Bytes:
    """What one side of a flow sends."""

    def __init__(self, flow, side):
        period = hashlib.shake_128(f"{flow} {side}".encode()).digest(_PERIOD)
        self._tile = period * (_PIECE // _PERIOD + 2)

    def at(self, position, count):
        """At most so many of them, from this position on."""
        begin = position % _PERIOD
        return self._tile[begin:begin + min(count, _PIECE)]

    def check(self, position, data):
        while data:
            expected = self.at(position, len(data))
            if not data.startswith(expected):
                raise Wrong(f"at {position}: {data[:24].hex()}, not {expected[:24].hex()}")
            position += len(expected)
            data = data[len(expected):]


class Stream:
    """A connected socket whose bytes are tagged, at its owner's pace."""

    def __init__(self, connection):
        self.socket = connection
        self._buffer = b""

    def read_line(self, limit=1 << 16):
        line = b""
        while not line.endswith(b"\n"):
            line += self.receive(1)
            if len(line) > limit:
                raise Wrong(f"no line: {line[:24].hex()}")
        return line

    def read_json(self, first=b""):
        return json.loads(first + self.read_line())

    def read_exactly(self, count):
        data = b""
        while len(data) < count:
            data += self.receive(count - len(data))
        return data

    def receive_or_end(self):
        """A byte, or None when the stream ends before it."""
        try:
            return self.receive(1)
        except Short:
            return None

    def receive(self, count):
        """Some bytes, but no more than that."""
        if not self._buffer:
            # A few are read ahead, since lines are looked at byte by byte.
            self._buffer = self.socket.recv(max(count, 500))
            if not self._buffer:
                raise Short("bytes are missing")
        data, self._buffer = self._buffer[:count], self._buffer[count:]
        return data

    def send_json(self, **values):
        self.socket.sendall(json.dumps(values).encode() + b"\n")

    def send(self, tagged, count, begin=0, pace=lambda: None):
        end = begin + count
        while begin < end:
            piece = tagged.at(begin, end - begin)
            self.socket.sendall(piece)
            begin += len(piece)
            pace()

    def read(self, tagged, count, begin=0, pace=lambda: None):
        end = begin + count
        while begin < end:
            data = self.receive(min(end - begin, _PIECE))
            tagged.check(begin, data)
            begin += len(data)
            pace()

    def expect_end(self):
        """Nothing but the end of the stream follows."""
        data = self._buffer or self.socket.recv(100)
        if data:
            raise Wrong(f"behind the end: {data[:24].hex()}")

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class Sender:
    """Sends on a thread of its own. finish() raises what it met: of a reset, the first of two threads
    hears, and to the other it looks like an end."""

    def __init__(self, stream, tagged, count, pace):
        self._error = None
        self._thread = threading.Thread(target=self._send, args=(stream, tagged, count, pace))
        self._thread.start()

    def _send(self, stream, tagged, count, pace):
        try:
            stream.send(tagged, count, pace=pace)
        except OSError as error:
            self._error = error

    def finish(self):
        self._thread.join()
        if self._error:
            raise self._error


def datagram(tagged, flow, number, address):
    place = socket.inet_aton(address[0])
    return (DATAGRAM.pack(flow, number, place, address[1])
            + tagged.at(number * DATAGRAM_BYTES, DATAGRAM_BYTES))


def read_datagram(data, side):
    """The flow, the number and the address of a datagram of this side, whose bytes are right."""
    flow, number, place, port = DATAGRAM.unpack_from(data)
    Bytes(flow, side).check(number * DATAGRAM_BYTES, data[DATAGRAM.size:])
    if len(data) != DATAGRAM.size + DATAGRAM_BYTES:
        raise Wrong(f"a datagram of {len(data)} bytes")
    return flow, number, (socket.inet_ntoa(place), port)
