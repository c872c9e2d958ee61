"""When a node asks again for what it lacks, and when it gives up: a lead that leaves out the last segment of
a file, or does not acknowledge a message, and answers nothing."""

import errno
import subprocess
import time

import wire
from scripted_lead import ScriptedLead
from support import SystemTest, errno_status

SEGMENT = 1400


class RepairInterval(SystemTest):
    NODES = 1

    def start_node_with(self, *options):
        """A node whose `run` has options."""
        node = self.net.nodes[0]
        node.spawn([self.programs.node, "--interface", node.address, "--location",
                    f"1={self.directory_of(node)}", "run", *options], stdout=subprocess.DEVNULL)
        return node

    def requests(self, *arguments, count):
        """Seconds from the announcement of a file to each of the first `count` repair requests."""
        node = self.start_node_with(*arguments)
        with ScriptedLead(self.net.lead) as lead:
            lead.wait_for_node(node)
            lead.file_send(wire.LIST, ["f"])
            lead.wait_for_control(wire.ACK)
            lead.file_info(7, "f", 3 * SEGMENT)
            announced = time.monotonic()
            for segment in (0, 1):
                lead.segment(7, segment, bytes(SEGMENT))
            return [self.request(lead, number) - announced for number in range(count)]

    @staticmethod
    def arrival(lead, answers, kind, number):
        """When the answer of this kind and number arrived, and its body."""
        end = time.monotonic() + 20
        while time.monotonic() < end:
            bodies = [body for header, body in answers if header["msg_id"] == kind]
            if len(bodies) > number:
                return time.monotonic(), bodies[number]
            lead.receive(0.01)
        raise AssertionError(f"{number} answers {kind} in 20 s")

    def request(self, lead, number):
        """When the repair request of this number arrived."""
        at, body = self.arrival(lead, lead.data_answers, wire.REQ_SINGLE, number)
        assert body == {"file_id": 7, "segment": 2, "num": 1}, body
        return at

    def test_missing_segments_are_asked_for_after_a_tenth_of_a_second_and_then_more_slowly(self):
        first, second = self.requests(count=2)
        self.assertGreater(first, 0.09)
        self.assertLess(first, 0.5)
        self.assertGreater(second - first, 0.19)
        self.assertLess(second - first, 0.7)

    def test_the_interval_is_an_option(self):
        first, second = self.requests("--repair-interval", "800", count=2)
        self.assertGreater(first, 0.79)
        self.assertLess(first, 1.4)
        self.assertGreater(second - first, 1.59)

    def test_a_file_is_given_up_after_24_requests_without_an_answer(self):
        node = self.start_node_with("--repair-interval", "20")
        with ScriptedLead(self.net.lead) as lead:
            lead.wait_for_node(node)
            lead.file_send(wire.LIST, ["f"])
            lead.wait_for_control(wire.ACK)
            lead.file_info(7, "f", 3 * SEGMENT)
            for segment in (0, 1):
                lead.segment(7, segment, bytes(SEGMENT))
            self.assertEqual(lead.report_of("f", 30), errno_status(errno.ETIMEDOUT))
            asked = [body for header, body in lead.data_answers if header["msg_id"] == wire.REQ_SINGLE]
        self.assertEqual(len(asked), 24)

    def test_a_message_that_is_not_acknowledged_is_repeated_after_a_tenth_of_a_second(self):
        node = self.start_node_with()
        with ScriptedLead(self.net.lead) as lead:
            lead.wait_for_node(node)
            lead.receive()
            sent = len([h for h, _ in lead.control_answers if h["msg_id"] == wire.CTRL])
            first, second = (self.arrival(lead, lead.control_answers, wire.CTRL, sent + more)[0]
                             for more in range(2))
        interval = 0.1 * (sent + 1)  # each is longer than the one before by as much as the first
        self.assertGreater(second - first, interval - 0.01)
        self.assertLess(second - first, interval + 0.4)
