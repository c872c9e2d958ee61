"""A lead that dies: another one takes over and the nodes finish; one that returns stands by."""

import signal

import tree
from scripted_lead import ScriptedLead
from support import BackgroundLead, SystemTest, lab, names_below, summary

SMALL_FILES = 500
LATE = 60_000  # segments of the large file's 142,858: well in its middle


class Failover(SystemTest):
    OTHERS = ("standby", "rogue")

    def standby(self):
        lead = BackgroundLead(self, "serve", "--standby", host=self.net.others["standby"])
        lead.wait_for("serving")
        return lead

    def lead_changes(self, node):
        return [(e["lead"], e["failover"]) for e in self.node_events(node, "lead-changed")]

    def push_to_the_middle(self):
        tree.add(self.content, tree.BIG, tree.BIG_SIZE)
        tree.add_small_files(self.content, SMALL_FILES)
        self.start_nodes()
        push = self.start_push("--rate", "100")
        for node in self.net.nodes:
            lab.wait_until(lambda n=node: self.statistics(n).total("MC SEGMENT") > LATE, 60,
                           "the middle of the large file")
            self.assertNotIn(tree.BIG, names_below(self.directory_of(node)))
        return push

    def wait_for_files(self, seconds=90):
        expected = set(lab.manifest(self.content))
        for node in self.net.nodes:
            lab.wait_until(lambda n=node: names_below(self.directory_of(n)) == expected, seconds,
                           f"{node.name} to have every file")
        self.assert_received()
        self.assert_alive()

    def test_a_standby_finishes_what_a_killed_push_began(self):
        standby = self.standby()
        push = self.push_to_the_middle()
        self.assertEqual(standby.roles(), ["standing-by"])
        push.kill()
        self.wait_for_files()
        for node in self.net.nodes:
            self.assertEqual(self.lead_changes(node), [
                (self.net.lead.address, False), (standby.host.address, True)])
        self.assertEqual(standby.roles(), ["standing-by", "leading"])
        self.assertGreaterEqual(len(standby.events("request-ended")), len(self.net.nodes))

    def test_a_lead_that_is_started_again_finishes_what_its_push_began(self):
        push = self.push_to_the_middle()
        push.kill()
        again = BackgroundLead(self, "serve")
        self.wait_for_files()
        for node in self.net.nodes:
            changes = self.node_events(node, "lead-changed")
            self.assertEqual([(e["lead"], e["failover"]) for e in changes],
                             [(self.net.lead.address, False)] * 2)
            self.assertEqual(changes[1]["pid"], again.process.pid)

    def test_the_old_lead_stands_by_when_it_comes_back(self):
        tree.add(self.content, "file", 100_000)
        standby = self.standby()
        self.start_nodes()
        first = BackgroundLead(self, "serve")
        first.wait_for_all_nodes()
        first.kill()
        lab.wait_until(lambda: "leading" in standby.roles(), 15, "the standby to lead")
        back = BackgroundLead(self, "serve")
        lab.wait_until(lambda: back.roles() == ["standing-by"], 10, "the old lead to stand by")
        node = self.net.nodes[0]
        lab.wait_until(lambda: len(self.lead_changes(node)) == 2, 5, "the node to follow")
        status, events, error = back.request("message", "hello")
        self.assertEqual((status, [e["event"] for e in events]), (3, ["error"]))
        self.assertIn(f"this lead stands by: {standby.host.address} leads", error)
        self.assertEqual(standby.request("message", "hello")[0], 0)
        self.assertEqual(standby.roles(), ["standing-by", "leading"])

    def test_a_lead_that_was_suspended_steps_aside_for_the_one_that_took_over(self):
        standby = self.standby()
        self.start_nodes()
        first = BackgroundLead(self, "serve")
        first.wait_for_all_nodes()
        first.process.send_signal(signal.SIGSTOP)
        lab.wait_until(lambda: "leading" in standby.roles(), 15, "the standby to lead")
        first.process.send_signal(signal.SIGCONT)
        lab.wait_until(lambda: first.roles()[-1:] == ["standing-by"], 5, "it to step aside")
        node = self.net.nodes[0]
        lab.wait_until(lambda: len(self.lead_changes(node)) == 2, 5, "the node to follow")
        self.assertEqual(self.lead_changes(node)[-1], (standby.host.address, True))

    def test_a_push_gives_up_while_another_lead_leads(self):
        tree.add(self.content, "file", 1000)
        serving = BackgroundLead(self, "serve", host=self.net.others["standby"])
        self.start_nodes()
        serving.wait_for_all_nodes()
        push = self.start_push("--timeout", "3")
        self.assertFalse(push.finish(expect=1, seconds=15)["complete"])
        self.assertIn(f"another lead, {serving.host.address}, leads", push.errors())

    def test_a_forged_lead_changes_nothing_but_a_counter(self):
        tree.add(self.content, "file", 1000)
        self.start_nodes()
        serving = BackgroundLead(self, "serve")
        serving.wait_for_all_nodes()
        rogue = ScriptedLead(self.net.others["rogue"], pid=666)
        self.addCleanup(rogue.__exit__)
        for _ in range(50):
            rogue.ping()
            rogue.message(b"forged", msg_class=2)
        heard = serving.wait_for("other-lead")
        self.assertEqual((heard["other"], heard["pid"]), (rogue.host.address, 666))
        self.assertEqual(serving.request("message", "true")[0], 0)
        self.assertEqual(serving.roles(), ["leading"])
        for node in self.net.nodes:
            self.assertEqual(self.lead_changes(node), [(self.net.lead.address, False)])
            # Its caller's thread prints a message after the library has acknowledged it.
            lab.wait_until(lambda n=node: self.node_events(n, "message"), 5, "the lead's message")
            self.assertEqual([e["size"] for e in self.node_events(node, "message")], [len("true")])
            self.assertGreater(self.statistics(node).total("MC LEAD FO DROP"), 0)
