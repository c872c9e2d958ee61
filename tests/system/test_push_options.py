"""What a push is told: nodes by name, what of the content travels, how much it says."""

import os
import signal
import subprocess

import lab
import tree
from forger import Forger
from support import ROOT, BackgroundLead, SystemTest, summary


def files_of(directory):
    return sorted(os.path.relpath(os.path.join(at, name), directory)
                  for at, _, names in os.walk(directory) for name in names)


class Lead(SystemTest):
    def lead(self, *arguments, address=None, **options):
        """The lead's program with lines for people."""
        return self.net.lead.run([self.programs.lead, "--interface", address or self.net.lead.address,
                                  "--location", f"1={self.content}", *arguments],
                                 capture_output=True, text=True, timeout=60, **options)


class NamesOfNodes(Lead):
    """Hosts are n01 to n03 in /etc/hosts; the addresses ascend the other way."""

    def setUp(self):
        super().setUp()
        self.names = dict(zip(("n03", "n02", "n01"), self.net.nodes))
        hosts = os.path.join(ROOT, "hosts")
        with open(hosts, "w", encoding="utf-8") as file:
            file.writelines(f"{node.address} {name}\n" for name, node in self.names.items())
        subprocess.run(["mount", "--bind", hosts, "/etc/hosts"], check=True)
        self.addCleanup(lab.unmount, "/etc/hosts")
        tree.add(self.content, "file", 1000)
        self.start_nodes()

    def push_to(self, nodes, expect=0):
        result = self.programs.push(self.net.lead, self.content, "--nodes", nodes)
        self.assertEqual(result.returncode, expect, result.stderr)
        return result

    def assert_only(self, result, *names):
        wanted = [self.names[name] for name in names]
        self.assertEqual({node["node"] for node in summary(result)["nodes"]},
                         {node.address for node in wanted})
        self.assert_received(*wanted)
        for node in self.net.nodes:
            if node not in wanted:
                self.assertEqual(files_of(self.directory_of(node)), [])

    def test_a_range_of_names(self):
        result = self.push_to("n[01-02]")
        self.assert_only(result, "n01", "n02")

    def test_the_others_that_are_heard_are_told_apart(self):
        """At the end of a push that lasted until they were."""
        tree.add(self.content, "file", 2_000_000)
        push = BackgroundLead(self, "push", "--nodes", "n01", "--rate", "4", ".")
        wanted = {node.address for node in self.net.nodes}
        lab.wait_until(lambda: {e["node"] for e in push.events("node-appeared")} == wanted, 20,
                       "every node to be heard")
        self.assertEqual(push.events("others-heard"), [])
        result = push.finish()
        self.assertEqual([node["node"] for node in result["nodes"]], [self.names["n01"].address])
        self.assertEqual([e["nodes"] for e in push.events("others-heard")], [2])
        self.assert_received(self.names["n01"])

    def test_a_file_of_nodes_and_a_group_of_it(self):
        nodes = os.path.join(ROOT, "nodes")
        with open(nodes, "w", encoding="utf-8") as file:
            file.write("# the cluster\nn03\n[few]\nn02\n")
        self.assert_only(self.push_to(f"@{nodes}:few"), "n02")
        self.assert_only(self.push_to(f"@{nodes}"), "n02", "n03")

    def test_the_table_is_sorted_by_name(self):
        result = self.lead("push", "--nodes", "n03,n02,n01", ".")
        self.assertEqual(result.returncode, 0, result.stderr)
        rows = [line.split()[0] for line in result.stdout.splitlines() if line.endswith("  complete")]
        self.assertEqual(rows, ["n01", "n02", "n03"])

    def test_results_of_delete_cancel_and_message_stand_under_the_names(self):
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(serving.events("node-introduced")) == 3, 20, "the introductions")
        tree.add(self.directory_of(self.names["n02"]), "gone", 10)

        def said(*arguments):
            done = self.lead(*arguments)
            rows = [line.split("  ", 1) for line in done.stdout.splitlines() if line.startswith("n0")]
            return done.returncode, [(name.strip(), why.strip()) for name, why in rows]

        status, rows = said("delete", "--nodes", "n[01-03]", "gone")
        self.assertEqual((status, rows), (0, [("n01", "gone: no such file"), ("n03", "gone: no such file")]))
        status, rows = said("cancel", "--nodes", "n03,n01", "4711")
        self.assertEqual((status, rows), (1, [(name, "no such transaction under way") for name in ("n01", "n03")]))
        self.node_processes[self.names["n03"].name].send_signal(signal.SIGSTOP)
        self.addCleanup(self.node_processes[self.names["n03"].name].send_signal, signal.SIGCONT)
        status, rows = said("message", "--nodes", "n01,n03", "--timeout", "1", "hello")
        self.assertEqual((status, rows), (1, [("n03", "no acknowledgement in time")]))
        scripts = serving.request("cancel", "--nodes", "n01", "4711")[1]
        self.assertEqual([e["node"] for e in scripts if e["event"] == "outcome"], [self.names["n01"].address])

    def test_a_node_that_does_not_introduce_itself_is_called_as_the_resolver_has_it(self):
        node = self.names["n02"]
        self.kill(self.node_processes[node.name])
        serving = BackgroundLead(self, "serve")
        forger = Forger(node, self.net.lead)
        self.addCleanup(forger.close)
        forger.answer(node.address, forger.ping(), 4711)

        def name():
            return {e["node"]: e["name"] for e in serving.request("nodes")[1] if e["event"] == "node"}.get(node.address)

        lab.wait_until(lambda: name() == "n02", 20, "the name of the node")

    def test_a_name_without_an_address_is_refused(self):
        result = self.lead("push", "--nodes", "n01,n04", ".")
        self.assertEqual(result.returncode, 2)
        self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
        self.assertIn("n04", result.stderr)


