"""What an application of the soak does: flows of all kinds, several at a time, whose every byte is
looked at. Runs in a process of its own, whose program is the application's identity, and obeys an
Application of lab.py; what has become of the flows is collected from it."""

import errno
import os
import random
import select
import socket
import sys
import threading
import time

sys.path[:0] = [os.path.dirname(os.path.abspath(__file__)),
                os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e")]
import clients  # noqa: E402
from peers import client_hello  # noqa: E402
from tags import (  # noqa: E402
    DATAGRAM_BYTES, DNS, PATIENCE, QUIC, SERVER, WEB, Bytes, Sender, Short, Stream, Wrong, datagram, read_datagram)

#: A datagram is sent again when it has not been answered for so many seconds, so many times.
RESEND, TRIES = 3, 6
FIRSTS = (b"", b"", client_hello("soak.example"), b"SSH-2.0-soak\r\n",
          f"GET / HTTP/1.1\r\nHost: {SERVER}\r\n\r\n".encode())
records = []  # (begin, known, end, kind, outcome, is native, bytes, detail)
_workers = []
_is_ending = False


class Flow:
    """One TCP flow: what it is to be, and what becomes of it."""

    def __init__(self, application, chance, act, up, down, pause=0.0):
        self.number = chance.getrandbits(60)
        self._application = application
        self._first = chance.choice(FIRSTS)
        self._port = QUIC if self._first.startswith(b"\x16") else WEB
        self._act, self._up, self._down, self._pause = act, up, down, pause
        self._ours, self._theirs = Bytes(self.number, "up"), Bytes(self.number, "down")
        self.known = None  # when it was clear which way it goes
        self.is_native = None
        self.bytes = up + down

    sent_again = 0

    def run(self):
        with socket.socket() as connection:
            connection.settimeout(PATIENCE)
            connection.connect((SERVER, self._port))
            stream = Stream(connection)
            connection.sendall(self._first)
            stream.send_json(flow=self.number, application=self._application, up=self._up,
                             act=self._act, down=self._down, pause=self._pause)
            if self._act == "answer_unread":
                connection.sendall(bytes(20_000))
            seen = stream.read_json()
            if seen["flow"] != self.number:
                raise Wrong(f"the answer to {seen['flow']}, not to {self.number}")
            self.is_native = tuple(seen["source"]) == connection.getsockname()
            self.known = time.monotonic()
            getattr(self, "_" + self._act)(stream)

    def _pace(self):
        time.sleep(self._pause)

    def _ask(self, stream):
        stream.send(self._ours, self._up, pace=self._pace)
        stream.read(self._theirs, self._down, pace=self._pace)
        if self.number % 3 == 0:
            stream.socket.shutdown(socket.SHUT_WR)
            stream.expect_end()

    def _answer(self, stream):
        stream.send(self._ours, self._up, pace=self._pace)
        stream.read(self._theirs, self._down, pace=self._pace)
        stream.expect_end()

    def _both(self, stream):
        sender = Sender(stream, self._ours, self._up, self._pace)
        try:
            stream.read(self._theirs, self._down, pace=self._pace)
        finally:
            sender.finish()

    def _half_close(self, stream):
        stream.send(self._ours, self._up)
        stream.socket.shutdown(socket.SHUT_WR)
        stream.read(self._theirs, self._down)
        stream.expect_end()

    def _client_resets(self, stream):
        stream.send(self._ours, self._up // 2)
        stream.reset()

    def _server_resets(self, stream):
        stream.send(self._ours, self._up)
        try:
            stream.read(self._theirs, self._down)
        except ConnectionResetError:
            return
        raise Wrong("everything came of what was never sent")

    def _answer_unread(self, stream):
        stream.read(self._theirs, self._down)


class Datagrams:
    """One UDP socket that talks for a while."""

    def __init__(self, chance, count, at_once, port):
        self.number = chance.getrandbits(60)
        self._count, self._at_once, self._port = count, at_once, port
        self._ours = Bytes(self.number, "up")
        self.known = self.is_native = None
        self.bytes = 2 * count * DATAGRAM_BYTES
        self.sent_again = 0

    def run(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.connect((SERVER, self._port))
            for begin in range(0, self._count, self._at_once):
                self._exchange(sender, set(range(begin, begin + self._at_once)))

    def _exchange(self, sender, missing):
        for attempt in range(TRIES):
            self.sent_again += len(missing) if attempt else 0
            for number in missing:
                sender.send(datagram(self._ours, self.number, number, sender.getsockname()))
            deadline = time.monotonic() + RESEND
            while missing and select.select([sender], [], [], max(0, deadline - time.monotonic()))[0]:
                flow, number, seen = read_datagram(sender.recv(1 << 16), "down")
                if flow != self.number:
                    raise Wrong(f"an answer to {flow}, not to {self.number}")
                missing.discard(number)
                if self.known is None:
                    self.known, self.is_native = time.monotonic(), seen == sender.getsockname()
            if not missing:
                return
        raise TimeoutError(f"no answer to {len(missing)} datagrams")


#: Kinds of small flows, by how many there are of each.
KINDS = {"ask": 30, "answer": 20, "half_close": 5, "client_resets": 4, "server_resets": 4,
         "answer_unread": 5, "slow": 2, "udp": 20, "quic": 3}


def short_flow(application, chance, kinds):
    """One of the many small ones, with its kind's name."""
    kind = chance.choices(list(kinds), list(kinds.values()))[0]
    if kind == "udp":
        return kind, Datagrams(chance, 16, chance.choice((1, 4)), DNS)
    if kind == "quic":
        return kind, Datagrams(chance, 4, 1, QUIC)
    up, down = chance.randrange(1, 9000), chance.choice((300, 8000, 8000, 150_000))
    if kind == "slow":
        return kind, Flow(application, chance, "ask", up, 200_000, chance.uniform(0.2, 2))
    if kind == "answer_unread":
        down = min(down, 8000)
    if kind in ("client_resets", "server_resets"):
        up, down = up + 1, down + 1
    return kind, Flow(application, chance, kind, up, down)


def run(flow, kind):
    begin, detail = time.monotonic(), ""
    try:
        flow.run()
        outcome = "again" if flow.sent_again else "whole"
    except Wrong as error:
        outcome, detail = "wrong", str(error)
    except Short as error:
        outcome, detail = "short", str(error)
    except TimeoutError as error:
        outcome, detail = "silent", str(error)
    except OSError as error:
        outcome, detail = "error", f"{errno.errorcode.get(error.errno)}: {error}"
    except ValueError as error:
        outcome, detail = "wrong", str(error)  # a line that cannot be read
    count = flow.bytes if outcome in ("whole", "again") else 0
    records.append((begin, flow.known, time.monotonic(), kind, outcome, flow.is_native, count, detail))


def keep_going(make, pause):
    """One flow after the other, with pauses of so many seconds on average."""
    chance = random.Random()
    while not _is_ending:
        time.sleep(chance.expovariate(1 / pause))
        kind, flow = make(chance)
        run(flow, kind)


def begin_load(application, without, at_once, pause):
    """Begins flows: so many short ones at once, without those kinds, and two that last."""
    threading.stack_size(256 * 1024)
    kinds = {kind: count for kind, count in KINDS.items() if kind not in without}

    def short(chance):
        return short_flow(application, chance, kinds)

    def long(chance):
        amount = chance.randrange(10 << 20, 40 << 20)
        return "bulk", Flow(application, chance, "both", amount, amount, 0.02)

    for number in range(at_once + 2):
        make, wait = (short, pause) if number < at_once else (long, 2)
        worker = threading.Thread(target=keep_going, args=(make, wait))
        _workers.append(worker)
        worker.start()


def end_load():
    """No flow begins from now on; waits for the last ones."""
    global _is_ending
    _is_ending = True
    for worker in _workers:
        worker.join()


def collect():
    """What has become of flows since the last time."""
    global records
    ended, records = records, []
    return ended


if __name__ == "__main__":
    clients.main(**globals())
