"""What the operator of a push sees: progress, the time left, the summary, what an interrupted push
leaves to do."""

import os
import re
import signal

import tree
from support import SystemTest, lab, summary

RATE_MBIT = 40


class PushView(SystemTest):
    def text_push(self, *arguments, **options):
        """The command of a push with lines for people."""
        return [self.programs.lead, "--interface", self.net.lead.address, "--location",
                f"1={self.content}", "push", "--nodes", self.addresses(), *arguments, "."]

    def test_progress_tells_rate_repairs_and_a_time_left_that_comes_true(self):
        tree.add(self.content, tree.BIG, 30_000_000)
        self.net.nodes[2].lose(3)
        self.start_nodes()
        result = self.push("--rate", str(RATE_MBIT))
        end = summary(result)
        started = next(e for e in result.events if e["event"] == "push-started")["time"]
        whole = [e for e in result.events if e["event"] == "push-progress"]
        self.assert_progress_of_nodes(result.events)

        self.assertIsNone(whole[0]["eta_seconds"], "a time left without data")
        known = [e for e in whole if e["eta_seconds"] is not None]
        self.assertGreaterEqual(len(known), 2, whole)
        for event in known:
            expected = event["time"] + event["eta_seconds"] - started
            self.assertLess(abs(expected - end["seconds"]), 0.4 * end["seconds"], event)
        for event in whole:
            self.assertEqual((event["nodes"], event["nodes_silent"]), (3, 0))
            self.assertEqual(event["rate_bits"], RATE_MBIT * 1_000_000)
        self.assert_summary(result.events, end)

    def assert_progress_of_nodes(self, events):
        lossy = self.net.nodes[2].address
        for node in self.net.nodes:
            own = [e for e in events if e["event"] == "progress" and e["node"] == node.address]
            self.assertGreaterEqual(len(own), 3)
            for before, after in zip(own, own[1:]):
                self.assertLess(before["bytes"], after["bytes"])
            for event in own[2:]:
                self.assertLess(abs(event["goodput_bits"] / 1e6 - RATE_MBIT), 0.5 * RATE_MBIT, event)
                self.assertEqual(event["repair_ratio"] > 0, node.address == lossy, event)
                self.assertLess(event["repair_ratio"], 0.2, event)

    def assert_summary(self, events, end):
        seconds = sorted(node["seconds"] for node in end["nodes"])
        self.assertEqual(end["completion"], {"nodes": 3, "p50": seconds[1], "p90": seconds[2],
                                             "p99": seconds[2], "max": seconds[2]})
        by_node = {node["node"]: node for node in end["nodes"]}
        self.assertEqual([by_node[address]["seconds"] for address in end["slowest"]], seconds[::-1])
        self.assertEqual(end["repairs"], sum(node["repairs"] for node in end["nodes"]))
        lossy = by_node[self.net.nodes[2].address]
        segments = -(-30_000_000 // tree.SEGMENT)
        self.assertAlmostEqual(lossy["repair_ratio"], lossy["repairs"] / segments, places=5)
        self.assertEqual(end["bytes_received"], 30_000_000)
        self.assertAlmostEqual(end["goodput_bits"], 30_000_000 * 8 / end["seconds"], delta=30_000)
        counters = next(e for e in events if e["event"] == "counters")
        self.assertEqual(end["wire_bytes"], counters["data_bytes_sent"])
        self.assertAlmostEqual(end["wire_per_content"], end["wire_bytes"] / 30_000_000, places=5)
        self.assertGreater(end["wire_per_content"], 1)

    def test_the_summary_for_people_has_percentiles_the_slowest_nodes_and_the_traffic(self):
        tree.small(self.content, small_files=10)
        self.start_nodes()
        result = self.net.lead.run(self.text_push(), capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stdout)
        for expected in (r"^3 nodes complete; seconds: p50 [\d.]+, p90 [\d.]+, p99 [\d.]+, max [\d.]+$",
                         r"^slowest: (10\.71\.0\.\d+ [\d.]+ s, \d+ repairs? \([\d.]+ %\)(; )?){3}$",
                         r"^goodput [\d.]+ Mbit/s: [\d.]+ [kM]B of content in [\d.]+ s, "
                         r"1\.\d+ bytes sent for each$",
                         r"^sent \d+ segments, \d+ of them (a repair|repairs) \([\d.]+ %\); "
                         r"[\d.]+ [kM]B on the data channel$"):
            self.assertRegex(result.stdout, re.compile(expected, re.MULTILINE))

    def test_an_interrupted_push_tells_what_is_left_and_the_next_one_sends_only_that(self):
        tree.small(self.content, small_files=40)
        last, size = "~ the last of all", 20_000_000
        tree.add(self.content, last, size)
        self.start_nodes()
        lead = self.start_push("--rate", "60", "--priority", "1")
        names = lab.manifest(self.content)
        lab.wait_until(lambda: all(len(lab.manifest(self.directory_of(node))) >= len(names) // 2
                                   for node in self.net.nodes), what="some files to arrive")
        lead.process.send_signal(signal.SIGINT)
        end = lead.finish(expect=1)
        left = {node["node"]: node for node in lead.events("interrupted")[0]["nodes"]}
        self.assertEqual(left.keys(), {node.address for node in self.net.nodes})
        for node in end["nodes"]:
            told = left[node["node"]]
            self.assertEqual((told["files_left"], told["bytes_left"]),
                             (node["files_left"], node["bytes_left"]))
            self.assertEqual(len(node["open"]), node["files_left"])
            self.assertIn(last, node["open"])
            self.assertEqual(node["files"] + node["files_left"], len(names))
            self.assertGreaterEqual(node["bytes_left"], size)

        again = self.push()
        self.assert_received()
        files = {name for name, entry in names.items() if entry[0] == "file"}
        # A file of which something was sent before the node's word came does not count as present.
        for node in summary(again)["nodes"]:
            self.assertGreater(node["present"], len(files) // 4)
        rest = max(node["bytes_left"] for node in end["nodes"])
        counters = next(e for e in again.events if e["event"] == "counters")
        self.assertLess(counters["data_bytes_sent"], 1.1 * rest + 200_000)

    def test_an_interrupted_push_tells_people_how_to_go_on(self):
        tree.add(self.content, "one", 1_500_000)
        tree.add(self.content, "two", 500_000)
        out = os.path.join(self.directory("out"), "lines")
        with open(out, "wb") as file:
            process = self.net.lead.spawn(self.text_push(), stdout=file)
        self.wait_for_text(out, "leading")
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(timeout=10), 1)
        with open(out, encoding="utf-8") as file:
            text = file.read()
        for node in self.net.nodes:
            self.assertRegex(text, rf"{node.address} +lacks 2 of 2 files, 2\.00 MB\n")
        self.assertIn("push the same tree again to bring the rest", text)

    def wait_for_text(self, path, text):
        def there():
            with open(path, encoding="utf-8") as file:
                return text in file.read()

        lab.wait_until(there, 10, f"'{text}' in the lead's lines")
