"""End-to-end throughput in network namespaces: one lead to one and to three nodes, and with --peers
two other multicast distributors beside it, all of them by turns in the same run.

    scripts/bench [--cells NAME ...] [--peers [NAME ...]] [--beside BUILD_DIR] [--runs N]
                  [--json FILE] [--markdown]

bench/cells.py lists what is measured, bench/peers.py how each program is run, bench/report.py what
the columns mean. For every program alike:

 - the time is the wall clock of the whole command, from its start to its exit; receivers are up
   before;
 - each run has a network of its own that nothing was sent through, and the first one counts;
 - each host drops its share of the datagrams that arrive, one by one, and so does the lead's host;
   with --batches the virtual link drops the sender's batches as a whole;
 - a run that takes longer than --limit has failed, and so has one whose content is not identical.

Everything stays in memory (/dev/shm).
"""

import argparse
import json
import os
import shlex
import shutil
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "lab"))
import lab  # noqa: E402
import links  # noqa: E402
import machine  # noqa: E402
import peers  # noqa: E402
import rate_search  # noqa: E402
import report  # noqa: E402
from cells import CELLS, SLOW_NODE, Case, Content, DefaultSocketLimit  # noqa: E402

GIB = 1 << 30
WATCH_SECONDS = 0.01  # between two looks at a file that is being received


def parse():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("--cells", nargs="+", choices=list(CELLS),
                        default=["large", "small", "tiny"], help="default: large small tiny")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--nodes", type=int, nargs="+", help="instead of each cell's own")
    parser.add_argument("--loss", type=float, nargs="+", help="percent, instead of each cell's own")
    parser.add_argument("--lead-loss", type=float,
                        help="percent of what the lead receives, in runs with loss [as the nodes]")
    parser.add_argument("--batches", action="store_true", help="whole batches are lost")
    parser.add_argument("--megabytes", type=int, default=512, help="size of the large file")
    parser.add_argument("--files", type=int, default=2000, help="number of small files")
    parser.add_argument("--small", type=int, default=16384, help="bytes of each small file")
    parser.add_argument("--slow-rate", default="60mbit", help="port of the slow node, as in tc")
    parser.add_argument("--limit", type=float, default=60, help="seconds after which a run failed")
    parser.add_argument("--limit-sockets", action="store_true",
                        help="cell default-socket may set net.core.rmem_max of the whole machine")
    add_programs(parser)
    parser.add_argument("--rate-search", action="store_true",
                        help="only find the highest fixed rate without a full receive buffer")
    parser.add_argument("--rate-from", type=int, default=400, help="Mbit/s, of --rate-search")
    parser.add_argument("--rate-step", type=int, default=200, help="Mbit/s, of --rate-search")
    parser.add_argument("--json", help="file for the figures of every run")
    parser.add_argument("--markdown", action="store_true", help="the table once more, as Markdown")
    return parser.parse_args()


def add_programs(parser):
    parser.add_argument("--peers", nargs="*", choices=peers.PEERS, help="these, too; without names all")
    parser.add_argument("--raw", action="store_true",
                        help="a pair without a protocol, too, in runs of the large file without loss")
    parser.add_argument("--beside", metavar="BUILD_DIR", help="another build's pkgdist, too")
    parser.add_argument("--rate", type=int, help="Mbit/s of every program [as fast as it can]")
    parser.add_argument("--lead-options", type=shlex.split, default=[],
                        help="more options of the lead's push, in one word")
    parser.add_argument("--node-options", type=shlex.split, default=[],
                        help="more options of the nodes, in one word")


def check_peers(names):
    for name in names:
        for program in peers.PROGRAMS[name]:
            if not shutil.which(program):
                sys.exit(f"{program} is not installed: scripts/setup peers")


def programs_of(options):
    tools = [peers.Pkgdist("pkgdist", options.build, options.rate, options.lead_options,
                           options.node_options)]
    if options.beside:
        tools.append(peers.Pkgdist("pkgdist (beside)", options.beside, options.rate, [], []))
    if options.raw:
        tools += [peers.Raw(options.build, 1), peers.Raw(options.build, 16)]
    if options.peers is not None:
        check_peers(options.peers or peers.PEERS)
        tools += [make(options.rate) for make in (peers.Udpcast, peers.UdpcastHalf, peers.Uftp)
                  if make.name in (options.peers or peers.PEERS)]
    return tools


