"""A node that ends in the middle of a large file asks for the rest of it afterwards, and nothing else is sent."""

import glob
import os
import subprocess

from release_node import ReleaseNode
from support import BackgroundLead, lab

SIZE = 12_000_000
LEAF = 65_536
SEGMENT = 1400
# Beside what the node lacks: a small file, and what the stream brings before the requests of the node have come.
MORE = 300


def sent_bytes(host):
    shown = host.run(["cat", "/sys/class/net/eth0/statistics/tx_bytes"], capture_output=True, text=True, check=True)
    return int(shown.stdout)


class Resume(ReleaseNode):
    NODES = 1
    OTHERS = ("other",)

    def setUp(self):
        super().setUp()
        self.partial = os.path.join(self.place, ".pkgdist", "incoming", "big.tmp")
        self.start()
        self.lead = BackgroundLead(self, "serve", "--rate", "80M")  # the file takes more than a second
        self.wait_for_lead()
        self.wait_for_state("idle")
        self.build(1, {"big": os.urandom(SIZE), "small": b"x"})
        self.begin("fetching")

    def received(self):
        return os.path.getsize(self.partial) if os.path.exists(self.partial) else 0

    def end_in_the_middle(self, end):
        """A push of the tree; when a third has come, the node ends. Bytes of the file that are there."""
        push = self.lead.host.spawn([self.programs.lead, "--interface", self.lead.host.address, "push", "--nodes",
                                     self.node.address, "."], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        lab.wait_until(lambda: self.received() > SIZE // 3, 20, "a third of the file")
        end()
        push.terminate()
        push.wait(timeout=20)
        received = self.received()
        self.assertGreater(received, SIZE // 3)
        self.assertLess(received, SIZE)
        return received

    def stop_node(self):
        process = self.node_processes[self.node.name]
        process.terminate()
        self.assertEqual(process.wait(timeout=10), 0)

    def go_on(self):
        """The node starts again and gets the rest: how many segments were sent."""
        os.truncate(self.log_of(self.node), 0)
        self.start()
        self.wait_for_lead()
        self.wait_for_state("fetching")
        result = self.push(paths=["."])
        self.answer(self.order("fetched"), "ready")
        self.activate()
        self.assertEqual(self.check_tree(), 1)
        return [e for e in result.events if e["event"] == "counters"][-1]["segments_sent"]

    @staticmethod
    def segments_beside(good):
        """Of which some byte is not in the good part, which begins with the file."""
        return -(-SIZE // SEGMENT) - good // SEGMENT

    def test_after_a_kill_only_the_leaves_that_are_missing_are_sent(self):
        received = self.end_in_the_middle(self.kill_node)
        lacking = self.segments_beside(received // LEAF * LEAF)
        sent = self.go_on()
        self.assertGreaterEqual(sent, lacking)
        self.assertLessEqual(sent, lacking + MORE)

    def test_a_node_that_is_stopped_keeps_what_it_has(self):
        received = self.end_in_the_middle(self.stop_node)
        self.assertLessEqual(self.go_on(), self.segments_beside(received // LEAF * LEAF) + MORE)

    def wait_for_other_lead(self):
        lab.wait_until(lambda: self.node_events(self.node, "lead-changed")[-1]["lead"] ==
                       self.net.others["other"].address, 20, "the node to follow the other lead")

    def test_a_lead_that_takes_over_sends_only_the_leaves_that_are_missing(self):
        received = self.end_in_the_middle(self.lead.kill)
        self.lead = BackgroundLead(self, "serve", host=self.net.others["other"])
        before = sent_bytes(self.lead.host)
        self.wait_for_other_lead()
        lab.wait_until(lambda: glob.glob(os.path.join(self.place, ".pkgdist/[rs]*/1-*/big")), 20, "the rest of the file")
        sent = sent_bytes(self.lead.host) - before
        lacking = SIZE - received // LEAF * LEAF
        self.assertGreater(sent, lacking)
        self.assertLess(sent, 1.1 * lacking + MORE * SEGMENT)

    def test_a_lead_that_does_not_know_the_file_leaves_its_part_for_a_push_of_the_release(self):
        received = self.end_in_the_middle(self.lead.kill)
        other = self.net.others["other"]
        command = [self.programs.lead, "--interface", other.address, "--location", f"1={self.directory('empty')}"]
        other.spawn([*command, "serve"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.wait_for_other_lead()
        lab.wait_until(lambda: [e for e in self.node_events(self.node, "file") if e["name"] == "big"], 20,
                       "the end of the reception")
        self.assertEqual(self.received(), received)
        before = sent_bytes(other)
        pushed = other.run([*command, "push", "--release", self.content, "--nodes", self.node.address],
                           capture_output=True, text=True, timeout=60)
        self.assertEqual(pushed.returncode, 0, pushed.stderr)
        self.assertEqual(self.check_tree(), 1)
        self.assertLess(sent_bytes(other) - before, 1.1 * (SIZE - received // LEAF * LEAF) + MORE * SEGMENT)

    def test_a_leaf_that_was_damaged_meanwhile_comes_again(self):
        received = self.end_in_the_middle(self.kill_node)
        with open(self.partial, "r+b") as file:
            file.seek(5 * LEAF + 7)
            file.write(b"damaged")
        sent = self.go_on()
        lacking = self.segments_beside(received // LEAF * LEAF) + LEAF // SEGMENT
        self.assertGreater(sent, lacking)
        self.assertLessEqual(sent, lacking + 2 + MORE)
