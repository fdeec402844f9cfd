"""The contestants: who is between the client and the server. Each is started once, in a namespace of
its own, and stays."""

import os
import resource
import shutil
import socket
import subprocess
import types

from places import PORT, PROXY, PROXY_PORT, Client, Daemon, Failed, end, eventually

RELAY_PORT = 15001
CHECKED_BYTES = 256 << 20


class Contestant:
    """Nobody: the client talks to the server."""

    name = "none"
    mode = "direct"
    speaks_connect = False
    carries_datagrams = True
    descriptors_a_flow = 1
    most_cores = 2

    def __init__(self, lab, placement, site=None):
        self.lab, self.placement = lab, placement
        self.client = lab.client
        self.site = site or lab.site(f"{self.name}-{len(placement.all)}")
        self.process = None

    def start(self):
        """Starts it and installs its rules; raises Failed when that is not to be had."""

    def restart(self):
        """Makes it as new as at the start."""

    def idle_flows(self):
        """So many flows it can keep."""
        spare = 2000
        return min(self.lab.most_idle_flows, (descriptor_limit() - spare) // self.descriptors_a_flow)

    def pids(self):
        """Its processes, now."""
        return [self.process.pid] if self.process else []

    def check(self):
        """Moves checked bytes both ways."""
        Client(self.lab, self, "check", "--size", CHECKED_BYTES).finish()


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

    def provider(self):
        return self.lab.provider

    def start(self):
        if not self.provider():
            raise Failed("no other provider was given")
        cpus = ",".join(map(str, self.placement.relay))
        # The daemon of the end-to-end tests, which asks its laboratory for a folder and a namespace.
        surroundings = types.SimpleNamespace(folder=self.lab.folder, app=self.site.namespace)
        try:
            self._daemon = Daemon(surroundings, ("taskset", "-c", cpus), self.provider())
            self.lab.on_close(self._daemon.end)
            self.process = self._daemon.process
            self._daemon.start(apps=[self.client], debug="false", **self.configuration)
        except AssertionError as error:
            raise Failed(str(error)) from None

    def restart(self):
        self._daemon.terminate()
        self._daemon.end()
        self.start()


class TandorConnect(Tandor):
    name = "tandor-connect"
    mode = "connect"
    carries_datagrams = False
    configuration = {"mode": "webProxy", "connectReply": "status",
                     "proxyHostname": PROXY, "proxyPort": str(PROXY_PORT)}


class Before(Tandor):
    """Another build of ours, to compare with."""

    name = "before"

    def provider(self):
        return self.lab.other_provider


class BeforeConnect(TandorConnect):
    name = "before-connect"
    provider = Before.provider


class TandorLeft(Contestant):
    """An application that is not on the list, beside one that is."""

    name = "tandor-left"
    mode = "left"
    beside = Tandor.name

    def __init__(self, lab, placement, tandor):
        super().__init__(lab, placement, tandor.site)
        self.client = lab.other_client
        self._tandor = tandor

    def pids(self):
        return self._tandor.pids()


class BeforeLeft(TandorLeft):
    name = "before-left"
    beside = Before.name


class Peer(Contestant):
    """A program of the distribution with a configuration file."""

    carries_datagrams = False
    descriptors_a_flow = 2

    def launch(self):
        """Starts the program."""

    def divert(self):
        """Brings the flows to it."""

    def start(self):
        self.launch()
        self.divert()

    def restart(self):
        end(self.process)
        eventually(lambda: not self.listens(), f"{self.name} is gone")
        self.launch()

    def listens(self):
        return f":{RELAY_PORT:04X} 00000000:0000 0A" in \
            self.site.namespace.read("/proc/thread-self/net/tcp")

    def run(self, *words, **options):
        """Starts a program in its namespace, until the end of the benchmark, and awaits its
        listening."""
        path = f"{self.stem}.log"
        with open(path, "w") as file:
            process = self.site.popen(*words, cpus=self.placement.relay, stdout=file, stderr=file,
                                      stdin=subprocess.DEVNULL, **options)
        self.process = process
        self.lab.on_close(lambda: end(process))

        def is_ready():
            if process.poll() is not None:
                with open(path) as log:
                    raise Failed(f"{words[0]} ends: {log.read().strip()[-300:]}")
            return self.listens()
        eventually(is_ready, f"{words[0]} listens")

    @property
    def stem(self):
        """What the names of its files begin with."""
        return f"{self.lab.folder}/{self.name}-{len(self.placement.all)}"

    def configuration(self, text):
        path = f"{self.stem}.conf"
        with open(path, "w") as file:
            file.write(text)
        return path

    def program(self, name):
        path = shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin")
        if not path:
            raise Failed(f"{name} is not installed")
        return path


class Transparent(Peer):
    """A peer that gets the packets as they are; its own are known by their address."""

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

    def launch(self):
        # 2 descriptors a flow, 2 a pipe, some for itself.
        flows = (descriptor_limit() - 2 * self.pipes - 200) // 2
        configuration = self.configuration(f"""
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


class HAProxySplice(HAProxy):
    name = "haproxy-splice"
    splicing = "option splice-request\n    option splice-response"
    pipes = 800


class Nginx(Transparent):
    name = "nginx"

    def launch(self):
        program = self.program("nginx")
        if not os.path.exists("/usr/lib/nginx/modules/ngx_stream_module.so"):
            raise Failed("nginx's stream module is not installed")
        configuration = self.configuration(f"""
load_module /usr/lib/nginx/modules/ngx_stream_module.so;
daemon off;
worker_processes {len(self.placement.relay)};
user root;
worker_rlimit_nofile {descriptor_limit()};
pid {self.stem}.pid;
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
            # Its workers would outlive it, were they not in a process namespace that ends with it.
            self.run("unshare", "--pid", "--fork", "--kill-child", program, "-c", configuration,
                     pass_fds=[listener.fileno()],
                     env={**os.environ, "NGINX": f"{listener.fileno()};"})
        of_its_own = 2  # unshare and the master
        eventually(lambda: len(self.pids()) == of_its_own + len(self.placement.relay),
                   "nginx's workers start")

    def pids(self):
        return descendants(self.process.pid) if self.process else []


class Redsocks(Peer):
    name = "redsocks"
    mode = "connect"
    most_cores = 1
    splice = "false"

    def launch(self):
        configuration = self.configuration(f"""
base {{
    log_debug = off; log_info = off; log = stderr;
    daemon = off;
    redirector = iptables;
    rlimit_nofile = {descriptor_limit()};
    redsocks_conn_max = {self.idle_flows() + 500};
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

    def divert(self):
        self.site.namespace.run("iptables-restore", "-w", input=f"""*nat
-A OUTPUT -p tcp --dport {PORT} -j REDIRECT --to-ports {RELAY_PORT}
COMMIT
""")


class RedsocksSplice(Redsocks):
    name = "redsocks-splice"
    descriptors_a_flow = 6  # two pipes
    splice = "true"


#: In the order of the report.
ALL = [Contestant, Tandor, Before, HAProxy, HAProxySplice, Nginx, NoneConnect, TandorConnect,
       BeforeConnect, Redsocks, RedsocksSplice, TandorLeft, BeforeLeft]
NAMES = [kind.name for kind in ALL]
#: Only to be had with another build.
BEFORE = [kind.name for kind in (Before, BeforeConnect, BeforeLeft)]


def descriptor_limit():

    return min(resource.getrlimit(resource.RLIMIT_NOFILE)[1], 1 << 16)


def descendants(pid):
    """The process and its children, and theirs."""
    with open(f"/proc/{pid}/task/{pid}/children") as children:
        return [pid, *(one for child in children.read().split() for one in descendants(int(child)))]


def start_all(lab, placement, names):
    """Those of these names that work, and why the others do not."""
    working, failed = {}, {}
    for kind in ALL:
        if kind.name not in names or kind.most_cores < len(placement.relay):
            continue
        try:
            if issubclass(kind, TandorLeft):
                if kind.beside not in working:
                    raise Failed(f"needs {kind.beside}")
                contestant = kind(lab, placement, working[kind.beside])
            else:
                contestant = kind(lab, placement)
            contestant.start()
            lab.set(contestant.site.namespace)
            contestant.check()
            working[kind.name] = contestant
        except (Failed, AssertionError, OSError) as error:
            failed[kind.name] = str(error)
    return working, failed
