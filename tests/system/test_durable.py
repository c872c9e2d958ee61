"""push --durable: nodes write what they received to their disks and say so."""

import shutil
import time
import unittest

import tree
from support import SystemTest, summary

SLOW_DISK_SECONDS = 6


class Durable(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        tree.small(self.content, small_files=10)

    @staticmethod
    def outcomes(result):
        return {e["node"]: (e["durable"], e["text"]) for e in result.events if e["event"] == "durable"}

    def test_every_node_says_so_and_the_commands_of_messages_hear_nothing_of_it(self):
        for node in self.net.nodes:
            self.start_node(node)
        result = self.push("--durable")
        self.assertEqual(self.outcomes(result), {node.address: (True, "") for node in self.net.nodes})
        self.assertEqual([e for e in result.events if e["event"] == "message"], [])
        for node in self.net.nodes:
            self.assertEqual(self.node_events(node, "message"), [])

    def test_a_push_asks_for_nothing_of_the_kind_unless_told_to(self):
        self.start_nodes()
        self.assertEqual(self.outcomes(self.push()), {})

    @unittest.skipIf(shutil.which("strace") is None, "needs strace")
    def test_a_node_that_writes_for_longer_than_the_time_out_is_waited_for(self):
        """The call that writes the disk is held up."""
        slow, usual = self.net.nodes
        plain = slow.prefix
        slow.prefix = [*plain, "strace", "-D", "-f", "-o", "/dev/null", "--seccomp-bpf", "-e", "trace=syncfs",
                       "-e", f"inject=syncfs:delay_enter={SLOW_DISK_SECONDS}s"]
        self.addCleanup(setattr, slow, "prefix", plain)
        self.start_nodes()
        begin = time.monotonic()
        result = self.push("--durable", "--durable-timeout", "2")
        self.assertGreater(time.monotonic() - begin, SLOW_DISK_SECONDS)
        self.assertEqual(self.outcomes(result), {node.address: (True, "") for node in (slow, usual)})

    def test_a_node_that_does_not_answer_in_time_is_reported(self):
        heard, unheard = self.net.nodes
        self.start_nodes()
        # Messages of this node do not arrive; its answers to pings and lists do.
        message = "@th,128,32 3"  # the kind, behind the header of UDP and two words
        self.net.lead.filter(f"ip saddr {unheard.address} udp dport 7102 {message} drop")
        result = self.push("--durable", "--durable-timeout", "2", expect=1)
        self.assertTrue(summary(result)["complete"])
        self.assertEqual(self.outcomes(result),
                         {heard.address: (True, ""), unheard.address: (False, "no answer in time")})
        self.assert_received()
