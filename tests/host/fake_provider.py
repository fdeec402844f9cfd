#!/usr/bin/env python3
"""A provider that speaks the control protocol and tells its status, but touches nothing of the
machine. As a program it stands in for tandor-provider beside a copy of tandor."""

import base64
import json
import os
import signal
import socket
import struct
import sys
import threading

VERSION = os.environ.get("TANDOR_VERSION", "")
FLOW = {"id": 7, "app": "/usr/bin/first", "protocol": "tcp"}


class FakeProvider:
    def __init__(self, path, version=VERSION, start_error=None, hangs_up_at=None):
        self.path, self.version = path, version
        self.start_error, self.hangs_up_at = start_error, hangs_up_at
        self.requests = []
        self.state = "idle"
        self._status_path = ""
        self._clients, self._watching = [], []
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(path)
        self._listener.listen()
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        os.unlink(self.path)
        for opened in (self._listener, *self._clients):
            try:
                opened.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # the other side was faster
            opened.close()

    def asked(self, call):
        """The requests of this call so far."""
        return [request for request in self.requests if request["call"] == call]

    def last_update(self):
        """The configuration of the last update."""
        message = base64.b64decode(self.asked("appMessage")[-1]["data"])
        assert message.startswith(b"\0\0\0\x0cupdateConfig"), message
        return json.loads(message[20:])

    def push(self, line):
        """Sends a line to every client that watches."""
        for client in self._watching:
            client.sendall(json.dumps(line).encode() + b"\n")

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            self._clients.append(client)
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        with client, client.makefile("r") as lines:
            for line in lines:
                request = json.loads(line)
                self.requests.append(request)
                if request["call"] == self.hangs_up_at:
                    client.shutdown(socket.SHUT_RDWR)
                    return
                error, members = self._answer(request, client)
                reply = {"id": request["id"], "error": error, **members}
                client.sendall(json.dumps(reply).encode() + b"\n")

    def _answer(self, request, client):
        """The error and the other members of the reply."""
        call = request["call"]
        if call == "status":
            return None, {"status": {"state": self.state, "pid": os.getpid(), "version": self.version}}
        if call == "flows":
            return None, {"flows": [FLOW]}
        if call == "appMessage":
            return None, {"data": request["data"]}
        if call == "watch":
            self._watching.append(client)
        elif call == "startProxy" and self.start_error:
            self.state = "failed"
            return {"code": 1, "description": self.start_error}, {}
        elif call == "startProxy":
            values = request["protocolConfiguration"]["providerConfiguration"]
            self._status_path = values.get("socketPath", "")
            self.state = "running"
            self._tell_status(b"\1")
        elif call == "stopProxy" and self.state != "running":
            return {"code": -4, "description": "no provider is running"}, {}
        elif call == "stopProxy":
            self.state = "stopped"
            self._tell_status(b"\0as it was told")
        return None, {}

    def _tell_status(self, content):
        name = b"ApiExtensionProxyStatusCallback"
        size = len(name) + len(content)
        message = (struct.pack(">II16sQQ16sQ", 68 + size, 10, b"", 32 + size, 0, b"", len(name)) + name +
                   struct.pack(">Q", len(content)) + content)
        with socket.socket(socket.AF_UNIX) as host:
            if host.connect_ex(self._status_path) != 0:
                return
            for length in (2, 4):
                host.recv(length, socket.MSG_WAITALL)
                host.sendall(b"\0")
            host.sendall(message)


def main():
    manner = os.environ.get("FAKE_MANNER")
    if sys.argv[1:] == ["--cleanup"]:
        open(os.environ["FAKE_CLEANUP"], "w").close()
        return
    if manner == "broken":
        sys.exit("something is very wrong")
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
    error = "the kernel lacks what is needed" if manner == "fails" else None
    provider = FakeProvider(sys.argv[-1], start_error=error)
    if manner == "dies":
        while not provider.asked("startProxy"):
            signal.sigtimedwait([signal.SIGTERM], 0.01)
        signal.sigtimedwait([signal.SIGTERM], 0.05)
        os.kill(os.getpid(), signal.SIGKILL)
    signal.sigwait([signal.SIGTERM])
    provider.close()


if __name__ == "__main__":
    main()
