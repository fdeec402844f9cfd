"""Network namespaces of our own, and the processes in them. Nothing outside of them is changed. What
an interrupted run left is removed by the next: names carry the number of the process that made
them."""

import ctypes
import os
import re
import shutil
import signal
import subprocess
import threading
import time

#: Divides amounts of data and flows, multiplies times; a daemon under a sanitizer is several times
#: slower, and so is a whole machine that is emulated.
SLOWNESS = int(os.environ.get("TANDOR_E2E_SLOWNESS", "1"))
#: Where the session lives that runs these tests: the daemon refuses to start there.
PROTECTED = os.readlink("/proc/self/ns/net")
#: How long anything may take that is expected to happen.
PATIENCE = 20 * max(1, SLOWNESS // 2)

_libc = ctypes.CDLL(None, use_errno=True)


def eventually(condition, what="", patience=None):
    """Waits until `condition()` is true and returns its value; fails when it never is."""
    deadline = time.monotonic() + (patience or PATIENCE)
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"never happened: {what or condition}")
        time.sleep(0.01)


def command(*words, input=None, check=True):
    """Runs a program to its end; its output. An error shows what it said."""
    result = subprocess.run(words, input=input, text=True, capture_output=True, timeout=PATIENCE)
    if check and result.returncode != 0:
        raise AssertionError(f"{' '.join(words)}: {result.stderr or result.returncode}")
    return result.stdout if check else result


def sweep(prefix):
    """Removes the namespaces and folders of runs that are no more; their names begin with `prefix`,
    and the number of the process that made them follows."""
    for folder in ("/run/netns", "/tmp"):
        for name in os.listdir(folder) if os.path.isdir(folder) else ():
            match = re.fullmatch(prefix + r"(\d+)-.*", name)
            if not match or os.path.exists(f"/proc/{match[1]}"):
                continue
            if folder == "/tmp":
                shutil.rmtree(f"/tmp/{name}", ignore_errors=True)
            else:
                command("ip", "netns", "del", name, check=False)


def _die_with_runner():
    """A child of a runner that was killed ends with it."""
    pr_set_pdeathsig = 1
    _libc.prctl(pr_set_pdeathsig, signal.SIGKILL)


class Namespace:
    """A network namespace. `with` puts the calling thread in, so that its new sockets are there."""

    _clone_newnet = 0x40000000

    def __init__(self, name):
        self.name = name
        self._home = threading.local()
        command("ip", "netns", "add", name)
        self.file = open(f"/run/netns/{name}")

    def __enter__(self):
        self._home.file = open("/proc/thread-self/ns/net")
        self._move(self.file)
        return self

    def __exit__(self, *_):
        self._move(self._home.file)
        self._home.file.close()

    def _move(self, file):
        if _libc.setns(file.fileno(), self._clone_newnet) != 0:
            os._exit(70)  # a thread in the wrong place could do harm

    def ip(self, script):
        command("ip", "-n", self.name, "-batch", "-", input=script)

    def run(self, *words, **options):
        return command("ip", "netns", "exec", self.name, *words, **options)

    def popen(self, *words, **options):
        options.setdefault("env", {**os.environ, "TANDOR_PROTECTED_NETNS": PROTECTED})
        return subprocess.Popen(["ip", "netns", "exec", self.name, *words],
                                preexec_fn=_die_with_runner, **options)

    def read(self, path):
        """A file that shows the namespace of whoever reads it; empty when the kernel has none, since
        the module that makes it has not been needed yet."""
        try:
            with self, open(path) as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def write(self, path, text):
        with self, open(path, "w") as file:
            file.write(text)

    def received(self, interface):
        """Packets that came in."""
        table = self.read("/proc/thread-self/net/dev")
        return int(re.search(rf"{interface}:\s*\d+\s+(\d+)", table)[1])

    def remove(self):
        self.file.close()
        command("ip", "netns", "del", self.name)


def end(process):
    """Ends a process of ours, whatever it does."""
    if process.poll() is None:
        process.kill()
    process.wait(PATIENCE)
    for stream in (process.stdin, process.stdout):
        if stream:
            stream.close()
