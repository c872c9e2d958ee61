"""The endurance run: one lead's host, three nodes and one that asks, over a network that loses.

Rounds of pushes, requests, messages both ways, deletes, cancels and leads that die follow each other
until the time is over. The three nodes live through all of it. After each round every node must have
exactly the lead's files, and every counter must agree with every other (IDENTITIES); memory,
descriptors, threads and shared-memory objects of the nodes must stay where they were when the run had
warmed up.

    soak = Soak(lab.Programs(build), net, root, seconds=1200)
    soak.run()            # True when nothing was violated
    print(soak.summary())
"""

import argparse
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

import lab
import node_statistics

SHARED_MEMORY = "/dev/shm"
LOSS_PERCENT = 2.0  # of what arrives at each node; half of it at the lead
MESSAGE_CLASS = "2"
BIG = "big"
BIG_BYTES = 6_000_000

# What a process may have more at the end than when it had warmed up. Memory: what the allocator
# keeps in reserve moves by about this much; a leak of 100 bytes for each file of a run of twenty
# minutes is several times as large.
MEMORY_SLACK_BYTES = 1_500_000
# A lead's process lasts for one phase only; its tables fill while it serves.
LEAD_MEMORY_SLACK_BYTES = 6_000_000
# Counts are compared once what is on its way has arrived: messages that cannot be completed are
# given up within five seconds.
SETTLE_SECONDS = 20.0


def total(*labels):
    return lambda node: sum(node.tables.total(label) for label in labels)


def count(table, label):
    return lambda node: node.tables[table, label]


def events(name):
    return lambda node: node.heard(name)


def tasks(name):
    return lambda node: node.tasks.count(name)


def less(a, b):
    return lambda node: a(node) - b(node)


def plus(*parts):
    return lambda node: sum(part(node) for part in parts)


def at_peers(part):
    return lambda node: sum(part(peer) for peer in node.peers)


def with_margin(part):
    """For what the network may have taken from others on its way: 5 % and 20 more."""
    return lambda node: part(node) * 105 // 100 + 20


def nothing(_):
    return 0


_DRT, _DRS, _CRT, _CRS = "DRT_Counters", "DRS_Counters", "CRT_Counters", "CRS_Counters"

_TAKEN = plus(*(count(_DRT, label) for label in (
    "MC FILE INFO", "FILE INFO DROP", "MC SINGLE SEG", "MC SEGMENT", "MC MISS DONE", "FILE SEG DUP",
    "FILE SEG TOOBIG")))

