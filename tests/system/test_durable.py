"""push --durable: nodes write what they received to their disks and say so."""

import tree
from support import SystemTest


class Durable(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        tree.small(self.content, small_files=10)

    @staticmethod
    def outcomes(result):
        return {e["node"]: (e["durable"], e["reason"]) for e in result.events if e["event"] == "durable"}

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

    def test_a_node_that_does_not_answer_in_time_is_reported(self):
        quick, busy = self.net.nodes
        self.start_node(quick)
        command = [self.programs.node, "--interface", busy.address, "--location", f"1={self.directory_of(busy)}",
                   "--umask", "0", "--allow-setuid", "run", "--on-message", "sleep 12"]
        self.node_processes[busy.name] = busy.spawn(command)
        lead = self.start_push("--rate", "5", "--durable", "--durable-timeout", "2")
        lead.wait_for_all_nodes()
        # The program of the node is busy with this one while the library goes on receiving.
        self.assertEqual(lead.request("message", "--nodes", busy.address, "wait")[0], 0)
        end = lead.finish(expect=1)
        self.assertTrue(end["complete"])
        self.assertEqual(self.outcomes_of(lead), {quick.address: (True, ""), busy.address: (False, "no answer in time")})
        self.assert_received()

    @staticmethod
    def outcomes_of(lead):
        return {e["node"]: (e["durable"], e["reason"]) for e in lead.events("durable")}
