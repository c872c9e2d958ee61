"""End-to-end throughput in network namespaces: one lead to one and to three nodes, beside a raw
multicast pair without a protocol that has the receive side's shape, and with --peers beside two
other multicast distributors, all of them taking turns in the same run.

    scripts/bench [--megabytes N] [--files N] [--loss PERCENT ...] [--runs N] [--peers [NAME ...]]
                  [--segmented]

Loss is what each node's host drops of what arrives there; in the cases with loss the lead's host
drops --lead-loss percent, too. Printed per case, medians of the runs: seconds, MB/s of content, the
receiver's CPU seconds per GiB, its peak memory, bytes that the lead's host sent over bytes of
content and over what the loss makes necessary, and how many runs ended with identical content.
Times are those of each program itself, from the first announcement of content to the last report;
what it takes to find the receivers before is left out. Everything stays in memory (/dev/shm).

A virtual link hands datagrams over in the batches in which they were sent, and what is dropped there
is dropped batch by batch. --segmented turns that off: the lead's link cuts batches into datagrams,
as most real network cards do, and each of them is dropped or not by itself.
"""

import argparse
import json
import os
import signal
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "lab"))
import lab  # noqa: E402

GIB = 1 << 30
PEERS = ("udpcast", "uftp")
LIMIT = "60"  # seconds; a run of a peer that takes longer has failed


def parse():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("--megabytes", type=int, default=512, help="size of the one large file")
    parser.add_argument("--files", type=int, default=2000, help="number of small files")
    parser.add_argument("--small", type=int, default=16384, help="bytes of each small file")
    parser.add_argument("--loss", type=float, nargs="*", default=[0.0, 1.0, 5.0], help="percent")
    parser.add_argument("--lead-loss", type=float, default=5.0,
                        help="percent of what the lead receives, in the cases with loss")
    parser.add_argument("--nodes", type=int, nargs="*", default=[1, 3])
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--rate", default=None, help="--rate of the lead")
    parser.add_argument("--peers", nargs="*", choices=PEERS, help="these, too; both")
    parser.add_argument("--segmented", action="store_true", help="batches are cut on the lead's link")
    parser.add_argument("--only", nargs="*", default=["large", "small"], choices=["large", "small"])
    parser.add_argument("--json", help="file for the results of every run")
    return parser.parse_args()


def make_large(root, megabytes):
    os.makedirs(root)
    block = os.urandom(1 << 20)
    with open(os.path.join(root, "large"), "wb") as file:
        for i in range(megabytes):
            file.write(block[i % 997:] + block[:i % 997])


def make_small(root, files, size):
    block = os.urandom(size * 2)
    for i in range(files):
        directory = os.path.join(root, f"{i // 100:03}")
        os.makedirs(directory, exist_ok=True)
        with open(os.path.join(directory, f"{i:06}"), "wb") as file:
            file.write(block[i % size:i % size + size])


def finish(process):
    """Ends a receiver; gives its CPU seconds and peak memory in bytes."""
    os.kill(process.pid, signal.SIGTERM)  # one that has ended is still ours until waited for
    _, _, usage = os.wait4(process.pid, 0)
    process.returncode = 0
    return usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024


def sent_bytes(host):
    text = host.run(["cat", "/proc/net/dev"], capture_output=True, text=True).stdout
    line = next(line for line in text.splitlines() if line.strip().startswith("eth0:"))
    return int(line.split(":")[1].split()[8])


class Case:
    """One content to some nodes of one laboratory, with a place for what they receive."""

    def __init__(self, net, count, root, expected, work):
        self.lead, self.nodes = net.lead, net.nodes[:count]
        self.root, self.expected, self.work = root, expected, work
        self.bytes = sum(entry[3] for entry in expected.values() if entry[0] == "file")
        self.directories = [os.path.join(work, host.name) for host in self.nodes]

    def prepare(self):
        for directory in self.directories:
            lab.remove(directory)
            os.makedirs(directory)

    def identical(self, place=lambda directory: directory):
        """Names and content, which all programs keep."""
        strip = lambda entries: {name: (entry[0], entry[-1]) for name, entry in entries.items()}
        expected = strip(self.expected)
        return all(strip(lab.manifest(place(directory))) == expected
                   for directory in self.directories)


