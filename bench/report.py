"""The table of the throughput benchmark, as text and as Markdown.

    python3 bench/report.py FILE     the results that --json has written, as Markdown

Each row is one program in one cell. Times, MB/s, processor time, memory and bytes are medians of the
runs with identical content:

    median s            wall clock of the whole command, with the fastest and the slowest run
    MB/s                bytes of content over that time
    CPU s/GiB           processor seconds of the busiest receiver for each GiB of content
    peak MB             most memory of a receiver
    sent/content        bytes that the lead's host sent over bytes of content, all headers included;
                        with --batches those of a batch once
    sent/needed         the same over what the losses make necessary: that is the program's leanest
                        run of this content without loss, times how often a datagram must be sent
    drops               datagrams that found a full receive buffer at the nodes, most of any run
    port drops          datagrams that found a full switch port, most of any run
    stolen %            processor time that the hypervisor gave to others, most of any run
    identical           runs that ended in time with identical content, of all runs
    fast nodes s        when all nodes but the slow one had the file
"""

import json
import statistics
import sys

SMALLEST_RATED = 1.0  # MiB; of smaller content, rates and ratios say nothing

COLUMNS = ("cell", "content", "program", "nodes", "loss %", "median s", "min..max", "MB/s",
           "CPU s/GiB", "peak MB", "sent/content", "sent/needed", "drops", "port drops", "stolen %",
           "identical", "fast nodes s")
RATE_COLUMNS = ("program", "nodes", "Mbit/s asked", "Mbit/s sent", "runs without a drop", "drops",
                "stolen %")
WIDTHS = (14, 16, 21, 5, 6, 8, 13, 6, 9, 7, 12, 11, 6, 10, 8, 9, 12)


def needed(nodes, loss):
    """How often a datagram is sent on average until every one of the nodes has it."""
    p = loss / 100
    total, k = 0.0, 0
    while True:
        term = 1 - (1 - p ** k) ** nodes
        if term < 1e-9:
            return total
        total, k = total + term, k + 1


def cells_of(row, results):
    """The texts of a row; "-" where there is nothing to say."""
    runs = row["runs"]
    good = [run for run in runs if run["identical"]]
    left = [row["cell"], row["content"], row["program"], row["nodes"], f"{row['loss']:g}"]
    right = [_most(runs, "socket_drops"), _most(runs, "port_drops"), _most(runs, "stolen", ".1f"),
             f"{len(good)}/{len(runs)}", _median(good, "fast_seconds", ".2f")]
    if not good:
        return [str(text) for text in left + ["-"] * 7 + right]
    seconds = [run["seconds"] for run in good]
    rated = _content_mib(good[0]) >= SMALLEST_RATED
    middle = [_median(good, "seconds", ".2f"), f"{min(seconds):.2f}..{max(seconds):.2f}",
              _median(good, "mbs", ".1f") if rated else "-",
              _median(good, "cpu", ".2f") if rated else "-", _median(good, "memory", ".1f"),
              _median(good, "sent", ".3f"), _over_needed(row, good, results) if rated else "-"]
    return [str(text) for text in left + middle + right]


def _rate_cells(row):
    """Of one rate that --rate-search has tried."""
    good = [run for run in row["runs"] if run["identical"] and run["socket_drops"] == 0]
    return [row["program"], str(row["nodes"]), str(row["rate"]), f"{row['reached']:.0f}",
            f"{len(good)}/{len(row['runs'])}", _most(row["runs"], "socket_drops"),
            _most(row["runs"], "stolen", ".1f")]


def _content_mib(run):
    return run["mbs"] * run["seconds"] * 1e6 / (1 << 20)


def _values(runs, key):
    return [run[key] for run in runs if run.get(key) is not None]


def _median(runs, key, form):
    values = _values(runs, key)
    return format(statistics.median(values), form) if values else "-"


def _most(runs, key, form="d"):
    values = _values(runs, key)
    return format(max(values), form) if values else "-"


def _over_needed(row, good, results):
    # To any number of nodes: without loss all need the same. A batch counts its headers once.
    same = ("program", "content", "batches")
    lossless = [run["sent"] for other in results for run in other["runs"]
                if other["loss"] == 0 and run["identical"] and
                all(other[key] == row[key] for key in same)]
    if not lossless:
        return "-"
    sent = statistics.median(run["sent"] for run in good)
    return f"{sent / min(lossless) / needed(row['nodes'], row['loss']):.3f}"


def print_head():
    _print_aligned(COLUMNS)


def print_row(row, results):
    _print_aligned(cells_of(row, results))


def _print_aligned(texts):
    print("  ".join(text.rjust(width) for text, width in zip(texts, WIDTHS)), flush=True)


def markdown(results):
    """The table without the columns that say nothing in any row."""
    if results and "rate" in results[0]:
        head, rows = RATE_COLUMNS, [_rate_cells(row) for row in results]
    else:
        head, rows = COLUMNS, [cells_of(row, results) for row in results]
    used = [i for i in range(len(head)) if any(row[i] != "-" for row in rows)]
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join("| " + " | ".join(line[i] for i in used) + " |" for line in lines)


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as source:
        record = json.load(source)
    print(record["machine"] + "\n\n" + markdown(record["results"]))
