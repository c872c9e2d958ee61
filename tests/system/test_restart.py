"""Nodes that die, come back or come late."""

import os

import tree
from support import SystemTest, lab, summary

RATE = "200"  # Mbit/s: the push lasts long enough to be in the middle of it


class RestartedAndLateNodes(SystemTest):
    def setUp(self):
        super().setUp()
        tree.small(self.content, medium=40_000_000)
        for node in self.net.nodes:
            node.lose(1)

    def wait_until_half_received(self, node):
        partial = os.path.join(self.directory_of(node), tree.BIG + ".tmp")

        def begun():
            return os.path.exists(partial) and os.stat(partial).st_size > 5_000_000

        lab.wait_until(begun, 20, "the large file to be half received")

    def assert_undisturbed(self, node):
        """Every file ended once, well, and by itself."""
        files = len(lab.manifest(self.content))
        lab.wait_until(lambda: len(self.node_events(node, "file")) >= files,
                       what="the end of every file to be told")
        names = [e["name"] for e in self.node_events(node, "file")]
        self.assertEqual(len(names), files)
        self.assertEqual(len(set(names)), len(names))
        self.assertEqual({e["status"] for e in self.node_events(node, "file")}, {0})
        self.assertEqual(len(self.node_events(node, "lead-changed")), 1)
        self.assertEqual(self.statistics(node).total("FILE TIMEOUT"), 0)

    def test_a_killed_node_gets_everything_when_started_again_and_the_others_do_not_notice(self):
        self.start_nodes()
        first, second, victim = self.net.nodes
        lead = self.start_push("--rate", RATE)
        self.wait_until_half_received(victim)
        self.kill(self.node_processes[victim.name])
        self.start_node(victim)
        end = lead.finish()
        self.assertTrue(end["complete"])
        self.assert_received()
        self.assertEqual([e["node"] for e in lead.events("node-restarted")], [victim.address])
        self.assertEqual(lead.events("node-silent"), [])
        for node in (first, second):
            self.assert_undisturbed(node)

    def test_a_node_killed_twice_gets_everything(self):
        self.start_nodes()
        victim = self.net.nodes[0]
        lead = self.start_push("--rate", RATE)
        for _ in range(2):
            self.wait_until_half_received(victim)
            self.kill(self.node_processes[victim.name])
            os.unlink(os.path.join(self.directory_of(victim), tree.BIG + ".tmp"))
            self.start_node(victim)
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()

    def test_a_node_killed_for_good_fails_alone(self):
        self.start_nodes()
        first, second, victim = self.net.nodes
        lead = self.start_push("--rate", RATE, "--timeout", "2")
        self.wait_until_half_received(victim)
        self.kill(self.node_processes[victim.name])
        end = lead.finish(expect=1)
        states = {node["node"]: node["state"] for node in end["nodes"]}
        self.assertEqual(states, {first.address: "complete", second.address: "complete",
                                  victim.address: "silent"})
        open_files = {node["node"]: node["open"] for node in end["nodes"]}
        self.assertIn(tree.BIG, open_files[victim.address])
        self.assert_received(first, second)
        for node in (first, second):
            self.assert_undisturbed(node)

    def test_a_node_started_after_the_push_began_gets_everything(self):
        first, second, late = self.net.nodes
        self.start_node(first)
        self.start_node(second)
        lead = self.start_push("--rate", RATE, nodes="2")
        self.wait_until_half_received(first)
        self.start_node(late)
        end = lead.finish()
        self.assertEqual({n["node"] for n in end["nodes"]}, {n.address for n in self.net.nodes})
        self.assert_received()
        for node in (first, second):
            self.assert_undisturbed(node)

    def test_a_named_node_started_after_the_others_were_served_gets_everything(self):
        first, second, late = self.net.nodes
        self.start_node(first)
        self.start_node(second)
        lead = self.start_push("--rate", RATE, "--timeout", "1")
        self.wait_until_half_received(first)
        self.start_node(late)
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()

    def test_a_lead_started_again_takes_up_where_the_first_one_was_killed(self):
        self.start_nodes()
        lead = self.start_push("--rate", RATE)
        self.wait_until_half_received(self.net.nodes[0])
        self.kill(lead.process)
        self.assertTrue(summary(self.push())["complete"])
        self.assert_received()
        for node in self.net.nodes:
            self.assertEqual(len(self.node_events(node, "lead-changed")), 2)
