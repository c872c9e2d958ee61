"""Signed releases pushed by pkgdist-lead: brought to nodes, activated by policy, listed, measured."""

import os
import shutil
import signal
import subprocess
import threading

import lab
from release_node import ReleaseNode
from support import ROOT, BackgroundLead
from test_metrics import SCRAPE, PORT, Metrics

SIX = {"etc/settings": b"colour = blue\n", "big": os.urandom(2_000_000), "old": b"x",
       **{f"many/{i}": os.urandom(500) for i in range(200)}}
SEVEN = {**SIX, "etc/settings": b"colour = green\n", "new/file": b"y"}
del SEVEN["old"]


class Fleet(ReleaseNode):
    """Three nodes that take releases of "base"."""

    NODES = 3

    def place_of(self, node):
        return self.directory(node.name + ".place")

    def start_taker(self, node, *more, keys=None):
        command = [self.programs.node, "--interface", node.address, "--json", "run", "--releases",
                   f"base={self.place_of(node)}", "--keys", keys or self.keys,
                   "--state", self.directory(node.name + ".state"), *more]
        with open(self.log_of(node), "ab") as log:
            process = node.spawn(command, stdout=log)
        self.node_processes[node.name] = process
        return process

    def start_takers(self):
        for node in self.net.nodes:
            self.start_taker(node)

    def lead_command(self, *arguments, expect=0, timeout=120):
        result = self.net.lead.run([self.programs.lead, "--interface", self.net.lead.address, "--json", *arguments],
                                   capture_output=True, text=True, timeout=timeout)
        result.events = lab.parse_events(result.stdout)
        self.assertEqual(result.returncode, expect, f"{result.stderr}\n{result.events[-3:]}")
        return result

    def push_release(self, *arguments, expect=0, nodes=None):
        return self.lead_command("push", "--release", self.content, "--nodes", nodes or self.addresses(),
                                 *arguments, expect=expect)

    @staticmethod
    def of(result, event):
        return [e for e in result.events if e["event"] == event]

    def end_of(self, result):
        return self.of(result, "release-finished")[-1]

    def stages(self, result):
        """{name of the node: its state at the end}"""
        names = {node.address: node.name for node in self.net.nodes}
        return {names[n["node"]]: n["state"] for n in self.end_of(result)["nodes"]}

    def problems(self, result):
        names = {node.address: node.name for node in self.net.nodes}
        return {names[n["node"]]: n["text"] for n in self.end_of(result)["nodes"]}

    def sent(self, result):
        """Files of each push of content in it."""
        return [e["files"] for e in self.of(result, "release-phase") if e["phase"] == "fetch"]

    def version_on(self, node):
        """Of the release that is current, which is as it was signed; None: there is none."""
        current = os.path.join(self.place_of(node), "current")
        if not os.path.islink(current):
            return None
        checked = subprocess.run([self.release_program, "check", current, "--keys", self.keys], capture_output=True,
                                 text=True, timeout=60)
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)
        return int(os.readlink(current).split("/")[-1].split("-")[0])

    def versions(self):
        return [self.version_on(node) for node in self.net.nodes]


