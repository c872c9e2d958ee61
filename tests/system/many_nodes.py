"""Events of a push to many nodes that never took place: what `push --json` would print of it."""

import json
import math

STARTED = 1_800_000_000
BYTES = 100_000_000


def address(node):
    return f"10.71.{node // 250}.{node % 250 + 1}"


def pace(node):
    """Percent of the content in a second: most nodes alike, a few slow."""
    return 10 if node % 97 else 4 + node % 5


def progress(node, second):
    share = min(1.0, pace(node) * second / 100)
    quiet = node % 333 == 5 and second > 3
    repairs = int(second * (40 if node % 50 == 3 else 0.2 * (node % 3)))
    return {"event": "progress", "time": STARTED + second, "node": address(node),
            "files": int(share * 124), "of_files": 124, "failed": 0, "bytes": int(share * BYTES), "of_bytes": BYTES,
            "goodput_bits": 0 if share == 1 else pace(node) * BYTES * 8 // 100, "repairs": repairs,
            "repair_ratio": round(repairs / max(1, share * BYTES / 1400), 6),
            "seconds_since_heard": second - 3 if quiet else 0.2, "rate_bits": 80_000_000}


def summary(nodes, seconds):
    def of(node):
        told = progress(node, seconds)
        complete = told["files"] == 124
        return {"node": told["node"], "node_id": f"1/{node // 250}/{node % 250}",
                "state": "complete" if complete else "silent", "files": told["files"], "present": 0,
                "bytes": told["bytes"], "seconds": round(min(seconds, 100 / pace(node)) + math.sin(node) / 9, 3),
                "repairs": told["repairs"], "repair_ratio": told["repair_ratio"], "files_failed": 0,
                "files_left": 124 - told["files"], "bytes_left": BYTES - told["bytes"], "failed": [],
                "open": [f"d{i % 9}/file {i}" for i in range(told["files"], 124)]}

    told = [of(node) for node in range(nodes)]
    times = sorted(node["seconds"] for node in told if node["state"] == "complete")
    return {"event": "push-finished", "time": STARTED + seconds, "complete": len(times) == nodes, "files": 124,
            "bytes": BYTES, "seconds": seconds, "expected_nodes": nodes,
            "completion": {"nodes": len(times), "p50": times[len(times) // 2], "p90": times[len(times) * 9 // 10],
                           "p99": times[len(times) * 99 // 100], "max": times[-1]},
            "slowest": [], "repairs": sum(node["repairs"] for node in told), "repairs_sent": 900 * seconds,
            "segments_sent": 80_000, "bytes_received": BYTES, "wire_bytes": int(BYTES * 1.06),
            "goodput_bits": BYTES * 8 // seconds, "wire_per_content": 1.06, "nodes": told}


def events(nodes, seconds):
    """Until so many seconds after the start; with the summary when that is long enough."""
    yield {"event": "push-requested", "time": STARTED - 1, "version": "0.1.0", "host": "lead", "address": "10.71.255.1",
           "ctrl_group": "239.255.71.1:7100", "data_group": "239.255.71.2:7101", "location": 1,
           "root": "/srv/packages", "paths": ["release-7"], "files": 124, "bytes": BYTES, "nodes": nodes,
           "named_nodes": [], "options": {"--max-rate": "100", "--strict": ""}}
    yield {"event": "push-started", "time": STARTED, "transaction": 2147486722, "files": 124, "bytes": BYTES,
           "nodes": nodes}
    for second in range(1, seconds + 1):
        told = [progress(node, second) for node in range(nodes)]
        yield from told
        done = sum(one["files"] == 124 for one in told)
        quiet = sum(one["seconds_since_heard"] > 2 for one in told)
        yield {"event": "push-progress", "time": STARTED + second, "seconds": second, "nodes": nodes,
               "nodes_done": done, "nodes_silent": 0, "nodes_not_heard": quiet,
               "rate_bits": 80_000_000 - 9_000_000 * (second % 4), "segments_sent": 7_000 * second,
               "repairs_sent": 900 * second + 80 * (second % 5), "polls_sent": 40 * second, "repair_share": 0.128571,
               "eta_seconds": max(0, 20 - second)}
        if second == 7:
            yield {"event": "node-restarted", "time": STARTED + 7.4, "node": address(9), "node_id": "1/0/9",
                   "pid": 77, "card_class": 3}
    if seconds >= 25:
        yield summary(nodes, seconds)


def write(path, nodes, seconds):
    with open(path, "w", encoding="utf-8") as file:
        for event in events(nodes, seconds):
            file.write(json.dumps(event) + "\n")
