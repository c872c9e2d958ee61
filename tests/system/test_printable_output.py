"""Hostile names and texts from the network: no program prints what a terminal would obey."""

import json
import os
import shutil
import subprocess

import tree
from support import BackgroundLead, SystemTest, lab, names_below

NAME = "evil\x1b[2J\x1b]0;title\x07\r\nnext\x7f\u009b31m\u202egpj"
SHOWN = "evil?[2J?]0;title???next??31m?gpj"
FORBIDDEN = {*range(32), 0x7F, *range(0x80, 0xA0), 0x202E, 0x2028} - {ord("\n")}


class PrintableOutput(SystemTest):
    NODES = 1

    def setUp(self):
        super().setUp()
        self.bin = os.path.dirname(self.programs.lead)
        tree.write(self.content, NAME, b"content")
        self.node = self.net.nodes[0]

    def assert_printable(self, what, output, shown=SHOWN):
        text = output.decode("utf-8")
        bad = {c for c in text if ord(c) in FORBIDDEN}
        self.assertEqual(bad, set(), f"{what}: {text!r}")
        self.assertIn(shown, text, what)
        return text

    def lead(self, *arguments):
        return [self.programs.lead, "--interface", self.net.lead.address, "--location", f"1={self.content}",
                *arguments]

    def start_node_in_words(self, *options):
        with open(self.log_of(self.node), "wb") as log:
            process = self.node.spawn([self.programs.node, "--interface", self.node.address, "--location",
                                       f"1={self.directory_of(self.node)}", *options, "run"], stdout=log,
                                      stderr=log)
        return process

    def output_of_node(self):
        with open(self.log_of(self.node), "rb") as log:
            return log.read()

    def push(self, *options):
        done = self.net.lead.run(self.lead(*options, "push", "--nodes", self.addresses(), "."),
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def test_a_push_for_people_and_as_events(self):
        node = self.start_node_in_words("-v")
        self.assert_printable("push", self.push("-v"))
        self.assertEqual(names_below(self.directory_of(self.node)), {NAME})
        events = self.push("--json")
        escaped = r"evil\u001b[2J\u001b]0;title\u0007\r\nnext\u007f\u009b31m\u202egpj"
        self.assert_printable("push --json", events, escaped)
        self.assertIn(NAME, [e["name"] for e in lab.parse_events(events.decode()) if e["event"] == "file"])
        lab.wait_until(lambda: b"evil" in self.output_of_node(), what="the node's line")
        self.assert_printable("run", self.output_of_node())
        trace = self.node.run([os.path.join(self.bin, "pkgdist-trace"), str(node.pid)], capture_output=True)
        self.assert_printable("trace", trace.stdout)
        trace = self.node.run([os.path.join(self.bin, "pkgdist-trace"), str(node.pid), "--json"],
                              capture_output=True)
        self.assert_printable("trace --json", trace.stdout)

    def test_the_librarys_own_lines(self):
        self.start_node_in_words("-v", "-v", "-v")
        self.push()
        text = self.output_of_node()
        self.assertEqual({c for c in text if c in (0x1B, 0x07, 0x0D, 0x7F)}, set())
        self.assertIn(b"evil?[2J?]0;title???next?", text)

    def test_requests_of_a_node_at_both_ends(self):
        with open(self.log_of(self.node), "wb") as log:
            serving = self.net.lead.spawn(self.lead("serve"), stdout=log, stderr=log)
        lab.wait_until(lambda: b"leading" in self.output_of_node(), what="the lead")
        done = self.node.run([self.programs.node, "-v", "--interface", self.node.address, "--location",
                              f"1={self.directory_of(self.node)}", "get", NAME, "not" + NAME],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60)
        self.assertEqual(done.returncode, 1)
        self.assert_printable("get", done.stdout, "not" + SHOWN)
        lab.wait_until(lambda: self.output_of_node().count(b"evil") >= 3, what="the lead's lines")
        self.assert_printable("serve", self.output_of_node(), "not" + SHOWN)
        serving.terminate()

    def test_commands_that_delete_and_fail(self):
        command = f"exit 3 # {NAME}"
        with open(self.log_of(self.node), "wb") as log:
            self.node.spawn([self.programs.node, "--interface", self.node.address, "--location",
                             f"1={self.directory_of(self.node)}", "run", "--on-message", command],
                            stdout=log, stderr=log)
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: serving.events("node-introduced"), what="the node")
        tree.add(self.directory_of(self.node), NAME, 1)
        self.assertEqual(serving.request("delete", NAME)[0], 0)
        self.assertEqual(serving.request("message", NAME)[0], 0)
        lab.wait_until(lambda: b"exit status" in self.output_of_node(), what="the end of the command")
        self.assert_printable("run", self.output_of_node())
        with open(serving.out + ".json", "rb") as file:
            self.assert_printable("serve --json", file.read(), r"evil\u001b[2J")

    def release(self, *arguments):
        done = subprocess.run([os.path.join(self.bin, "pkgdist-release"), *arguments], capture_output=True,
                              timeout=20)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def test_names_of_a_release(self):
        """What separates words is escaped by the manifest itself, the rest when it is printed."""
        manifest = os.path.join(self.directory("releases"), "before")
        for version in ("1", "2"):
            self.release("make", self.content, "--name", "base", "--version", version, "--floor", "1")
            if version == "1":
                shutil.copy(os.path.join(self.content, ".pkgdist", "manifest"), manifest)
                tree.write(self.content, "added\u009b31m\u202e", b"")
                tree.write(os.fsencode(self.content), b"no utf-8: \xff", b"")
        self.assert_printable("show", self.release("show", self.content, "--entries"), "next%7F?31m?gpj")
        entries = json.loads(self.release("show", self.content, "--entries", "--json"))["entries"]
        names = [entry["path"] for entry in entries]
        self.assertIn("added\u009b31m\u202e", names)
        self.assertIn("no%20utf-8:%20\ufffd", names)
        text = self.assert_printable("diff", self.release("diff", manifest, self.content), "+ added?31m?\n")
        self.assertIn("+ no%20utf-8:%20?\n", text)
        added = json.loads(self.release("diff", manifest, self.content, "--json"))["added"]
        self.assertCountEqual(added, ["added\u009b31m\u202e", "no%20utf-8:%20\ufffd"])
        for command in (("show", self.content, "--entries"), ("diff", manifest, self.content)):
            self.assert_printable(command[0], self.release(*command, "--json"), r"added\u009b31m\u202e")

    def test_messages_about_arguments_and_files(self):
        for command in (self.lead("push", "--nodes", NAME, "."),
                        [self.programs.lead, "report", NAME, "-o", "x"],
                        [os.path.join(self.bin, "pkgdist-stat"), NAME],
                        [os.path.join(self.bin, "pkgdist-trace"), NAME],
                        [self.programs.doctor, "--interface", NAME, "lead"],
                        [self.programs.node, "--interface", NAME, "run"]):
            done = self.net.lead.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=20)
            with self.subTest(command=command[0]):
                self.assertNotEqual(done.returncode, 0)
                self.assert_printable(command[0], done.stdout)

    def test_the_page_about_a_push(self):
        events = os.path.join(self.directory("e"), "events")
        page = events + ".html"
        ended = {"event": "push-finished", "time": 2, "complete": False, "files": 1, "bytes": 1, "seconds": 1,
                 "expected_nodes": 1, "slowest": [], "nodes": [
                     {"node": "<b>\x1b", "state": "failed\x1b", "files": 0, "present": 0, "bytes": 0, "seconds": 1,
                      "repairs": 0, "repair_ratio": 0, "files_failed": 1, "files_left": 0, "bytes_left": 0,
                      "failed": [{"name": NAME, "status": 1, "text": "x"}], "open": []}]}
        with open(events, "w", encoding="utf-8") as file:
            file.write(json.dumps({"event": "push-started", "time": 1, "transaction": 1, "files": 1, "bytes": 1,
                                   "nodes": 1}) + "\n" + json.dumps(ended) + "\n")
        done = self.net.lead.run([self.programs.lead, "report", events, "-o", page], capture_output=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        with open(page, "rb") as file:
            self.assert_printable("report", file.read())
