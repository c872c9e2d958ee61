"""End-to-end throughput in network namespaces: one lead to one and to three nodes, beside a raw
multicast pair without a protocol (select, recvfrom, write) in the same run.

    scripts/bench [--megabytes N] [--files N] [--loss PERCENT ...] [--runs N]

Printed per case, medians of the runs: MB/s of content, the receiver's CPU seconds per GiB, its peak
memory, bytes that the lead's host sent over bytes of content, and the MB/s over those of the raw pair
to the same number of nodes. Everything stays in memory (/dev/shm).
"""

import argparse
import json
import os
import signal
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "lab"))
import lab  # noqa: E402

GIB = 1 << 30


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


def raw_run(tool, net, count, megabytes, work):
    receivers = []
    for host in net.nodes[:count]:
        process = host.spawn([tool, "--interface", host.address, "receive", "--file",
                              os.path.join(work, host.name + ".raw")],
                             stdout=subprocess.PIPE, text=True)
        process.stdout.readline()
        receivers.append(process)
    net.lead.run([tool, "--interface", net.lead.address, "send", "--bytes",
                  str(megabytes << 20), "--rate", "100000"], check=True, capture_output=True)
    results = [json.loads(process.stdout.readline()) for process in receivers]
    cpu = [finish(process)[0] for process in receivers]
    received = min(r["received"] for r in results)
    seconds = max(r["seconds"] for r in results)
    return {"mbs": received / seconds / 1e6, "cpu": max(cpu) / received * GIB,
            "arrived": received / (megabytes << 20)}


def push_run(programs, net, count, root, work, rate, expected):
    nodes, directories = [], []
    for host in net.nodes[:count]:
        directory = os.path.join(work, host.name)
        directories.append(directory)
        nodes.append(programs.start_node(host, directory, log=os.path.join(work, host.name + ".log")))
    before = sent_bytes(net.lead)
    extra = ["--rate", rate] if rate else []
    result = programs.push(net.lead, root, "--nodes", str(count), *extra)
    wire = sent_bytes(net.lead) - before
    usage = [finish(process) for process in nodes]
    done = next(e for e in result.events if e["event"] == "push-finished")
    identical = all(not lab.differences(expected, lab.manifest(d)) for d in directories)
    for directory in directories:
        lab.remove(directory)
    return {"seconds": done["seconds"], "mbs": done["bytes"] / done["seconds"] / 1e6,
            "cpu": max(u[0] for u in usage) / done["bytes"] * GIB,
            "memory": max(u[1] for u in usage) / 1e6, "wire": wire / done["bytes"],
            "identical": identical and result.returncode == 0}


def median(runs, key):
    return statistics.median(run[key] for run in runs)


def print_row(*cells):
    widths = (22, 6, 6, 9, 9, 10, 9, 7, 8, 10)
    print("  ".join(str(cell).rjust(width) for cell, width in zip(cells, widths)), flush=True)


def bench_push(options, programs, name, root, raw, work):
    expected = lab.manifest(root)
    for count in options.nodes:
        for loss in options.loss:
            with lab.Lab(nodes=count) as net:
                for host in net.nodes:
                    host.lose(loss)
                net.lead.lose(options.lead_loss if loss else 0)
                runs = [push_run(programs, net, count, root, work, options.rate, expected)
                        for _ in range(options.runs)]
            identical = sum(run["identical"] for run in runs)
            print_row(name, count, f"{loss:g}", f"{median(runs, 'seconds'):.2f}",
                      f"{median(runs, 'mbs'):.1f}", f"{median(runs, 'cpu'):.2f}",
                      f"{median(runs, 'memory'):.1f}", f"{median(runs, 'wire'):.3f}",
                      f"{median(runs, 'mbs') / raw[count]['mbs']:.2f}",
                      f"{identical}/{len(runs)}")


def bench_raw(options, tool, work):
    raw = {}
    for count in options.nodes:
        with lab.Lab(nodes=count) as net:
            runs = [raw_run(tool, net, count, options.megabytes, work)
                    for _ in range(options.runs)]
        raw[count] = {key: median(runs, key) for key in runs[0]}
        print_row("raw pair, unpaced", count, "0", "-", f"{raw[count]['mbs']:.1f}",
                  f"{raw[count]['cpu']:.2f}", "-", "-", "1.00",
                  f"{raw[count]['arrived'] * 100:.1f} %")
    return raw


def main():
    options = parse()
    lab.enter()
    work = lab.work_directory()
    try:
        large, small = os.path.join(work, "large"), os.path.join(work, "small")
        make_large(large, options.megabytes)
        make_small(small, options.files, options.small)
        programs = lab.Programs(options.build)
        print_row("case", "nodes", "loss %", "seconds", "MB/s", "CPU s/GiB", "peak MB", "wire",
                  "of raw", "identical")
        raw = bench_raw(options, os.path.join(options.build, "bin", "raw_pair"), work)
        bench_push(options, programs, f"{options.megabytes} MiB file", large, raw, work)
        bench_push(options, programs, f"{options.files} x {options.small} B", small, raw, work)
    finally:
        lab.remove(work)


main()
