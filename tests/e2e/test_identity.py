"""Whose flow it is."""

import errno
import os
import shutil
import subprocess

from daemon import PROVIDER
from lab import SERVER, Application, EndToEnd
from namespaces import PATIENCE, end, eventually
from peers import Echo

WEB = (SERVER, 80)


class Identity(EndToEnd):
    #: Whether the kernel has a probe in place, if it can.
    has_probe = os.path.exists("/sys/kernel/btf/vmlinux")

    def setUp(self):
        super().setUp()
        self.echo = self.closing(Echo(self.lab.net, WEB))
        self.start("directlyWhiteList")

    def test_the_probe(self):
        folder = f"/proc/{self.daemon.process.pid}/fdinfo"
        held = []
        for number in os.listdir(folder):
            with open(f"{folder}/{number}") as file:
                held.append(file.read())
        self.assertEqual(any("raw_tracepoint" in text for text in held), self.has_probe)
        rules = self.lab.app.run("iptables-save", "-t", "mangle")
        self.assertEqual("--object-pinned" in rules, self.has_probe)
        self.assertEqual("conntrack" in rules, not self.has_probe)

    def test_a_process_that_becomes_another_program(self):
        process = self.closing(self.unlisted.twin())
        for program, way in ((self.listed, "eth0"), (self.unlisted, "native")) * 3:
            # A socket belongs to whoever has it when its flow begins.
            kept = process.socket()
            process.become(program, kept)
            self.assertWay(way, process, WEB)
            self.assertWay(way, process, WEB, "udp")
            kept = process.kept()
            kept.connect(WEB)
            self.assertEqual(kept.exchange([b"kept"]), [b"kept"])
            is_native = self.echo.heard(b"kept")[1] == kept.getsockname()
            self.assertEqual(is_native, way == "native")
            kept.close()
            del self.echo.received[:]

    def test_scripts_links_and_other_users(self):
        """The application is the program that runs: a script's interpreter, a link's target."""
        script, link = f"{self.lab.folder}/script", f"{self.lab.folder}/link"
        with open(script, "w") as file:
            file.write(f"#!{self.listed.program} -IS\nimport runpy, sys\ndel sys.argv[1:]\n"
                       f"runpy.run_path({Application.script!r}, run_name='__main__')\n")
        os.chmod(script, 0o755)
        os.symlink(self.listed.program, link)
        nobody = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                  "--inh-caps=+dac_read_search", "--ambient-caps=+dac_read_search")
        for name, application in {"script": Application(self.lab, script),
                                  "link": Application(self.lab, link),
                                  "user": Application(self.lab, self.listed.program, nobody)}.items():
            with self.subTest(name):
                self.assertWay("eth0", self.closing(application), WEB)

    def test_an_upgrade_replaces_the_executable(self):
        old = self.closing(self.listed.twin())
        shutil.copy(self.listed.program, self.listed.program + ".new")
        os.rename(self.listed.program + ".new", self.listed.program)
        self.assertTrue(os.readlink(f"/proc/{old.pid}/exe").endswith(" (deleted)"))
        for process in (old, self.closing(self.listed.twin())):
            self.assertWay("eth0", process, WEB)

    def test_a_child_connects_the_socket_of_its_parent(self):
        for application, is_taken in ((self.listed, True), (self.unlisted, False)):
            taken = self.daemon.status()["flows"]["taken"]
            self.assertTrue(application.call("fork_and_exchange", WEB, b"child"))
            self.assertEqual(self.daemon.status()["flows"]["taken"] - taken, is_taken)

    def test_the_product_itself_is_left_alone(self):
        """The command beside the daemon, whatever is configured."""
        folder = f"{self.lab.folder}/product"
        os.mkdir(folder)
        shutil.copy(PROVIDER, folder)
        shutil.copy(self.listed.program, folder + "/tandor")
        self.stop()
        daemon = self.lab.daemon(wrapper=self.wrapper, program=folder + "/tandor-provider")
        daemon.start("tunnelWhiteList", [])
        self.assertWay("eth0", self.unlisted, WEB)
        self.assertWay("native", self.closing(Application(self.lab, folder + "/tandor")), WEB)
        daemon.terminate()

    def test_flatpak_applications(self):
        """The scope of the user's systemd tells."""
        self.stop()
        self.daemon.start("directlyWhiteList", ["org.example.Listed"])
        manager = f"user.slice/user-{os.getpid()}.slice/user@{os.getpid()}.service"
        for cgroup, way in ((f"{manager}/app.slice/app-flatpak-org.example.Listed-7.scope", "eth0"),
                            (f"{manager}/app.slice/app-org.example.Listed-7.scope", "native"),
                            ("system.slice/app-flatpak-org.example.Listed-7.scope", "native")):
            with self.subTest(cgroup):
                folder = self.cgroup(cgroup)
                application = self.closing(self.unlisted.twin())
                with open(folder + "/cgroup.procs", "w") as processes:
                    processes.write(str(application.pid))
                self.assertWay(way, application, WEB)
                self.assertWay(way, application, WEB, "udp")

    def cgroup(self, path):
        """The folder of a cgroup of the unified hierarchy, until the end of the test."""
        with open("/proc/self/mountinfo") as mounts:
            root = [line.split()[4] for line in mounts if " - cgroup2 " in line]
        if not root or not os.access(root[0], os.W_OK):
            self.skipTest("there is no unified hierarchy of cgroups, or it is not ours to change")
        folder = root[0]
        for name in path.split("/"):
            folder += "/" + name
            if not os.path.exists(folder):
                os.makedirs(folder, exist_ok=True)
                self.addCleanup(self.remove_if_unused, folder)
        return folder

    @staticmethod
    def remove_if_unused(folder):
        """The upper ones belong to all, to another run of this test as well."""
        try:
            os.rmdir(folder)
        except OSError as error:
            if error.errno not in (errno.EBUSY, errno.ENOTEMPTY, errno.ENOENT):
                raise

    def test_what_others_put_where_a_flatpak_has_its_name(self):
        """A root directory of anybody's making tells nothing, and holds up nobody."""
        self.stop()
        self.daemon.start("directlyWhiteList", [self.listed.program, "org.example.Listed"])
        master, slave = os.openpty()
        self.addCleanup(os.close, master)
        self.addCleanup(os.close, slave)
        place = ".flatpak-info"
        for make in (f"printf '[Application]\\nname=org.example.Listed\\n' >{place}",
                     f"mkfifo {place}", f"touch {place}; mount --bind {os.ttyname(slave)} {place}",
                     f"mkdir {place}", f"touch {place}; mount --bind /dev/zero {place}",
                     f"ln -s dev/zero {place}", f"truncate -s 1T {place}",
                     # A file system that never answers.
                     f"touch {place}; exec 3<>/dev/fuse; mount -i -t fuse -o"
                     f" fd=3,rootmode=100000,user_id=0,group_id=0 none {place}"):
            if "/dev/fuse" in make and not os.path.exists("/dev/fuse"):
                continue
            with self.subTest(make):
                script = f"""
                    set -e
                    mount -t tmpfs none /mnt
                    cd /mnt
                    for entry in /*; do
                        [ ! -L $entry ] || cp -a $entry .
                        [ -L $entry -o ! -d $entry -o $entry = /mnt ] || {{
                            mkdir .$entry; mount --rbind $entry .$entry; }}
                    done
                    {make}
                    exec chroot . "$0" "$@" """
                stranger = Application(self.lab, self.unlisted.program, (
                    "unshare", "--user", "--map-root-user", "--mount", "sh", "-c", script))
                self.assertWay("native", stranger, WEB)
                self.assertWay("eth0", self.closing(self.listed.twin()), WEB)
                stranger.close()
        self.assertEqual(self.daemon.terminate(), 0)

    def test_a_process_number_that_is_used_again(self):
        """In a process namespace, where numbers can be given out at will."""
        self.stop()
        outside = subprocess.Popen(["unshare", "--pid", "--fork", "--mount-proc", "--kill-child",
                                    "sleep", "300"])
        self.addCleanup(end, outside)
        children = f"/proc/{outside.pid}/task/{outside.pid}/children"

        def inside():
            with open(children) as file:
                return file.read().split()

        entering = ("nsenter", "--target", eventually(inside)[0], "--pid", "--mount")
        daemon = self.lab.daemon(wrapper=(*entering, *self.wrapper))
        self.addCleanup(daemon.call, "stopProxy")
        daemon.start("directlyWhiteList", [self.listed.program])
        number = None
        for program, way in ((self.listed.program, "eth0"), (self.unlisted.program, "native")) * 3:
            set_number = ("sh", "-c", f'echo {number - 1} > /proc/sys/kernel/ns_last_pid; "$0" "$@"; :'
                          ) if number else ()
            process = self.closing(Application(self.lab, program, (*entering, *set_number)))
            number = number or process.pid
            self.assertEqual(process.pid, number)
            self.assertWay(way, process, WEB)
            process.process.communicate(timeout=PATIENCE)


class IdentityWithoutProbe(Identity):
    """Where the kernel lets nobody watch it, processes are searched for the socket."""

    has_probe = False
    wrapper = ("setpriv", "--bounding-set=-bpf,-perfmon,-sys_admin")
