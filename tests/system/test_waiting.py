"""What programs say while they wait, what they wait for, and when they give up."""

import os
import re
import shlex
import signal
import subprocess
import time

import tree
from support import BackgroundLead, SystemTest, lab
from terminal import Terminal


class Waiting(SystemTest):
    def push_command(self, *arguments, nodes=None, json_events=False):
        return [self.programs.lead, "--interface", self.net.lead.address, "--location",
                f"1={self.content}", *(["--json"] if json_events else []), "push", "--nodes",
                nodes or self.addresses(), *arguments, "."]

    def node_command(self, node, *arguments):
        return [self.programs.node, "--interface", node.address, "--location",
                f"1={self.directory_of(node)}", *arguments]

    # --- A push ---

    def test_a_push_says_in_place_what_it_waits_for(self):
        tree.add(self.content, "file", 10)
        self.start_node(self.net.nodes[0])
        terminal = Terminal(self.net.lead, self.push_command("--timeout", "4"))
        self.assertEqual(terminal.finish(), 1)
        left = [int(s) for s in re.findall(r"waiting for 2 of 3 nodes, (\d+) s left", terminal.text)]
        self.assertGreater(len(set(left)), 1, terminal.text)
        self.assertEqual(left, sorted(left, reverse=True))
        self.assertLessEqual(max(left), 4)
        self.assertFalse([line for line in terminal.screen() if "waiting" in line], "it is gone")

    def test_a_push_says_in_lines_what_it_waits_for(self):
        tree.add(self.content, "file", 10)
        self.start_node(self.net.nodes[0])
        result = self.net.lead.run(self.push_command("--timeout", "8"), capture_output=True, text=True,
                                   timeout=60)
        left = [int(s) for s in re.findall(r"^waiting for 2 of 3 nodes, (\d+) s left$", result.stdout,
                                           re.MULTILINE)]
        self.assertEqual(len(left), 2, result.stdout)
        self.assertAlmostEqual(left[0] - left[1], 5, delta=1)
        self.assertNotIn("pkgdist-doctor", result.stdout, "one node came")

    def test_a_dry_run_that_asks_nodes_says_the_same(self):
        tree.add(self.content, "d/file", 10)
        self.start_node(self.net.nodes[0])
        result = self.net.lead.run([*self.push_command("--delete", "--dry-run", "--timeout", "3")],
                                   capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stdout, r"(?m)^waiting for 2 of 3 nodes, [12] s left$")
        self.assertIn("2 of 3 nodes never appeared\n", result.stdout)
        self.assertNotIn("pkgdist-doctor", result.stdout, "one node came")
        self.node_processes[self.net.nodes[0].name].kill()
        alone = self.net.lead.run(self.push_command("--delete", "--dry-run", "--timeout", "2", "--top",
                                                    json_events=True, nodes="3"),
                                  capture_output=True, text=True, timeout=60)
        events = lab.parse_events(alone.stdout)
        self.assertEqual([(e["nodes_absent"], e["nodes"]) for e in events if e["event"] == "waiting"], [(3, 3)])
        self.assertEqual(len([e for e in events if e["event"] == "nobody-heard"]), 1, alone.stderr)

    def test_nodes_that_come_one_after_the_other_are_waited_for_longer_than_the_time_out(self):
        """By a push that only lists, too."""
        tree.add(self.content, "file", 10)
        for arguments in (), ("--delete", "--dry-run"):
            with self.subTest(arguments=arguments):
                push = self.start_push("--timeout", "4", *arguments)
                for node in self.net.nodes:
                    start = time.monotonic()
                    lab.wait_until(lambda: time.monotonic() > start + 2.5, 4, "the next node's turn")
                    self.start_node(node)
                self.assertEqual(push.process.wait(timeout=30), 0, push.errors())
                self.stop_processes()

    def test_a_push_to_nobody_ends_with_a_doctor_that_runs(self):
        tree.add(self.content, "file", 10)
        command = self.push_command("--timeout", "2", nodes="3")
        result = self.net.lead.run(command, capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 1)
        line = next(line for line in result.stdout.splitlines() if line.startswith("  pkgdist-doctor"))
        self.assertEqual(line, f"  pkgdist-doctor --interface {self.net.lead.address} --wait 60 lead")
        doctor = self.net.lead.run([self.programs.doctor, *shlex.split(line)[1:], "--seconds", "0"],
                                   capture_output=True, text=True, timeout=60)
        self.assertIn(doctor.returncode, (0, 1), doctor.stderr)
        self.assertRegex(doctor.stdout, r"\d problems?, \d warnings?, \d notes?\n$")

    def test_bars_fit_a_terminal_of_80_columns_and_leave_nothing_behind(self):
        tree.add(self.content, "file", 3_000_000)
        self.start_nodes()
        terminal = Terminal(self.net.lead, self.push_command("--rate", "8"))
        self.assertEqual(terminal.finish(), 0, terminal.text)
        bars = re.findall(r"10\.71\.0\.\d+ +\[[#.]+\].*?(?=\r)", terminal.text)
        self.assertGreater(len(bars), 6)
        self.assertLess(max(map(len, bars)), 80)
        self.assertFalse([line for line in terminal.screen() if re.search(r"\[[#.]+\]|% +\d+/\d+ files", line)],
                         "bars are gone in the end")

    # --- A node ---

    def test_run_says_what_it_listens_to_as_whom_and_where_locations_are(self):
        node = self.net.nodes[0]
        process = node.spawn(["sh", "-c", 'cd "$0" && exec "$@"', self.directory("w"), self.programs.node,
                              "--interface", node.address, "--location", "1=here", "--location",
                              "2=mem:/there-", "--node-id", "1/2/3", "run"], stdout=subprocess.PIPE, text=True)
        lines = [process.stdout.readline() for _ in range(3)]
        self.assertEqual(lines, [
            f"node {node.address} (1/2/3, card class 3) listens to 239.255.71.1:7100 and 239.255.71.2:7101, "
            "and on port 7103\n",
            f"location 1: {os.path.join(self.directory('w'), 'here')}\n",
            "location 2: shared memory, names with /there-\n"])
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.stdout.read(), "stopped by SIGTERM\n")
        process.stdout.close()
        self.assertEqual(process.wait(timeout=10), 0)

    def test_run_without_a_location_is_refused(self):
        node = self.net.nodes[0]
        result = node.run([self.programs.node, "--interface", node.address, "run"], capture_output=True,
                          text=True, timeout=10)
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn("--location N=DIR is missing", result.stderr)

    def test_a_start_on_a_port_that_is_taken_names_who_has_it(self):
        node = self.net.nodes[0]
        with node.socket(7103):
            result = node.run(self.node_command(node, "run"), capture_output=True, text=True, timeout=10)
        self.assertEqual(result.returncode, 3)
        self.assertNotIn("a system call failed", result.stderr)
        self.assertRegex(result.stderr, rf"a node runs with this address and port already: process {os.getpid()} ")

    # --- Time-outs ---

    def get(self, *arguments):
        return self.node_command(self.net.nodes[0], "get", *arguments)

    def test_a_get_that_makes_progress_may_take_longer_than_the_time_out(self):
        tree.add(self.content, "file", 3_000_000)
        lead = BackgroundLead(self, "serve", "--rate", "4")
        lead.wait_for("serving")
        began = time.monotonic()
        result = self.net.nodes[0].run(self.get("--timeout", "2", "file"), capture_output=True, text=True,
                                       timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertGreater(time.monotonic() - began, 4, "it took longer than the time-out")

    def test_a_get_gives_up_when_the_lead_falls_silent(self):
        tree.add(self.content, "file", 3_000_000)
        lead = BackgroundLead(self, "serve", "--rate", "4")
        lead.wait_for("serving")
        node = self.net.nodes[0]
        process = node.spawn(self.get("--timeout", "2", "file"), stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, text=True)
        partial = os.path.join(self.directory_of(node), "file.tmp")
        lab.wait_until(lambda: os.path.exists(partial), 10, "the first segments")
        lead.process.send_signal(signal.SIGSTOP)
        began = time.monotonic()
        try:
            self.assertEqual(process.wait(timeout=20), 1)
        finally:
            lead.process.send_signal(signal.SIGCONT)
        self.assertLess(time.monotonic() - began, 6)
        self.assertEqual(process.stderr.read(), "pkgdist-node: 1 of 1 files have not arrived: nothing was "
                         "heard for 2 s (--timeout)\n")
        process.stderr.close()

    # --- Commands for messages ---

    def test_a_command_that_hangs_keeps_neither_node_nor_lead_from_work_and_end(self):
        node = self.net.nodes[0]
        log = self.log_of(node)
        with open(log, "wb") as out:
            process = node.spawn([*self.node_command(node, "--json", "run", "--on-message", "sleep 1000",
                                                     "--message-timeout", "1")], stdout=out,
                                 stderr=subprocess.DEVNULL)
        serving = BackgroundLead(self, "serve", "--on-message", "sleep 1000")
        lab.wait_until(lambda: serving.events("node-appeared"), what="the node")
        self.assertEqual(serving.request("message", "--nodes", node.address, "one")[0], 0)
        other = self.net.nodes[1]
        for _ in range(2):
            sent = other.run(self.node_command(other, "send", "x"), capture_output=True, text=True, timeout=60)
            self.assertEqual(sent.returncode, 0, sent.stderr)
        self.assertEqual(serving.request("message", "--nodes", node.address, "two")[0], 0)
        lab.wait_until(lambda: len(self.node_events(node, "message")) == 2, 10, "both messages at once")
        lab.wait_until(lambda: self.node_events(node, "error"), 10, "the end of the first command")
        self.assertIn("was ended: it took longer than 1 s", self.node_events(node, "error")[0]["text"])
        for one in (process, serving.process):
            began = time.monotonic()
            one.send_signal(signal.SIGTERM)
            self.assertEqual(one.wait(timeout=10), 0)
            self.assertLess(time.monotonic() - began, 2)
