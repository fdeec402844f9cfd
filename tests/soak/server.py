"""The network's side of the soak: servers that do what a flow's first line says, and proxies of all
kinds. Runs in a process of its own and obeys an Application of lab.py; what it has seen is collected
from it."""

import contextlib
import os
import select
import socket
import sys
import threading
import time

sys.path[:0] = [os.path.dirname(os.path.abspath(__file__)),
                os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e")]
import clients  # noqa: E402
from tags import (  # noqa: E402
    DNS, PATIENCE, QUIC, SERVER, WEB, Bytes, Sender, Short, Stream, Wrong, datagram, read_datagram)

PROXY = "198.51.100.80"
records = []  # (begin, end, application, act, outcome, detail)


def begin_thread(function, *arguments):
    threading.Thread(target=function, args=arguments, daemon=True).start()


def send_at_once(connection):
    """Whatever is held back is lost by a reset, and that would be nobody's fault but ours."""
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)


def listen(address, serve):
    listener = socket.create_server(address, backlog=4096)
    while True:
        connection, source = listener.accept()
        connection.settimeout(PATIENCE)
        send_at_once(connection)
        begin_thread(serve, connection, source)


def serve(connection, source):
    begin, request, detail = time.monotonic(), {}, ""
    stream = Stream(connection)
    try:
        request = read_request(stream)
        if request is None:
            return  # it had nothing to say
        stream.send_json(flow=request["flow"], source=source)
        ACTS[request["act"]](stream, request["up"], request["down"],
                             Bytes(request["flow"], "up"), Bytes(request["flow"], "down"),
                             lambda: time.sleep(request["pause"]))
        outcome = "whole"
    except Exception as error:
        outcome, detail = outcome_of(error), repr(error)
    finally:
        connection.close()
    records.append((begin, time.monotonic(), request.get("application", "unknown"),
                    request.get("act", "none"), outcome, detail))


def outcome_of(error):
    for kind, outcome in ((Wrong, "wrong"), (Short, "short"), (TimeoutError, "silent"),
                          (OSError, "error")):
        if isinstance(error, kind):
            return outcome
    return "wrong"  # a line that cannot be read


def read_request(stream):
    """What the flow is to be, behind what its application says first."""
    first = stream.receive_or_end()
    if first is None:
        return None
    if first == b"\x16":
        head = stream.read_exactly(4)
        stream.read_exactly(int.from_bytes(head[2:], "big"))
    elif first == b"G":
        while stream.read_line() != b"\r\n":
            pass
    elif first == b"S":
        stream.read_line()
    else:
        return stream.read_json(first)
    return stream.read_json()


def ask(stream, up, down, theirs, ours, pace):
    """Comes, asks, gets, and ends first."""
    stream.read(theirs, up, pace=pace)
    stream.send(ours, down, pace=pace)
    stream.expect_end()


def answer(stream, up, down, theirs, ours, pace):
    """The same, but the server ends first."""
    stream.read(theirs, up, pace=pace)
    stream.send(ours, down, pace=pace)


def both(stream, up, down, theirs, ours, pace):
    sender = Sender(stream, ours, down, pace)
    try:
        stream.read(theirs, up, pace=pace)
        stream.expect_end()
    finally:
        sender.finish()


def half_close(stream, up, down, theirs, ours, pace):
    """The answer follows the end of the question."""
    stream.read(theirs, up)
    stream.expect_end()
    stream.send(ours, down)


def client_resets(stream, up, down, theirs, ours, pace):
    try:
        stream.read(theirs, up)
    except (ConnectionResetError, BrokenPipeError):
        return
    raise Short("everything came of what was never sent")


def server_resets(stream, up, down, theirs, ours, pace):
    stream.read(theirs, up)
    stream.send(ours, down // 2)
    stream.reset()


def answer_unread(stream, up, down, theirs, ours, pace):
    """Answers and closes with the question unread, which resets the connection behind the answer."""
    select.select([stream.socket], [], [], PATIENCE)
    stream.send(ours, down)


ACTS = {act.__name__: act for act in (ask, answer, both, half_close, client_resets, server_resets,
                                      answer_unread)}


def serve_datagrams(port):
    endpoint = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    endpoint.setsockopt(socket.SOL_SOCKET, 33, 1 << 23)  # SO_RCVBUFFORCE
    endpoint.bind((SERVER, port))
    while True:
        data, source = endpoint.recvfrom(1 << 16)
        try:
            flow, number, _ = read_datagram(data, "up")
            endpoint.sendto(datagram(Bytes(flow, "down"), flow, number, source), source)
        except Exception as error:
            now = time.monotonic()
            records.append((now, now, "unknown", "datagram", outcome_of(error), repr(error)))


def proxy(behaviour):
    """What serves one connection of a proxy that answers a CONNECT so."""

    def serve_proxied(client, _):
        try:
            head = b""
            while not head.endswith(b"\r\n\r\n"):
                byte = client.recv(1)
                if not byte:
                    return
                head += byte
            if not head.startswith(b"CONNECT "):
                relay(client, (SERVER, WEB), head)
            elif behaviour(client):
                port = int(head.split()[1].rpartition(b":")[2])
                relay(client, (SERVER, port), b"", 50_000 if behaviour is cuts else None)
        except OSError:
            pass
        finally:
            client.close()

    return serve_proxied


def shut_down(target):
    with contextlib.suppress(OSError):
        target.shutdown(socket.SHUT_WR)


def pass_on(data, target):
    """Whether more may follow. Who takes no more may still have something to say."""
    try:
        target.sendall(data)
        return True
    except OSError:
        return False


def relay(client, address, head, most=None):
    """Carries bytes both ways, ends and resets, too; resets both sides after so many bytes."""
    with socket.create_connection(address, PATIENCE) as server:
        send_at_once(server)
        server.sendall(head)
        ways = {client: server, server: client}
        while ways:
            readable, _, _ = select.select(list(ways), [], [], PATIENCE)
            if not readable:
                return
            for source in readable:
                target = client if source is server else server
                try:
                    data = source.recv(1 << 16)
                except OSError:
                    Stream(target).reset()
                    return
                if not data:
                    shut_down(target)
                if not data or not pass_on(data, target):
                    del ways[source]
                if most is not None:
                    most -= len(data)
                    if most < 0:
                        Stream(server).reset()
                        Stream(client).reset()
                        return


def works(client):
    client.sendall(b"HTTP/1.1 200 Connection Established\r\n\r\n")
    return True


def cuts(client):
    return works(client)


def keeps_silent(client):
    client.recv(1)  # until it is given up
    return False


def drips(client):
    for byte in b"HTTP/1.0 200\r\n\r\n":
        client.sendall(bytes([byte]))
        time.sleep(1)
    return True


def tears(client):
    client.sendall(b"HTTP/1.1 200 Conn")
    Stream(client).reset()
    return False


def refuses(client):
    client.sendall(b"HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n\r\n")
    return False


#: By port; nobody listens at DEAD.
PROXIES = {3128: works, 3129: keeps_silent, 3130: drips, 3131: tears, 3132: refuses, 3133: cuts}


def begin():
    threading.stack_size(256 * 1024)
    for port in (WEB, QUIC):
        begin_thread(listen, (SERVER, port), serve)
    for port in (WEB, QUIC, DNS):
        begin_thread(serve_datagrams, port)
    for port, behaviour in PROXIES.items():
        begin_thread(listen, (PROXY, port), proxy(behaviour))


def collect():
    """What has been seen since the last time."""
    global records
    seen, records = records, []
    return seen


if __name__ == "__main__":
    clients.main(**globals())