class NamesOfInterfaces(Lead):
    NODES = 1

    def test_both_programs_take_the_name_of_their_interface(self):
        node = self.net.nodes[0]
        tree.add(self.content, "file", 1000)
        node.spawn([self.programs.node, "--interface", "eth0", "--location",
                    f"1={self.directory_of(node)}", "--umask", "0", "run"],
                   stdout=subprocess.DEVNULL)
        result = self.lead("push", "--nodes", node.address, ".", address="eth0")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assert_received()

    def test_an_interface_that_is_not_there_is_refused(self):
        result = self.lead("push", "--nodes", "1", ".", address="eth7")
        self.assertEqual(result.returncode, 2)
        self.assertIn("'eth7'", result.stderr)


class WhatTravels(Lead):
    NODES = 1

    def setUp(self):
        super().setUp()
        for name in ("a", "b.log", "d/c", "d/keep.log", "cache/x"):
            tree.add(self.content, name, 1_000_000)

    def received(self):
        return files_of(self.directory_of(self.net.nodes[0]))

    def test_a_dry_run_tells_and_sends_nothing(self):
        observer = self.net.nodes[0]
        result = self.lead("-v", "push", "--dry-run", "--nodes", "1", "--rate", "8M", ".")
        self.assertEqual(result.returncode, 0, result.stderr)
        lines = result.stdout.splitlines()
        self.assertEqual(lines[-1], "would push 5 files, 5.00 MB; at 8.0 Mbit/s at least 5 s")
        self.assertEqual(len(lines), 6)
        self.start_node(observer)
        self.assertEqual(self.received(), [])

    def test_a_dry_run_names_the_files_for_programs(self):
        events = self.push("--dry-run", "--exclude", "*.log").events
        self.assertEqual([e["name"] for e in events if e["event"] == "would-push"],
                         ["a", "cache/x", "d/c"])
        self.assertEqual([e for e in events if e["event"] == "dry-run"],
                         [{**events[-1], "files": 3, "bytes": 3_000_000}])

    def test_excluded_names_do_not_travel_unless_they_are_included(self):
        self.start_nodes()
        self.push("--exclude", "*.log", "--include", "keep.log", "--exclude", "cache")
        self.assertEqual(self.received(), ["a", "d/c", "d/keep.log"])

    def test_paths_come_from_a_file_or_the_standard_input(self):
        self.start_nodes()
        names = os.path.join(ROOT, "names")
        with open(names, "w", encoding="utf-8") as file:
            file.write("a\n\ncache\n")
        result = self.lead("push", "--nodes", "1", "--files-from", names)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.received(), ["a", "cache/x"])
        result = self.lead("push", "--nodes", "1", "--files-from", "-", "b.log", input="d/c\n")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(self.received(), ["a", "b.log", "cache/x", "d/c"])

    def test_present_files_are_sent_with_force(self):
        self.start_nodes()
        self.push()
        # A file whose report is late gets a segment, and does not count as present.
        lab.wait_until(lambda: summary(self.push())["nodes"][0]["present"] == 5, 20, "five files to be present")
        self.assertEqual(summary(self.push("--force"))["nodes"][0]["present"], 0)

    def test_a_quiet_push_tells_nothing_but_what_went_wrong(self):
        address = self.net.nodes[0].address
        result = self.lead("push", "--quiet", "--timeout", "1", "--nodes", address, ".")
        self.assertEqual(result.returncode, 1)
        self.assertIn("never heard", result.stdout)
        self.start_nodes()
        result = self.lead("push", "--quiet", "--nodes", address, ".")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))

    def test_wrong_values_are_refused(self):
        for arguments in (["--nodes", "1"], ["--nodes", "n[2-1]", "."], ["--nodes", "@/none", "."],
                          ["--nodes", "1", "--rate", "5T", "."], ["--nodes", "1", "--rate", "M", "."],
                          ["--nodes", "1", "--files-from", "/none"],
                          ["--nodes", "1", "--force", "--type", "2", "."],
                          ["--nodes", "1", "--exclude", "*", "."]):
            with self.subTest(arguments):
                result = self.lead("push", *arguments)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
