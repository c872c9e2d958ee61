"""What the system tests share: a laboratory for each class, directories for each test, checks."""

import os
import select
import shutil
import subprocess
import sys
import threading
import unittest

_HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [_HERE, os.path.join(_HERE, "..", "lab")]

import event_schema  # noqa: E402
import lab  # noqa: E402
import node_statistics  # noqa: E402
from scripted_lead import CTRL_GROUP, DATA_GROUP  # noqa: E402

lab.check_event = event_schema.Checker().check

PROGRAMS = None  # of the build under test; set by run.py
# Content and received files live in a memory file system of this process's own mount namespace. Its
# path is short because a node keeps a file's whole path in 255 bytes.
ROOT = "/mnt"

# Status words.
ERRNO_BASE = (0x40001278 << 32) | (0xCA1 << 20)
INVALID = (0x40101278 << 32) | (0xCA1 << 20) | 0xBEA
SHORT_WRITE = (0x40101278 << 32) | (0xCA1 << 20) | 0xBF3
DELETED = (0x30101278 << 32) | (0xCA1 << 20) | 0xBF7
UNKNOWN_FILE = (0x30101278 << 32) | (0xCA1 << 20) | 0xBF8
IN_PROGRESS = (0x30101278 << 32) | (0xCA1 << 20) | 0xBF9


def errno_status(number):
    return ERRNO_BASE | number


USER = 65534  # without privileges


def is_root_of_the_machine():
    """Whether another user can be taken. Root of a user namespace has other answers from the kernel than an ordinary user of the machine."""
    with open("/proc/self/uid_map", encoding="ascii") as file:
        return os.geteuid() == 0 and file.read().split() == ["0", "0", "4294967295"]


class SystemTest(unittest.TestCase):
    """One laboratory for a class; its processes and directories last for one test."""

    NODES = 3
    OTHERS = ()

    @classmethod
    def setUpClass(cls):
        cls.net = lab.Lab(cls.NODES, cls.OTHERS)
        cls.addClassCleanup(cls.net.stop)

    def setUp(self):
        lab.mount_memory(ROOT)
        self.addCleanup(lab.unmount, ROOT)
        self.programs = PROGRAMS
        self.content = self.directory("c")
        self.node_processes = {}
        self.addCleanup(self.stop_processes)

    def stop_processes(self):
        self.net.stop_processes()
        for host in self.net.hosts():
            for process in host.processes:
                node_statistics.forget(process.pid)
            host.processes.clear()
            host.lose(0)

    def directory(self, name):
        path = os.path.join(ROOT, name)
        os.makedirs(path, exist_ok=True)
        return path

    # --- Nodes ---

    def directory_of(self, node):
        return self.directory(str(self.net.nodes.index(node) + 1))

    def log_of(self, node):
        return os.path.join(ROOT, f"{node.name}.log")

    def start_node(self, node, *arguments, location=None):
        process = self.programs.start_node(node, self.directory_of(node), *arguments,
                                           log=self.log_of(node), location=location)
        self.node_processes[node.name] = process
        return process

    def start_nodes(self):
        for node in self.net.nodes:
            self.start_node(node)

    def kill(self, process):
        process.kill()
        process.wait()
        node_statistics.forget(process.pid)

    def node_events(self, node, event=None):
        with open(self.log_of(node), encoding="utf-8") as file:
            events = lab.parse_events(file.read())
        return [e for e in events if event is None or e["event"] == event]

    def statistics(self, node):
        return node_statistics.read(self.node_processes[node.name].pid)

    def addresses(self):
        return ",".join(node.address for node in self.net.nodes)

    # --- Pushes ---

    def push(self, *arguments, expect=0, **options):
        result = self.programs.push(self.net.lead, self.content, "--nodes", self.addresses(),
                                    *arguments, **options)
        self.assertEqual(result.returncode, expect, result.stderr + self.why(result.events))
        return result

    @staticmethod
    def why(events):
        """What the summary says is missing, for messages."""
        ends = [e for e in events if e["event"] == "push-finished"]
        return "\n".join(str({k: v for k, v in node.items() if k in ("node", "state", "failed", "open")})
                         for end in ends for node in end["nodes"]) or str(events[-3:])

    def start_push(self, *arguments, nodes=None, paths=(".",)):
        return BackgroundLead(self, "push", "--nodes", nodes or self.addresses(), *arguments, *paths)

    def assert_received(self, *nodes):
        expected = lab.manifest(self.content)
        for node in nodes or self.net.nodes:
            wrong = lab.differences(expected, lab.manifest(self.directory_of(node)))
            self.assertEqual(wrong[:10], [], f"{node.name}: {len(wrong)} differences")

    def assert_alive(self):
        for name, process in self.node_processes.items():
            self.assertIsNone(process.poll(), f"{name} has ended")

    def mount(self, path, options):
        os.makedirs(path)
        lab.mount_memory(path, options)
        self.addCleanup(lab.unmount, path)