class Ours:
    name = "pkgdist"

    def __init__(self, programs, rate):
        self.programs, self.extra = programs, ["--rate", rate] if rate else []

    def run(self, case):
        nodes = [host.spawn([self.programs.node, "--interface", host.address, "--location",
                             f"1={directory}", "run"], stdout=subprocess.DEVNULL)
                 for host, directory in zip(case.nodes, case.directories)]
        result = self.programs.push(case.lead, case.root, "--nodes", str(len(nodes)), *self.extra)
        usage = [finish(process) for process in nodes]
        done = next(e for e in result.events if e["event"] == "push-finished")
        return done["seconds"], usage, result.returncode == 0


class Raw:
    """Loses what it loses: what arrived is what its time is divided by."""

    def __init__(self, tool, batch):
        self.tool, self.batch = tool, batch
        self.name = f"raw, {batch} a call" if batch > 1 else "raw pair"

    def run(self, case):
        receivers = []
        for host, directory in zip(case.nodes, case.directories):
            process = host.spawn([self.tool, "--interface", host.address, "receive", "--file",
                                  os.path.join(directory, "raw")], stdout=subprocess.PIPE, text=True)
            process.stdout.readline()
            receivers.append(process)
        case.lead.run([self.tool, "--interface", case.lead.address, "send", "--bytes",
                       str(case.bytes), "--rate", "100000", "--batch", str(self.batch)],
                      check=True, capture_output=True)
        results = [json.loads(process.stdout.readline()) for process in receivers]
        usage = [finish(process) for process in receivers]
        received = min(result["received"] for result in results)
        seconds = max(result["seconds"] for result in results)
        return seconds * case.bytes / received, usage, True


