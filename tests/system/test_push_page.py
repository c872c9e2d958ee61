"""The page about a push: made of the events that the push printed, whole in itself, and true."""

import html.parser
import json
import os
import re
import subprocess
import unittest

import browser
import many_nodes
import tree
from support import ROOT, SystemTest, summary

HOSTILE = "<script>alert('1')</script>&\"quoted\".deb"


class Reader(html.parser.HTMLParser):
    """Collects the text and everything that a page could load."""

    def __init__(self):
        super().__init__()
        self.text, self.open, self.loads = [], [], []

    def handle_starttag(self, tag, attributes):
        if tag != "meta":
            self.open.append(tag)
        self.loads += [value for name, value in attributes if name in ("src", "href", "xlink:href")]
        if tag in ("script", "link", "iframe", "img", "object"):
            self.loads.append(tag)

    def handle_startendtag(self, tag, attributes):
        pass

    def handle_endtag(self, tag):
        assert self.open.pop() == tag, tag

    def handle_data(self, data):
        self.text.append(data)


class PushPage(SystemTest):
    def page(self, events, expect=0):
        source, target = os.path.join(self.directory("page"), "events"), os.path.join(self.directory("page"), "html")
        with open(source, "w", encoding="utf-8") as file:
            file.write("a line of something else\n" + "".join(json.dumps(event) + "\n" for event in events))
        result = subprocess.run([self.programs.lead, "report", source, "-o", target], capture_output=True, text=True,
                                timeout=20)
        self.assertEqual((result.returncode, result.stdout), (expect, ""))
        if expect:
            return result.stderr
        self.assertEqual(result.stderr, "")
        with open(target, encoding="utf-8") as file:
            content = file.read()
        reader = Reader()
        reader.feed(content)
        self.assertEqual((reader.open, reader.loads), ([], []))
        self.assertNotIn("url(", content)
        return re.sub(r"\s+", " ", " ".join(reader.text)), content

    def test_a_push_with_a_lossy_and_a_full_node_is_told_with_reasons(self):
        tree.add(self.content, HOSTILE, 200_000)
        tree.add(self.content, "big", 6_000_000)
        lossy, full, good = self.net.nodes
        lossy.lose(5)
        self.mount(os.path.join(ROOT, "full"), "size=1m")
        self.start_node(lossy)
        self.start_node(full, location=f"1={os.path.join(ROOT, 'full')}")
        self.start_node(good)
        result = self.push("--rate", "20", expect=1)
        end = summary(result)
        text, content = self.page(result.events)
        ratio = next(n["repair_ratio"] for n in end["nodes"] if n["node"] == lossy.address)
        self.assertIn(f"lost {100 * ratio:.1f} % of its segments", text)
        self.assertIn("its disk was full", text)
        self.assertRegex(text, rf"{good.address} complete [\d.]+ 0 {lossy.address}|{good.address} complete [\d.]+ 0 Repairs",
                         "no reason is made up")
        self.assertNotIn("not known", text)
        self.assertIn("not complete", text)
        self.assertRegex(text, r"began 20\d\d-\d\d-\d\d \d\d:\d\d:\d\d UTC lead [^ ]+, " + re.escape(self.net.lead.address))
        self.assertIn(f"tree ., from {self.content}, to location 1", text)
        self.assertIn("options --rate 20", text)
        self.assertRegex(text, r"version pkgdist \d")
        self.assertRegex(text, rf"[\d.]+ s: {full.address}: failed: ")
        self.assertIn(f"{end['seconds']:.2f} s", text)
        self.assertIn(f"{end['repairs_sent']} of {end['segments_sent']}", text)
        ideal = end["bytes_received"] * 8 / 20e6
        self.assertIn(f"{end['seconds'] / ideal:.2f} times the {ideal:.2f} s of 20.0 Mbit/s once", text)
        self.assertGreaterEqual(content.count("<polyline"), 4)
        self.assertNotIn("<script", content)

    def test_reasons_that_are_not_in_the_events_are_left_out(self):
        tree.add(self.content, "file", 100_000)
        self.start_nodes()
        text, _ = self.page(self.push().events)
        self.assertIn("every node has every file", text)
        self.assertEqual(len(re.findall(r"10\.71\.0\.\d complete [\d.]+ 0 (?=10|Repairs)", text)), 3)
        self.assertNotIn("not known", text)
        self.assertNotIn("never came", text)
        self.assertIn("No node asked for anything again", text)

    def test_names_are_shown_as_they_are_and_never_run(self):
        end = {"event": "push-finished", "complete": False, "seconds": 1, "nodes": [
            {"node": "<b>10.0.0.1</b>", "state": "failed", "seconds": 1,
             "failed": [{"name": HOSTILE, "text": "<i>"}], "open": [HOSTILE]}]}
        text, content = self.page([{"event": "push-started", "transaction": 7}, end])
        self.assertEqual(text.count(HOSTILE), 2)
        self.assertEqual(re.findall(r"<(?:b|i|script)>", content), [])

    def test_a_node_that_came_late_fell_silent_or_was_restarted_is_told(self):
        def of(node, event, time):
            return {"event": event, "time": time, "node": node}

        nodes = [{"node": name, "state": "complete", "seconds": 9} for name in ("late", "silent", "early")]
        text, _ = self.page([
            of("early", "node-appeared", 90), {"event": "push-started", "time": 100}, of("late", "node-appeared", 103.5),
            of("silent", "node-silent", 104), of("silent", "node-returned", 106.5), of("silent", "node-restarted", 107),
            {"event": "push-finished", "complete": True, "seconds": 9, "nodes": nodes}])
        self.assertIn("late complete 9.00 0 joined 3.5 s after the start", text)
        self.assertIn("silent complete 9.00 0 restarted 1 time; silent for 2.5 s", text)
        self.assertRegex(text, r"early complete 9\.00 0 Repairs")
        self.assertIn("4.0 s: silent: silent", text)
        self.assertIn("6.5 s: silent: heard again", text)

    def test_many_files_of_a_node_are_one_row_and_absent_nodes_are_listed(self):
        names = [f"d/file {i}" for i in range(124)]
        end = {"event": "push-finished", "complete": False, "seconds": 5, "expected_nodes": 6, "nodes": [
            {"node": "10.0.0.1", "state": "silent", "seconds": 5, "open": names},
            {"node": "10.0.0.2", "state": "failed", "seconds": 5,
             "failed": [{"name": "one", "status": 5, "text": "No space left on device"},
                        {"name": "two", "status": 5, "text": "No space left on device"}]},
            {"node": "10.0.0.3", "state": "never heard", "seconds": 5, "open": names},
            {"node": "10.0.0.4", "state": "complete", "seconds": 2}]}
        text, content = self.page([{"event": "push-started", "transaction": 7, "time": 100}, end])
        self.assertRegex(text, r"Missing node files why 10\.0\.0\.1 124 files d/file 0 .* and 74 more silent "
                         r"10\.0\.0\.2 one two No space left on device")
        self.assertEqual(content.count("<details>"), 1)
        self.assertIn("Nodes that never came 10.0.0.3, and 2 of 6 nodes", text)

    def test_rates_and_troubles_stand_over_time(self):
        events = [{"event": "push-started", "transaction": 7, "time": 100}]
        for second in range(1, 11):
            events += [{"event": "progress", "time": 100 + second, "node": f"10.0.0.{node}",
                        "bytes": second * 1_000_000, "of_bytes": 10_000_000} for node in (1, 2)]
            events.append({"event": "push-progress", "time": 100 + second, "seconds": second, "rate_bits": 9e6,
                           "repairs_sent": 7 * second, "polls_sent": 3 * second})
            if second == 4:
                events += [{"event": "node-restarted", "time": 104.2 + node / 10, "node": f"10.0.0.{node}"}
                           for node in (1, 2)]
        text, content = self.page(events + [{"event": "push-finished", "complete": True, "seconds": 10, "nodes": []}])
        self.assertIn("4.3 s: 2 nodes: restarted", text)
        self.assertEqual(content.count('<line class="mark"'), 4, "in each of the drawings")
        for title in ("goodput of a node on average, Mbit/s", "repairs sent per second", "polls sent per second"):
            self.assertIn(title, text)
        # The goodput of each second is 8 Mbit/s: one level line.
        curve = re.search(r'points="([^"]*)"><title>Goodput', content).group(1).split()
        self.assertEqual(len({point.split(",")[1] for point in curve}), 1, curve)

    def test_the_options_that_were_given_are_told_all_of_them(self):
        tree.add(self.content, "kept", 100)
        tree.add(self.content, "left.log", 100)
        names = os.path.join(self.directory("list"), "names")
        with open(names, "w", encoding="utf-8") as file:
            file.write("kept\nleft.log\n")
        self.start_nodes()
        result = self.programs.push(self.net.lead, self.content, "--nodes", self.addresses(), "--exclude", "*.log",
                                    "--exclude", "*.tmp", "--include", "a.log", "--files-from", names, "--force",
                                    "--slow-nodes", "drop", "--rate", "100M", "--durable", paths=())
        self.assertEqual(result.returncode, 0, result.stderr)
        asked = next(e for e in result.events if e["event"] == "push-requested")
        self.assertEqual(asked["options"], {"--exclude": "*.log, *.tmp", "--include": "a.log", "--files-from": names,
                                            "--force": "", "--slow-nodes": "drop", "--rate": "100M", "--durable": ""})
        text, _ = self.page(result.events)
        for told in ("--exclude *.log, *.tmp", f"--files-from {names}", "--slow-nodes drop", "--force"):
            self.assertIn(told, text)

    @unittest.skipUnless(browser.BROWSER, "needs the package chromium")
    def test_a_page_fits_a_narrow_and_a_wide_screen_with_few_and_with_many_nodes(self):
        work = self.directory("browser")
        for nodes in (8, 300):
            _, content = self.page(many_nodes.events(nodes, 25))
            heights = {}
            for width in (400, 1280):
                measured = browser.measure(content, width, work)
                self.assertEqual((measured["width"], measured["out"]), (width, []), f"{nodes} nodes")
                heights[width] = measured["height"]
            self.assertGreater(heights[400], heights[1280] * 0.8)
            self.assertLess(heights[400], 16_000, "a page of 300 nodes can still be read on a telephone")

    def test_a_page_about_300_nodes_names_those_that_matter(self):
        text, content = self.page([*many_nodes.events(300, 24), many_nodes.summary(300, 24)])
        self.assertIn("not complete", text)
        self.assertIn("299 of 300", text)
        self.assertLess(len(content), 400_000)
        self.assertLess(content.count("<tr"), 120)
        self.assertRegex(text, r"and \d+ more Missing node files why 10\.71\.0\.1 ")

    def test_numbers_and_words_agree(self):
        end = {"event": "push-finished", "complete": False, "seconds": 5, "nodes": [
            {"node": "10.0.0.1", "state": "failed", "seconds": 5, "open": [], "failed": [
                {"name": f"file {i}", "status": 5, "text": "No space left on device"} for i in range(30)]},
            {"node": "10.0.0.2", "state": "complete", "seconds": 2},
            {"node": "10.0.0.3", "state": "complete", "seconds": 2}]}
        text, content = self.page([{"event": "push-started", "transaction": 7, "time": 100}, end])
        self.assertIn("30 files", text)
        for page in (text, content):
            self.assertEqual(re.findall(r"\b1 (?:files|nodes|names|times|repairs|segments)\b", page), [])

    def test_events_without_the_end_of_a_push_make_no_page(self):
        self.assertIn("no push has ended", self.page([{"event": "push-started"}], expect=3))
