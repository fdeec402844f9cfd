"""The command itself, as its users run it: against a provider that touches nothing of the machine,
and once against the real one, which is left idle."""

import json
import os
import pty
import shutil
import signal
import socket
import stat
import subprocess
import tempfile
import unittest

from fake_provider import VERSION, FakeProvider
from lab import PATIENCE, PROVIDER, eventually

PROGRAM = os.environ["TANDOR_PROGRAM"]
RUN = ("run", "--mode", "webProxy", "--proxy", "192.0.2.1:80", "--app", "id:/bin/one")
START = ("start", "--mode", "tunnelWhiteList")
RUNNING = "Ctrl-C stops it"


class Running:
    """A running `tandor`."""

    def __init__(self, program, arguments, environment, output=None):
        self._output, self._errors = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        self.process = subprocess.Popen([program, *arguments], env=environment,
                                        stdout=output or self._output, stderr=self._errors)
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
        self.process.kill()
        self.process.wait()
        self._output.close()
        self._errors.close()


class Command(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.bin = tempfile.mkdtemp() + "/bin"
        os.mkdir(cls.bin)
        cls.program = shutil.copy(PROGRAM, cls.bin + "/tandor")  # which looks beside itself
        cls.addClassCleanup(shutil.rmtree, os.path.dirname(cls.bin))

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.control = self.folder + "/control.sock"
        shutil.copy(os.path.dirname(__file__) + "/fake_provider.py", self.bin + "/tandor-provider")
        os.chmod(self.bin + "/tandor-provider", 0o755)
        self.environment = {**os.environ, "TERM": "xterm", "FAKE_CLEANUP": self.folder + "/cleaned"}
        self.environment.pop("NO_COLOR", None)

    def begin(self, *arguments, **options):
        running = Running(self.program, arguments, self.environment, **options)
        self.addCleanup(running.close)
        return running

    def begin_here(self, *arguments, **options):
        """With this test's control socket."""
        return self.begin(*arguments, "--control", self.control, **options)

    def run_with(self, *arguments):
        run = self.begin_here(*arguments)
        run.await_output(RUNNING)
        return run

    def tandor(self, *arguments, code=0, error=""):
        """Runs the command to its end, which is as expected; the command, to be asked for more."""
        done = self.begin_here(*arguments)
        self.assertEqual(done.finish(), code, done.errors)
        self.assertEqual(bool(done.errors), code != 0, done.errors)
        self.assertIn(error, done.errors)
        return done

    def provide(self, **manner):
        fake = FakeProvider(self.control, **manner)
        self.addCleanup(lambda: os.path.exists(self.control) and fake.close())
        return fake

    def folders_of(self, running, place="/run"):
        """The folders that the process has made for its sockets, and has not removed."""
        return [f"{place}/{name}" for name in os.listdir(place)
                if name.startswith("tandor-") and f"-{running.pid}-" in name]

    def write(self, name, text):
        with open(f"{self.folder}/{name}", "w") as file:
            file.write(text)
        return file.name


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
                 (2, "none.json", "start", "--config", self.folder + "/none.json"),
                 (1, "sudo tandor run", *START), (1, "no provider listens", "update", *START[1:]),
                 (2, "nothing to update", "update"), (1, "no provider listens", "stop"),
                 (1, "no provider listens", "status"),
                 (1, "no provider listens", "flows", "--watch"),
                 (1, '"advice":"start one', "status", "--json"))
        for code, text, *arguments in cases:
            with self.subTest(arguments):
                done = self.tandor(*arguments, code=code)
                self.assertIn(text, done.output + done.errors)

    def test_start_update_sleep_wake_and_stop_reach_the_provider(self):
        fake = self.provide()
        self.tandor(*START, "--app", "id:/bin/one", "--debug")
        values = fake.asked("startProxy")[0]["protocolConfiguration"]["providerConfiguration"]
        self.assertEqual(values["appIds"], '["/bin/one"]')
        self.assertEqual(stat.S_IMODE(os.stat(self.control + ".sent").st_mode), 0o600)
        # Nobody listens any more when the command has ended, and the provider knows.
        self.assertIn("socketPath", values)
        self.assertFalse(os.path.exists(os.path.dirname(values["socketPath"])))
        self.assertNotIn("socketPath", fake.last_update())

        self.tandor("update", "--app", "id:/bin/two", "--app", "id:/bin/three")
        self.assertEqual(fake.last_update(), {
            "appIds": '["/bin/two","/bin/three"]', "mode": "tunnelWhiteList", "debug": "true",
            "connectReply": "status", "enable": "true"})
        off = self.write("off.json", '{"enable": false}')
        update = self.tandor("update", "--config", off, "--no-debug", "--json")
        self.assertEqual((fake.last_update()["enable"], fake.last_update()["debug"]),
                         ("false", "false"))
        self.assertEqual(update.values[0]["configuration"]["apps"][1]["identifier"], "/bin/three")

        self.tandor(*START, code=1, error="a provider is running already")
        self.assertEqual(len(fake.asked("startProxy")), 1)
        self.tandor("sleep")
        self.assertEqual(self.tandor("wake", "--json").values[0]["state"], "running")
        self.assertEqual((len(fake.asked("sleep")), len(fake.asked("wake"))), (1, 1))
        self.tandor("stop")
        self.assertEqual(fake.asked("stopProxy")[0]["reason"], 1)
        self.assertFalse(os.path.exists(self.control + ".sent"))
        self.tandor("stop", code=1, error="no provider is running")

    def test_providers_that_cannot_be_used(self):
        for manner, error in (({"version": "0.0.1"}, "version 0.0.1"),
                              ({"start_error": "no xt_TPROXY"}, "no xt_TPROXY"),
                              ({"hangs_up_at": "startProxy"}, "the provider has hung up")):
            with self.subTest(error):
                fake = self.provide(**manner)
                self.tandor(*START, code=1, error=error)
                self.assertEqual(len(fake.asked("startProxy")), int("version" not in manner))
                self.assertFalse(os.path.exists(self.control + ".sent"))
                fake.close()

    def test_status_and_flows(self):
        self.provide()
        self.tandor(*START, "--app", "id:/bin/\x1b[2J")
        shown = self.tandor("status").output
        for text in ("running", VERSION, "tunnelWhiteList", "/bin/\\x1b[2J"):
            self.assertIn(text, shown)
        self.assertNotIn("\x1b", shown)
        status = self.tandor("status", "--json").values[0]
        self.assertEqual((status["state"], status["configuration"]["mode"]),
                         ("running", "tunnelWhiteList"))
        self.assertIn("/usr/bin/first", self.tandor("flows").output)
        self.assertEqual(self.tandor("flows", "--json").values[0][0]["id"], 7)
        for is_plain in (False, True):
            if is_plain:
                self.environment["NO_COLOR"] = "1"
            ours, theirs = pty.openpty()
            self.assertEqual(self.begin_here("status", output=theirs).finish(), 0)
            self.assertEqual("\x1b[32mrunning\x1b[0m" in os.read(ours, 1 << 16).decode(), not is_plain)
            os.close(ours)
            os.close(theirs)

    def test_watch_shows_what_happens_until_the_user_or_the_provider_ends(self):
        def event(kind, number, app):
            return {"event": kind, "flow": {
                "id": number, "app": app, "protocol": "tcp", "destination": "192.0.2.7:443",
                "outbound": "192.0.2.1:80", "bytesIn": 2048, "bytesOut": 10}}

        fake = self.provide()
        text, everything, values = (self.begin_here("flows", "--watch", *more)
                                    for more in ((), ("--all",), ("--json",)))
        for watch in (text, everything, values):
            watch.await_output("/usr/bin/first")
        opened = event("open", 8, "/bin/second" + "d" * 100_000)
        for line in (event("left", 0, "/bin/native"), {"event": "gap", "lost": 3}, opened,
                     event("close", 8, "/bin/second")):
            fake.push(line)
        for watch, shown in ((text, "2.0 kB in, 10 B out"), (everything, "2.0 kB in"),
                             (values, '"close"')):
            watch.await_output(shown)
        self.assertEqual(text.finish(signal.SIGINT), 0)
        self.assertIn("tcp 192.0.2.7:443 via 192.0.2.1:80", text.output)
        self.assertIn("3 events were lost", text.output)
        self.assertNotIn("/bin/native", text.output)
        fake.close()
        for watch in (everything, values):
            self.assertEqual(watch.finish(), 1)
            self.assertIn("the provider has ended", watch.errors)
        self.assertIn("/bin/native", everything.output)
        self.assertEqual(len(values.values), 5)
        self.assertEqual(values.values[3], opened)

    def test_apps_lists_who_has_sockets(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as bound:
            bound.bind(("127.0.0.1", 0))
            listed = self.tandor("apps", "--json").values[0]
            own = [app for app in listed if os.getpid() in app["pids"]]
            self.assertEqual([app["identifier"] for app in own], [os.readlink("/proc/self/exe")])
            self.assertGreaterEqual(own[0]["sockets"]["udp"], 1)
            self.assertIn(own[0]["identifier"], self.tandor("apps").output)

    def test_doctor_looks_at_everything_and_changes_nothing(self):
        self.provide()
        doctor = self.begin_here("doctor", "--json")
        self.assertEqual(doctor.finish() == 0, doctor.values[0]["ok"])
        checks = {check["check"]: check for check in doctor.values[0]["checks"]}
        self.assertLessEqual({"privileges", "provider program", "iptables-restore", "port 15001",
                              "packet queue 77", "default route", "packet marks"}, checks.keys())
        self.assertEqual(checks["control socket"]["result"], "ok")
        self.assertEqual(checks["provider program"]["text"], self.bin + "/tandor-provider")
        for check in checks.values():
            self.assertEqual(not check["advice"], check["result"] == "ok", check)
        os.remove(self.bin + "/tandor-provider")
        self.environment["PATH"] = "/none"
        self.assertEqual(self.begin_here("doctor").finish(), 1)

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
        share = os.path.dirname(self.bin) + "/share/tandor"
        os.makedirs(share)
        with open(share + "/demo", "w") as script:
            script.write("#!/bin/sh\necho shown; exit 3\n")
        os.chmod(share + "/demo", 0o755)
        demo = self.begin("demo")
        self.assertEqual((demo.finish(), demo.output), (3, "shown\n"))

    def test_the_real_provider(self):
        provider = subprocess.Popen([PROVIDER, "--control", self.control])
        self.addCleanup(provider.kill)
        eventually(lambda: self.begin_here("status").finish() == 0, "it listens")
        self.assertIn("idle", self.tandor("status").output)
        self.assertEqual(self.tandor("flows").output, "no flow is taken at the moment\n")
        for change in (("stop",), ("update", *START[1:])):
            self.tandor(*change, code=1, error="no provider is running")
        watch = self.begin_here("flows", "--watch", "--json")
        provider.terminate()
        self.assertEqual((provider.wait(PATIENCE), watch.finish()), (0, 1))


class Run(Command):
    def setUp(self):
        if os.geteuid() != 0:
            self.skipTest("only root may start a provider of its own")
        super().setUp()

    def test_carries_a_provider_from_its_start_to_its_end(self):
        run = self.run_with(*RUN)
        self.assertIn("started", run.output)
        self.assertIn("webProxy through 192.0.2.1:80 for 1 application", run.output)
        self.tandor("update", "--app", "id:/bin/two")
        status = self.tandor("status", "--json").values[0]
        self.assertEqual(status["state"], "running")
        self.assertEqual((status["configuration"]["appIds"], status["configuration"]["proxyPort"]),
                         ('["/bin/two"]', "80"))
        self.assertEqual(run.finish(signal.SIGINT), 0, run.errors)
        self.assertIn("stopped (as it was told)", run.output)
        self.assertEqual(run.errors, "")
        self.assertEqual(os.listdir(self.folder), [])  # nor had it to be cleaned up
        self.assertEqual(self.folders_of(run), [])

    def test_others_find_it_without_being_told_where_it_is(self):
        self.environment["RUNTIME_DIRECTORY"] = self.folder + "/none"
        run = self.begin(*RUN, "--json")
        run.await_output('"started"')
        stop = self.begin("stop")
        self.assertEqual((stop.finish(), run.finish()), (0, 0), stop.errors + run.errors)
        self.assertIn("stopped by somebody else", run.errors)
        self.assertEqual([value["event"] for value in run.values],
                         ["configured", "started", "stopped"])

    def test_stops_a_provider_that_it_found_and_leaves_its_process(self):
        fake = self.provide()
        run = self.run_with(*RUN)
        self.tandor(*RUN, code=1, error="a provider is running already")
        self.assertEqual(run.finish(signal.SIGTERM), 0, run.errors)
        self.assertEqual(len(fake.asked("stopProxy")), 1)
        self.assertEqual(self.folders_of(run, self.folder), [])

    def test_tells_how_its_provider_failed_and_cleans_up_behind_it(self):
        for manner, error, needs_cleaning in (("broken", "  something is very wrong", True),
                                              ("fails", "the kernel lacks what is needed", False),
                                              ("dies", "by signal 9", True)):
            with self.subTest(manner):
                cleaned = f"{self.folder}/{manner}"
                self.environment.update(FAKE_CLEANUP=cleaned, FAKE_MANNER=manner)
                run = self.begin(*RUN)
                self.assertEqual(run.finish(), 1)
                self.assertIn(error, run.errors)
                self.assertEqual(os.path.exists(cleaned), needs_cleaning)
                self.assertEqual(self.folders_of(run), [])

    def test_leaves_nothing_for_long_when_killed(self):
        run = self.begin(*RUN)
        run.await_output(RUNNING)
        self.assertEqual(run.finish(signal.SIGKILL), -signal.SIGKILL)
        left, = self.folders_of(run)
        eventually(lambda: not os.path.exists(left + "/control.sock"), "its provider ends by itself")
        following = self.begin(*RUN)
        following.await_output(RUNNING)
        self.assertFalse(os.path.exists(left))
        self.assertEqual(following.finish(signal.SIGINT), 0)

        self.provide()
        attached = self.run_with(*RUN)
        attached.finish(signal.SIGKILL)
        self.assertEqual(len(self.folders_of(attached, self.folder)), 1)
        self.tandor("stop")
        self.tandor(*START)
        self.assertEqual(self.folders_of(attached, self.folder), [])
