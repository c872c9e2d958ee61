"""Lead and node without privileges: as an ordinary user in a namespace that the user does not own, and under
the restrictions of the packaged units. Hosts and links are made by this process beforehand, as root."""

import errno
import os
import subprocess
import sys
import unittest

import node_statistics
import tree
from support import USER, BackgroundLead, SystemTest, is_root_of_the_machine, lab

HERE = os.path.dirname(os.path.abspath(__file__))
UNITS = os.path.join(HERE, "..", "..", "packaging", "systemd")


def unit(name):
    return os.path.join(UNITS, f"{name}.service")


@unittest.skipUnless(is_root_of_the_machine(), "another user can only be taken by root")
class WithoutPrivileges(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        tree.add(self.content, "big", 2_000_000)
        for number in range(40):
            tree.add(self.content, f"directory/{number % 4}/{number}", 100 * number)
        tree.link(self.content, "directory/link", "../big")
        for node in self.net.nodes:
            os.chown(self.directory_of(node), USER, USER)

    def start(self, node, *prefix):
        with open(self.log_of(node), "wb") as log:
            process = node.spawn([*prefix, self.programs.node, "--interface", node.address, "--location",
                                  f"1={self.directory_of(node)}", "--json", "run"], stdout=log)
        self.node_processes[node.name] = process

    def push_as(self, *prefix, options=()):
        """What the push printed; it has ended well."""
        result = self.net.lead.run(
            [*prefix, self.programs.lead, "--interface", self.net.lead.address, "--location",
             f"1={self.content}", "--json", "push", "--nodes", self.addresses(), *options, "."],
            capture_output=True, text=True, timeout=120)
        self.assertEqual(result.returncode, 0, result.stderr + result.stdout[-2000:])

    def assert_powerless(self, process, no_new_privileges):
        with open(f"/proc/{process.pid}/status", encoding="ascii") as file:
            status = dict(line.split(":", 1) for line in file)
        self.assertEqual(status["Uid"].split(), [str(USER)] * 4)
        for kind in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
            self.assertEqual(int(status[kind], 16), 0, kind)
        self.assertEqual(int(status["NoNewPrivs"]), no_new_privileges)
        self.assertEqual(int(status["Seccomp"]), 2 * no_new_privileges)

    def assert_node_has_started(self, node):
        lab.wait_until(lambda: node_statistics.read(self.node_processes[node.name].pid), 20,
                       f"{node.name} to start")

    def test_an_ordinary_user_pushes_and_receives(self):
        user = ("setpriv", "--reuid", str(USER), "--regid", str(USER), "--clear-groups")
        for node in self.net.nodes:
            self.start(node, *user)
        for node in self.net.nodes:
            self.assert_node_has_started(node)
            self.assert_powerless(self.node_processes[node.name], 0)
        self.push_as(*user)
        self.assert_received()

    def test_both_run_under_the_restrictions_of_the_packaged_units(self):
        scratch = self.directory("scratch")
        os.chown(scratch, USER, USER)
        confined = (sys.executable, os.path.join(HERE, "confine.py"))
        for node in self.net.nodes:
            self.start(node, *confined, unit("pkgdist-node"), str(USER), self.directory_of(node))
        for node in self.net.nodes:
            self.assert_node_has_started(node)
            self.assert_powerless(self.node_processes[node.name], 1)
            self.leave_behind(node, "directory/stray/file")
        os.chmod(os.path.join(self.content, "big"), 0o4755)  # which no service of DynamicUser may make
        os.chmod(os.path.join(self.content, "directory", "3"), 0o705)
        self.push_as(*confined, unit("pkgdist-lead"), str(USER), scratch, options=["--delete", "--durable"])
        os.chmod(os.path.join(self.content, "big"), 0o755)
        self.assert_received()
        for node in self.net.nodes:
            place = os.path.join(self.directory_of(node), "directory")
            self.assertFalse(os.path.exists(os.path.join(place, "stray")))
            self.assertEqual(os.stat(os.path.join(place, "3")).st_mode & 0o7777, 0o705)
        self.assert_directories_can_be_deleted("directory/3")

    def assert_directories_can_be_deleted(self, name):
        lead = BackgroundLead(self, "serve")
        lead.wait_for_all_nodes()
        status, events, errors = lead.request("delete", "--recursive", name)
        self.assertEqual(status, 0, f"{errors}{events}")
        for node in self.net.nodes:
            self.assertFalse(os.path.exists(os.path.join(self.directory_of(node), name)))

    def leave_behind(self, node, name):
        """A file that the lead does not have, with its directories."""
        tree.write(self.directory_of(node), name, b"x")
        while name:
            os.chown(os.path.join(self.directory_of(node), name), USER, USER)
            name = os.path.dirname(name)

    def test_the_restrictions_are_real(self):
        scratch = self.directory("scratch")
        os.chown(scratch, USER, USER)
        tried = {
            "writing where it may": f"open('{scratch}/x', 'w')",
            "writing elsewhere": f"open('{self.content}/x', 'w')",
            "its priority": "os.setpriority(os.PRIO_PROCESS, 0, 5)",
            "another family": "socket.socket(socket.AF_INET6)",
            "a socket": "socket.socket()",
            "homes": "os.listdir('/root')",
            "other processes": "os.stat('/proc/1')",
            "kernel modules": "os.listdir('/usr/lib/modules')",
            "kernel messages": "os.stat('/dev/kmsg')",
            "block devices": "os.stat('/dev/loop-control')",
            "a namespace": "call(libc.unshare(0x10000000))",
            "writable code": "mmap.mmap(-1, 4096, prot=mmap.PROT_WRITE | mmap.PROT_EXEC)",
            "a personality": "call(libc.personality(0x40000))",
            "the clock": "time.clock_settime(time.CLOCK_REALTIME, 0)",
            "a set-user-ID file": f"os.chmod('{scratch}/x', 0o4755)",
            "a file of its own": f"os.chmod('{scratch}/x', 0o755)",
            "openat2": "call(libc.syscall(437, -100, b'/', b'', 0))",
            "a tunable": "os.statvfs('/proc/sys').f_flag & os.ST_RDONLY and call_of(30)",
        }
        script = ("import ctypes, mmap, os, socket, time\n"
                  "libc = ctypes.CDLL(None, use_errno=True)\n"
                  "def call_of(error): raise OSError(error, '')\n"
                  "def call(result):\n"
                  "    if result < 0: call_of(ctypes.get_errno())\n"
                  "def tried(act):\n"
                  "    try: act(); return 0\n"
                  "    except OSError as error: return error.errno\n"
                  f"print({', '.join(f'tried(lambda: {act})' for act in tried.values())})\n")
        result = subprocess.run([sys.executable, os.path.join(HERE, "confine.py"), unit("pkgdist-node"), str(USER),
                                 scratch, "/usr/bin/python3", "-c", script], capture_output=True, text=True, timeout=60)
        self.assertEqual(dict(zip(tried, (errno.errorcode.get(int(e), "done") for e in result.stdout.split()))), {
            "writing where it may": "done", "writing elsewhere": "EROFS", "its priority": "EPERM",
            "another family": "EAFNOSUPPORT", "a socket": "done", "homes": "EACCES", "other processes": "ENOENT",
            "kernel modules": "EACCES" if os.path.isdir("/usr/lib/modules") else "ENOENT", "kernel messages": "ENOENT",
            "block devices": "ENOENT", "a namespace": "EPERM", "writable code": "EPERM", "a personality": "EPERM",
            "the clock": "EPERM", "a set-user-ID file": "EPERM", "a file of its own": "done", "openat2": "ENOSYS",
            "a tunable": "EROFS"}, result.stderr)
