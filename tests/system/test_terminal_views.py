"""What stands on the screen of a terminal during a push: bars in every size, and the full-screen view."""

import os
import re
import signal
import subprocess

import event_schema
import many_nodes
import tree
from support import SystemTest, lab
from terminal import Terminal

BAR = re.compile(r"10\.71\.0\.\d+ +(\[[#.]+\] +)?[\d.]+% ")


class TerminalViews(SystemTest):
    def terminal(self, *arguments, columns=80, rows=24):
        command = [self.programs.lead, "--interface", self.net.lead.address, "--location", f"1={self.content}", "push",
                   "--nodes", self.addresses(), *arguments, "."]
        return Terminal(self.net.lead, command, columns, rows)

    def top(self, *arguments, columns=80, rows=24):
        return Terminal(self.net.lead, [self.programs.lead, "top", *arguments], columns, rows)

    def bars(self, terminal):
        return [line for line in terminal.screen() if BAR.match(line)]

    @staticmethod
    def cells(terminal):
        return "".join(line[:50].rstrip() for line in terminal.shown()[2:22])

    @staticmethod
    def summaries(terminal):
        return sum("nodes done" in line or "/3 done" in line for line in terminal.screen())

    def replay_file(self, nodes, seconds):
        path = os.path.join(self.directory("events"), "events")
        many_nodes.write(path, nodes, seconds)
        return path

    # --- Bars ---

    def test_bars_follow_the_size_of_the_terminal(self):
        tree.add(self.content, "file", 12_000_000)
        self.start_nodes()
        terminal = self.terminal("--rate", "8", columns=40, rows=10)
        for columns, rows in ((40, 10), (80, 24), (100, 10), (200, 24)):
            terminal.resize(columns, rows)
            drawn = len(terminal.text)
            terminal.read(lambda text, drawn=drawn: text[drawn:].count("% ") >= 9, 20)
            terminal.read(lambda _: self.summaries(terminal) == 1 and len(self.bars(terminal)) == 3, 10)
            bars = self.bars(terminal)
            self.assertEqual(len(bars), 3, "\n".join(terminal.screen()))
            self.assertGreaterEqual(max(map(len, bars)), min(columns * 3 // 4, 130), bars)
            self.assertLess(max(map(len, bars)), columns)
            self.assertEqual(self.summaries(terminal), 1)
        self.assertEqual(terminal.finish(), 0, terminal.text)
        self.assertEqual(self.bars(terminal), [], "bars are gone in the end")

    def test_a_terminal_with_fewer_rows_than_nodes_shows_a_histogram_of_the_rest(self):
        tree.add(self.content, "file", 6_000_000)
        self.start_nodes()
        terminal = self.terminal("--rate", "8", columns=80, rows=5)
        terminal.wait_for("and 1 more  0% |")
        self.assertEqual(len(self.bars(terminal)), 2)
        self.assertEqual(terminal.finish(), 0, terminal.text)

    def test_a_node_that_is_not_heard_is_marked_at_once(self):
        tree.add(self.content, "file", 8_000_000)
        self.start_nodes()
        stopped = self.net.nodes[1]
        terminal = self.terminal("--rate", "8", columns=100)
        terminal.read(lambda text: "% " in text)
        self.node_processes[stopped.name].send_signal(signal.SIGSTOP)
        self.addCleanup(self.node_processes[stopped.name].send_signal, signal.SIGCONT)
        terminal.wait_for("heard 2 s ago", 5)
        terminal.wait_for("1 not heard", 5)
        self.assertIn(stopped.address, next(line for line in terminal.shown() if "s ago" in line))
        self.node_processes[stopped.name].send_signal(signal.SIGCONT)
        terminal.read(lambda _: not any("s ago" in line for line in terminal.shown()), 10)
        self.assertEqual(terminal.finish(), 0, terminal.text)

    # --- Full screen ---

    def test_a_push_is_shown_full_screen_and_a_node_is_stopped(self):
        tree.add(self.content, "file", 12_000_000)
        self.start_nodes()
        terminal = self.terminal("--rate", "8", "--top")
        terminal.wait_for("0 of 3 nodes done")
        terminal.wait_for("c:progress  s:address  f:all")
        terminal.read(lambda _: re.match(r"[0-9]{3} +slowest", terminal.shown()[2]), 10)
        self.assertRegex(terminal.shown()[2], r"^[0-9]{3} +slowest")
        terminal.type("cs")
        terminal.wait_for("c:repairs  s:progress")
        terminal.type("css\x1b[C\x1b[C")
        terminal.wait_for(f"{self.net.nodes[1].address}: ")
        terminal.type("k")
        terminal.wait_for(f"end the push for {self.net.nodes[1].address}? y/n")
        terminal.type("y")
        terminal.wait_for("1 of 3 nodes done")
        terminal.read(lambda _: terminal.shown()[2][1] == "x", 10)
        self.assertEqual(terminal.shown()[2][1], "x")
        terminal.type("q")
        terminal.wait_for("1 of 3 nodes done")
        terminal.read(lambda _: len(self.bars(terminal)) == 3, 10)
        self.assertEqual(len(self.bars(terminal)), 3, "bars follow the view")
        self.assertEqual(terminal.finish(), 1, terminal.text)
        self.assert_received(self.net.nodes[0], self.net.nodes[2])
        self.assertIn("cancelled", " ".join(terminal.screen()))

    def test_a_signal_gives_the_terminal_back(self):
        tree.add(self.content, "file", 12_000_000)
        self.start_nodes()
        terminal = self.terminal("--rate", "8", "--top")
        terminal.wait_for("of 3 nodes done")
        terminal.process.send_signal(signal.SIGTERM)
        self.assertEqual(terminal.finish(), 1)
        self.assertIn("interrupted by SIGTERM", " ".join(terminal.screen()))

    def test_a_thousand_nodes_can_be_read_in_80_columns_and_24_rows(self):
        terminal = self.top(self.replay_file(1000, 8))
        # The events are read step by step, and shown meanwhile.
        terminal.wait_for("10.71.0.6       80% heard 5 s", 20)

        def is_whole():
            terminal.read(seconds=0.2)
            cells = self.cells(terminal)
            return cells.count("8") == 1000 - 3 - sum(cells.count(tenths) for tenths in "3456")

        lab.wait_until(is_whole, 20, "the last event to be shown")
        cells = self.cells(terminal)
        self.assertEqual(len(cells), 1000)
        self.assertIn("push 2147486722", terminal.shown()[0])
        self.assertEqual(cells.count("!"), 3, cells)
        colours = [terminal.emulator.buffer[2 + at // 50][at % 50].fg for at in range(1000)]
        self.assertEqual({colour for cell, colour in zip(cells, colours) if cell == "!"}, {"red"})
        self.assertEqual({colour for cell, colour in zip(cells, colours) if cell == "8"}, {"blue"})
        self.assertIn("10.71.0.6       80% heard 5 s", "\n".join(terminal.shown()))
        self.assertRegex("\n".join(terminal.shown()), r"\b[89]\d\d repairs/s, last min")
        self.assertRegex("\n".join(terminal.shown()), r"arrives 7\d\.\d Mbit/s, last min")
        terminal.type("f")
        terminal.wait_for("f:unfinished")
        terminal.type("f")
        terminal.wait_for("f:troubled")
        self.assertEqual(terminal.shown()[2][:50].rstrip(), "!!!")
        terminal.type("ff/10.71.3.2\r")
        terminal.wait_for("/:10.71.3.2")
        terminal.resize(140, 40)
        terminal.read(seconds=1)
        self.assertEqual(terminal.shown()[39][:12], "c:progress  ")
        terminal.type("q")
        self.assertEqual(terminal.finish(), 0)

    def test_a_push_is_played_back_and_a_pipe_is_followed(self):
        path = self.replay_file(20, 25)
        terminal = self.top("--replay", "20", path)
        terminal.wait_for("every node has every file", 10)
        terminal.type("q")
        self.assertEqual(terminal.finish(), 0)
        terminal = Terminal(self.net.lead, ["sh", "-c", f"cat {path} | {self.programs.lead} top -"])
        terminal.wait_for("20 of 20 nodes done", 10)
        terminal.type("q")
        self.assertEqual(terminal.finish(), 0)

    def test_a_view_without_a_terminal_is_refused(self):
        result = self.net.lead.run([self.programs.lead, "top", self.replay_file(2, 1)], capture_output=True, text=True,
                                   stdin=subprocess.DEVNULL, timeout=10)
        self.assertEqual((result.returncode, result.stderr),
                         (3, "pkgdist-lead: the full-screen view needs a terminal\n"))

    def test_made_up_events_are_like_real_ones(self):
        checker = event_schema.Checker()
        for event in many_nodes.events(20, 25):
            checker.check(event)
        self.assertTrue(lab.parse_lines('{"event":"x"}'))
