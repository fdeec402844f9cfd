"""What an application of the tests can do. Runs in a process of its own, whose program is the
application's identity, and obeys an Application of lab.py over its standard input and output."""

import collections
import concurrent.futures
import errno
import hashlib
import os
import pickle
import resource
import socket
import struct
import sys
import threading
import time

#: How long it waits for anything, in seconds.
TIMEOUT = float(os.environ.get("TANDOR_E2E_PATIENCE", 20))
IMMEDIATELY = struct.pack("ii", 1, 0)  # a linger that makes a close a reset
sockets = {}
kept = []


def pid():
    return os.getpid()


def open_socket(kind, options):
    """A new socket. Options: bind (address), device, family, timeout (0: non-blocking), reuse."""
    family = getattr(socket, options.get("family", "AF_INET"))
    kinds = {"tcp": socket.SOCK_STREAM, "udp": socket.SOCK_DGRAM}
    new = socket.socket(family, kinds[kind])
    if options.get("reuse"):
        new.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    if "device" in options:
        new.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, options["device"].encode())
    if "bind" in options:
        new.bind(options["bind"])
    new.settimeout(options.get("timeout", TIMEOUT))
    number = max(sockets, default=0) + 1
    sockets[number] = new
    return number


def use_socket(number, method, arguments):
    """Calls a function socket_METHOD of this module, or else the socket's own method."""
    used = sockets.pop(number) if method in ("close", "reset") else sockets[number]
    own = globals().get("socket_" + method)
    return own(used, *arguments) if own else getattr(used, method)(*arguments)


def socket_reset(stream):
    stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, IMMEDIATELY)
    stream.close()


def read(stream, count=None):
    """Exactly `count` bytes; without a count all until the end of the stream."""
    pieces = []
    while count is None or count > 0:
        piece = stream.recv(min(count or 1 << 18, 1 << 18))
        if not piece:
            if count is None:
                break
            raise EOFError(f"{count} bytes are missing")
        pieces.append(piece)
        if count is not None:
            count -= len(piece)
    return b"".join(pieces)


socket_read = read


#: Of prime length: what is lost of it, or doubled, shows.
PATTERN = hashlib.shake_128(b"tandor").digest(262_139)


def transfer(stream, to_send, to_receive):
    """Sends and receives so many bytes at the same time; the hashes of both."""
    sent, received = hashlib.sha256(), hashlib.sha256()

    def send(left):
        while left > 0:
            stream.sendall(PATTERN[:left])
            sent.update(PATTERN[:left])
            left -= len(PATTERN)

    sender = threading.Thread(target=send, args=(to_send,))
    sender.start()
    while to_receive > 0:
        piece = stream.recv(1 << 18)
        if not piece:
            raise EOFError(f"{to_receive} bytes are missing")
        received.update(piece)
        to_receive -= len(piece)
    sender.join()
    return sent.hexdigest(), received.hexdigest()


def socket_transfer(stream, first, to_send, to_receive):
    if first:
        stream.sendall(first)
    return transfer(stream, to_send, to_receive)


def exchange_many(address, count, at_once, request, resets=0):
    """`count` connections, `at_once` at the same time, each of which sends `request`, reads as many
    bytes back, and closes; every so many-th is reset instead. How many got what, by outcome."""

    def exchange(number):
        received = b""
        with socket.socket() as stream:
            stream.settimeout(TIMEOUT)
            try:
                stream.connect(address)
                stream.sendall(request)
                if resets and number % resets == 0:
                    stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, IMMEDIATELY)
                    return "reset"
                while received != request:
                    piece = stream.recv(1 << 16)
                    received += piece
                    if not piece or not request.startswith(received):
                        return "wrong" if piece else "short"
                return "whole"
            except OSError as error:
                return errno.errorcode.get(error.errno, "unanswered")

    with concurrent.futures.ThreadPoolExecutor(at_once) as pool:
        return collections.Counter(pool.map(exchange, range(count)))


def ask_many(address, count, at_once, request):
    """`count` connections, `at_once` at the same time, each of which sends `request`, as far as it is
    taken, and reads to the end; how many got how many bytes, and what ended them."""

    def ask(_):
        received = 0
        with socket.create_connection(address, TIMEOUT) as stream:
            try:
                stream.sendall(request)
            except OSError:
                pass  # an answer may have come all the same
            try:
                while piece := stream.recv(1 << 16):
                    received += len(piece)
                return received, "end"
            except OSError as error:
                return received, errno.errorcode.get(error.errno, "unanswered")

    with concurrent.futures.ThreadPoolExecutor(at_once) as pool:
        return collections.Counter(pool.map(ask, range(count)))


