"""Output that nobody reads, or that cannot be written, and the end by a signal in every state."""

import json
import os
import signal
import socket
import subprocess
import time

import tree
from blocked import BlockedPipe, keeps_stop_signals, sleeps_in_poll
from support import ROOT, BackgroundLead, SystemTest, lab, names_below

END_SECONDS = 2.0


class OutputSystem(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        self.bin = os.path.dirname(self.programs.lead)
        self.pipes = []

    def blocked(self):
        pipe = BlockedPipe()
        self.pipes.append(pipe)
        return pipe

    def lead_command(self, *arguments, json_events=True):
        return [self.programs.lead, "--interface", self.net.lead.address, "--location",
                f"1={self.content}", *(["--json"] if json_events else []), *arguments]

    def node_command(self, node, *arguments):
        return [self.programs.node, "--interface", node.address, "--location",
                f"1={self.directory_of(node)}", "--json", *arguments]

    def push_command(self, *arguments, json_events=True):
        return self.lead_command("push", "--nodes", self.addresses(), *arguments, ".",
                                 json_events=json_events)

    def many_files(self, count=1500):
        for i in range(count):
            tree.add(self.content, f"d{i % 30}/file {i}", 50)

    def wait_for_all_files(self):
        expected = names_below(self.content)
        lab.wait_until(lambda: all(names_below(self.directory_of(node)) == expected
                                   for node in self.net.nodes), 60, "every file on every node")
        self.assert_received()

    def assert_ends(self, process, number, what):
        process.send_signal(number)
        began = time.monotonic()
        try:
            process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            self.fail(f"{what} does not end by {signal.Signals(number).name}")
        self.assertLess(time.monotonic() - began, END_SECONDS, what)
        return process.returncode

    # --- Readers that stop reading ---

    def test_a_push_whose_output_nobody_reads_brings_every_file_and_ends_by_a_signal(self):
        self.many_files()
        self.start_nodes()
        pipe = self.blocked()
        process = self.net.lead.spawn(self.push_command("-v"), stdout=pipe.write, stderr=subprocess.PIPE)
        self.wait_for_all_files()
        self.assertIsNone(process.poll(), "it waits for its reader")
        self.assertEqual(self.assert_ends(process, signal.SIGTERM, "push"), 1)
        self.assertIn(b"nobody reads standard output", process.stderr.read())
        process.stderr.close()

    def test_a_reader_that_comes_late_gets_every_result(self):
        self.many_files(300)
        self.start_nodes()
        pipe = self.blocked()
        process = self.net.lead.spawn(self.push_command(), stdout=pipe.write)
        pipe.close_write()
        self.wait_for_all_files()
        events = lab.parse_events(pipe.drain())
        self.assertEqual(process.wait(timeout=10), 0)
        names = [e["event"] for e in events if e["event"] != "directories"]
        self.assertEqual(names[-2:], ["push-finished", "counters"])
        self.assertEqual(names.count("file"), 600)

    def test_a_node_whose_output_nobody_reads_receives(self):
        self.many_files()
        pipes = [self.blocked() for _ in self.net.nodes]
        nodes = [node.spawn(self.node_command(node, "--umask", "0", "run"), stdout=pipe.write,
                            stderr=subprocess.DEVNULL)
                 for node, pipe in zip(self.net.nodes, pipes)]
        self.assertTrue(self.push(timeout=60).events)
        self.assert_received()
        for process in nodes:
            self.assert_ends(process, signal.SIGINT, "run")

    def test_a_program_that_reads_no_answer_does_not_keep_a_push(self):
        self.start_nodes()
        tree.add(self.content, "file", 10_000)
        lead = self.start_push("--rate", "0.01")
        path = f"/run/pkgdist-lead-{self.net.lead.address}-7102.sock"
        lab.wait_until(lambda: os.path.exists(path), 10, "the control socket")
        strangers = [f"10.72.{i // 250}.{i % 250 + 1}" for i in range(4000)]
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(path)
            client.sendall(json.dumps({"command": "message", "class": 2, "data": "AAAA", "timeout": 1,
                                       "nodes": strangers}).encode() + b"\n")
            lead.finish(seconds=40)
        self.assertIn("does not read the answer", lead.errors())

    # --- Output that cannot be written ---

    def test_a_push_whose_reader_ends_goes_on_and_says_so(self):
        self.many_files(300)
        self.start_nodes()
        process = self.net.lead.spawn(self.push_command("-v"), stdout=subprocess.PIPE,
                                      stderr=subprocess.PIPE)
        process.stdout.close()
        self.assertEqual(process.wait(timeout=60), 1)
        self.assertEqual(process.stderr.read().decode(),
                         "pkgdist-lead: standard output cannot be written: its reader has ended "
                         "(SIGPIPE)\n")
        process.stderr.close()
        self.assert_received()

    def test_a_full_disk_ends_every_program_with_a_message(self):
        self.start_nodes()
        node = self.net.nodes[0]
        pid = str(self.node_processes[node.name].pid)
        tree.add(self.content, "file", 10)
        serving = BackgroundLead(self, "serve")
        serving.wait_for_all_nodes()
        commands = [[os.path.join(self.bin, name), "--help"] for name in
                    ("pkgdist-lead", "pkgdist-node", "pkgdist-stat", "pkgdist-trace", "pkgdist-doctor",
                     "pkgdist-release")]
        commands += [[os.path.join(self.bin, "pkgdist-stat"), pid],
                     [os.path.join(self.bin, "pkgdist-stat"), pid, "--json", "--watch", "0.1"],
                     [os.path.join(self.bin, "pkgdist-trace"), pid],
                     [os.path.join(self.bin, "pkgdist-trace"), pid, "--follow"],
                     self.lead_command("message", "hello", json_events=False),
                     self.node_command(node, "firewall", "--lead", self.net.lead.address),
                     *self.release_commands()]
        with open("/dev/full", "wb") as full:
            for command in commands:
                result = self.net.lead.run(command, stdout=full, stderr=subprocess.PIPE, timeout=20)
                with self.subTest(command=" ".join(command[:3])):
                    self.assertNotEqual(result.returncode, 0)
                    self.assertIn(b"standard output cannot be written: No space left on device",
                                  result.stderr)
        serving.stop()

    def release_commands(self):
        program = os.path.join(self.bin, "pkgdist-release")
        subprocess.run([program, "make", self.content, "--name", "base", "--version", "1", "--floor", "1"], check=True,
                       capture_output=True)
        return [[program, "show", self.content, "--entries"], [program, "show", self.content, "--json"],
                [program, "diff", self.content, self.content]]

    # --- Signals ---

    def states(self):
        """Every program in a state in which it waits: (name, host, command)."""
        node = self.net.nodes[0]
        here = self.net.lead
        pid = str(self.node_processes[node.name].pid)
        other = self.net.nodes[1]
        return [
            ("push that waits", here, self.push_command("--timeout", "600")),
            ("serve", here, self.lead_command("serve")),
            ("run", other, self.node_command(other, "run")),
            ("get", other, self.node_command(other, "get", "file")),
            ("send", other, self.node_command(other, "send", "hello")),
            ("stat", here, [os.path.join(self.bin, "pkgdist-stat"), pid, "--watch", "0.1"]),
            ("stat --listen", here, [os.path.join(self.bin, "pkgdist-stat"), "--listen", "9471"]),
            ("trace", here, [os.path.join(self.bin, "pkgdist-trace"), pid, "--follow"]),
            ("doctor", here, [os.path.join(self.bin, "pkgdist-doctor"), "--interface", here.address,
                              "--wait", "600", "lead"]),
            ("report", here, [self.programs.lead, "report", "-", "-o", os.path.join(ROOT, "p.html")]),
        ]

    def test_a_signal_ends_every_program_in_two_seconds_when_its_output_is_blocked(self):
        self.start_node(self.net.nodes[0])
        tree.add(self.content, "file", 10)
        silent_r, silent_w = os.pipe()
        for number in (signal.SIGINT, signal.SIGTERM):
            for what, host, command in self.states():
                with self.subTest(program=what, signal=number):
                    out, err = self.blocked(), self.blocked()
                    process = host.spawn(command, stdin=silent_r, stdout=out.write, stderr=err.write)
                    lab.wait_until(lambda p=process: keeps_stop_signals(p) and sleeps_in_poll(p), 10, what)
                    self.assert_ends(process, number, what)
        os.close(silent_r)
        os.close(silent_w)

    def test_a_signal_ends_a_request_that_waits_for_its_answer(self):
        self.start_node(self.net.nodes[0])
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: serving.events("node-appeared"), what="the node")
        self.net.nodes[0].lose(99.99)
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.net.lead.spawn(self.lead_command("message", "--timeout", "600", "hello"),
                                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            self.assertIn('"sent"', process.stdout.readline())
            self.assertEqual(self.assert_ends(process, number, "message"), 1)
            self.assertEqual(process.stderr.read(), "pkgdist-lead: interrupted by "
                             f"{number.name}: the lead goes on with the request\n")
            process.stdout.close()
            process.stderr.close()
        serving.stop()

    def test_an_interrupted_program_names_the_signal(self):
        node = self.net.nodes[0]
        for arguments, rest in ((("get", "file"), "no lead was heard"), (("send", "x"), "no lead was heard")):
            process = node.spawn(self.node_command(node, *arguments), stdout=subprocess.DEVNULL,
                                 stderr=subprocess.PIPE, text=True)
            lab.wait_until(lambda p=process: keeps_stop_signals(p) and sleeps_in_poll(p), 10, "a wait")
            self.assertEqual(self.assert_ends(process, signal.SIGTERM, arguments[0]), 1)
            self.assertIn(f"pkgdist-node: interrupted by SIGTERM: {rest}", process.stderr.read())
            process.stderr.close()

    def test_standard_output_that_is_closed_harms_no_socket(self):
        self.start_nodes()
        tree.add(self.content, "file", 100_000)
        result = self.net.lead.run(["sh", "-c", 'exec "$@" >&- 2>&-', "sh", *self.push_command("-v")],
                                   timeout=60)
        self.assertEqual(result.returncode, 0)
        self.assert_received()
