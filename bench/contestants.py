"""The contestants: who is between the client and the server. Each is started once, in a namespace of
its own, and stays."""

import os
import resource
import shutil
import socket
import subprocess

from places import PORT, PROXY, PROXY_PORT, Client, Failed, command, end, eventually
from lab import Daemon

RELAY_PORT = 15001
CHECKED_BYTES = 256 << 20


class Contestant:
    """Nobody: the client talks to the server."""

    name = "none"
    mode = "direct"
    speaks_connect = False
    carries_datagrams = True
    descriptors_a_flow = 1

    def __init__(self, lab, placement, site=None):
        self.lab, self.placement = lab, placement
        self.client = lab.client
        self.site = site or lab.site(f"{self.name}-{len(placement.all)}")
        self.process = None

    def start(self):
        """Starts it and installs its rules; raises Failed when that is not to be had."""

    def pids(self):
        """Its processes, now."""
        return [self.process.pid] if self.process else []

    def check(self):
        """Moves checked bytes both ways."""
        Client(self.lab, self, "check", "--size", CHECKED_BYTES).finish()

    def run(self, *words, log="relay.log", **options):
        """Starts its program in its namespace, until the end of the benchmark."""
        path = f"{self.lab.folder}/{self.name}-{log}"
        with open(path, "w") as file:
            self.process = self.site.popen(*words, cpus=self.placement.relay, stdout=file,
                                           stderr=file, stdin=subprocess.DEVNULL, **options)
        process = self.process
        self.lab.on_close(lambda: end(process))

        def listens():
            if process.poll() is not None:
                with open(path) as log_file:
                    raise Failed(f"{words[0]} ends: {log_file.read().strip()[-300:]}")
            return f":{RELAY_PORT:04X} 00000000:0000 0A" in \
                self.site.namespace.read("/proc/thread-self/net/tcp")
        eventually(listens, f"{words[0]} listens")

    def write(self, name, text):
        path = f"{self.lab.folder}/{self.name}-{name}"
        with open(path, "w") as file:
            file.write(text)
        return path

    def program(self, name):
        path = shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin")
        if not path:
            raise Failed(f"{name} is not installed")
        return path


class NoneConnect(Contestant):
    """Nobody, but the client itself asks the proxy for a tunnel."""

    name = "none-connect"
    mode = "connect"
    speaks_connect = True
    carries_datagrams = False


class Tandor(Contestant):
    name = "tandor"
    descriptors_a_flow = 2
    configuration = {"mode": "directlyWhiteList"}

    def start(self):
        cpus = ",".join(map(str, self.placement.relay))
        # The daemon of the end-to-end tests, which asks its laboratory for a folder and a namespace.
        surroundings = type("Surroundings", (), {"folder": self.lab.folder,
                                                 "app": self.site.namespace})
        try:
            daemon = Daemon(surroundings, ("taskset", "-c", cpus), self.lab.provider)
            self.process = daemon.process
            self.lab.on_close(daemon.end)
            daemon.start(apps=[self.client], debug="false", **self.configuration)
        except AssertionError as error:
            raise Failed(str(error)) from None
        self.daemon = daemon


class TandorConnect(Tandor):
    name = "tandor-connect"
    mode = "connect"
    carries_datagrams = False
    configuration = {"mode": "webProxy", "connectReply": "status",
                     "proxyHostname": PROXY, "proxyPort": str(PROXY_PORT)}


class TandorLeft(Contestant):
    """An application that is not on the list, beside one that is."""

    name = "tandor-left"
    mode = "left"

    def __init__(self, lab, placement, tandor):
        super().__init__(lab, placement, tandor.site)
        self.client = lab.other_client
        self._tandor = tandor

    def pids(self):
        return self._tandor.pids()


class Transparent(Contestant):
    """A peer that gets the packets as they are; its own are known by their address."""

    carries_datagrams = False
    descriptors_a_flow = 2

    def divert(self):
        site = self.site
        site.namespace.ip(f"""
            rule add pref 100 fwmark 1 lookup 100
            route add local default dev lo table 100""")
        site.namespace.run("iptables-restore", "-w", input=f"""*mangle
-A OUTPUT -p tcp --dport {PORT} ! -s {site.relay_address} -j MARK --set-mark 1
-A PREROUTING -i lo -p tcp --dport {PORT} -m mark --mark 1 -j TPROXY --on-ip 127.0.0.1 --on-port {RELAY_PORT}
COMMIT
""")


