"""Hostile datagrams at the two sockets of the lead."""

import hostile
import tree
import wire
from forger import Forger
from scripted_lead import DATA_GROUP, LEAD_PORT, NODE_PORT, REQUEST_PORT
from support import (BackgroundLead, SystemTest, lab, names_below, remove_tree,
                     resident_bytes)

BURST = 4000
MEMORY_LIMIT = 200_000_000


class StrangerAtTheLead(SystemTest):
    NODES = 2
    OTHERS = ("stranger", "victim")

    def setUp(self):
        super().setUp()
        self.stranger = self.net.others["stranger"]
        self.ip = wire.address(self.stranger.address)
        self.socket = self.stranger.socket()
        self.addCleanup(self.socket.close)
        tree.small(self.content, medium=20_000_000)

    def to_control(self, datagram):
        self.socket.sendto(datagram, (self.net.lead.address, LEAD_PORT))

    def to_requests(self, datagram):
        self.socket.sendto(datagram, (self.net.lead.address, REQUEST_PORT))

    def running_push(self):
        self.start_nodes()
        push = self.start_push("--rate", "60")
        node = self.net.nodes[0]
        lab.wait_until(lambda: self.statistics(node).total("MC SEGMENT") > 100,
                       what="the push to be running")
        return push

    def finish(self, push):
        """The push ends well, for the nodes that it is for; returns the lead's counters."""
        self.assertIsNone(push.process.poll(), "the push was over before the burst was")
        self.assertLess(resident_bytes(push.process), MEMORY_LIMIT)
        end = push.finish(seconds=60)
        self.assertTrue(end["complete"])
        self.assertEqual({n["node"] for n in end["nodes"]}, {n.address for n in self.net.nodes})
        self.assert_received()
        return push.events("counters")[0]

    def test_noise_and_damaged_messages_disturb_no_push(self):
        push = self.running_push()
        for send in (self.to_control, self.to_requests):
            for datagram in hostile.random_bytes(3, BURST):
                send(datagram)
            for datagram in hostile.malformed_data(self.ip):
                send(datagram)
            for datagram in hostile.malformed_control(self.ip, 99):
                send(datagram)
        self.assertGreater(self.finish(push)["bad_datagrams"], BURST)

    def test_absurd_requests_for_the_file_in_transfer(self):
        """The stranger has seen the identifiers on the multicast group, and asks for nonsense."""
        observer = self.stranger.group_socket(*DATA_GROUP)
        self.addCleanup(observer.close)
        push = self.running_push()
        identifiers = set()
        for _ in range(50):
            _, body = wire.decode_data(observer.recv(2000))
            identifiers.add(body["file_id"])
        for file_id in [*identifiers, 0, 1, 0xFFFFFFFF]:
            for segment in hostile.EXTREMES:
                for num in hostile.EXTREMES:
                    self.to_requests(wire.encode_data(wire.REQ_SINGLE, self.ip, {
                        "file_id": file_id, "segment": segment, "num": num}))
            for status in (0, 1, (1 << 64) - 1):
                for name in ("", "one byte", "../x", "n" * 1000):
                    self.to_requests(wire.encode_data(wire.REQ_DONE, self.ip, {
                        "file_id": file_id, "status": status, "name": name, "location": 9}))
        self.finish(push)

    def test_absurd_file_requests(self):
        push = self.running_push()
        for i in range(3000):
            name = ("n" * (i % 1400), f"no such file {i}", "../" * (i % 100) + "x", "")[i % 4]
            self.to_requests(wire.encode_data(wire.FILE_REQ, self.ip, {
                "type": i, "location": i % 9, "priority": 0xFFFFFFFF - i, "name": name}))
        self.finish(push)

    def test_a_crowd_of_made_up_nodes_disturbs_no_push_to_named_ones(self):
        """Answers to the lead's pings, from as many addresses."""
        forger = Forger(self.stranger, self.net.lead)
        self.addCleanup(forger.close)
        push = self.running_push()
        for first in range(0, 20_000, 5000):
            ping = forger.ping()
            for i in range(first, first + 5000):
                forger.answer(f"11.0.{i >> 8}.{i & 255}", ping, 1 + i, sequence=i, card_class=i,
                              node_id=i)
        self.assertGreater(len(push.events("node-appeared")), 1000)
        self.finish(push)

    def test_nothing_is_sent_to_an_address_that_only_a_datagram_names(self):
        """A message and requests of a stranger in the name of somebody who has not asked."""
        victim = self.net.others["victim"]
        inbox = victim.socket(NODE_PORT)
        self.addCleanup(inbox.close)
        inbox.setblocking(False)
        named = wire.address(victim.address)
        push = self.running_push()
        for i in range(100):
            self.to_control(wire.encode_datagram(
                "ctrl_hdr", {"msg_id": wire.CTRL, "node_ip": named, "pid": 5, "sequence": i,
                             "segment": 0},
                "ctrl_msg", {"msg_class": 2, "total_size": 1, "segment_size": 1390, "data": b"x"}))
            self.to_requests(wire.encode_data(wire.FILE_REQ, named, {
                "type": 1, "location": 1, "priority": 1, "name": "one byte"}))
        self.finish(push)
        with self.assertRaises(BlockingIOError):
            inbox.recv(2000)
        mismatches = push.events("sender-mismatch")
        self.assertEqual([(e["named"], e["from"]) for e in mismatches],
                         [(victim.address, self.stranger.address)])

    def test_absurd_acknowledgements_and_refusals(self):
        push = self.running_push()
        for kind in (wire.ACK, wire.NACK, wire.PING_REPLY):
            for sequence in hostile.EXTREMES:
                for fields in ({}, {"segment": 0}, {"segment": 0xFFFFFFFF}, {"unicast": 1},
                               {"ack_sequence": 0xFFFFFFFF}, {"ack_sequence": 0}):
                    self.to_control(wire.encode_datagram("ctrl_hdr", {
                        "msg_id": kind, "node_ip": self.ip, "pid": 5, "sequence": sequence,
                        **fields}))
        self.finish(push)

    def claim_sequences(self, ping, *sequences):
        """Replies to the ping that say where the multicast sequence stands."""
        for sequence in sequences:
            self.to_control(wire.encode_datagram("ctrl_hdr", {
                "msg_id": wire.PING_REPLY, "node_ip": self.ip, "pid": 5, "sequence": sequence,
                "status": ping["status"]}))

    def test_a_made_up_sequence_before_the_first_message_stops_no_push(self):
        for node in self.net.nodes:
            node.lose(30)  # file lists are outstanding for a while
        for last in (0xFFFFFFFF, 0xFFFFFFFE, 0x80000000):
            with self.subTest(last=hex(last)):
                self.assert_push_stands_claims(last)
            self.stop_processes()
            for node in self.net.nodes:
                node.lose(30)
                remove_tree(self.directory_of(node))

    def assert_push_stands_claims(self, last):
        """Claims one sequence while the nodes are not there yet, and the greatest one after that."""
        forger = Forger(self.stranger, self.net.lead)
        self.addCleanup(forger.close)
        push = self.start_push()
        for _ in range(5):  # it leads: now it listens to claims
            self.claim_sequences(forger.ping(), *[last] * 20)
        self.start_nodes()
        ping = forger.ping()

        def ended():
            nonlocal ping
            ping = forger.latest_ping() or ping
            self.claim_sequences(ping, *[0xFFFFFFFF] * 300)
            return push.process.poll() is not None

        lab.wait_until(ended, 30, f"the end of the push; the lead said last: {push.events()[-1:]}")
        forger.close()
        self.assertTrue(push.finish()["complete"])
        self.assert_received()
        # The claims were heard as those of a node, and not dropped.
        self.assertIn(self.stranger.address, [e["node"] for e in push.events("node-appeared")])

    def test_noise_at_a_serving_lead(self):
        lead = BackgroundLead(self, "serve")
        lead.wait_for("serving")
        for send in (self.to_control, self.to_requests):
            for datagram in hostile.random_bytes(4, BURST):
                send(datagram)
        node = self.net.nodes[0]
        result = node.run([self.programs.node, "--interface", node.address, "--location",
                           f"1={self.directory_of(node)}", "get", "one byte"],
                          capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(names_below(self.directory_of(node)), {"one byte"})
        self.assertLess(resident_bytes(lead.process), MEMORY_LIMIT)
        lead.stop()