class ReleasePush(Fleet):
    def test_all_nodes_switch_and_a_second_release_brings_only_what_is_new(self):
        self.start_takers()
        self.build(6, SIX)
        first = self.push_release()
        self.assertEqual(self.versions(), [6, 6, 6])
        self.assertEqual(self.sent(first), [len(SIX)])
        self.assertEqual(self.stages(first), {"node1": "confirmed", "node2": "confirmed", "node3": "confirmed"})
        self.build(7, SEVEN)
        second = self.push_release()
        self.assertEqual(self.versions(), [7, 7, 7])
        self.assertEqual(self.sent(second), [2])
        self.assertGreater(self.end_of(first)["bytes_sent"], 2_000_000)
        # The manifest and the hashes of the large file's leaves travel again.
        self.assertLess(self.end_of(second)["bytes_sent"], 60_000)
        again = self.push_release()
        self.assertEqual(self.sent(again), [])
        self.assertTrue(self.end_of(again)["complete"])

    def test_loss_delays_it_and_nothing_more(self):
        self.start_takers()
        for node in self.net.nodes:
            node.lose(5)
        self.net.lead.lose(5)
        self.build(6, SIX)
        self.push_release()
        self.build(7, SEVEN)
        self.push_release()
        self.assertEqual(self.versions(), [7, 7, 7])

    def test_one_node_that_refuses_decides_by_the_policy(self):
        first, second, third = self.net.nodes
        other = self.directory("other-keys")
        self.new_key(os.path.join(ROOT, "other.key"), "../other-keys/other")
        self.start_taker(first)
        self.start_taker(second)
        self.start_taker(third, keys=other)
        self.build(6, SIX)
        refused = {"node1": "ready", "node2": "ready", "node3": "refused"}
        for policy in ("all", "67%"):
            result = self.push_release("--activate", policy, expect=1)
            self.assertEqual(self.stages(result), refused)
            self.assertTrue(self.end_of(result)["held_back"])
            self.assertIn("not trusted here", self.problems(result)["node3"])
            self.assertEqual(self.versions(), [None, None, None])
        switched = {"node1": "confirmed", "node2": "confirmed", "node3": "refused"}
        result = self.push_release("--activate", "66%", expect=1)
        self.assertEqual(self.sent(result), [], "the nodes have all of it")
        self.assertEqual(self.stages(result), switched)
        self.assertEqual(self.versions(), [6, 6, None])
        self.build(7, SEVEN)
        self.assertEqual(self.stages(self.push_release("--activate", "those", expect=1)), switched)
        self.assertEqual(self.versions(), [7, 7, None])

    def test_a_node_with_a_later_release_refuses_an_earlier_one(self):
        self.start_takers()
        self.build(9, SIX)
        self.push_release(nodes=self.net.nodes[2].address)
        self.build(7, SEVEN)
        result = self.push_release(expect=1)
        self.assertEqual(self.stages(result)["node3"], "refused")
        self.assertIn("below the installed 9", self.problems(result)["node3"])
        self.assertEqual(self.versions(), [None, None, 9])

    def test_a_node_that_is_down_decides_by_the_policy(self):
        self.start_taker(self.net.nodes[0])
        self.start_taker(self.net.nodes[1])
        self.build(6, SIX)
        result = self.push_release("--timeout", "2", expect=1)
        self.assertEqual(self.stages(result), {"node1": "ready", "node2": "ready", "node3": "unreached"})
        self.assertEqual(self.versions(), [None, None, None])
        result = self.push_release("--timeout", "2", "--activate", "those", expect=1)
        self.assertEqual(self.stages(result), {"node1": "confirmed", "node2": "confirmed", "node3": "unreached"})

    def test_a_node_that_falls_silent_is_not_waited_for_longer_than_it_is_silent(self):
        self.start_takers()
        silent = self.net.nodes[1]
        # Its messages do not arrive; its answers to pings and lists do.
        self.net.lead.filter(f"ip saddr {silent.address} udp dport 7102 @th,128,32 3 drop")
        self.addCleanup(self.net.lead.filter)
        self.build(6, SIX)
        result = self.push_release("--timeout", "4", "--activate", "those", expect=1)
        self.assertEqual(self.stages(result), {"node1": "confirmed", "node2": "silent", "node3": "confirmed"})

    def test_a_node_without_releases_is_named(self):
        self.start_taker(self.net.nodes[0])
        self.start_taker(self.net.nodes[1])
        self.start_node(self.net.nodes[2])
        self.build(6, SIX)
        result = self.push_release("--activate", "those", expect=1)
        self.assertEqual(self.stages(result)["node3"], "unreached")
        self.assertIn("takes no releases", self.problems(result)["node3"])
        self.assertEqual(self.versions()[:2], [6, 6])

    def test_a_release_that_fails_on_a_node_is_taken_back_there(self):
        first, second, third = self.net.nodes
        for node, health in ((first, "true"), (second, "exit 3"), (third, "true")):
            self.start_taker(node, "--health", health)
        self.build(6, SIX)
        result = self.push_release(expect=1)
        self.assertEqual(self.stages(result), {"node1": "confirmed", "node2": "failed", "node3": "confirmed"})
        self.assertEqual(self.versions(), [6, None, 6])

    def test_a_tree_that_is_not_that_of_its_manifest_is_not_pushed(self):
        self.start_takers()
        self.build(6, SIX)
        path = os.path.join(self.content, "etc", "settings")
        with open(path, "r+b") as file:
            file.write(b"C")
        found = self.push_release("--verify", expect=2)
        self.assertIn("content differs: etc/settings", found.stderr)
        with open(path, "ab") as file:
            file.write(b"more")
        os.unlink(os.path.join(self.content, "old"))
        found = self.push_release(expect=2)
        self.assertIn("size differs: etc/settings", found.stderr)
        self.assertIn("missing: old", found.stderr)
        self.assertEqual(self.of(found, "release-requested"), [])
        os.unlink(os.path.join(self.content, ".pkgdist", "manifest.minisig"))
        self.assertIn("manifest.minisig is missing", self.push_release(expect=2).stderr)

    def test_content_that_is_not_as_signed_is_installed_nowhere(self):
        self.start_takers()
        self.build(6, SIX)
        with open(os.path.join(self.content, "etc", "settings"), "r+b") as file:
            file.write(b"C")
        result = self.push_release("--activate", "those", expect=1)
        # Three attempts at most: nodes give up by themselves, too.
        self.assertIn(self.sent(result), ([len(SIX), 1], [len(SIX), 1, 1]))
        self.assertEqual(self.versions(), [None, None, None])
        for problem in self.problems(result).values():
            self.assertIn("etc/settings", problem)

    def start_slow_activation(self):
        """A push of a release whose health command ends with the test."""
        go = os.path.join(ROOT, "go")
        for node in self.net.nodes:
            self.start_taker(node, "--health", f"while ! test -e {go}; do sleep 0.05; done")
        self.addCleanup(lambda: open(go, "w", encoding="utf-8").close())
        self.build(6, SIX)

    def wait_for_activation(self, push):
        lab.wait_until(lambda: [e for e in push.events("release-state") if e["state"] == "activating"], 30,
                       "the activation")

    def test_an_interrupted_push_tells_how_far_it_got(self):
        self.start_slow_activation()
        push = BackgroundLead(self, "push", "--release", self.content, "--nodes", self.addresses())
        self.wait_for_activation(push)
        push.process.send_signal(signal.SIGINT)
        self.assertEqual(push.process.wait(timeout=10), 1)
        end = push.events("release-finished")[-1]
        self.assertFalse(end["complete"])
        self.assertEqual({node["state"] for node in end["nodes"]}, {"working"})

    def test_a_push_through_a_lead_that_ends_was_begun(self):
        self.start_slow_activation()
        lead = BackgroundLead(self, "serve")
        lead.wait_for_all_nodes()
        push = BackgroundLead(self, "push", "--release", self.content, "--nodes", self.addresses())
        self.wait_for_activation(push)
        lead.kill()
        self.assertEqual(push.process.wait(timeout=10), 1)
        self.assertIn("the lead has ended", push.errors())

    def test_what_does_not_go_together_is_a_usage_error(self):
        self.build(6, SIX)
        for wrong in (["etc"], ["--durable"], ["--activate", "most"], ["--dry-run"]):
            self.push_release(*wrong, expect=2)
        self.lead_command("push", "--nodes", "3", "--activate", "all", ".", expect=2)
        self.lead_command("releases", expect=2)


