#!/usr/bin/env python3
"""What a signed release takes, in time and in bytes on the wire: the first one, and a second one of which 1 % of the
bytes are other ones (hard links for the rest), to all nodes; beside a plain push of the same tree, and beside rsync to each node.

    bench/releases.py BUILD [--nodes N] [--files N] [--bytes N] [--rounds N] [--link RATE]

Everything runs in network namespaces of this process's own. Needs minisign; rsync is left out when it is not there
(scripts/setup peers installs both).
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "lab"))
import lab  # noqa: E402
import links  # noqa: E402
from signed_tree import new_key, sign  # noqa: E402

FILES_IN_A_DIRECTORY = 100
CHANGED_SHARE = 0.01
FIRST_TIME = 1_700_000_000
SETTLE_SECONDS = 10  # until nodes have introduced themselves or daemons listen, at most


class Tree:
    """Two trees: the second has 1 % of its files changed, and later times for them: a push and rsync take files of
    one size and time for the same."""

    def __init__(self, work, files, size):
        self.size = size
        self.first, self.second = os.path.join(work, "tree-1"), os.path.join(work, "tree-2")
        for i in range(files):
            self._write(self.first, i, FIRST_TIME)
        shutil.copytree(self.first, self.second)
        for i in range(0, files, round(1 / CHANGED_SHARE)):
            self._write(self.second, i, FIRST_TIME + 1)

    def _write(self, root, i, time_of_change):
        directory = os.path.join(root, f"{i // FILES_IN_A_DIRECTORY:03}")
        os.makedirs(directory, exist_ok=True)
        path = os.path.join(directory, f"{i:05}")
        with open(path, "wb") as file:
            file.write(os.urandom(self.size))
        os.utime(path, (time_of_change, time_of_change))


def sent_bytes(host):
    shown = host.run(["cat", "/sys/class/net/eth0/statistics/tx_bytes"], capture_output=True, text=True, check=True)
    return int(shown.stdout)


class Round:
    """One laboratory, in which each way distributes the first tree and then the second."""

    def __init__(self, net, programs, work, tree):
        self.net, self.programs, self.work, self.tree = net, programs, work, tree
        self.keys = os.path.join(work, "keys")
        self.nodes = ("--nodes", str(len(net.nodes)))
        self.results = {}

    def place(self, host, way):
        path = os.path.join(self.work, host.name, way)
        os.makedirs(path, exist_ok=True)
        return path

    def measure(self, way, action):
        before = sent_bytes(self.net.lead), sum(sent_bytes(host) for host in self.net.nodes)
        start = time.monotonic()
        action()
        seconds = time.monotonic() - start
        after = sent_bytes(self.net.lead), sum(sent_bytes(host) for host in self.net.nodes)
        self.results[way] = (seconds, after[0] - before[0], after[1] - before[1])

    def lead(self, *arguments):
        result = self.net.lead.run([self.programs.lead, "--interface", self.net.lead.address, *arguments],
                                   capture_output=True, text=True)
        if result.returncode != 0:
            raise RuntimeError(f"{arguments}: {result.stdout[-1000:]} {result.stderr[-1000:]}")

    def check(self, tree, directories):
        expected = {name: entry for name, entry in lab.manifest(tree).items() if not name.startswith(".pkgdist/")}
        for directory in directories:
            found = {name: entry for name, entry in lab.manifest(directory).items()
                     if not name.startswith(".pkgdist/")}
            if wrong := lab.differences(expected, found):
                raise RuntimeError(f"{directory}: {len(wrong)} differences, {wrong[:3]}")

    def releases(self):
        for host in self.net.nodes:
            host.spawn([self.programs.node, "--interface", host.address, "run", "--releases",
                        f"bench={self.place(host, 'releases')}", "--hardlink", "--keys", self.keys, "--state",
                        self.place(host, "state")], stdout=subprocess.DEVNULL)
        for name, tree in (("first release", self.tree.first), ("second release", self.tree.second)):
            self.measure(name, lambda root=tree: self.lead("push", "--release", root, *self.nodes))
            self.check(tree, [os.path.join(self.place(host, "releases"), "current") for host in self.net.nodes])
        self.net.stop_processes()

    def pushes(self, place, kind, *options):
        for host in self.net.nodes:
            host.spawn([self.programs.node, "--interface", host.address, "--umask", "0", "--location",
                        f"1={self.place(host, place)}", "run"], stdout=subprocess.DEVNULL)
        for turn, tree in (("first", self.tree.first), ("second", self.tree.second)):
            self.measure(f"{turn} {kind}", lambda root=tree: self.lead(
                "--location", f"1={root}", "push", "--durable", *options, *self.nodes, "--exclude", ".pkgdist", root))
            self.check(tree, [self.place(host, place) for host in self.net.nodes])
        self.net.stop_processes()

    def rsync(self):
        if shutil.which("rsync") is None:
            return
        for host in self.net.nodes:
            config = os.path.join(self.work, host.name, "rsyncd.conf")
            with open(config, "w", encoding="utf-8") as file:
                file.write(f"use chroot = no\n[tree]\npath = {self.place(host, 'rsync')}\nread only = no\n"
                           "uid = 0\ngid = 0\n")
            host.spawn(["rsync", "--daemon", "--no-detach", "--config", config, "--address", host.address],
                       stdout=subprocess.DEVNULL)
            lab.wait_until(lambda one=host: self.net.lead.run(
                ["rsync", f"rsync://{one.address}/"], capture_output=True).returncode == 0, SETTLE_SECONDS, "rsync")
        for name, tree in (("first rsync", self.tree.first), ("second rsync", self.tree.second)):
            self.measure(name, lambda root=tree: self.rsync_to_all(root))
            self.check(tree, [self.place(host, "rsync") for host in self.net.nodes])
        self.net.stop_processes()

    def rsync_to_all(self, tree):
        """To all nodes at a time."""
        def run(host):
            self.net.lead.run(["rsync", "-a", "--delete", "--fsync", "--exclude", "/.pkgdist", tree + "/",
                               f"rsync://{host.address}/tree"], check=True)

        threads = [threading.Thread(target=run, args=(host,)) for host in self.net.nodes]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()


def stolen_seconds():
    with open("/proc/stat", encoding="ascii") as file:
        return int(file.readline().split()[8]) / os.sysconf("SC_CLK_TCK")


def show(rounds, stolen):
    print(f"\n{'':18}{'seconds':>9}{'(range)':>16}{'lead sends':>14}{'nodes send':>14}")
    for way in rounds[0]:
        seconds, lead_bytes, node_bytes = (statistics.median(r[way][i] for r in rounds) for i in range(3))
        times = [r[way][0] for r in rounds]
        spread = f"({min(times):.2f}-{max(times):.2f})"
        print(f"{way:18}{seconds:9.2f}{spread:>16}{lead_bytes / 1e6:11.2f} MB{node_bytes / 1e6:11.2f} MB")
    print(f"the hypervisor took {stolen_seconds() - stolen:.1f} s of processors meanwhile")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build")
    parser.add_argument("--nodes", type=int, default=3)
    parser.add_argument("--files", type=int, default=10_000)
    parser.add_argument("--bytes", type=int, default=4000, help="of each file")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--link", metavar="RATE", help="of the lead's link, as tc writes it: 400mbit (default: the machine's)")
    options = parser.parse_args()
    lab.enter()
    if shutil.which("rsync") is None:
        print("rsync is not installed: left out (scripts/setup peers)")
    programs = lab.Programs(options.build)
    rounds, stolen = [], stolen_seconds()
    for _ in range(options.rounds):
        work = lab.work_directory()
        try:
            secret = os.path.join(work, "secret.key")
            new_key(os.path.join(work, "keys"), secret)
            tree = Tree(work, options.files, options.bytes)
            sign(programs, tree.first, 1, secret)
            sign(programs, tree.second, 2, secret)
            with lab.Lab(nodes=options.nodes) as net:
                if options.link:
                    links.limit_sending(net.lead, options.link)
                one = Round(net, programs, work, tree)
                one.releases()
                one.pushes("pushes", "push")
                one.pushes("compared", "--checksum", "--checksum")
                one.rsync()
            rounds.append(one.results)
        finally:
            lab.remove(work)
    print(f"{options.files} files of {options.bytes} bytes, {CHANGED_SHARE:.0%} of them changed in the second tree; "
          f"nodes: {options.nodes}; {f'a link of {options.link}; ' if options.link else ''}medians of {options.rounds}")
    show(rounds, stolen)


main()
