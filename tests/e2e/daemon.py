"""The daemon under test, and its control socket."""

import base64
import json
import os
import resource
import signal
import socket
import subprocess
import time

from namespaces import PATIENCE, end, eventually

PROVIDER = os.environ.get("TANDOR_PROVIDER", "")
#: What it is told to use where it needs a proxy.
PROXY = ("198.51.100.80", 3128)


class ControlError(Exception):
    def __init__(self, error):
        super().__init__(error["description"])
        self.code = error["code"]


class Control:
    """A client of the daemon's control socket."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(PATIENCE)
        self._socket.connect(path)
        self._lines = self._socket.makefile("r")
        self._last_id = 0

    def send(self, line, end=b"\n"):
        self._socket.sendall(line + end)

    def finish_sending(self):
        self._socket.shutdown(socket.SHUT_WR)

    def call(self, name, **members):
        self._last_id += 1
        self.send(json.dumps({"id": self._last_id, "call": name, **members}).encode())
        reply = self.line()
        assert reply["id"] == self._last_id, reply
        if reply["error"]:
            raise ControlError(reply["error"])
        return reply

    def line(self):
        line = self._lines.readline()
        if not line:
            raise EOFError("the daemon hung up")
        return json.loads(line)

    def close(self):
        self._lines.close()
        self._socket.close()


class Daemon:
    """A tandor-provider in the application's side."""

    def __init__(self, lab, wrapper=(), program=PROVIDER, path=None):
        self.path = path or f"{lab.folder}/control-{time.monotonic_ns()}"
        self._log_path = f"{lab.folder}/log-{time.monotonic_ns()}"
        with open(self._log_path, "w") as log:
            self.process = lab.app.popen(*wrapper, program, "--control", self.path,
                                         stderr=log, stdin=subprocess.DEVNULL)
        self.control = None
        try:
            self.control = eventually(self._connect, "it listens or ends")
            self.status()  # has it accepted us
        except (OSError, AssertionError):
            raise AssertionError(f"the daemon does not listen: {self.log()}") from None
        self.idle_descriptors = self.descriptors()

    def _connect(self):
        """Nothing as long as there is nobody, or only what a crash has left."""
        has_ended = self.process.poll() is not None
        try:
            return Control(self.path) if has_ended or os.path.exists(self.path) else None
        except OSError:
            if has_ended:
                raise

    def call(self, name, **members):
        return self.control.call(name, **members)

    def start(self, mode, apps, **keys):
        configuration = {"type": "NETunnelProviderProtocol",
                         "providerConfiguration": self._configuration(mode, apps, keys)}
        self.call("startProxy", protocolConfiguration=configuration)
        eventually(lambda: self.status()["directInterface"], "an interface is chosen")

    def update(self, mode, apps, **keys):
        content = json.dumps(self._configuration(mode, apps, keys)).encode()
        name = b"updateConfig"
        message = len(name).to_bytes(4, "big") + name + len(content).to_bytes(4, "big") + content
        self.call("appMessage", data=base64.b64encode(message).decode())

    @staticmethod
    def _configuration(mode, apps, keys):
        return {"mode": mode, "appIds": json.dumps(apps), "enable": "true", "debug": "true",
                "proxyHostname": PROXY[0], "proxyPort": str(PROXY[1]), **keys}

    def status(self):
        return self.call("status")["status"]

    def flows(self):
        return self.call("flows")["flows"]

    def await_no_flows(self):
        eventually(lambda: not self.flows(), "the last flow ends")

    def log(self):
        with open(self._log_path, errors="replace") as log:
            return log.read()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def _stat(self):
        """Its line in /proc, from the third field on."""
        with open(f"/proc/{self.process.pid}/stat") as stat:
            return stat.read().rpartition(")")[2].split()

    def cpu_seconds(self):
        return sum(map(int, self._stat()[11:13])) / os.sysconf("SC_CLK_TCK")

    def resident_bytes(self):
        return int(self._stat()[21]) * resource.getpagesize()

    def terminate(self, number=signal.SIGTERM):
        """Asks it to end; its exit status."""
        self.process.send_signal(number)
        return self.process.wait(PATIENCE)

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)

    def end(self):
        if self.control:
            self.control.close()
        end(self.process)
        assert "Sanitizer" not in self.log(), self.log()
