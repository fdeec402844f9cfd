"""The command, as its users run it, with the real daemon."""

import json
import os
import shutil
import signal
import socket
import stat
import subprocess
import tempfile
import time

from daemon import PROVIDER
from lab import SERVER, EndToEnd
from namespaces import PATIENCE, PROTECTED, end, eventually
from peers import Echo, QueueOwner

PROGRAM = os.environ.get("TANDOR_PROGRAM", "")
VERSION = os.environ.get("TANDOR_VERSION", "")
WEB = (SERVER, 80)
START = ("start", "--mode", "tunnelWhiteList")
RUN = ("run", "--mode", "webProxy", "--proxy", "192.0.2.1:80", "--app", "id:/bin/one")
RUNNING = "Ctrl-C stops it"


class Running:
    """A running `tandor`."""

    def __init__(self, lab, words, environment):
        self._output, self._errors = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        self.process = lab.app.popen(*words, env=environment, stdout=self._output,
                                     stderr=self._errors)
        self.pid = self.process.pid

    @property
    def output(self):
        return os.pread(self._output.fileno(), 1 << 20, 0).decode()

    @property
    def errors(self):
        return os.pread(self._errors.fileno(), 1 << 20, 0).decode()

    @property
    def values(self):
        return [json.loads(line) for line in self.output.splitlines()]

    def await_output(self, text):
        eventually(lambda: text in self.output or self.process.poll() is not None, text)
        assert text in self.output, self.errors

    def finish(self, number=None):
        """Waits for its end, which a signal may bring about; the exit status."""
        if number:
            self.process.send_signal(number)
        return self.process.wait(PATIENCE)

    def close(self):
        end(self.process)
        self._output.close()
        self._errors.close()


class Command(EndToEnd):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.bin = cls.lab.folder + "/installed/bin"
        os.makedirs(cls.bin)
        cls.program = shutil.copy(PROGRAM, cls.bin + "/tandor")  # which looks beside itself

    def setUp(self):
        super().setUp()
        shutil.copy(PROVIDER, self.bin + "/tandor-provider")
        self.echo = self.closing(Echo(self.lab.net, WEB))
        self.environment = {**os.environ, "TANDOR_PROTECTED_NETNS": PROTECTED}
        self.free = f"{self.lab.folder}/free-{time.monotonic_ns()}"  # where nobody listens

    def begin(self, *arguments, control=None):
        at = ("--control", control) if control else ()
        return self.closing(Running(self.lab, (self.program, *arguments, *at), self.environment))

    def begin_run(self, *arguments, **options):
        run = self.begin(*RUN, *arguments, **options)
        run.await_output("started" if arguments else RUNNING)
        return run

    def tandor(self, *arguments, code=0, error="", control=None):
        """Runs the command to its end, which is as expected; the command, to be asked for more."""
        done = self.begin(*arguments, control=control or self.daemon.path)
        self.assertEqual(done.finish(), code, done.errors)
        self.assertEqual(bool(done.errors), code != 0, done.errors)
        self.assertIn(error, done.errors)
        return done

    def folders_of(self, running, place="/run"):
        """The folders that the process has made for its sockets, and has not removed."""
        return [f"{place}/{name}" for name in os.listdir(place)
                if name.startswith("tandor-") and f"-{running.pid}-" in name]

    def write(self, name, text):
        with open(f"{self.lab.folder}/{name}", "w") as file:
            file.write(text)
        os.chmod(file.name, 0o755)
        return file.name

    def take_queue(self):
        """Whatever starts a provider while this is open fails."""
        return self.closing(QueueOwner(self.lab.app))