# (left, relation, right, why): what holds for a node whenever nothing is on its way.
IDENTITIES = [
    (count(_DRS, "FILE ADD"), "==", count(_DRS, "FILE REMOVE"),
     "a file that was entered has ended"),
    (count(_DRS, "STAT ADD"), "==", count(_DRS, "FILE REMOVE"),
     "each file that ended is remembered once"),
    (count(_DRS, "STAT REMOVE"), "<=", count(_DRS, "STAT ADD"),
     "only what was remembered is forgotten"),
    (count(_DRS, "FILE XFER CB"), "==", plus(count(_DRS, "FILE ADD"), count(_DRS, "XAXT ADD")),
     "each wish for a file was answered once, also of files wanted by several"),
    (count(_DRS, "FILE XFER CB"), "==", events("file"), "the program heard of each file"),
    (count(_DRS, "FILE START CB"), "==", events("transaction-start"),
     "the program heard of the start of each list"),
    (count(_DRS, "FILE START CB"), "==", count(_DRT, "MC SEND FILE"),
     "each list that came was reported"),
    (count(_DRS, "FILE DONE CB"), "==", events("transaction-done"),
     "the program heard of the end of each transaction"),
    (count(_CRS, "LCHG CB"), "==", events("lead-changed"), "the program heard of each lead"),
    (count(_CRS, "LCHG CB"), "==", plus(count(_CRS, "NEW LEAD"), count(_CRS, "NEW PID")),
     "each new lead or process was reported, none twice"),
    (count(_CRS, "MSG RECV CB"), "==", plus(events("message"), events("question")),
     "the program heard of each message"),
    (less(count(_DRS, "RX THRD START"), count(_DRS, "RX THRD STOP")), "==", tasks("DATA_RX"),
     "the receive thread that was started runs, or has stopped"),
    (less(count(_DRS, "FILE THRD START"), count(_DRS, "FILE THRD STOP")), "==", tasks("DATA_FILE"),
     "so with the file thread"),
    (tasks("CTRL_RX"), "==", lambda _: 1, "the control thread is one"),
    (lambda node: len(node.tasks), "==",
     plus(tasks("DATA_RX"), tasks("DATA_FILE"), tasks("CTRL_RX"), tasks("SIGNALS"), tasks("STDOUT"),
          tasks("STDERR"), tasks("MESSAGES"), tasks("TREES"), lambda _: 1),
     "there are no threads but these and the program's"),
    (_TAKEN, "<=", count(_DRT, "MC RX RECV"), "nothing was counted that did not come"),
    (less(count(_DRT, "MC RX RECV"), _TAKEN), "<=",
     plus(count(_DRT, "FILE NOT FOUND"), with_margin(at_peers(count(_DRT, "MC MISS DONE")))),
     "a datagram that came was taken, a duplicate, for a file that nobody waits for, or a question "
     "to others, which is not counted"),
    (count(_DRT, "UC SNDDONE SENT"), "==",
     plus(count(_DRS, "FILE REMOVE"), count(_DRT, "MC MISS DONE")),
     "the lead was told of each file that ended, and answered each time it asked"),
    (plus(count(_CRS, "RX ADD MC MSG"), count(_CRS, "RX OOS ADD MC")), "==",
     count(_CRS, "RX DELETE MC MS"), "each multicast message was completed or given up"),
    (plus(count(_CRS, "RX ADD UC MSG"), count(_CRS, "RX OOS ADD UC")), "==",
     count(_CRS, "RX DELETE UC MS"), "so with unicast messages"),
    (count(_CRS, "UC ADD MSG"), "==", count(_CRS, "UC DELETE MSG"),
     "each message to the lead was acknowledged or given up"),
    (count(_CRT, "MC PING RPLYSNT"), "==", count(_CRT, "MC PING RECV"), "each ping was answered"),
    (total("MC BAD PKT RECV", "UC BAD PKT RECV"), "==", nothing, "the lead sends no nonsense"),
    (total("MC RECVFROM ERR", "UC RECVFROM ERR", "SELECT FAIL", "MC SELECT FAIL"), "==", nothing,
     "the sockets work"),
    (total("FILE ERROR", "FILE BADSTATRCV", "MC LEAD FO DROP", "FILE SEG TOOBIG"), "==", nothing,
     "no file could not be written, no lead could not send, none disturbed another"),
]
_HOLDS = {"==": lambda a, b: a == b, "<=": lambda a, b: a <= b}


def broken_identities(node):
    found = []
    for left, relation, right, why in IDENTITIES:
        a, b = left(node), right(node)
        if not _HOLDS[relation](a, b):
            found.append(f"{a} {relation} {b} does not hold: {why}")
    return found


class Process:
    """What the system says about a process."""

    def __init__(self, process):
        self.process = process
        self.pid = process.pid

    def _status(self, key):
        with open(f"/proc/{self.pid}/status", encoding="utf-8") as file:
            return int(re.search(rf"^{key}:\s+(\d+)", file.read(), re.M).group(1)) * 1024

    def memory(self):
        """Bytes of its own: without the shared rings, which fill up once and are reused."""
        return self._status("RssAnon")

    def resident(self):
        return self._status("VmRSS")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def task_names(self):
        names = []
        for task in os.listdir(f"/proc/{self.pid}/task"):
            try:
                with open(f"/proc/{self.pid}/task/{task}/comm", encoding="utf-8") as file:
                    names.append(file.read().strip())
            except FileNotFoundError:
                pass
        return names