class Udpcast:
    """Several files travel as an archive through its pipe. Its receivers are told not to sync, and
    its sender to be patient, since it gives up receivers when their answers are lost."""

    name = "udpcast"
    COMMON = "--nokbd --no-progress --mcast-rdv-address 239.255.1.1 --interface eth0"

    def run(self, case):
        single = len(case.expected) == 1
        receivers = []
        for host, directory in zip(case.nodes, case.directories):
            sink = f"--file {directory}/{next(iter(case.expected))}" if single else \
                f"| tar -xf - -C {directory}"
            receivers.append(host.spawn(["timeout", LIMIT, "sh", "-c", f"udp-receiver --nosync {self.COMMON} {sink}"],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        time.sleep(0.3)
        source = "" if single else f"tar -cf - -C {case.root} . | "
        what = f"--file {case.root}/{next(iter(case.expected))}" if single else ""
        sender = case.lead.spawn(
            ["timeout", LIMIT, "sh", "-c", f"{source}udp-sender --full-duplex --retries-until-drop 2000 "
                         f"--min-receivers {len(receivers)} {self.COMMON} {what}"],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        start = end = time.monotonic()
        for line in sender.stderr:
            if "Starting transfer" in line:
                start = time.monotonic()
            if "Transfer complete" in line:
                end = time.monotonic()
        done = sender.wait() == 0
        return end - start, [waited(process) for process in receivers], done


class Uftp:
    name = "uftp"
    FIRST_AND_LAST = "sed -un '/^-----/{p;:more;n;/Group complete/p;bmore}'"

    def run(self, case):
        receivers = [host.spawn(["uftpd", "-d", "-t", "-D", directory, "-I", "eth0"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                     for host, directory in zip(case.nodes, case.directories)]
        time.sleep(0.3)
        # The times that it tells are those of single files, and too short to be added up.
        sender = case.lead.spawn(
            ["timeout", LIMIT, "bash", "-c", "set -o pipefail; stdbuf -oL uftp -I eth0 -R -1 "
             f"{' '.join(sorted(os.listdir(case.root)))} 2>&1 | {self.FIRST_AND_LAST}"],
            cwd=case.root, stdout=subprocess.PIPE, text=True)
        times = [time.monotonic() for _ in sender.stdout]
        done = sender.wait() == 0 and len(times) == 2
        took = times[1] - times[0] if done else 0
        return took, [finish(process) for process in receivers], done


def waited(process):
    _, _, usage = os.wait4(process.pid, 0)
    process.returncode = 0
    return usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024


def measure(case, tool):
    case.prepare()
    before = sent_bytes(case.lead)
    seconds, usage, good = tool.run(case)
    run = {"seconds": seconds, "mbs": case.bytes / max(seconds, 1e-9) / 1e6,
           "cpu": max(u[0] for u in usage) / case.bytes * GIB,
           "memory": max(u[1] for u in usage) / 1e6,
           "wire": (sent_bytes(case.lead) - before) / case.bytes,
           "identical": good and (isinstance(tool, Raw) or case.identical())}
    for directory in case.directories:
        lab.remove(directory)
    return run


def necessary(nodes, loss):
    """How often a datagram is sent on average until every one of the nodes has it."""
    p = loss / 100
    total, k = 0.0, 0
    while True:
        term = 1 - (1 - p ** k) ** nodes
        if term < 1e-9:
            return total
        total, k = total + term, k + 1


def median(runs, key):
    return statistics.median(run[key] for run in runs)


def print_row(*cells):
    widths = (20, 14, 6, 6, 9, 8, 10, 8, 7, 8, 10)
    print("  ".join(str(cell).rjust(width) for cell, width in zip(cells, widths)), flush=True)


def print_result(name, tool, count, loss, runs, lossless_wire):
    good = [run for run in runs if run["identical"]]
    if not good:
        return print_row(name, tool, count, f"{loss:g}", "-", "-", "-", "-", "-", "-", f"0/{len(runs)}")
    wire = median(good, "wire")
    over = wire / lossless_wire / necessary(count, loss) if lossless_wire else 0
    print_row(name, tool, count, f"{loss:g}", f"{median(good, 'seconds'):.2f}",
              f"{median(good, 'mbs'):.1f}", f"{median(good, 'cpu'):.2f}",
              f"{median(good, 'memory'):.1f}", f"{wire:.3f}", f"{over:.3f}" if over else "-",
              f"{len(good)}/{len(runs)}")


def prepare_hosts(net, loss, options):
    for host in net.hosts():
        # One of the peers sends to groups of its own choice, by the default route.
        host.run(["ip", "route", "add", "default", "dev", "eth0"], check=True)
    if options.segmented:
        net.lead.run(["ethtool", "-K", "eth0", "tx-udp-segmentation", "off"], check=True,
                     capture_output=True)
    for host in net.nodes:
        host.lose(loss)
    net.lead.lose(options.lead_loss if loss else 0)


def bench(options, tools, name, root, work, results):
    expected = lab.manifest(root)
    lossless = {}
    for count in options.nodes:
        for loss in options.loss:
            here = [tool for tool in tools if not isinstance(tool, Raw) or
                    (loss == 0 and len(expected) == 1)]
            runs = {tool.name: [] for tool in here}
            for _ in range(options.runs):
                for tool in here:
                    # A laboratory for each run: nothing of a run is left in sockets and links.
                    with lab.Lab(nodes=count) as net:
                        prepare_hosts(net, loss, options)
                        runs[tool.name].append(measure(Case(net, count, root, expected, work), tool))
            for tool in here:
                if loss == 0:
                    lossless[tool.name] = min(run["wire"] for run in runs[tool.name])
                print_result(name, tool.name, count, loss, runs[tool.name],
                             lossless.get(tool.name))
                results.append({"content": name, "program": tool.name, "nodes": count, "loss": loss,
                                "runs": runs[tool.name]})


def main():
    options = parse()
    lab.enter()
    work = lab.work_directory()
    results = []
    try:
        programs = lab.Programs(options.build)
        raw = os.path.join(options.build, "bin", "raw_pair")
        tools = [Ours(programs, options.rate), Raw(raw, 1), Raw(raw, 16)]
        if options.peers is not None:
            tools += [peer for peer in (Udpcast(), Uftp()) if peer.name in (options.peers or PEERS)]
        print_row("content", "program", "nodes", "loss %", "seconds", "MB/s", "CPU s/GiB", "peak MB",
                  "wire", "of need", "identical")
        if "large" in options.only:
            make_large(os.path.join(work, "large"), options.megabytes)
            bench(options, tools, f"{options.megabytes} MiB file", os.path.join(work, "large"), work,
                  results)
            lab.remove(os.path.join(work, "large"))
        if "small" in options.only:
            make_small(os.path.join(work, "small"), options.files, options.small)
            bench(options, tools, f"{options.files} x {options.small} B",
                  os.path.join(work, "small"), work, results)
    finally:
        lab.remove(work)
        if options.json:
            with open(options.json, "w") as file:
                json.dump(results, file, indent=1)


main()