class BackgroundLead:
    """A lead that runs while the test goes on, on the lead's host unless told otherwise."""

    def __init__(self, test, *arguments, host=None):
        self.test = test
        self.host = host or test.net.lead
        self.out = os.path.join(ROOT, f"{self.host.name}-{len(self.host.processes)}")
        with open(self.out + ".json", "wb") as out, open(self.out + ".err", "wb") as err:
            self.process = test.programs.start_lead(self.host, test.content, *arguments,
                                                    stdout=out, stderr=err)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def request(self, *arguments):
        """A command through the control socket: (exit status, events)."""
        result = self.host.run([self.test.programs.lead, "--interface", self.host.address, "--json",
                                *arguments], capture_output=True, text=True, timeout=60)
        return result.returncode, lab.parse_events(result.stdout), result.stderr

    def roles(self):
        return [e["role"] for e in self.events("role")]

    def events(self, event=None):
        with open(self.out + ".json", encoding="utf-8") as file:
            events = lab.parse_events(file.read())
        return [e for e in events if event is None or e["event"] == event]

    def errors(self):
        with open(self.out + ".err", encoding="utf-8") as file:
            return file.read()

    def wait_for(self, event, seconds=20.0):
        lab.wait_until(lambda: self.events(event), seconds, f"the lead's event {event}")
        return self.events(event)[0]

    def wait_for_all_nodes(self):
        lab.wait_until(lambda: len(self.events("node-appeared")) == len(self.test.net.nodes), 20.0,
                       "the lead to know every node")

    def finish(self, expect=0, seconds=120.0):
        """Waits for the end and returns the summary."""
        try:
            self.process.wait(timeout=seconds)
        except subprocess.TimeoutExpired:
            self.test.fail(f"the lead has not ended within {seconds} s; {self.events()[-4:]}")
        self.test.assertEqual(self.process.returncode, expect,
                              self.errors() + self.test.why(self.events()))
        return summary(self)

    def stop(self, expect=0):
        self.process.terminate()
        self.process.wait(timeout=10)
        self.test.assertEqual(self.process.returncode, expect, self.errors())


def capture_push(test, observer):
    """Pushes the test's content; every multicast datagram of it, by channel, as `observer` hears them."""
    sockets = {observer.group_socket(*CTRL_GROUP): "ctrl", observer.group_socket(*DATA_GROUP): "data"}
    captured = {"ctrl": [], "data": []}
    lead = test.start_push("--rate", "20")
    while lead.process.poll() is None:
        ready, _, _ = select.select(list(sockets), [], [], 0.05)
        for one in ready:
            captured[sockets[one]].append(one.recv(2000))
    for one in sockets:
        one.close()
    test.assertTrue(lead.finish()["complete"])
    return captured


def summary(result):
    """The last summary of a push: of a finished process's result, or of a background lead."""
    events = result.events() if callable(result.events) else result.events
    return [e for e in events if e["event"] == "push-finished"][-1]


def failures(end):
    """{node address: {name: status}} of a summary."""
    return {node["node"]: {f["name"]: f["status"] for f in node["failed"]} for node in end["nodes"]}


class Watcher:
    """Looks at final names all the time while it is entered: what stands there must be whole.

    `wholes`: {path: set of sha256 digests that a whole file may have}.
    """

    def __init__(self, wholes):
        self.wholes = wholes
        self.partial = []
        self.seen = set()
        self._known = {}
        self._done = threading.Event()
        self._thread = threading.Thread(target=self._watch)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._done.set()
        self._thread.join()

    def _watch(self):
        while not self._done.is_set():
            for path, digests in self.wholes.items():
                self._look(path, digests)
            self._done.wait(0.01)

    def _look(self, path, digests):
        try:
            info = os.stat(path)
            state = (info.st_ino, info.st_size, info.st_mtime_ns)
            if self._known.get(path) == state:
                return
            digest = lab.sha256(path)
        except FileNotFoundError:
            return
        self._known[path] = state
        self.seen.add(path)
        if digest not in digests:
            self.partial.append(f"{path}: {info.st_size} bytes that are no whole file")


def resident_bytes(process):
    with open(f"/proc/{process.pid}/status", encoding="utf-8") as file:
        line = next(line for line in file if line.startswith("VmRSS:"))
    return int(line.split()[1]) * 1024


def names_below(directory):
    """Every file and link below a directory, by relative name."""
    found = set()
    for place, directories, files in os.walk(directory):
        links = [d for d in directories if os.path.islink(os.path.join(place, d))]
        found.update(os.path.relpath(os.path.join(place, n), directory) for n in files + links)
    return found


def remove_tree(path):
    shutil.rmtree(path, ignore_errors=True)