class FastNodes:
    """When all nodes but the slow one had the whole file, in seconds of the sender's clock."""

    def __init__(self, case):
        self.case, self.seconds = case, None
        self._done = threading.Event()
        self._thread = threading.Thread(target=self._watch)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._done.set()
        self._thread.join()

    def _watch(self):
        waiting = [i for i in range(len(self.case.nodes)) if i != SLOW_NODE]
        while waiting and not self._done.wait(WATCH_SECONDS):
            waiting = [i for i in waiting if not self.case.has_whole_file(i)]
        if not waiting:
            self.seconds = time.monotonic() - self.case.started


def measure(cell, case, tool):
    sent = links.sent_bytes(case.lead)
    stolen = machine.StolenTime()
    outcome = tool.run(case)
    run = {"seconds": outcome.seconds, "own_seconds": outcome.own_seconds,
           "mbs": case.bytes / outcome.seconds / 1e6,
           "cpu": max(outcome.cpu) / case.bytes * GIB,
           "memory": max(outcome.memory) / 1e6,
           "sent": (links.sent_bytes(case.lead) - sent) / case.bytes,
           "stolen": stolen.percent(),
           "socket_drops": sum(map(links.socket_drops, case.nodes)),
           "lead_socket_drops": links.socket_drops(case.lead),
           "ended": outcome.done}
    if cell.small_switch or cell.slow_node:
        run["port_drops"] = sum(map(links.port_drops, case.nodes))
    run["identical"] = outcome.done and (isinstance(tool, peers.Raw) or case.identical())
    return run


def run_once(cell, content, count, loss, tool, work, options):
    """In a laboratory of its own: nothing of a run is left in sockets and links for the next."""
    with lab.Lab(nodes=cell.hosts(count)) as net:
        cell.arrange(net, loss, options)
        case = Case(cell, net, count, content, work, options)
        try:
            if not cell.slow_node:
                return measure(cell, case, tool)
            with FastNodes(case) as fast:
                run = measure(cell, case, tool)
            return run | {"fast_seconds": fast.seconds}
        finally:
            case.clean()


def run_cell(cell, tools, work, options, results):
    content = Content(cell.content, work, options)
    for count in options.nodes or cell.nodes:
        for loss in options.loss or cell.loss:
            here = [tool for tool in tools
                    if not isinstance(tool, peers.Raw) or (loss == 0 and cell.content == "large")]
            rows = [{"cell": cell.name, "content": content.name, "program": tool.name,
                     "nodes": count, "loss": loss, "batches": cell.batches or options.batches,
                     "runs": []} for tool in here]
            for turn in range(options.runs):
                for i in range(len(here)):  # each turn begins with another program
                    at = (i + turn) % len(here)
                    rows[at]["runs"].append(
                        run_once(cell, content, count, loss, here[at], work, options))
            results += rows
            for row in rows:
                report.print_row(row, results)
    lab.remove(content.root)


def run_cells(options, work, results):
    tools = programs_of(options)
    report.print_head()
    for cell in (CELLS[name] for name in options.cells):
        if obstacle := cell.obstacle(options):
            print(f"{cell.name}: cannot be made: {obstacle}", flush=True)
            continue
        with DefaultSocketLimit(cell.default_socket and options.limit_sockets):
            run_cell(cell, tools, work, options, results)
    if options.markdown:
        print("\n" + report.markdown(results))


def main():
    options = parse()
    lab.enter()
    work = lab.work_directory()
    record = {"machine": machine.describe(), "arguments": sys.argv[1:], "results": []}
    print(record["machine"], flush=True)
    try:
        if options.rate_search:
            rate_search.search(options, work, run_once, record["results"])
        else:
            run_cells(options, work, record["results"])
    finally:
        lab.remove(work)
        if options.json:
            with open(options.json, "w", encoding="utf-8") as file:
                json.dump(record, file, indent=1)


main()