class HAProxy(Transparent):
    name = "haproxy"
    splicing = ""
    pipes = 0

    def start(self):
        # 2 descriptors a flow, 2 a pipe, some for itself.
        flows = (descriptor_limit() - 2 * self.pipes - 200) // 2
        configuration = self.write("relay.cfg", f"""
global
    nbthread {len(self.placement.relay)}
    maxconn {flows}
    maxpipes {self.pipes}
defaults
    mode tcp
    timeout connect 10s
    timeout client 1h
    timeout server 1h
    {self.splicing}
listen relay
    bind 127.0.0.1:{RELAY_PORT} transparent
    server original * source {self.site.relay_address}
""")
        self.run(self.program("haproxy"), "-db", "-f", configuration)
        self.divert()


class HAProxySplice(HAProxy):
    name = "haproxy-splice"
    splicing = "option splice-request\n    option splice-response"
    pipes = 800


class Nginx(Transparent):
    name = "nginx"

    def start(self):
        program = self.program("nginx")
        if not os.path.exists("/usr/lib/nginx/modules/ngx_stream_module.so"):
            raise Failed("nginx's stream module is not installed")
        configuration = self.write("relay.conf", f"""
load_module /usr/lib/nginx/modules/ngx_stream_module.so;
daemon off;
worker_processes {len(self.placement.relay)};
worker_rlimit_nofile {descriptor_limit()};
pid {self.lab.folder}/{self.name}.pid;
error_log stderr crit;
events {{ worker_connections {descriptor_limit() - 100}; }}
stream {{
    server {{
        listen 0.0.0.0:{RELAY_PORT};
        proxy_pass $server_addr:$server_port;
        proxy_bind {self.site.relay_address};
        proxy_connect_timeout 10s;
        proxy_timeout 1h;
    }}
}}
""")
        # It makes no transparent listener itself, but takes one over, as from its predecessor.
        with self.site.namespace:
            listener = socket.socket()
        with listener:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.setsockopt(socket.SOL_IP, 19, 1)  # IP_TRANSPARENT
            listener.bind(("0.0.0.0", RELAY_PORT))
            listener.listen(4096)
            self.run(program, "-c", configuration, pass_fds=[listener.fileno()],
                     env={**os.environ, "NGINX": f"{listener.fileno()};"})
        eventually(lambda: len(self.pids()) > len(self.placement.relay), "nginx's workers start")
        self.divert()

    def pids(self):
        if not self.process:
            return []
        pid = self.process.pid
        with open(f"/proc/{pid}/task/{pid}/children") as children:
            return [pid, *map(int, children.read().split())]


class Redsocks(Contestant):
    name = "redsocks"
    mode = "connect"
    carries_datagrams = False
    descriptors_a_flow = 2
    splice = "false"

    def start(self):
        configuration = self.write("relay.conf", f"""
base {{
    log_debug = off; log_info = off; log = stderr;
    daemon = off;
    redirector = iptables;
    rlimit_nofile = {descriptor_limit()};
}}
redsocks {{
    local_ip = 127.0.0.1; local_port = {RELAY_PORT};
    ip = {PROXY}; port = {PROXY_PORT};
    type = http-connect;
    listenq = 4096;
    splice = {self.splice};
}}
""")
        self.run(self.program("redsocks"), "-c", configuration)
        self.site.namespace.run("iptables-restore", "-w", input=f"""*nat
-A OUTPUT -p tcp --dport {PORT} -j REDIRECT --to-ports {RELAY_PORT}
COMMIT
""")
        self.lab.set(self.site.namespace)


class RedsocksSplice(Redsocks):
    name = "redsocks-splice"
    descriptors_a_flow = 6  # two pipes
    splice = "true"


#: In the order of the report.
ALL = [Contestant, Tandor, HAProxy, HAProxySplice, Nginx, NoneConnect, TandorConnect, Redsocks,
       RedsocksSplice, TandorLeft]
NAMES = [kind.name for kind in ALL]


def descriptor_limit():

    return min(resource.getrlimit(resource.RLIMIT_NOFILE)[1], 1 << 16)


def start_all(lab, placement, names):
    """Those of these names that work, and why the others do not."""
    working, failed = {}, {}
    for kind in ALL:
        if kind.name not in names:
            continue
        try:
            if kind is TandorLeft:
                if Tandor.name not in working:
                    raise Failed("needs tandor")
                contestant = kind(lab, placement, working[Tandor.name])
            else:
                contestant = kind(lab, placement)
            contestant.start()
            contestant.check()
            working[kind.name] = contestant
        except (Failed, AssertionError) as error:
            failed[kind.name] = str(error)
    return working, failed