class FailingDisks(Fleet):
    """The old release runs on, and the lead tells which node has what."""

    def test_a_full_disk_one_without_inodes_and_one_that_is_read_only_are_told_and_switch_nothing(self):
        full, without_inodes, read_only = self.net.nodes
        for node, options in ((full, "size=3500k"), (without_inodes, f"nr_inodes={2 * len(SIX)}"),
                              (read_only, "size=20m")):
            lab.mount_memory(self.place_of(node), options)
            self.addCleanup(lab.unmount, self.place_of(node))
        self.start_takers()
        self.build(6, SIX)
        self.push_release()
        subprocess.run(["mount", "-o", "remount,ro", self.place_of(read_only)], check=True)
        self.build(7, {**{name + "-new": content for name, content in SIX.items()}, "huge": os.urandom(2_000_000)})
        result = self.push_release("--activate", "those", expect=1)
        problems = self.problems(result)
        self.assertRegex(problems["node1"], "the disk is full: [0-9]+ bytes are missing, [0-9]+ are free")
        self.assertRegex(problems["node2"], "No space left on device|no inodes are left")
        self.assertIn("Read-only file system", problems["node3"])
        self.assertEqual(self.versions(), [6, 6, 6])
        # When they are mended, the same release goes everywhere.
        for node, options in ((full, "size=20m"), (without_inodes, "nr_inodes=10000"), (read_only, "rw")):
            subprocess.run(["mount", "-o", f"remount,{options}", self.place_of(node)], check=True)
        self.push_release()
        self.assertEqual(self.versions(), [7, 7, 7])