class Commands(Command):
    def test_exit_codes_and_advice(self):
        broken = self.write("broken.json", '{\n"mode": 1}')
        cases = ((0, "directly over a physical interface", "--help"),
                 (0, "--proxy HOST:PORT", "run", "--help"), (0, "tandor " + VERSION, "--version"),
                 (2, "Usage"), (2, "tandor --help", "nonsense"),
                 (2, "webProxy", "start", "--mode", "proxy"),
                 (2, "tandor flows --help", "flows", "--mode", "webProxy"),
                 (2, "bash", "completions", "tcsh"), (2, "--proxy HOST:PORT", *RUN[:3], *RUN[-2:]),
                 (2, "the port is missing", *RUN[:4], "p", *RUN[-2:]),
                 (2, "no application", *RUN, "--app", "no-such-application"),
                 (2, 'broken.json:2: "mode"', "start", "--config", broken),
                 (2, "none.json", "start", "--config", self.lab.folder + "/none.json"),
                 (1, "sudo tandor run", *START), (1, "no provider listens", "update", *START[1:]),
                 (2, "nothing to update", "update"), (1, "no provider listens", "stop"),
                 (1, "no provider listens", "status"),
                 (1, "no provider listens", "flows", "--watch"),
                 (1, '"advice":"start one', "status", "--json"))
        for code, text, *arguments in cases:
            with self.subTest(arguments):
                done = self.tandor(*arguments, code=code, control=self.free)
                self.assertIn(text, done.output + done.errors)

    def test_leads_a_provider_through_its_states(self):
        def ways(listed, unlisted):
            self.assertWay(listed, self.listed, WEB)
            self.assertWay(unlisted, self.unlisted, WEB)

        sent = self.daemon.path + ".sent"
        self.tandor("start", "--mode", "directlyWhiteList", "--app", self.listed.program, "--debug")
        eventually(lambda: self.daemon.status()["directInterface"])
        ways("eth0", "native")
        self.assertEqual(stat.S_IMODE(os.stat(sent).st_mode), 0o600)
        self.assertFalse([name for name in os.listdir(self.lab.folder) if "tandor-" in name])
        self.tandor(*START, code=1, error="a provider is running already")
        update = self.tandor("update", "--app", self.unlisted.program, "--app", "id:/bin/\x1b[2J",
                             "--json")
        self.assertEqual([app["identifier"] for app in update.values[0]["configuration"]["apps"]],
                         [self.unlisted.program, "/bin/\x1b[2J"])
        ways("native", "eth0")
        shown = self.tandor("status").output
        for text in ("running", VERSION, "directlyWhiteList", self.unlisted.program, "/bin/\\x1b[2J"):
            self.assertIn(text, shown)
        self.assertNotIn("\x1b", shown)
        status = self.tandor("status", "--json").values[0]
        self.assertEqual((status["state"], status["configuration"]["mode"],
                          status["configuration"]["debug"]), ("running", "directlyWhiteList", "true"))
        self.tandor("sleep")
        ways("native", "native")
        self.assertEqual(self.tandor("wake", "--json").values[0]["state"], "running")
        ways("native", "eth0")
        self.tandor("update", "--config", self.write("off.json", '{"enable": false}'))
        ways("native", "native")
        self.tandor("stop")
        self.assertFalse(os.path.exists(sent))
        for change in (("stop",), ("update", *START[1:])):
            self.tandor(*change, code=1, error="no provider is running")

    def test_providers_that_cannot_be_used(self):
        listener = self.closing(socket.socket(socket.AF_UNIX))
        listener.bind(self.free)
        listener.listen()
        for version, error in (("0.0.1", "version 0.0.1"), (None, "the provider has hung up")):
            start = self.begin(*START, control=self.free)
            client, _ = listener.accept()
            with client, client.makefile("rw") as stream:
                request = json.loads(stream.readline())
                status = {"state": "idle", "pid": os.getpid(), "version": version}
                if version:
                    reply = {"id": request["id"], "error": None, "status": status}
                    stream.write(json.dumps(reply) + "\n")
                    stream.flush()
                    self.assertEqual(stream.readline(), "")  # it asks no more
            self.assertEqual(start.finish(), 1)
            self.assertIn(error, start.errors)
        self.take_queue()
        self.tandor(*START, code=1, error="queue 77")
        self.assertFalse(os.path.exists(self.daemon.path + ".sent"))

    def test_flows_and_watch(self):
        self.tandor("start", "--mode", "directlyWhiteList", "--app", self.listed.program)
        self.assertEqual(self.tandor("flows").output, "no flow is taken at the moment\n")
        before = self.listed.connect(WEB)
        before.exchange([b"before"])
        self.assertIn(self.listed.program, self.tandor("flows").output)
        flow, = self.tandor("flows", "--json").values[0]
        self.assertEqual((flow["app"], flow["destination"]), (self.listed.program, f"{SERVER}:80"))
        text, everything, values = watches = [
            self.begin("flows", "--watch", *more, control=self.daemon.path)
            for more in ((), ("--all",), ("--json",))]
        for watch in watches:
            watch.await_output(self.listed.program)
        for application in (self.unlisted, self.listed):
            flow = application.connect(WEB)
            flow.exchange([b"x" * 2048])
            flow.close()
        text.await_output("2.0 kB in, 2.0 kB out")
        self.assertEqual(text.finish(signal.SIGINT), 0)
        self.assertIn(f"tcp {SERVER}:80", text.output)
        self.assertNotIn(self.unlisted.program, text.output)
        everything.await_output("2.0 kB in")
        values.await_output('"close"')
        self.daemon.terminate()
        for watch in (everything, values):
            self.assertEqual(watch.finish(), 1)
            self.assertIn("the provider has ended", watch.errors)
        self.assertIn(self.unlisted.program, everything.output)
        self.assertLessEqual({"left", "open", "close"}, {value["event"] for value in values.values})

    def test_apps_lists_who_has_sockets(self):
        self.listed.connect(WEB, "udp")
        own = [app for app in self.tandor("apps", "--json").values[0]
               if self.listed.pid in app["pids"]]
        self.assertEqual([app["identifier"] for app in own], [self.listed.program])
        self.assertEqual(own[0]["sockets"]["udp"], 1)
        self.assertIn(self.listed.program, self.tandor("apps").output)

    def test_doctor_looks_at_everything_and_changes_nothing(self):
        doctor = self.begin("doctor", "--json", control=self.daemon.path)
        self.assertEqual(doctor.finish() == 0, doctor.values[0]["ok"])
        checks = {check["check"]: check for check in doctor.values[0]["checks"]}
        self.assertLessEqual({"privileges", "provider program", "iptables-restore", "packet queue 77",
                              "default route", "packet marks"}, checks.keys())
        self.assertEqual(checks["control socket"]["result"], "ok")
        self.assertEqual(checks["provider program"]["text"], self.bin + "/tandor-provider")
        for check in checks.values():
            self.assertEqual(not check["advice"], check["result"] == "ok", check)
        os.remove(self.bin + "/tandor-provider")
        blind = self.lab.app.popen("env", "PATH=/none", self.program, "doctor",
                                   stdout=subprocess.DEVNULL)
        self.assertEqual(blind.wait(PATIENCE), 1)

    def test_completions(self):
        for line, expected in (
                ("tandor sta", "start status"), ("tandor start --mode d", "directlyWhiteList"),
                ("tandor --json run --mode ''", "webProxy directlyWhiteList tunnelWhiteList"),
                ("tandor update --pro", "--proxy"), ("tandor flows --w", "--watch"),
                ("tandor stop --mo", ""), ("tandor run --app tande", ""),
                (f"tandor start --config {self.bin[:-1]}", self.bin)):
            with self.subTest(line):
                script = (f"source <({self.program} completions bash) || exit; COMP_WORDS=({line});"
                          "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); compopt() { :; }; _tandor;"
                          'echo "${COMPREPLY[*]}"')
                bash = subprocess.run(["bash", "-c", script], capture_output=True, text=True)
                self.assertEqual(bash.stdout, expected + "\n", bash.stderr)
        for shell in ("zsh", "fish"):
            self.assertIn("tunnelWhiteList", self.tandor("completions", shell).output)

    def test_demo_runs_the_installed_script(self):
        self.tandor("demo", code=1, error="the demo is not installed")
        os.makedirs(self.lab.folder + "/installed/share/tandor")
        self.write("installed/share/tandor/demo", "#!/bin/sh\necho shown; exit 3\n")
        demo = self.begin("demo")
        self.assertEqual((demo.finish(), demo.output), (3, "shown\n"))


