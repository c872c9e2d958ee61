#!/usr/bin/env python3
"""What a node does with a release beside receiving it: how long after the last byte it is ready, and the processor
time that its thread for releases takes.

    bench/release_times.py BUILD [--nodes N] [--files N] [--bytes N] [--rate RATE] [--rounds N]

Files are in memory, so they are read from there too. The time to "ready" runs between two events of the node: its last
file, and the state. The share of a processor is the processor time of the thread over the time between the first and the
last byte; `perf` tells what part of it is in the library that hashes (a round of its own, since it costs time), and
`openssl speed` what one processor hashes. Everything runs in network namespaces of this process's own. Needs minisign.
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "lab"))
import lab  # noqa: E402
from signed_tree import new_key, sign  # noqa: E402

GIBIBYTE = 1 << 30
THREAD = "RELEASES"
CHUNK = 1 << 24
LEAF = 65536  # bytes that are hashed at a time
READY_SECONDS = 60


def make_tree(root, files, size):
    os.makedirs(root)
    for i in range(files):
        with open(os.path.join(root, f"{i:05}"), "wb") as file:
            for at in range(0, size, CHUNK):
                file.write(os.urandom(min(CHUNK, size - at)))


def thread_of(pid):
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/comm", encoding="ascii") as file:
            if file.read().strip() == THREAD:
                return thread
    raise RuntimeError(f"process {pid} has no thread {THREAD}")


def processor_seconds(pid):
    with open(f"/proc/{pid}/task/{thread_of(pid)}/schedstat", encoding="ascii") as file:
        return int(file.read().split()[0]) / 1e9


class Node:
    def __init__(self, programs, host, work):
        self.log = os.path.join(work, host.name + ".log")
        place = os.path.join(work, host.name)
        os.makedirs(place)
        with open(self.log, "wb") as log:
            self.process = host.spawn(
                [programs.node, "--interface", host.address, "--json", "run", "--releases", f"bench={place}", "--keys",
                 os.path.join(work, "keys"), "--state", place + ".state"], stdout=log)
        lab.wait_until(lambda: self.times("installation", state="idle"), READY_SECONDS, "the node")

    def times(self, event, **wanted):
        with open(self.log, encoding="utf-8") as file:
            events = lab.parse_events(file.read())
        return [one["time"] for one in events
                if one["event"] == event and all(one[key] == value for key, value in wanted.items())]


class Round:
    """One push of a release to nodes that have nothing, up to "ready"."""

    def __init__(self, programs, options, work, tree, profile=False):
        self.options, self.profile = options, os.path.join(work, "perf.data") if profile else None
        with lab.Lab(nodes=options.nodes) as net:
            self.nodes = [Node(programs, host, work) for host in net.nodes]
            try:
                self.measure(programs, net.lead, tree)
            finally:
                net.stop_processes()
        for host in net.nodes:
            lab.remove(os.path.join(work, host.name))
            lab.remove(os.path.join(work, host.name + ".state"))

    def measure(self, programs, lead, tree):
        before = [processor_seconds(node.process.pid) for node in self.nodes]
        recorder = self.start_recorder() if self.profile else None
        done = lead.run([programs.lead, "--interface", lead.address, "push", "--release", tree, "--activate", "no",
                         "--nodes", str(self.options.nodes), *self.rate()], capture_output=True, text=True)
        if recorder:
            recorder.terminate()
            recorder.wait()
        if done.returncode != 0:
            raise RuntimeError(done.stdout + done.stderr)
        self.processor = [processor_seconds(node.process.pid) - start
                          for node, start in zip(self.nodes, before)]
        began = [node.times("installation", state="fetching")[0] for node in self.nodes]
        last = [node.times("file")[-1] for node in self.nodes]
        self.to_ready = [node.times("installation", state="ready")[0] - end for node, end in zip(self.nodes, last)]
        self.receiving = [end - start for end, start in zip(last, began)]

    def rate(self):
        return ["--rate", self.options.rate] if self.options.rate else []

    def start_recorder(self):
        pid = self.nodes[0].process.pid
        return subprocess.Popen(["perf", "record", "-q", "-o", self.profile, "-t", thread_of(pid)],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def show_profile(path):
    told = subprocess.run(["perf", "report", "-i", path, "--stdio", "-q", "--sort", "dso"], capture_output=True,
                          text=True, check=True).stdout
    print("processor time of the thread, by library:")
    print("\n".join(line for line in told.splitlines() if line.strip()))


def row(what, values, unit):
    print(f"{what:44}{min(values):8.3f}{statistics.median(values):8.3f}{max(values):8.3f} {unit}")


def show(rounds, size):
    gibibytes = size / GIBIBYTE
    print(f"\n{'':44}{'min':>8}{'median':>8}{'max':>8}")
    every = [each for one in rounds for each in zip(one.to_ready, one.processor, one.receiving)]
    row("reception", [size / received / 1e6 for _, _, received in every], "MB/s")
    row("from the last file to ready, slowest node", [max(one.to_ready) for one in rounds], "s")
    row(f"processor time of {THREAD}, each node", [used / gibibytes for _, used, _ in every], "s per GiB")
    row("the same, of the time of reception", [used / received for _, used, received in every], "of a processor")


def show_speed():
    told = subprocess.run(["openssl", "speed", "-seconds", "1", "-bytes", str(LEAF), "-evp", "sha256"],
                          capture_output=True, text=True, check=True).stdout
    print("openssl speed:", told.splitlines()[-1])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build")
    parser.add_argument("--nodes", type=int, default=1)
    parser.add_argument("--files", type=int, default=1)
    parser.add_argument("--bytes", type=int, default=GIBIBYTE, help="of each file")
    parser.add_argument("--rate", help="of the push, as its option (default: it finds its own)")
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    lab.enter()
    programs = lab.Programs(options.build)
    work = lab.work_directory()
    try:
        secret, tree = os.path.join(work, "secret.key"), os.path.join(work, "tree")
        new_key(os.path.join(work, "keys"), secret)
        make_tree(tree, options.files, options.bytes)
        sign(programs, tree, 1, secret)
        print(f"{options.files} files of {options.bytes} bytes, {options.nodes} nodes, rate {options.rate or 'its own'}")
        show([Round(programs, options, work, tree) for _ in range(options.rounds)], options.files * options.bytes)
        show_speed()
        if shutil.which("perf"):
            show_profile(Round(programs, options, work, tree, profile=True).profile)
    finally:
        lab.remove(work)


main()
