#!/usr/bin/env python3
"""Runs one TLS client against a listener on loopback and keeps the first record that it sends.

    record-first-record.py OUTPUT COMMAND [ARGUMENT...]

Every "{port}" in the arguments becomes the listener's port. The client gets no answer: its
connection is closed, and it and whatever it started in its process group are ended.
"""

import contextlib
import os
import signal
import socket
import subprocess
import sys
import time

PATIENCE = 30  # seconds for a client to start, connect and send


def receive(connection, count):
    data = b""
    while len(data) < count:
        piece = connection.recv(count - len(data))
        if not piece:
            raise ConnectionError(f"closed after {len(data)} of {count} bytes")
        data += piece
    return data


def first_record(listener):
    while True:  # Browsers open connections ahead of need and may close them unused.
        with contextlib.suppress(ConnectionError), listener.accept()[0] as connection:
            connection.settimeout(PATIENCE)
            header = receive(connection, 5)
            return header + receive(connection, int.from_bytes(header[3:5], "big"))


def end_group(client):
    """Returns once the client's files are no longer in use, or after a few seconds."""
    os.killpg(client.pid, signal.SIGKILL)  # not yet waited for, so the group still exists
    client.wait()
    with contextlib.suppress(ProcessLookupError):
        for _ in range(100):
            os.killpg(client.pid, 0)
            time.sleep(0.05)


def main():
    output, command = sys.argv[1], sys.argv[2:]
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(PATIENCE)
        port = str(listener.getsockname()[1])
        client = subprocess.Popen(
            [argument.replace("{port}", port) for argument in command],
            stdin=subprocess.PIPE,  # open and silent: some clients leave at its end
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            start_new_session=True,
        )
        try:
            record = first_record(listener)
        finally:
            end_group(client)
    with open(output, "wb") as file:
        file.write(record)
    print(f"{output}: {len(record)} bytes")


main()
