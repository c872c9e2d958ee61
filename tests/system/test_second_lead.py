"""Two leads: the first one holds its nodes while it is alive."""

import os

import tree
import wire
from scripted_lead import ScriptedLead
from support import BackgroundLead, SystemTest, lab, names_below, summary


class SecondLead(SystemTest):
    NODES = 2
    OTHERS = ("rogue",)

    def rogue(self):
        lead = ScriptedLead(self.net.others["rogue"], pid=666)
        self.addCleanup(lead.__exit__)
        return lead

    def wait_for_drops(self, node, before, more):
        lab.wait_until(lambda: self.statistics(node).total("MC LEAD FO DROP") >= before + more,
                       what="datagrams of the second lead to be dropped")

    def test_what_a_forged_lead_says_is_ignored_while_the_real_one_is_alive(self):
        tree.small(self.content, medium=30_000_000)
        self.start_nodes()
        node = self.net.nodes[0]
        push = self.start_push("--rate", "100")
        lab.wait_until(lambda: self.statistics(node).total("MC SEGMENT") > 100,
                       what="the push to be running")
        rogue = self.rogue()
        before = self.statistics(node).total("MC LEAD FO DROP")
        bad = self.statistics(node).total("MC BAD PKT RECV")
        for i in range(200):
            rogue.ping()
            rogue.file_send(wire.LIST, ["forged"])
            rogue.file_send(wire.DELETE, ["one byte", tree.BIG, "sizes/1 segments"])
            rogue.whole_file(1000 + i, "forged", b"x")
            rogue.whole_file(1000 + i, tree.BIG, b"x")
            for to in self.net.nodes:
                rogue.send_control(wire.encode_datagram(
                    "ctrl_hdr", rogue.header(msg_id=wire.PING, sequence=0xFFFFFFFF)), to)
        self.wait_for_drops(node, before, 500)
        self.assertTrue(push.finish()["complete"])
        self.assert_received()
        for node in self.net.nodes:
            self.assertEqual([e["lead"] for e in self.node_events(node, "lead-changed")],
                             [self.net.lead.address])
            self.assertGreater(self.statistics(node).total("MC BAD PKT RECV"), bad)
        rogue.receive()
        self.assertEqual(rogue.control_answers + rogue.data_answers, [])

    def test_a_second_lead_program_finds_no_node_while_the_first_serves(self):
        tree.add(self.content, "file", 1000)
        serving = BackgroundLead(self, "serve")
        self.start_nodes()
        for node in self.net.nodes:
            lab.wait_until(lambda n=node: os.path.exists(self.log_of(n)) and
                           self.node_events(n, "lead-changed"), what="the first lead to be known")
        result = self.programs.push(self.net.others["rogue"], self.content, "--nodes",
                                    self.addresses(), "--timeout", "2")
        self.assertEqual(result.returncode, 1)
        self.assertEqual({n["state"] for n in summary(result)["nodes"]}, {"never heard"})
        for node in self.net.nodes:
            self.assertEqual(names_below(self.directory_of(node)), set())
        serving.stop()

    def test_another_lead_takes_over_once_the_first_has_been_silent(self):
        tree.add(self.content, "file", 1000)
        self.start_nodes()
        self.push()
        rogue = self.rogue()
        node = self.net.nodes[0]

        def taken():
            rogue.ping()
            return len(self.node_events(node, "lead-changed")) > 1

        lab.wait_until(taken, 12, "the second lead to be taken")
        self.assertGreater(self.statistics(node).total("MC LEAD FO DROP"), 0)
        change = self.node_events(node, "lead-changed")[-1]
        self.assertEqual((change["lead"], change["failover"]), (rogue.host.address, True))
