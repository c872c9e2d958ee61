"""What a lead serves to Prometheus: well-formed, and the numbers that it tells otherwise."""

import os
import re
import signal
import sys

import tree
from support import ROOT, BackgroundLead, SystemTest, lab, summary

PORT = "9471"
SCRAPE = ("import sys, urllib.request; "
          "answer = urllib.request.urlopen(f'http://{sys.argv[1]}/metrics', timeout=5); "
          "print(answer.headers['Content-Type']); print(answer.read().decode(), end='')")

NAME = r"[a-zA-Z_:][a-zA-Z0-9_:]*"
COMMENT = re.compile(rf"# (HELP|TYPE) ({NAME}) (.+)")
SAMPLE = re.compile(rf"({NAME})(?:\{{(.*)\}})? (\S+)")
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\[\\n"])*)"(?:,|$)')


class Metrics(dict):
    """{(name, labels...): value} of a text in Prometheus' format 0.0.4; refuses any other."""

    def __init__(self, text):
        super().__init__()
        self.types = {}
        helped = set()
        self._check(text.endswith("\n"), "the last line does not end")
        for line in text.splitlines():
            if line.startswith("#"):
                kind, name, rest = self._match(COMMENT, line)
                if kind == "HELP":
                    self._check(name not in helped, line)
                    helped.add(name)
                else:
                    self._check(name not in self.types, line)
                    self._check(rest in ("counter", "gauge", "histogram", "summary"), line)
                    self.types[name] = rest
                continue
            name, labels, value = self._match(SAMPLE, line)
            family = self._family(name)
            self._check(family in helped, f"no help for {line}")
            key = (name, *sorted(self._labels(labels or "")))
            self._check(key not in self, f"twice: {line}")
            self[key] = float(value)
        self._check_histograms()

    @staticmethod
    def _check(good, what):
        if not good:
            raise AssertionError(f"not Prometheus' format: {what}")

    def _match(self, pattern, line):
        found = pattern.fullmatch(line)
        self._check(found, line)
        return found.groups()

    def _labels(self, text):
        found = LABEL.findall(text)
        self._check(sum(len(m.group(0)) for m in LABEL.finditer(text)) == len(text), text)
        return found

    def _family(self, name):
        """The declared name that a sample belongs to."""
        if self.types.get(name) in ("counter", "gauge", "summary"):
            return name
        base = re.sub(r"_(bucket|sum|count)$", "", name)
        self._check(self.types.get(base) in ("histogram", "summary"), f"no type for {name}")
        return base

    def _check_histograms(self):
        for name in (n for n, kind in self.types.items() if kind == "histogram"):
            buckets = sorted((float(dict(key[1:])["le"]), value) for key, value in self.items()
                             if key[0] == f"{name}_bucket")
            counts = [value for _, value in buckets]
            self._check(counts == sorted(counts), f"{name}: counts fall")
            self._check(buckets[-1][0] == float("inf"), f"{name}: no bucket for everything")
            self._check(counts[-1] == self[f"{name}_count",], f"{name}: {buckets}")

    def one(self, name):
        return self[name,]

    def of_node(self, name, address):
        return self[name, ("node", address)]


class LeadMetrics(SystemTest):
    address = "127.0.0.1"  # where the lead serves its metrics

    def scrape(self):
        result = self.net.lead.run([sys.executable, "-c", SCRAPE, f"{self.address}:{PORT}"],
                                   capture_output=True, text=True, timeout=10)
        self.assertEqual(result.returncode, 0, result.stderr[-300:])
        content_type, text = result.stdout.split("\n", 1)
        self.assertTrue(content_type.startswith("text/plain;"), content_type)
        metrics = Metrics(text)
        for name, kind in metrics.types.items():
            if name.startswith("pkgdist_"):
                self.assertEqual(name.endswith("_total"), kind == "counter", name)
        return metrics

    def wait_for(self, name, value):
        """The metrics once one of them has the value."""
        found = []

        def reached():
            found[:] = [self.scrape()]
            return found[0].get((name,)) == value

        lab.wait_until(reached, 20, f"{name} to be {value}")
        return found[0]

    def next_after(self, metrics):
        """The metrics once they were brought up to date again: a lead pings all the time."""
        name = "pkgdist_lead_control_datagrams_sent_total"
        found = []

        def changed():
            found[:] = [self.scrape()]
            return found[0].one(name) > metrics.one(name)

        lab.wait_until(changed, 10, "the metrics to change")
        return found[0]

    def test_a_push_serves_what_its_events_and_its_summary_tell(self):
        tree.small(self.content, small_files=10, medium=5_000_000)
        tree.write(self.directory_of(self.net.nodes[0]), "flat", b"in the way")
        tree.add(self.content, "flat/file", 3000)
        self.net.nodes[1].lose(3)
        self.start_nodes()
        first, second, stopped = self.net.nodes
        lead = self.start_push("--metrics", PORT, "--rate", "20", "--keep-directory-links")
        lead.wait_for("push-started")
        self.node_processes[stopped.name].send_signal(signal.SIGSTOP)
        during = self.next_after(self.wait_for("pkgdist_push_nodes_done", 2))
        self.node_processes[stopped.name].send_signal(signal.SIGCONT)
        end = lead.finish(expect=1)

        nodes = {node["node"]: node for node in end["nodes"]}
        for node in (first, second):
            told = nodes[node.address]
            for name, value in (("files_done", told["files"]), ("bytes_done", told["bytes"]),
                                ("files_failed", told["files_failed"]),
                                ("bytes_in_transfer", 0), ("repairs_total", told["repairs"])):
                self.assertEqual(during.of_node(f"pkgdist_push_node_{name}", node.address), value)
        self.assertEqual(nodes[first.address]["files_failed"], 1)
        self.assertGreater(nodes[second.address]["repairs"], 0)
        for name, value in (("pkgdist_push_files", end["files"]), ("pkgdist_push_bytes", end["bytes"]),
                            ("pkgdist_push_nodes_expected", 3), ("pkgdist_push_nodes_complete", 1),
                            ("pkgdist_push_received_bytes", end["bytes_received"]),
                            ("pkgdist_push_completion_seconds_count", 1),
                            ("pkgdist_lead_rate_bytes_per_second", 20_000_000 / 8),
                            ("pkgdist_lead_nodes_heard", 3), ("pkgdist_lead_leading", 1)):
            self.assertEqual(during.one(name), value, name)
        self.assertAlmostEqual(during.one("pkgdist_push_completion_seconds_sum"),
                               nodes[second.address]["seconds"], delta=0.0006)
        self.assert_counters_below(during, lead.events("counters")[0])

    def assert_counters_below(self, metrics, end):
        """What was sent until the scrape is most of what was sent in the end."""
        for name, event in (("segments_sent", "segments_sent"), ("repairs_sent", "repairs_sent"),
                            ("segments_requested", "segments_requested"),
                            ("infos_sent", "infos_sent"), ("data_bytes_sent", "data_bytes_sent"),
                            ("control_datagrams_sent", "control_sent")):
            value = metrics.one(f"pkgdist_lead_{name}_total")
            self.assertGreater(value, 0, name)
            self.assertLessEqual(value, end[event], name)
        self.assertGreater(metrics.one("pkgdist_lead_data_bytes_sent_total"), 5_000_000)

    def test_a_serving_lead_serves_who_is_there_and_keeps_its_address(self):
        seen = os.path.join(ROOT, "signals")
        self.start_nodes()
        self.address = self.net.lead.address
        where = f"{self.address}:{PORT}"
        lead = BackgroundLead(self, "serve", "--metrics", where, "--timeout", "2", "--on-message",
                              f"grep SigIgn /proc/self/status > {seen}")
        lead.wait_for("serving")
        other = self.net.lead.run([self.programs.lead, "--interface", "127.0.0.1", "--location",
                                   f"1={self.content}", "serve", "--metrics", where],
                                  capture_output=True, text=True, timeout=10)
        self.assertEqual(other.returncode, 3)
        self.assertEqual(other.stderr, f"pkgdist-lead: --metrics {where}: Address already in use\n")

        self.wait_for("pkgdist_lead_nodes_heard", 3)
        sender = self.net.nodes[0]
        self.kill(self.node_processes[self.net.nodes[2].name])
        silent = self.wait_for("pkgdist_lead_nodes_silent", 1)
        self.assertEqual(silent.one("pkgdist_lead_nodes_heard"), 3)
        self.assertNotIn(("pkgdist_push_files",), silent)
        self.assert_commands_get_their_signals_back(lead, sender, seen)
        lead.stop()

    def assert_commands_get_their_signals_back(self, lead, node, path):
        self.kill(self.node_processes[node.name])
        sent = node.run([self.programs.node, "--interface", node.address, "send", "a message"],
                        capture_output=True, text=True, timeout=30)
        self.assertEqual(sent.returncode, 0, sent.stderr)
        lead.wait_for("message")
        lab.wait_until(lambda: os.path.exists(path) and os.path.getsize(path) > 0, 10, "the command")
        with open(path, encoding="utf-8") as file:
            ignored = int(file.read().split()[1], 16)
        self.assertEqual(ignored >> (signal.SIGPIPE - 1) & 1, 0)