class LaterActivation(Fleet):
    def test_nodes_get_ready_and_switch_when_told(self):
        self.start_takers()
        self.build(6, SIX)
        prepared = self.push_release("--activate", "no")
        self.assertEqual(set(self.stages(prepared).values()), {"ready"})
        self.assertEqual(self.versions(), [None, None, None])
        listed = self.of(self.lead_command("releases", "--nodes", self.addresses()), "release")
        self.assertEqual([(e["state"], e["current"], e["candidate"]["version"]) for e in listed],
                         [("ready", None, 6)] * 3)
        self.lead_command("activate", "base", "5", "--nodes", self.addresses(), expect=1)
        self.lead_command("activate", "base", "6", "--nodes", self.addresses())
        self.assertEqual(self.versions(), [6, 6, 6])

    def test_a_node_that_has_it_not_keeps_all_from_switching(self):
        self.start_takers()
        self.build(6, SIX)
        two = ",".join(node.address for node in self.net.nodes[:2])
        self.push_release("--activate", "no", nodes=two)
        result = self.lead_command("activate", "base", "6", "--nodes", self.addresses(), expect=1)
        self.assertEqual(self.problems(result)["node3"], "does not have this release")
        self.assertEqual(self.versions(), [None, None, None])
        self.lead_command("activate", "base", "6", "--nodes", self.addresses(), "--activate", "those", expect=1)
        self.assertEqual(self.versions(), [6, 6, None])

    def test_what_was_changed_on_a_node_is_named(self):
        self.start_takers()
        self.build(6, SIX)
        self.push_release()
        current = os.path.join(self.place_of(self.net.nodes[1]), "current")
        with open(os.path.join(current, "etc", "settings"), "r+b") as file:
            file.write(b"C")
        result = self.lead_command("releases", "--verify", "--nodes", self.addresses(), expect=1)
        self.assertEqual([(e["drifted"], e["drift"]) for e in self.of(result, "release")],
                         [(0, []), (1, ["etc/settings"]), (0, [])])