class Node(Process):
    """One long-lived node: its process, its events and its counters."""

    def __init__(self, host, process, directory, log):
        super().__init__(process)
        self.host, self.directory = host, directory
        self.events = {}
        self.peers = []
        self._log = open(log, encoding="utf-8")
        self._rest = ""
        self.refresh()

    def refresh(self):
        text = self._rest + self._log.read()
        *lines, self._rest = text.split("\n")
        for line in lines:
            name = json.loads(line)["event"]
            self.events[name] = self.events.get(name, 0) + 1
        self.tasks = self.task_names()
        self.tables = node_statistics.read(self.pid)

    def heard(self, name):
        return self.events.get(name, 0)

    def settled_descriptors(self):
        """Without the socket that comes and goes with the receive thread."""
        return self.descriptors() - self.tasks.count("DATA_RX")


class Flat:
    """A measure that may not grow: compared with its highest value while the run warmed up."""

    def __init__(self, what, slack):
        self.what, self.slack = what, slack
        self.first = self.warm = self.recent = None

    def note(self, value, warming):
        if self.first is None:
            self.first = value
        if warming or self.warm is None:
            self.warm = max(value, self.warm or 0)
            self.recent = [value]
        else:
            self.recent = (self.recent + [value])[-5:]

    def grown(self):
        """What it is now is the least of the last few samples: a peak is no growth."""
        now = min(self.recent)
        if now <= self.warm + self.slack:
            return None
        return f"{self.what} has grown from {self.warm} to {now}"


class Violation(Exception):
    pass