def echo_bulk(address, amount):
    """Whether so many bytes come back from an echo as they went."""
    with socket.create_connection(address, TIMEOUT) as stream:
        sent, received = transfer(stream, amount, amount)
    return sent == received


def connect_many(address, count):
    """Opens connections that stay open until release_all()."""
    for _ in range(count):
        kept.append(socket.create_connection(address, TIMEOUT))


def exchange_datagrams(address, count):
    """Opens so many sockets that stay open until release_all(); how many got back what they sent."""
    opened = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(count)]
    kept.extend(opened)
    answered = 0
    for number, sender in enumerate(opened):
        sender.settimeout(TIMEOUT)
        sender.connect(address)
        sender.send(b"%d" % number)
        answered += sender.recv(99) == b"%d" % number
    return answered


def churn_datagrams(count):
    """Opens and closes so many sockets."""
    for _ in range(count):
        socket.socket(socket.AF_INET, socket.SOCK_DGRAM).close()


def exchange_kept(request):
    """Each of the kept connections sends and gets `request` back; how many did."""
    for stream in kept:
        stream.sendall(request)
    return sum(read(stream, len(request)) == request for stream in kept)


def open_many(count):
    """Opens so many sockets that do nothing."""
    kept.extend(socket.socket() for _ in range(count))


def release_all():
    for stream in kept:
        stream.close()
    kept.clear()


def send_once(address, datagram, count=1):
    """Each datagram from a socket of its own, which is closed at once; their ports."""
    ports = []
    for _ in range(count):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.connect(address)
            ports.append(sender.getsockname()[1])
            sender.send(datagram)
    return ports


def socket_send_all(sender, pieces):
    """Each by itself, one right after the other."""
    for piece in pieces:
        sender.send(piece)


def socket_exchange(sender, datagrams):
    """Sends each datagram and waits for one back."""
    answers = []
    for datagram in datagrams:
        sender.send(datagram)
        answers.append(sender.recv(1 << 16))
    return answers


def socket_refusal_delay(sender):
    """Sends a datagram; the seconds until the socket says that it was refused."""
    begin = time.monotonic()
    sender.send(b"refuse me")
    try:
        answer = sender.recv(1 << 16)
    except ConnectionRefusedError:
        return time.monotonic() - begin
    raise AssertionError(f"got {answer!r}")


def socket_send_until_failure(stream):
    """Sends without an end; the error, and the bytes before it."""
    sent = 0
    try:
        while True:
            sent += stream.send(bytes(1 << 16))
    except OSError as error:
        return error, sent


def become(program, script, keep):
    """Replaces the program of this process, which goes on obeying. Of its sockets it keeps one, which
    is number 1 from then on."""
    os.set_inheritable(sockets[keep].fileno(), True)
    answer(True, None)
    os.execv(program, [program, "-I", "-S", script, str(sockets[keep].fileno())])


def fork_and_exchange(address, request):
    """A child connects a socket that this process has opened; whether it gets back what it sends."""
    with socket.socket() as stream:
        child = os.fork()
        if child == 0:
            try:
                stream.connect(address)
                stream.sendall(request)
                os._exit(read(stream, len(request)) != request)
            finally:
                os._exit(2)
        return os.waitpid(child, 0)[1] == 0


def answer(is_result, value):
    pickle.dump((is_result, value), sys.stdout.buffer)
    sys.stdout.buffer.flush()


def main(**more):
    """Calls what it is told of this module's functions and of `more`, by name, until nobody tells it
    any more."""
    functions = {**globals(), **more}
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    for descriptor in sys.argv[1:]:
        inherited = socket.socket(fileno=int(descriptor))
        inherited.settimeout(TIMEOUT)
        sockets[1] = inherited
    while True:
        try:
            function, arguments = pickle.load(sys.stdin.buffer)
        except EOFError:
            return
        try:
            result = functions[function](*arguments)
        except Exception as error:
            answer(False, error)
        else:
            answer(True, result)


if __name__ == "__main__":
    main()
