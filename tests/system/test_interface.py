"""Network interfaces that go down, away and come back, while a push runs and while none does."""

import os

import tree
from support import SystemTest, lab, summary

RATE = "40"  # Mbit/s: the push lasts four seconds and is in the middle of it
OUTAGE = 2  # seconds


class InterfaceTest(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        self.node, self.other = self.net.nodes
        tree.small(self.content, small_files=20, medium=20_000_000)
        self.addCleanup(self.restore)
        self.start_nodes()
        for node in self.net.nodes:
            lab.wait_until(lambda node=node: self.node_events(node, "listening"), what="the node to listen")

    def restore(self):
        """For a test that has failed in between."""
        for host in self.net.hosts():
            shown = host.run(["ip", "-4", "address", "show", "up", "dev", "eth0"], capture_output=True,
                             text=True)
            if f" {host.address}/" not in shown.stdout:
                host.restore_interface()

    def begin_push(self, *arguments):
        lead = self.start_push("--rate", RATE, *arguments)
        partial = os.path.join(self.directory_of(self.node), tree.BIG + ".tmp")
        lab.wait_until(lambda: os.path.exists(partial) and os.stat(partial).st_size > 2_000_000,
                       what="the large file to be begun")
        return lead

    def let_pass(self, lead, seconds):
        """A push tells its progress once a second."""
        before = len(lead.events("push-progress"))
        lab.wait_until(lambda: len(lead.events("push-progress")) >= before + seconds,
                       what=f"{seconds} seconds of the push")

    def states_of(self, node):
        return [e["state"] for e in self.node_events(node, "interface")]

    def wait_for_state(self, states, state):
        lab.wait_until(lambda: states()[-1:] == [state], what=f"the interface to be told as {state}")

    def assert_everybody_gets_all_of_another_push(self):
        tree.add(self.content, "another", 300_000)
        self.assertTrue(summary(self.push())["complete"])
        self.assert_received()
        self.assert_alive()

    def assert_told_once_each(self, states, *expected):
        """A new interface gets its address before it is set up: then it was down, too."""
        self.assertEqual(states[-1], "up")
        self.assertFalse([1 for a, b in zip(states, states[1:]) if a == b], states)
        self.assertEqual([s for s in states[:-1] if s in expected], list(expected), states)


class InterfaceOfANode(InterfaceTest):
    def states(self):
        return self.states_of(self.node)

    def test_is_down_for_a_moment_in_a_push(self):
        lead = self.begin_push()
        self.node.set_interface("down")
        self.wait_for_state(self.states, "down")
        self.let_pass(lead, OUTAGE)
        self.node.set_interface("up")
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()
        self.assert_told_once_each(self.states(), "down")
        self.assertEqual(self.states_of(self.other), [])
        self.assert_everybody_gets_all_of_another_push()

    def test_is_made_anew_in_a_push(self):
        lead = self.begin_push()
        self.node.remove_interface()
        self.wait_for_state(self.states, "gone")
        self.node.add_interface()
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()
        self.assert_told_once_each(self.states(), "gone")
        self.assert_everybody_gets_all_of_another_push()

    def test_is_made_anew_more_than_once_while_nothing_is_pushed(self):
        for _ in range(3):
            self.node.remove_interface()
            self.wait_for_state(self.states, "gone")
            self.node.add_interface()
            self.wait_for_state(self.states, "up")
        self.assert_everybody_gets_all_of_another_push()

    def test_stays_away_and_the_push_ends_without_the_node(self):
        lead = self.begin_push("--timeout", "3")
        self.node.remove_interface()
        end = lead.finish(expect=1)
        states = {node["node"]: node["state"] for node in end["nodes"]}
        self.assertEqual(states, {self.node.address: "silent", self.other.address: "complete"})
        self.assert_received(self.other)
        self.node.add_interface()
        self.wait_for_state(self.states, "up")
        self.assert_everybody_gets_all_of_another_push()

    def test_changes_its_address_and_changes_it_back_in_a_push(self):
        lead = self.begin_push()
        self.node.change_address("delete", self.node.address)
        self.node.change_address("add", "10.71.0.77")
        self.wait_for_state(self.states, "gone")
        self.let_pass(lead, OUTAGE)
        self.node.change_address("delete", "10.71.0.77")
        self.node.change_address("add", self.node.address)
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()
        self.assertEqual(self.states(), ["gone", "up"])
        self.assert_everybody_gets_all_of_another_push()

    def lines(self):
        with open(self.log_of(self.node), encoding="utf-8") as file:
            return [line for line in file.read().splitlines() if line.startswith("pkgdist-node: ")]

    def wait_for_lines(self, action, count):
        action()
        lab.wait_until(lambda: len(self.lines()) == count, what=f"{count} messages")

    def test_says_what_an_operator_can_do_about_it(self):
        self.kill(self.node_processes[self.node.name])
        with open(self.log_of(self.node), "ab") as log:
            self.node.spawn([self.programs.node, "--interface", self.node.address, "--location",
                             f"1={self.directory_of(self.node)}", "run"], stdout=log, stderr=log)
        self.wait_for_lines(lambda: self.assertTrue(summary(self.push())["complete"]), 0)
        self.wait_for_lines(lambda: self.node.set_interface("down"), 1)
        self.wait_for_lines(lambda: self.node.set_interface("up"), 2)
        self.assertEqual(self.lines(), [
            f"pkgdist-node: interface eth0 ({self.node.address}) is down: nothing is sent or received "
            "until it is up again",
            f"pkgdist-node: interface eth0 works again with {self.node.address}"])


class InterfaceOfTheLead(InterfaceTest):
    def test_is_down_for_a_moment_in_a_push(self):
        lead = self.begin_push()
        self.net.lead.set_interface("down")
        self.wait_for_state(lambda: self.states(lead), "down")
        self.let_pass(lead, OUTAGE)
        self.net.lead.set_interface("up")
        self.assert_survived(lead, "down")

    def test_is_made_anew_in_a_push(self):
        lead = self.begin_push()
        self.net.lead.remove_interface()
        self.wait_for_state(lambda: self.states(lead), "gone")
        self.net.lead.add_interface()
        self.assert_survived(lead, "gone")

    def test_changes_its_address_and_changes_it_back_in_a_push(self):
        lead = self.begin_push()
        self.net.lead.change_address("delete", self.net.lead.address)
        self.wait_for_state(lambda: self.states(lead), "gone")
        self.let_pass(lead, OUTAGE)
        self.net.lead.change_address("add", self.net.lead.address)
        self.assert_survived(lead, "gone")

    def test_stays_away_and_the_push_ends(self):
        lead = self.begin_push("--timeout", "3")
        self.net.lead.remove_interface()
        end = lead.finish(expect=1)
        self.assertEqual({node["state"] for node in end["nodes"]}, {"silent"})
        self.assertIn(f"no interface has {self.net.lead.address} any more", lead.errors())
        self.net.lead.add_interface()
        for node in self.net.nodes:  # a host's network manager announces its new hardware address
            node.run(["ip", "neigh", "flush", "dev", "eth0"], check=True)
        self.assert_everybody_gets_all_of_another_push()

    def states(self, lead):
        return [e["state"] for e in lead.events("interface")]

    def assert_survived(self, lead, trouble):
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()
        self.assert_told_once_each(self.states(lead), trouble)
        self.assert_everybody_gets_all_of_another_push()