class ServedRelease(Fleet):
    """Through the lead that serves on the host, which has another directory."""

    def serve(self):
        served = self.directory("served")
        with open(os.path.join(served, "own"), "wb") as file:
            file.write(b"of the lead's own root")
        content, self.content = self.content, served
        lead = BackgroundLead(self, "serve", "--metrics", PORT)
        self.content = content
        lead.wait_for_all_nodes()
        return lead

    def scrape(self):
        result = self.net.lead.run(["python3", "-c", SCRAPE, f"127.0.0.1:{PORT}"], capture_output=True, text=True,
                                   timeout=30)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout.split("\n", 1)[1]

    def test_a_release_that_expires_is_told_by_every_program_and_stays(self):
        self.start_takers()
        self.serve()
        self.build(6, SIX, "--expires", "2020-01-02T00:00:00Z")
        pushed = self.push_release()
        self.assertIn("the release expired on 2020-01-02T00:00:00Z", pushed.stderr)
        listed = self.lead_command("releases")
        self.assertEqual([e["expires"] for e in self.of(listed, "release")], ["2020-01-02T00:00:00Z"] * 3)
        node = self.net.nodes[0]
        status = node.run([self.programs.node, "--interface", node.address, "release", "status"], capture_output=True,
                          text=True, timeout=20)
        self.assertIn("current: version 6", status.stdout)
        self.assertIn("expired on 2020-01-02T00:00:00Z", status.stdout)
        line = 'pkgdist_release_expiry_timestamp_seconds{name="base",version="6"} 1577923200'
        lab.wait_until(lambda: line in self.scrape(), 10, "the time in the metrics")

    def counts(self):
        """{(version, state): nodes}"""
        found = {}
        for (name, *labels), value in Metrics(self.scrape()).items():
            if name == "pkgdist_release_nodes":
                labels = dict(labels)
                self.assertEqual(labels["name"], "base")
                found[labels["version"], labels["state"]] = value
        return {key: value for key, value in found.items() if value}

    def test_it_goes_the_same_way_and_the_leads_own_files_stay(self):
        self.start_takers()
        self.serve()
        self.build(6, SIX)
        first = self.push_release()
        self.assertEqual(self.sent(first), [len(SIX)])
        self.assertEqual(self.versions(), [6, 6, 6])
        lab.wait_until(lambda: self.counts() == {("6", "current"): 3}, 10, "the metrics of three nodes")
        self.build(7, SEVEN)
        self.assertEqual(self.sent(self.push_release("--activate", "no")), [2])
        lab.wait_until(lambda: self.counts() == {("6", "current"): 3, ("7", "ready"): 3}, 10, "the candidates")
        listed = self.of(self.lead_command("releases"), "release")
        self.assertEqual([(e["current"]["version"], e["candidate"]["version"]) for e in listed], [(6, 7)] * 3)
        self.lead_command("activate", "base", "7")
        self.assertEqual(self.versions(), [7, 7, 7])
        # The root of the location is what it was.
        plain = self.net.nodes[0]
        self.kill(self.node_processes[plain.name])
        got = plain.run([self.programs.node, "--interface", plain.address, "--location",
                         f"1={self.directory_of(plain)}", "get", "own"], capture_output=True, text=True, timeout=30)
        self.assertEqual(got.returncode, 0, got.stderr)

    def test_what_nodes_run_is_known_to_a_lead_that_starts_later(self):
        self.start_takers()
        self.build(6, SIX)
        self.push_release()
        self.serve()
        lab.wait_until(lambda: self.counts() == {("6", "current"): 3}, 20, "the metrics of three nodes")
        if shutil.which("promtool"):
            checked = subprocess.run(["promtool", "check", "metrics"], input=self.scrape(), capture_output=True,
                                     text=True, timeout=60)
            self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)

    def test_what_was_changed_on_a_node_stands_in_the_table_and_in_the_metrics(self):
        self.start_takers()
        self.serve()
        self.build(6, SIX)
        self.push_release()
        changed = os.path.join(self.place_of(self.net.nodes[1]), "current", "etc", "settings")
        with open(changed, "r+b") as file:
            file.write(b"C")
        table = self.net.lead.run([self.programs.lead, "--interface", self.net.lead.address, "releases", "--verify"],
                                  capture_output=True, text=True, timeout=60)
        self.assertEqual(table.returncode, 1, table.stderr)
        rows = {line.split()[0]: line.split(None, 3)[3] for line in table.stdout.splitlines() if line[:1].isdigit()}
        whole, drifted, also_whole = (rows[node.address] for node in self.net.nodes)
        self.assertTrue(drifted.endswith("1 differ, etc/settings"), table.stdout)
        self.assertEqual([row.split()[-1] for row in (whole, also_whole)], ["whole", "whole"], table.stdout)
        lab.wait_until(lambda: self.counts() == {("6", "current"): 3, ("6", "drifted"): 1}, 10, "it in the metrics")
        shutil.copystat(os.path.join(self.content, "etc", "settings"), changed)
        with open(changed, "r+b") as file:
            file.write(b"c")
        self.lead_command("releases", "--verify", expect=1)  # the time differs
        shutil.copystat(os.path.join(self.content, "etc", "settings"), changed)
        self.lead_command("releases", "--verify")
        lab.wait_until(lambda: self.counts() == {("6", "current"): 3}, 10, "it to be gone from the metrics")

    def test_two_pushes_at_a_time_do_not_disturb_each_other(self):
        self.start_takers()
        self.serve()
        self.build(6, SIX)
        nodes = [node.address for node in self.net.nodes]
        results = {}

        def push(which):
            results[which] = self.net.lead.run(
                [self.programs.lead, "--interface", self.net.lead.address, "--json", "push", "--release",
                 self.content, "--nodes", which], capture_output=True, text=True, timeout=120)

        threads = [threading.Thread(target=push, args=(which,)) for which in (nodes[0], ",".join(nodes[1:]))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([result.returncode for result in results.values()], [0, 0],
                         [result.stderr for result in results.values()])
        self.assertEqual(self.versions(), [6, 6, 6])