class Soak:
    """At least one round of each kind. `say` gets a line per minute. `quiet_every`: seconds between pauses in which the nodes come to
    rest altogether, 0 for none; a pause takes about forty."""

    def __init__(self, programs, net, root, seconds, say=print, quiet_every=300, seed=1,
                 loss=LOSS_PERCENT):
        self.programs, self.net, self.root, self.loss = programs, net, root, loss
        self.seconds, self.say, self.quiet_every = seconds, say, quiet_every
        self.random = random.Random(seed)
        self.content = self._directory("c")
        self.asked = self._directory("asked")
        self.asker = net.others["asker"]
        self.violations = []
        self.done = dict.fromkeys(("rounds", "pushes", "killed pushes", "cancelled pushes", "requests",
                                   "messages to nodes", "messages to the lead", "deletes",
                                   "quiet pauses", "bytes written for the nodes"), 0)
        self.lead_peak = Flat("memory of a serving lead", LEAD_MEMORY_SLACK_BYTES)
        self.nodes = []
        self.flat = {}
        self.version = 0

    # --- The run ---

    def run(self):
        """True when nothing was violated. Stops at the first violation."""
        lab.mount_memory(SHARED_MEMORY)  # of these namespaces alone: what is there is ours
        try:
            self._start()
            self._go_on_until(time.monotonic() + self.seconds)
            self._finish()
        except Violation as violation:
            self.violations.append(str(violation))
        except (AssertionError, subprocess.TimeoutExpired) as failure:
            self.violations.append(f"{type(failure).__name__}: {failure}")
        finally:
            self.net.stop_processes()
            for host in self.net.hosts():
                host.lose(0)
            lab.unmount(SHARED_MEMORY)
        return not self.violations

    def _start(self):
        for number, host in enumerate(self.net.nodes):
            directory = self._directory(str(number + 1))
            log = os.path.join(self.root, f"{host.name}.log")
            process = self.programs.start_node(host, directory, log=log)
            node = Node(host, process, directory, log)
            self.nodes.append(node)
            self.flat[node] = [Flat(f"{host.name}: memory", MEMORY_SLACK_BYTES),
                               Flat(f"{host.name}: descriptors", 0)]
        for node in self.nodes:
            node.peers = [peer for peer in self.nodes if peer is not node]
            node.host.lose(self.loss)
        self.net.lead.lose(self.loss / 2)
        self.asker.lose(self.loss)
        for i in range(40):
            self._write(f"tree/{i % 7}/{i}")

    def _go_on_until(self, end):
        begin = time.monotonic()
        next_line, next_pause = begin + 60, begin + (self.quiet_every or float("inf"))
        kinds = [self._push, self._killed_push, self._push, self._serve, self._push,
                 self._cancelled_push, self._push]
        while time.monotonic() < end or self.done["rounds"] < len(kinds):
            kinds[self.done["rounds"] % len(kinds)]()
            self.done["rounds"] += 1
            self._check(warming=time.monotonic() < begin + self.seconds / 4)
            if time.monotonic() >= next_line:
                self.say(self._line(time.monotonic() - begin))
                next_line += 60
            if time.monotonic() >= next_pause and time.monotonic() + 60 < end:
                self._pause()
                next_pause = time.monotonic() + self.quiet_every

    def _finish(self):
        self._check(warming=False)
        for node in self.nodes:
            for measure in self.flat[node]:
                self._demand(measure.grown() is None, measure.grown())
        for node in self.nodes:
            node.process.send_signal(signal.SIGTERM)
            self._demand(node.process.wait(timeout=10) == 0, f"{node.host.name} has not ended well")
        left = os.listdir(SHARED_MEMORY)
        self._demand(left == [], f"left behind in shared memory: {left}")

    # --- Rounds ---

    def _push(self):
        for name in self.random.sample(self._names(), 10):
            self._write(name)
        self._push_all()

    def _push_all(self):
        result = self.programs.push(self.net.lead, self.content, *self._to_all(), timeout=120)
        self._demand(result.returncode == 0, f"a push failed: {result.stderr} {result.events[-2:]}")
        self.done["pushes"] += 1

    def _killed_push(self):
        """A lead that dies in the middle, and one that takes up where it was."""
        self._write(BIG, BIG_BYTES)
        lead = self._background("push", *self._to_all(), "--rate", "50", ".")
        self._wait_for_half(lead)
        lead.kill()
        lead.wait()
        self.done["killed pushes"] += 1
        self._push_all()
        self._remove([BIG])

    def _cancelled_push(self):
        self._write(BIG, BIG_BYTES)
        lead = self._background("push", *self._to_all(), "--rate", "50", ".")
        self._wait_for_half(lead)
        transaction = self._lead_events("push-started")[0]["transaction"]
        self._request("cancel", str(transaction))
        self._demand(lead.wait(timeout=60) == 1, "a cancelled push has not failed")
        self.done["cancelled pushes"] += 1
        os.unlink(os.path.join(self.content, BIG))
        self._push_all()

    def _serve(self):
        lead = self._background("serve")
        process = Process(lead)
        lab.wait_until(lambda: len(self._lead_events("node-appeared")) >= len(self.nodes), 30,
                       "the nodes to appear")
        for i in range(6):
            self._request("message", "--class", MESSAGE_CLASS, f"message {self.version} {i}")
            self.done["messages to nodes"] += 1
            if i == 2:
                self._request("message", "--nodes", self.nodes[0].host.address, "only one")
                self.done["messages to nodes"] += 1
        before = process.memory()
        self._ask(25)
        for _ in range(2):
            self._ask(25)
            sent = self._as_asker("send", "--class", "4", f"from the asker {self.version}")
            self._demand(sent.returncode == 0, f"a message to the lead failed: {sent.stderr}")
            self.done["messages to the lead"] += 1
        doomed = self.random.sample(self._names(), 3)
        self._request("delete", *self._to_all(), *doomed)  # the asker is gone and would be missed
        self.done["deletes"] += len(doomed)
        for name in doomed:
            os.unlink(os.path.join(self.content, name))
        for name in doomed:
            for node in self.nodes:
                path = os.path.join(node.directory, name)
                lab.wait_until(lambda p=path: not os.path.exists(p), 10, "a deleted file to go")
        self.lead_peak.note(process.memory() - before, warming=False)
        self._demand(process.memory() - before < LEAD_MEMORY_SLACK_BYTES,
                     f"a serving lead grew by {process.memory() - before} bytes")
        lead.send_signal(signal.SIGTERM)
        self._demand(lead.wait(timeout=10) == 0, "a serving lead has not ended well")
        for name in doomed:
            self._write(name)
        self._push_all()

    def _ask(self, files):
        """A process of another host that wants files which it has not."""
        shutil.rmtree(self.asked)
        os.mkdir(self.asked)
        names = self.random.sample(self._names(), files)
        got = self._as_asker("get", *names)
        self._demand(got.returncode == 0, f"a request failed: {got.stdout[-500:]} {got.stderr}")
        expected = {name: entry for name, entry in lab.manifest(self.content).items()
                    if name in names}
        self._demand_equal(expected, self.asked, "the asker")
        self.done["requests"] += files

    def _pause(self):
        """Long enough for the nodes to forget every file and to end their data threads."""
        for node in self.nodes:
            def rests(node=node):
                node.refresh()
                return not {"DATA_RX", "DATA_FILE"} & set(node.tasks)
            lab.wait_until(rests, 60, "the data threads to end")
            self._demand(count(_DRS, "STAT ADD")(node) == count(_DRS, "STAT REMOVE")(node),
                         "a node at rest remembers files")
        self.done["quiet pauses"] += 1

    # --- Checks ---

    def _demand(self, holds, text):
        if not holds:
            raise Violation(text)

    def _demand_equal(self, expected, directory, who):
        wrong = lab.differences(expected, lab.manifest(directory))
        self._demand(not wrong, f"{who}: {wrong[:5]}")

    def _check(self, warming):
        expected = lab.manifest(self.content)
        for node in self.nodes:
            self._demand(node.process.poll() is None, f"{node.host.name} has ended")
            node.refresh()
        for node in self.nodes:
            self._demand_equal(expected, node.directory, node.host.name)
            self._settle(node)
            memory, descriptors = self.flat[node]
            memory.note(node.memory(), warming)
            descriptors.note(node.settled_descriptors(), warming)
            self._demand(descriptors.grown() is None, descriptors.grown())
        self._check_shared_memory()

    def _settle(self, node):
        end = time.monotonic() + SETTLE_SECONDS
        while True:
            node.refresh()
            broken = broken_identities(node)
            if not broken:
                return
            self._demand(time.monotonic() < end, f"{node.host.name}: {broken}")
            time.sleep(0.05)

    def _check_shared_memory(self):
        """Of each living node one statistics object and one trace file, of anybody else nothing."""
        expected = {f"pkgdist-{kind}.{node.pid}" for node in self.nodes for kind in ("stat", "trace")}
        found = set(os.listdir(SHARED_MEMORY))
        self._demand(found == expected, f"in shared memory: {found ^ expected} too many or missing")

    # --- Content ---

    def _directory(self, name):
        path = os.path.join(self.root, name)
        os.makedirs(path)
        return path

    def _names(self):
        return sorted(lab.manifest(self.content))

    def _write(self, name, size=None):
        """A new version of a file, of new size, content and time."""
        self.version += 1
        size = self.random.choice((0, 1, 1400, 1401, 9_000, 80_000)) if size is None else size
        self.done["bytes written for the nodes"] += size
        path = os.path.join(self.content, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(hashlib.shake_128(str(self.version).encode()).digest(size))
        os.utime(path, (1_000_000_000 + self.version,) * 2)

    def _remove(self, names):
        for directory in [self.content] + [node.directory for node in self.nodes]:
            for name in names:
                os.unlink(os.path.join(directory, name))

    # --- Programs ---

    def _to_all(self):
        return "--nodes", ",".join(node.host.address for node in self.nodes)

    def _background(self, *arguments):
        self.lead_log = os.path.join(self.root, "lead.log")
        with open(self.lead_log, "wb") as log:
            return self.programs.start_lead(self.net.lead, self.content, *arguments, stdout=log,
                                            stderr=subprocess.DEVNULL)

    def _lead_events(self, event):
        with open(self.lead_log, encoding="utf-8") as file:
            return [e for e in lab.parse_events(file.read()) if e["event"] == event]

    def _wait_for_half(self, lead):
        path = os.path.join(self.nodes[0].directory, BIG + ".tmp")

        def begun():
            self._demand(lead.poll() is None, "a push has ended too early")
            return os.path.exists(path) and os.stat(path).st_size > BIG_BYTES // 10
        lab.wait_until(begun, 30, "the large file to be on its way")

    def _request(self, *arguments):
        result = self.net.lead.run(
            [self.programs.lead, "--interface", self.net.lead.address, "--json", *arguments],
            capture_output=True, text=True, timeout=60)
        self._demand(result.returncode == 0, f"{arguments[0]} failed: {result.stdout[-500:]}")

    def _as_asker(self, *arguments):
        return self.asker.run(
            [self.programs.node, "--umask", "0", "--allow-setuid", "--interface", self.asker.address, "--location",
             f"1={self.asked}", "--json", *arguments], capture_output=True, text=True, timeout=120)

    # --- Words ---

    def _line(self, seconds):
        node = self.nodes[0]
        return (f"{seconds / 60:5.1f} min  {self.done['rounds']} rounds, {self.done['pushes']} pushes, "
                f"{self.done['requests']} requests, {node.tables.total('MC SEGMENT')} segments; "
                f"{node.host.name}: {node.memory() // 1024} KiB, {node.settled_descriptors()} "
                f"descriptors, {len(node.tasks)} threads")

    def summary(self):
        lines = [f"{number:>10}  {what}" for what, number in self.done.items()]
        lines.append(f"{'node':>10}  {'memory KiB: first':>18} {'warm':>6} {'end':>6}   descriptors"
                     f"   segments   repairs   lost asked")
        for node in self.nodes:
            memory, descriptors = self.flat[node]
            if memory.first is None:
                continue
            lines.append(
                f"{node.host.name:>10}  {memory.first // 1024:>18} {memory.warm // 1024:>6} "
                f"{min(memory.recent) // 1024:>6}   {descriptors.warm:>4} {min(descriptors.recent):>4}"
                f"   {node.tables.total('MC SEGMENT'):>10} {node.tables.total('MC SINGLE SEG'):>9} "
                f"{node.tables.total('UC SNDSINGLSENT'):>9}")
        lines.append(f"{len(IDENTITIES)} identities of counters on each node after each round")
        lines += [f"VIOLATED: {violation}" for violation in self.violations] or ["nothing violated"]
        return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description="The endurance run.")
    parser.add_argument("build", help="the build directory whose bin/ holds the programs")
    parser.add_argument("minutes", type=float)
    parser.add_argument("--loss", type=float, default=LOSS_PERCENT, metavar="PERCENT",
                        help="of what arrives at each node")
    parser.add_argument("--seed", type=int, default=1, help="of the choice of files")
    options = parser.parse_args()
    lab.enter()
    lab.mount_memory("/mnt")
    with lab.Lab(nodes=3, others=("asker",)) as net:
        soak = Soak(lab.Programs(os.path.abspath(options.build)), net, "/mnt/soak",
                    options.minutes * 60, say=lambda line: print(line, flush=True),
                    seed=options.seed, loss=options.loss)
        good = soak.run()
    print(soak.summary())
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