class Run(Command):
    def test_carries_a_provider_from_its_start_to_its_end(self):
        run = self.begin("run", "--mode", "directlyWhiteList", "--app", self.listed.program,
                         control=self.free)
        run.await_output(RUNNING)
        self.assertIn("directlyWhiteList for 1 application", run.output)
        self.tandor("update", "--app", self.unlisted.program, control=self.free)
        eventually(lambda: self.way(self.unlisted, WEB) == "eth0", "an interface is chosen")
        self.assertEqual(run.finish(signal.SIGINT), 0, run.errors)
        self.assertIn("stopped (stop proxy with reason:userInitiated(1))", run.output)
        self.assertEqual(run.errors, "")
        self.assertFalse([name for name in os.listdir(self.lab.folder) if os.path.basename(self.free) in name])
        self.assertEqual(self.folders_of(run), [])

    def test_others_find_it_without_being_told_where_it_is(self):
        self.environment["RUNTIME_DIRECTORY"] = self.lab.folder + "/none"
        run = self.begin_run("--json")
        stop = self.begin("stop")
        self.assertEqual((stop.finish(), run.finish()), (0, 0), stop.errors + run.errors)
        self.assertIn("stopped by somebody else", run.errors)
        self.assertEqual([value["event"] for value in run.values],
                         ["configured", "started", "stopped"])

    def test_stops_a_provider_that_it_found_and_leaves_its_process(self):
        run = self.begin_run(control=self.daemon.path)
        self.tandor(*RUN, code=1, error="a provider is running already")
        self.assertEqual(run.finish(signal.SIGTERM), 0, run.errors)
        self.assertEqual(self.daemon.status()["state"], "stopped")
        self.assertEqual(self.folders_of(run, self.lab.folder), [])

    def test_tells_how_its_provider_failed_and_cleans_up_behind_it(self):
        def expect(run, error):
            self.assertEqual(run.finish(), 1)
            self.assertIn(error, run.errors)
            self.assertEqual((self.folders_of(run), self.lab.traces()), ([], []))

        run = self.begin_run()
        provider, = self.lab.app.run("pgrep", "--parent", str(run.pid)).split()
        os.kill(int(provider), signal.SIGKILL)
        expect(run, "by signal 9")
        taken = self.take_queue()
        run = self.begin(*RUN)
        self.assertEqual(run.finish(), 1)
        self.assertIn("queue 77", run.errors)
        taken.close()
        broken = self.write("broken", "#!/bin/sh\necho something is very wrong >&2; exit 1\n")
        os.replace(broken, self.bin + "/tandor-provider")
        expect(self.begin(*RUN), "  something is very wrong")

    def test_leaves_nothing_for_long_when_killed(self):
        run = self.begin_run()
        self.assertEqual(run.finish(signal.SIGKILL), -signal.SIGKILL)
        left, = self.folders_of(run)
        self.assertEqual(stat.S_IMODE(os.stat(left).st_mode), 0o700)
        eventually(lambda: not os.path.exists(left + "/control.sock"), "its provider ends by itself")
        self.assertEqual(self.lab.traces(), [])
        following = self.begin_run()
        self.assertFalse(os.path.exists(left))
        self.assertEqual(following.finish(signal.SIGINT), 0)

        attached = self.begin_run(control=self.daemon.path)
        attached.finish(signal.SIGKILL)
        self.assertEqual(len(self.folders_of(attached, self.lab.folder)), 1)
        self.tandor("stop")
        self.tandor(*START)
        self.assertEqual(self.folders_of(attached, self.lab.folder), [])
