"""What an unprivileged user of the machine may try. Runs as such a user, in a process of its own, and
obeys an Application of lab.py."""

import ctypes
import os
import select
import socket
import sys
import time

sys.path[:0] = [os.path.dirname(os.path.abspath(__file__)),
                os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e")]
import clients  # noqa: E402
from tags import SERVER, WEB  # noqa: E402

CLONE_NEWNS, CLONE_NEWUSER, MS_BIND = 0x20000, 0x10000000, 4096
_libc = ctypes.CDLL(None, use_errno=True)


def checked(result):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def become_root_of(folder, terminal=None):
    """A user namespace of its own with another root directory; there, a terminal stands for the file
    that names an application."""
    user, group = os.getuid(), os.getgid()
    checked(_libc.unshare(CLONE_NEWUSER | CLONE_NEWNS))
    for name, text in (("setgroups", "deny"), ("uid_map", f"0 {user} 1"), ("gid_map", f"0 {group} 1")):
        with open(f"/proc/self/{name}", "w") as file:
            file.write(text)
    if terminal:
        checked(_libc.mount(terminal.encode(), f"{folder}/.flatpak-info".encode(), None, MS_BIND, None))
    os.chroot(folder)


def offer_flow():
    """A new flow, which the daemon asks about; whether the machine let it through."""
    with socket.socket() as stream:
        stream.settimeout(20)
        stream.connect((SERVER, WEB))


def in_child(work):
    """Does it in a process of its own; whether it came to its end."""
    child = os.fork()
    if child == 0:
        try:
            work()
            os._exit(0)
        except PermissionError:
            os._exit(77)  # this machine's users may not
        finally:
            os._exit(1)
    status = os.waitpid(child, 0)[1]
    return status == 0 or os.waitstatus_to_exitcode(status) == 77


def fresh(folder, name):
    path = f"{folder}/{name}-{time.monotonic_ns()}"
    os.mkdir(path)
    return path


def pose_with_pipe(folder):
    """The file that names an application is a pipe, which holds whoever opens it."""
    root = fresh(folder, "pipe")
    os.mkfifo(root + "/.flatpak-info")
    return in_child(lambda: (become_root_of(root), offer_flow()))


def pose_with_terminal(folder):
    """It is a terminal, which is then hung up."""
    root = fresh(folder, "terminal")
    open(root + "/.flatpak-info", "w").close()
    controller, terminal = os.openpty()
    done = in_child(lambda: (become_root_of(root, os.ttyname(terminal)), offer_flow()))
    os.close(terminal)
    os.close(controller)
    return done


def flood(folder, count):
    """Processes that each claim to be another application, with names as long as they like."""
    root = fresh(folder, "flood")

    def claim(number):
        with open(root + "/.flatpak-info", "w") as file:
            file.write(f"[Application]\nname={number}." + "x" * 60_000)
        become_root_of(root)
        offer_flow()

    return all(in_child(lambda number=number: claim(number)) for number in range(count))


def squat(ports, seconds):
    """Binds those ports beside whoever has them; how many datagrams came that were not meant for it."""
    squatters, stolen = [], 0
    for port in ports:
        for kind in (socket.SOCK_DGRAM, socket.SOCK_STREAM):
            for option in (socket.SO_REUSEADDR, socket.SO_REUSEPORT):
                for place in ("0.0.0.0", "127.0.0.1"):
                    squatter = socket.socket(socket.AF_INET, kind)
                    squatter.setsockopt(socket.SOL_SOCKET, option, 1)
                    try:
                        squatter.bind((place, port))
                        if kind == socket.SOCK_STREAM:
                            squatter.listen()
                        squatters.append(squatter)
                    except OSError:
                        squatter.close()
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        for squatter in select.select(squatters, [], [], 0.2)[0]:
            stolen += 1
            if squatter.type == socket.SOCK_DGRAM:
                squatter.recv(1 << 16)
            else:
                squatter.accept()[0].close()
    for squatter in squatters:
        squatter.close()
    return stolen


if __name__ == "__main__":
    clients.main(**globals())
