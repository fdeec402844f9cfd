"""The daemon's control socket, whatever comes over it; its launch and its end."""

import json
import os
import signal
import socket
import stat
import threading

from daemon import PROVIDER, Control, ControlError
from lab import SERVER, EndToEnd
from namespaces import PATIENCE, SLOWNESS, eventually
from peers import Echo, Listener


class ControlSocket(EndToEnd):
    def connect(self):
        return self.closing(Control(self.daemon.path))

    def test_answers_whatever_it_is_asked(self):
        deep = "[" * 100_000
        nested = deep + "]" * len(deep)

        def start_with(configuration):
            return '{"call":"startProxy","protocolConfiguration":%s}' % configuration

        cases = {0: ['{"call":"status"}', '{"call":"flows"}', '{"call":"watch","flows":true}'],
                 -1: ['{"call":7}', "{}", "", "status", "[]", '{"call":"status"', b'{"call":"\xff"}',
                      "\0{}", '{"call":"status","id":' + deep, '{"call":"status","id":%s}' % nested,
                      start_with(nested)],
                 -2: ['{"call":"Status"}'],
                 -3: ['{"call":"watch"}', '{"call":"stopProxy","reason":"now"}', start_with("5"),
                      '{"call":"stopProxy","reason":4294967297}',
                      '{"call":"stopProxy","reason":-2147483649}',
                      '{"call":"stopProxy","reason":18446744073709551615}',
                      '{"call":"appMessage","data":"A"}', '{"call":"appMessage"}',
                      start_with('{"type":"NETunnelProviderProtocol","providerConfiguration":5}')],
                 -4: ['{"call":"stopProxy"}', '{"call":"sleep"}', '{"call":"wake"}',
                      '{"call":"appMessage","data":"AAAA"}']}
        control = self.connect()
        for code, requests in cases.items():
            for request in requests:
                with self.subTest(request[:80]):
                    control.send(request.encode() if isinstance(request, str) else request)
                    reply = control.line()
                    self.assertEqual(reply["error"]["code"] if reply["error"] else 0, code)
                    self.assertIsNone(reply["id"])
        for number in (None, True, -1, 1.5, "text\0é", {"a": [1, {}]}, [[]]):
            control.send(json.dumps({"call": "status", "id": number}).encode())
            self.assertEqual(control.line()["id"], number)
        status = self.daemon.status()
        self.assertIn(status["state"], ("idle", "stopped"))
        self.assertEqual(status["pid"], self.daemon.process.pid)
        self.assertEqual(status["flows"]["open"], 0)

    def test_many_clients_and_bad_ones(self):
        clients = [self.connect() for _ in range(100)]
        for number, client in enumerate(clients):
            for request in range(10):
                client.send(json.dumps({"id": [number, request], "call": "status"}).encode())
            if number % 3 == 0:
                client.send(b'{"call":', end=b"")
            if number % 3 == 1:
                client.finish_sending()
        deaf = self.connect()
        for _ in range(2000):
            deaf.send(b'{"call":"status"}')
        endless = self.connect()
        self.assertRaises(OSError, endless.send, b" " * (9 << 20))
        self.assertEqual(endless.line()["error"]["code"], -1)
        for number, client in enumerate(clients):
            self.assertEqual([client.line()["id"] for _ in range(10)],
                             [[number, request] for request in range(10)])
        self.daemon.call("status", x="x" * 1_000_000)  # just within what a line may have

    def long_application(self):
        """One whose flows are thousands of bytes each to tell of."""
        name = "/".join(["d" * 250] * 14) + "/long"
        os.makedirs(os.path.dirname(f"{self.lab.folder}/{name}"))
        return self.closing(self.lab.application(name))

    def test_long_answers_and_slow_readers(self):
        application, count = self.long_application(), 1500
        self.closing(Echo(self.lab.net, (SERVER, 80)))
        self.daemon.start("directlyWhiteList", [application.program])
        watcher = self.connect()
        watcher.call("watch", flows=True)
        with self.assertRaisesRegex(ControlError, "watches the flows already"):
            watcher.call("watch", flows=True)
        application.call("connect_many", (SERVER, 80), count)
        eventually(lambda: self.daemon.status()["flows"]["open"] == count)
        # Requests behind a long answer wait for it, whenever it is read.
        slow = self.connect()
        for call in ("flows", "status", "flows", "status"):
            slow.send(json.dumps({"id": call, "call": call}).encode())
        self.assertEqual(len(self.daemon.flows()), count)
        for call in ("flows", "status", "flows", "status"):
            reply = slow.line()
            self.assertEqual((reply["id"], reply["error"]), (call, None))
            if call == "flows":
                self.assertGreater(len(json.dumps(reply)), 5 << 20)
                self.assertEqual({flow["app"] for flow in reply["flows"]}, {application.program})
                self.assertEqual(len({flow["id"] for flow in reply["flows"]}), count)
        # Flows end while they are listed.
        slow.send(b'{"id":"late","call":"flows"}')
        application.call("release_all")
        self.daemon.await_no_flows()
        self.assertLessEqual(len(slow.line()["flows"]), count)
        # What a slow watcher has lost it is told when it reads, not when something happens again.
        known = lost = 0
        while known + lost < 2 * count:
            event = watcher.line()
            known += event["event"] != "gap"
            lost += event.get("lost", 0)
        self.assertEqual(known + lost, 2 * count)
        self.assertGreater(lost, 0)
        application.connect((SERVER, 80)).close()
        self.assertEqual([watcher.line()["event"] for _ in range(2)], ["open", "close"])

    def test_closed_flows_are_not_open(self):
        """One that has been closed may still have bytes to deliver, for as long as it takes."""
        self.start("directlyWhiteList")
        server = self.closing(Listener(self.lab.net, (SERVER, 80)))
        flow = self.listed.connect((SERVER, 80))
        flow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        flow.sendall(b"x")
        peer = server.accept()
        peer.read(1)
        peer.send(bytes(60_000))  # which the relay accepts, however little the kernel's buffers take
        peer.close()
        eventually(lambda: self.daemon.status()["flows"]["open"] == 0, "it is closed")
        self.assertEqual(self.daemon.flows(), [])
        self.assertEqual(flow.read(), bytes(60_000))
        flow.close()

    def test_watchers_that_hang_up_are_forgotten_without_any_flow(self):
        for ending in ("close", "finish_sending"):
            watchers = [self.connect() for _ in range(10)]
            for watcher in watchers:
                watcher.call("watch", flows=True)
                getattr(watcher, ending)()
            eventually(lambda: self.daemon.descriptors() <= self.daemon.idle_descriptors, ending)

    def test_a_start_that_cannot_be_parsed_ends_the_process(self):
        kind, values = "NETunnelProviderProtocol", {"mode": "directlyWhiteList", "appIds": "[]"}
        no_type = 'parseFailed("invalid protocolConfiguration type")'
        cases = ((None, 0, no_type),
                 ({"type": "NEVPNProtocolIPSec", "providerConfiguration": values}, 0, no_type),
                 ({"type": kind}, 0, 'parseFailed("provider configuration is nil")'),
                 ({"type": kind, "providerConfiguration": {**values, "mode": 5}}, 0,
                  'parseFailed("invalid mode")'),
                 ({"type": kind, "providerConfiguration": {**values, "appIds": "[1]"}}, 3,
                  'invalidJson("[1]")'))
        for configuration, code, description in cases:
            with self.subTest(configuration):
                daemon = self.lab.daemon()
                daemon.control.send(json.dumps({
                    "id": "x", "call": "startProxy", "protocolConfiguration": configuration}).encode())
                self.assertEqual(daemon.control.line(),
                                 {"id": "x", "error": {"code": code, "description": description}})
                self.assertEqual(daemon.process.wait(PATIENCE), 0)
                self.assertFalse(os.path.exists(daemon.path))

    def test_the_log_goes_where_it_is_told(self):
        path = self.lab.folder + "/redirected"
        with open(path, "w") as log:
            log.write("earlier\n")
        daemon = self.lab.daemon()
        daemon.start("directlyWhiteList", [], logPath=path)
        self.assertEqual(daemon.terminate(), 0)
        with open(path) as log:
            redirected = log.read()
        self.assertTrue(redirected.startswith("earlier\n"))
        for line in ("] parse config succeed: ", "] stop proxy with reason:"):
            self.assertIn(line, redirected)
            self.assertNotIn(line, daemon.log())
        self.assertIn("redirect log to: " + path, daemon.log())

    def test_logs_that_nobody_can_write(self):
        """What is no file counts as one that cannot be opened, and is not waited for."""
        fifo = self.lab.folder + "/fifo"
        os.mkfifo(fifo)
        master, slave = os.openpty()
        daemon = self.lab.daemon(wrapper=("setsid",))  # it could get a controlling terminal
        for path in (fifo, os.ttyname(slave), "/dev/zero", self.lab.folder, fifo + "/none"):
            with self.subTest(path):
                daemon.start("directlyWhiteList", [], logPath=path)
                self.assertIn("] redirect failed to open file " + path, daemon.log())
                daemon.call("stopProxy")
        os.close(slave)
        os.close(master)  # the terminal hangs up
        daemon.start("directlyWhiteList", [], logPath="/dev/null")
        before = daemon.log()
        self.assertEqual(daemon.terminate(), 0)
        self.assertEqual(daemon.log(), before)

    def test_standard_descriptors_that_are_closed(self):
        """Nothing else of the daemon has their numbers when the log goes to a file."""
        wrapper = ("sh", "-c", 'exec "$0" "$@" <&- >&- 2>&-')
        daemon = self.lab.daemon(wrapper=wrapper)
        path = self.lab.folder + "/redirected-from-nothing"
        daemon.start("directlyWhiteList", [], logPath=path)
        self.assertEqual(daemon.status()["state"], "running")
        standard = [os.readlink(f"/proc/{daemon.process.pid}/fd/{number}") for number in range(3)]
        self.assertEqual(standard, ["/dev/null", path, path])
        self.assertEqual(daemon.terminate(), 0)

    def test_a_host_application_that_does_not_answer(self):
        """It holds the start and the stop for a while, but nobody else, and no rule; a second signal
        waits no longer."""
        host = self.closing(socket.socket(socket.AF_UNIX))
        host.bind(self.lab.folder + "/host")
        host.listen()
        daemon = self.lab.daemon()

        def message():
            client, _ = host.accept()
            with client:
                for greeting in (b"ab", b"abcd"):
                    client.sendall(greeting)
                    self.assertEqual(client.recv(1), b"\0")
                with client.makefile("rb") as stream:
                    return stream.read()

        def start():
            """Starts the provider; the message of that."""
            starting = threading.Thread(target=daemon.start, args=("directlyWhiteList", []),
                                        kwargs={"socketPath": host.getsockname()})
            starting.start()
            message_of_start = message()
            starting.join()
            return message_of_start

        self.assertTrue(start().endswith(b"ApiExtensionProxyStatusCallback\0\0\0\0\0\0\0\1\1"))
        self.assertEqual(daemon.status()["state"], "running")
        stopping = self.closing(Control(daemon.path))
        stopping.send(b'{"call":"stopProxy","reason":9}')
        eventually(lambda: "stop proxy" in daemon.log())
        self.assertNotEqual(daemon.status()["state"], "stopped")
        self.assertTrue(message().endswith(b"\0stop proxy with reason:configurationDisabled(9)"))
        self.assertIsNone(stopping.line()["error"])
        self.assertEqual(daemon.status()["state"], "stopped")

        for signals, patience in ((2, 2), (1, 6)):
            start()
            daemon.process.send_signal(signal.SIGTERM)
            silent = self.closing(host.accept()[0])
            eventually(lambda: not self.lab.traces(), "the rules are gone", patience=2 * SLOWNESS)
            self.assertIsNone(daemon.process.poll())
            for _ in range(1, signals):
                daemon.process.send_signal(signal.SIGTERM)
            self.assertEqual(daemon.process.wait(patience * SLOWNESS), 0)
            daemon = self.lab.daemon()

    def test_owns_its_socket(self):
        daemon = self.lab.daemon()
        path = daemon.path
        self.assertEqual(os.stat(path).st_mode, stat.S_IFSOCK | 0o600)
        # Somebody else's connection is refused even where the file lets it in.
        os.chmod(path, 0o666)
        os.chmod(self.lab.folder, 0o755)
        stranger = ("import socket, sys; s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); "
                    "print(s.recv(1))")
        output = self.lab.app.run("setpriv", "--reuid=65534", "--clear-groups", "python3", "-c",
                                  stranger, path)
        self.assertEqual(output, "b''\n")
        # A second one leaves the first its socket; one that was left by a crash is taken over.
        second = self.lab.app.run(PROVIDER, "--control", path, check=False)
        self.assertEqual(second.returncode, 1)
        self.assertIn("already listens", second.stderr)
        self.assertEqual(daemon.status()["state"], "idle")
        daemon.kill()
        self.assertEqual(self.lab.daemon(path=path).terminate(), 0)
        self.assertFalse(os.path.exists(path))
        # The folder is made when it is missing; a socket of the service manager stays in place.
        self.assertEqual(self.lab.daemon(path=self.lab.folder + "/new/one/control").terminate(), 0)
        with socket.socket(socket.AF_UNIX) as passed:
            passed.bind(path)
            passed.listen()
            service = self.lab.app.popen(
                "sh", "-c", f"LISTEN_PID=$$ LISTEN_FDS=1 exec {PROVIDER} 3<&0", stdin=passed)
        self.closing(Control(path)).call("status")
        service.terminate()
        self.assertEqual(service.wait(PATIENCE), 0)
        self.assertTrue(os.path.exists(path))

    def test_arguments(self):
        file = self.lab.folder + "/file"
        with open(file, "w") as precious:
            precious.write("precious")
        for arguments, status in ((("--control",), 2), (("--unknown",), 2),
                                  (("--version",), 0), (("--help",), 0), (("--control", file), 1),
                                  (("--control", file + "/control"), 1), (("--control", "x" * 200), 1)):
            with self.subTest(arguments):
                result = self.lab.app.run(PROVIDER, *arguments, check=False)
                self.assertEqual(result.returncode, status, result.stderr)
        self.assertEqual(os.path.getsize(file), 8)
