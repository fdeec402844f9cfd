"""What applications talk to: servers and proxies of the laboratory, and the bytes that they know."""

import fcntl
import select
import selectors
import socket
import struct
import termios
import threading
import time

from clients import read, socket_reset
from namespaces import PATIENCE, eventually

SO_RCVBUFFORCE = 33  # Python has no name for it
ESTABLISHED = b"HTTP/1.1 200 Connection Established\r\n\r\n"


def bound(namespace, address, kind):
    """A socket of a namespace at an address."""
    with namespace:
        new = socket.socket(socket.AF_INET6 if ":" in address[0] else socket.AF_INET, kind)
    new.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    new.bind(address)
    new.settimeout(PATIENCE)
    return new


class Listener:
    """A listening socket of a namespace; what it accepts is for the test to script."""

    def __init__(self, namespace, address):
        self._socket = bound(namespace, address, socket.SOCK_STREAM)
        self._socket.listen(4096)

    def accept(self):
        connection, source = self._socket.accept()
        return Peer(connection, source)

    def is_idle(self):
        """Whether nobody has connected whom nobody has accepted."""
        return not select.select([self._socket], [], [], 0)[0]

    def fileno(self):
        return self._socket.fileno()

    def shut(self):
        """Ends a wait in accept(), too."""
        self._socket.shutdown(socket.SHUT_RDWR)
        self.close()

    def close(self):
        self._socket.close()


class QueueOwner:
    """Somebody else who has the daemon's packet queue, so that no start succeeds."""

    def __init__(self, namespace):
        netlink_netfilter, config, request_with_answer = 12, 0x302, 5
        queue, bind = 77, struct.pack(">BBH", 1, 0, socket.AF_INET)
        with namespace:
            self._socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, netlink_netfilter)
        body = struct.pack(">BBH", socket.AF_INET, 0, queue) + struct.pack("=HH", 8, 1) + bind
        self._socket.send(struct.pack("=IHHII", 16 + len(body), config, request_with_answer, 1, 0) + body)
        assert struct.unpack_from("=i", self._socket.recv(1 << 12), 16) == (0,)

    def close(self):
        self._socket.close()


class Peer:
    """A server's end of a connection."""

    def __init__(self, connection, source):
        connection.settimeout(PATIENCE)
        self.socket = connection
        self.source = source[:2]

    def read(self, count=None):
        return read(self.socket, count)

    def read_head(self):
        """Bytes up to the blank line, and no more."""
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            head += self.read(1)
        return head

    def send(self, data):
        self.socket.sendall(data)

    def close(self):
        self.socket.close()

    def reset(self):
        socket_reset(self.socket)

    def ending(self):
        """How the stream ends: "end" or "reset"; what still comes is thrown away."""
        try:
            self.read()
            return "end"
        except ConnectionResetError:
            return "reset"


class Refuser:
    """Answers the first bytes that come, takes no others, and resets when its answer has arrived."""

    def __init__(self, namespace, address):
        self.answer = b""
        self._listener = Listener(namespace, address)
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            try:
                peer = self._listener.accept()
            except TimeoutError:
                continue
            except OSError:
                return
            threading.Thread(target=self._serve, args=(peer,), daemon=True).start()

    def _serve(self, peer):
        peer.read(100)
        peer.send(self.answer)
        unacknowledged = bytearray(4)
        while fcntl.ioctl(peer.socket, termios.TIOCOUTQ, unacknowledged) or any(unacknowledged):
            time.sleep(0.001)
        peer.reset()

    def close(self):
        self._listener.shut()


class Echo:
    """Sends back whatever comes, for thousands at once, over TCP and UDP at all its addresses. Knows
    what came from where."""

    def __init__(self, namespace, *addresses):
        self.received = []  # (address, source, bytes)
        self._selector = selectors.DefaultSelector()
        for address in addresses:
            listener = Listener(namespace, address)
            self._selector.register(listener, selectors.EVENT_READ, (self._accept, address))
            datagrams = bound(namespace, address, socket.SOCK_DGRAM)
            datagrams.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 1 << 25)
            self._selector.register(datagrams, selectors.EVENT_READ, (self._answer, address))
        self._is_ending = False
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._is_ending:
            for key, _ in self._selector.select(0.1):
                serve, *details = key.data
                serve(key.fileobj, *details)
        for key in list(self._selector.get_map().values()):
            key.fileobj.close()

    def _accept(self, listener, address):
        peer = listener.accept()
        self._selector.register(peer.socket, selectors.EVENT_READ,
                                (self._echo, address, peer.source))

    def _echo(self, connection, address, source):
        try:
            data = connection.recv(1 << 18)
            if data:
                self.received.append((address, source, data))
                connection.sendall(data)
                return
        except OSError:
            pass
        self._selector.unregister(connection)
        connection.close()

    def _answer(self, datagrams, address):
        data, source = datagrams.recvfrom(1 << 16)
        self.received.append((address, source[:2], data))
        datagrams.sendto(data, source)

    def heard(self, data):
        """Which address got these bytes, and from where; waits until they come."""
        return eventually(lambda: next(((address, source) for address, source, received
                                        in reversed(self.received) if received == data), None),
                          "the bytes come")

    def close(self):
        self._is_ending = True
        self._thread.join(PATIENCE)


def client_hello(name):
    """A TLS 1.3 ClientHello for a host name, in one record."""

    def sized(form, body):
        return struct.pack(form, len(body)) + body

    server_name = sized(">H", b"\0" + sized(">H", name.encode()))
    extensions = b"\0\0" + sized(">H", server_name) + b"\0\x2b" + sized(">H", b"\x02\x03\x04")
    body = (b"\x03\x03" + bytes(32) + sized("B", bytes(32)) + sized(">H", b"\x13\x01") +
            sized("B", b"\0") + sized(">H", extensions))
    return b"\x16\x03\x01" + sized(">H", b"\x01\0" + sized(">H", body))


def connect_request(name, port):
    return (f"CONNECT {name}:{port} HTTP/1.1\r\nHost: {name}:{port}\r\n"
            "Proxy-Connection: keep-alive\r\n\r\n").encode()
