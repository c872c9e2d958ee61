"""Strangers beside a push: what they claim, ask for and forge, in their own name and in that of nodes."""

import time

import tree
import wire
from forger import Forger
from scripted_lead import ScriptedLead
from support import BackgroundLead, SystemTest, lab

FILES = 3000
ASKED = range(500, FILES)
RENEWAL = 3.0  # seconds


class StrangersBesideAPush(SystemTest):
    NODES = 2
    OTHERS = ("stranger",)

    def setUp(self):
        super().setUp()
        self.stranger = self.net.others["stranger"]
        self.ip = wire.address(self.stranger.address)
        self.forger = Forger(self.stranger, self.net.lead)
        self.addCleanup(self.forger.close)
        self.victim = self.net.nodes[0]

    def running_push(self, *arguments):
        self.start_nodes()
        push = self.start_push(*arguments)
        lab.wait_until(lambda: self.statistics(self.victim).total("MC SEGMENT") > 100,
                       what="the push to be running")
        return push

    def finish(self, push):
        end = push.finish(seconds=60)
        self.assertTrue(end["complete"])
        self.assertEqual({n["node"] for n in end["nodes"]}, {n.address for n in self.net.nodes})
        self.assert_received()

    def ask_for_file(self, name, priority=1):
        self.forger.to_requests(self.stranger.address, wire.encode_data(wire.FILE_REQ, self.ip, {
            "type": 1, "location": 1, "priority": priority, "name": name}))

    def test_requests_that_are_renewed_do_not_stop_a_push(self):
        tree.add_small_files(self.content, FILES)
        names = sorted(lab.manifest(self.content))
        push = self.running_push("--rate", "20")
        renewed, rounds = 0.0, 0
        while push.process.poll() is None:
            if time.monotonic() >= renewed + RENEWAL:
                renewed, rounds = time.monotonic(), rounds + 1
                self.assertLess(rounds, 20, f"the push has not ended; {push.events()[-2:]}")
                for i in ASKED:
                    self.ask_for_file(names[i])
            time.sleep(0.05)
        self.finish(push)

    def test_an_urgent_request_for_a_large_file_leaves_the_push_half_of_the_stream(self):
        tree.add(self.content, "pushed", 20_000_000)
        tree.add(self.content, "asked for", 200_000_000)
        self.start_nodes()
        push = BackgroundLead(self, "push", "--nodes", self.addresses(), "--priority", "4", "--rate",
                              "80", "pushed")
        lab.wait_until(lambda: self.statistics(self.victim).total("MC SEGMENT") > 100,
                       what="the push to be running")
        self.ask_for_file("asked for")
        # 2 s alone; the other file takes 20.
        self.assertTrue(push.finish(seconds=12)["complete"])

    def test_a_forged_process_number_does_not_shut_a_node_out(self):
        tree.small(self.content, medium=20_000_000)
        push = self.running_push("--rate", "60")
        for _ in range(15):
            ping = self.forger.ping()
            for pid in (1, 1, 2):
                self.forger.answer(self.victim.address, ping, pid)
        self.assertIsNone(push.process.poll(), "the push was over before the forging was")
        self.finish(push)
        self.assertEqual(push.events("node-restarted"), [])

    def test_a_forged_position_makes_no_idle_lead_jump(self):
        self.start_nodes()
        lead = BackgroundLead(self, "serve")
        lead.wait_for_all_nodes()
        before = self.forger.ping()
        for sequence in (5000, 2_000_000_000, 0xFFFFFFFF):
            for source in (self.stranger.address, self.victim.address):
                self.forger.answer(source, self.forger.ping(), 5, sequence=sequence)
        for _ in range(3):
            self.assertEqual(self.forger.ping()["sequence"], before["sequence"])
        self.assertEqual(lead.request("message", "--nodes", self.addresses(), "hello")[0], 0)

    def test_one_forged_ping_of_an_earlier_lead_ends_no_push(self):
        tree.small(self.content, medium=20_000_000)
        push = self.running_push("--rate", "60")
        rogue = ScriptedLead(self.stranger, pid=666)
        self.addCleanup(rogue.__exit__)
        for _ in range(3):
            rogue.ping(status=1 << 32)
        push.wait_for("other-lead")
        self.finish(push)
        self.assertEqual(push.roles(), ["leading"])


class Firewall(SystemTest):
    NODES = 1
    OTHERS = ("rogue",)

    def setUp(self):
        super().setUp()
        self.node, = self.net.nodes
        self.rogue = ScriptedLead(self.net.others["rogue"], pid=666)
        self.addCleanup(self.rogue.__exit__)
        tree.small(self.content, small_files=3)

    def rules(self):
        result = self.node.run([self.programs.node, "--interface", self.node.address, "firewall",
                                "--lead", self.net.lead.address], capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def load(self, rules):
        result = self.node.run(["nft", "-f", "-"], input=rules, capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stderr)

    def ping_for(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.rogue.ping()
            time.sleep(0.1)

    def leads(self):
        return [e["lead"] for e in self.node_events(self.node, "lead-changed")]

    def test_without_rules_a_node_takes_whoever_pings(self):
        self.start_node(self.node)
        self.rogue.wait_for_node(self.node)

    def test_with_the_rules_that_are_printed_a_node_hears_its_lead_alone(self):
        self.load(self.rules())
        self.load(self.rules())  # once more does no harm
        self.addCleanup(self.node.run, ["nft", "delete", "table", "ip", "pkgdist-node"])
        self.start_node(self.node)
        self.ping_for(3)
        self.assertEqual(self.leads(), [])
        self.push()
        self.assert_received()
        self.assertEqual(self.leads(), [self.net.lead.address])
        listed = self.node.run(["nft", "list", "table", "ip", "pkgdist-node"], capture_output=True,
                               text=True).stdout
        self.assertNotIn("packets 0 ", listed)
