"""The highest fixed rate at which no datagram finds a full receive buffer, by steps.

A rate holds when every run at it ends with identical content and without one drop at a node. The
search goes up from --rate-from while rates hold; when the first one does not hold, it goes down. It
also ends where the sender does not reach the rate that it was told.
"""

import lab
import peers
from cells import CELLS, Content

REACHED = 0.9  # of the rate that was asked for; the rest is the beginning and the end of a push


def search(options, work, run_once, results):
    content = Content("large", work, options)
    builds = [("pkgdist", options.build, options.lead_options, options.node_options)]
    if options.beside:
        builds.append(("pkgdist (beside)", options.beside, [], []))
    for nodes in options.nodes or CELLS["large"].nodes:
        for name, build, lead_options, node_options in builds:
            def attempt(rate):
                tool = peers.Pkgdist(name, build, rate, lead_options, node_options,
                                     own_time=True)
                row = _attempt(tool, rate, content, nodes, work, options, run_once)
                results.append(row)
                return row
            best, ceiling = _highest(attempt, options.rate_from, options.rate_step)
            more = f"; the sender reaches no more than {ceiling:.0f}" if ceiling else ""
            print(f"{name} to {nodes}: highest rate without a drop: {best or '-'} Mbit/s{more}",
                  flush=True)
    lab.remove(content.root)


def _highest(attempt, rate, step):
    """The rate, and what the sender reaches at most if that ended the search."""
    row = attempt(rate)
    while not row["holds"] and rate > step:
        rate -= step
        row = attempt(rate)
        if row["holds"]:
            return rate, None
    best = None
    while row["holds"]:
        if row["limit"]:
            return best, row["reached"]
        best = rate
        rate += step
        row = attempt(rate)
    return best, None


def _attempt(tool, rate, content, nodes, work, options, run_once):
    runs = []
    for _ in range(options.runs):
        runs.append(run_once(CELLS["large"], content, nodes, 0, tool, work, options))
        if not _good(runs[-1]):
            break
    reached = min(run["sent"] * content.bytes * 8 / max(run["own_seconds"], 1e-9) / 1e6
                  for run in runs)
    row = {"program": tool.name, "nodes": nodes, "rate": rate, "reached": reached, "runs": runs,
           "holds": len(runs) == options.runs and all(map(_good, runs))}
    row["limit"] = row["holds"] and reached < REACHED * rate
    print(f"{tool.name} to {nodes}, {rate} Mbit/s: {sum(map(_good, runs))} of {len(runs)} runs "
          f"without a drop, at least {reached:.0f} Mbit/s sent, drops "
          f"{max(run['socket_drops'] for run in runs)}, stolen "
          f"{max(run['stolen'] for run in runs):.1f} %", flush=True)
    return row


def _good(run):
    return run["identical"] and run["socket_drops"] == 0
