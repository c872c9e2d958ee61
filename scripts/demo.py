"""The demonstration: see scripts/demo."""

import os
import shutil
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "lab"))
import lab  # noqa: E402

LOSS_PERCENT = 2.0


def gather_content(root):
    """A real tree: the time zones with their links, and the compiler proper."""
    if os.path.isdir("/usr/share/zoneinfo"):
        shutil.copytree("/usr/share/zoneinfo", os.path.join(root, "zoneinfo"), symlinks=True)
    compiler = subprocess.run(["g++", "-print-prog-name=cc1plus"], capture_output=True, text=True,
                              check=True).stdout.strip()
    os.makedirs(os.path.join(root, "bin"))
    shutil.copy2(compiler, os.path.join(root, "bin"))


def print_table(rows):
    header = ("node", "files", "bytes", "seconds", "MB/s", "repaired", "sha256")
    rows = [header] + [tuple(str(cell) for cell in row) for row in rows]
    widths = [max(len(row[i]) for row in rows) for i in range(len(header))]
    for row in rows:
        print("  ".join(cell.rjust(width) if i else cell.ljust(width)
                        for i, (cell, width) in enumerate(zip(row, widths))))


def repaired_segments(log):
    with open(log, encoding="utf-8") as file:
        done = [e for e in lab.parse_events(file.read()) if e["event"] == "transaction-done"]
    return done[-1]["repaired_segments"] if done else 0


def verdict_rows(names, directories, logs, expected, seconds):
    rows, good = [], True
    for name, directory, log in zip(names, directories, logs):
        actual = lab.manifest(directory)
        wrong = lab.differences(expected, actual)
        good = good and not wrong
        size = sum(entry[3] for entry in actual.values() if entry[0] == "file")
        rows.append((name, len(actual), size, f"{seconds:.2f}", f"{size / seconds / 1e6:.1f}",
                     repaired_segments(log), "identical" if not wrong else f"{len(wrong)} DIFFER"))
        for line in wrong[:10]:
            print(f"{name}: {line}")
    return rows, good


def timed(push):
    start = time.monotonic()
    result = push()
    return result, time.monotonic() - start


def finish(result, rows, good):
    print_table(rows)
    if result.returncode != 0:
        print(f"the push ended with status {result.returncode}\n{result.stderr}")
        return 1
    print("every node has every byte" if good else "NOT everything arrived")
    return 0 if good else 1


def demo_on_bridge(programs, root, work):
    with lab.Lab(nodes=3) as net:
        directories = [os.path.join(work, host.name) for host in net.nodes]
        logs = [directory + ".log" for directory in directories]
        for host, directory, log in zip(net.nodes, directories, logs):
            host.lose(LOSS_PERCENT)
            programs.start_node(host, directory, log=log)
        print(f"one lead and three nodes on a bridge, {LOSS_PERCENT:g} % of what each node receives is lost")
        result, seconds = timed(lambda: programs.push(net.lead, root, "--nodes", "3"))
        net.stop_processes()
        rows, good = verdict_rows([f"{h.name} {h.address}" for h in net.nodes], directories, logs,
                                  lab.manifest(root), seconds)
        return finish(result, rows, good)


def demo_on_loopback(programs, root, work):
    print("this system forbids network namespaces: one lead on 127.0.0.1 and one node on 127.0.0.2, "
          "without loss")
    directory, log = os.path.join(work, "node"), os.path.join(work, "node.log")
    node = lab.Loopback("127.0.0.2")
    programs.start_node(node, directory, log=log)
    result, seconds = timed(lambda: programs.push(lab.Loopback("127.0.0.1"), root, "--nodes", "1"))
    node.stop_all()
    rows, good = verdict_rows(["127.0.0.2"], [directory], [log], lab.manifest(root), seconds)
    return finish(result, rows, good)


def main():
    namespaces = os.environ.get(lab.MARK) or lab.available()
    if namespaces:
        lab.enter()
    work = lab.work_directory()
    try:
        root = os.path.join(work, "content")
        os.makedirs(root)
        gather_content(root)
        programs = lab.Programs(sys.argv[1])
        return (demo_on_bridge if namespaces else demo_on_loopback)(programs, root, work)
    finally:
        lab.remove(work)


sys.exit(main())
