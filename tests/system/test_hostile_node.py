"""Hostile datagrams at the sockets of a node.

First from a stranger while a real push runs, then from a forged lead, which knows the identifiers of
its files and can therefore reach further.
"""

import itertools
import os
import time

import hostile
import tree
import wire
from scripted_lead import CTRL_GROUP, DATA_GROUP, NODE_PORT, ScriptedLead
from support import SystemTest, lab, names_below, resident_bytes

BURST = 4000
# Sent without a pause; below what the receive buffers hold.
CHUNK = 100
MOST_SEGMENTS = 1 << 24  # of one file
REQUESTS_PER_SECOND = 4096  # for files of a list
MEMORY_LIMIT = 100_000_000  # resident bytes of a node, whatever it is told


class StrangerAtANode(SystemTest):
    NODES = 2
    OTHERS = ("stranger",)

    def setUp(self):
        super().setUp()
        self.stranger = self.net.others["stranger"]
        self.ip = wire.address(self.stranger.address)
        self.socket = self.stranger.socket()
        self.addCleanup(self.socket.close)
        self.node = self.net.nodes[0]

    def flood(self, target, datagrams, table, label):
        """Sends everything; what is left of it is counted as bad."""
        before = self.statistics(self.node)[table, label]
        sent = 0
        for datagram in datagrams:
            self.socket.sendto(datagram, target)
            sent += 1
            if sent % CHUNK == 0:
                lab.wait_until(lambda: self.statistics(self.node)[table, label] >=
                               before + sent // 2, 10, f"half of {sent} datagrams to be counted as "
                               f"{label}")
        return sent

    def datagrams(self):
        """A burst for each channel: noise, and damaged messages."""
        noise = hostile.random_bytes(7, BURST)
        return itertools.chain(noise, hostile.malformed_data(self.ip),
                               hostile.malformed_control(self.ip, 99))

    def test_noise_at_every_socket_disturbs_no_push(self):
        tree.small(self.content, medium=30_000_000)
        self.start_nodes()
        push = self.start_push("--rate", "60")
        lab.wait_until(lambda: self.statistics(self.node).total("MC SEGMENT") > 100,
                       what="the push to be running")
        before = {n.name: self.statistics(n) for n in self.net.nodes}
        # From what decodes nothing may follow: the sender is not the lead.
        self.flood(DATA_GROUP, self.datagrams(), "DRT_Counters", "MC BAD PKT RECV")
        self.flood(CTRL_GROUP, hostile.random_bytes(8, BURST), "CRT_Counters", "MC BAD PKT RECV")
        self.flood((self.node.address, NODE_PORT), hostile.random_bytes(9, BURST), "CRT_Counters",
                   "UC BAD PKT RECV")
        for datagram in hostile.malformed_control(self.ip, 99):
            self.socket.sendto(datagram, CTRL_GROUP)
            self.socket.sendto(datagram, (self.node.address, NODE_PORT))
        self.assertIsNone(push.process.poll(), "the push was over before the burst was")
        self.assertTrue(push.finish()["complete"])
        self.assert_received()
        self.assert_alive()
        for node in self.net.nodes:
            self.assertLess(resident_bytes(self.node_processes[node.name]), MEMORY_LIMIT)
            more = self.statistics(node)["DRT_Counters", "MC BAD PKT RECV"] - \
                before[node.name]["DRT_Counters", "MC BAD PKT RECV"]
            self.assertGreater(more, BURST // 2)
            self.assertEqual(len(self.node_events(node, "lead-changed")), 1)

    def test_nothing_is_taken_before_a_lead_is_known(self):
        tree.small(self.content, small_files=5)
        self.start_nodes()
        lab.wait_until(lambda: self.statistics(self.node).get(("CRT_Counters", "MC BAD PKT RECV"))
                       is not None, what="the node to be up")
        noise = list(hostile.random_bytes(10, 1000))
        self.flood(CTRL_GROUP, noise, "CRT_Counters", "MC BAD PKT RECV")
        self.flood((self.node.address, NODE_PORT), noise, "CRT_Counters", "UC BAD PKT RECV")
        self.push()
        self.assert_received()
        self.assert_alive()


class ForgedLeadAtANode(SystemTest):
    """What a lead can say that makes no sense. Afterwards a real lead must find a working node."""

    NODES = 1

    def setUp(self):
        super().setUp()
        self.node, = self.net.nodes
        self.place = self.directory_of(self.node)
        self.process = self.start_node(self.node)
        self.lead = ScriptedLead(self.net.lead)
        self.addCleanup(self.lead.__exit__)
        self.lead.wait_for_node(self.node)

    def count(self, label, table="DRT_Counters"):
        return self.statistics(self.node)[table, label]

    def list_files(self, *names):
        before = len(self.node_events(self.node, "transaction-start"))
        self.lead.file_send(wire.LIST, list(names))
        lab.wait_until(lambda: len(self.node_events(self.node, "transaction-start")) > before,
                       what="the list to be taken")

    def wait_for_count(self, label, value, table="DRT_Counters"):
        lab.wait_until(lambda: self.count(label, table) >= value, 20, f"{label} to reach {value}")

    def assert_good(self, file_id, name, content):
        """The file arrives through the forged lead, whatever came before."""
        self.assertEqual(self.lead.report_of(name, 20, lambda: self.lead.whole_file(
            file_id, name, content)), 0)
        with open(os.path.join(self.place, name), "rb") as file:
            self.assertEqual(file.read(), content)

    def assert_works(self):
        """A real lead on the same host finds a working node."""
        self.assertLess(resident_bytes(self.process), MEMORY_LIMIT)
        self.lead.control.close()
        self.lead.requests.close()
        tree.small(self.content, small_files=5)
        self.push("--timeout", "20", timeout=40)
        expected = lab.manifest(self.content)
        actual = lab.manifest(self.place)
        self.assertEqual(lab.differences(expected, {n: actual.get(n) for n in expected}), [])
        self.assert_alive()

    # --- Data channel ---

    def test_absurd_file_sizes_and_segment_sizes(self):
        names = [f"file {i}" for i in range(40)]
        self.list_files(*names)
        sizes = (0, 1, 1400, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)
        segment_sizes = (0, 1, 2, 1400, 0x80000000, 0xFFFFFFFF)
        cases = list(zip(names, itertools.product(sizes, segment_sizes)))
        for file_id, (name, (size, segment_size)) in enumerate(cases, 100):
            self.lead.file_info(file_id, name, size, segment_size)
            for segment in (0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF):
                for length in (0, 1, 3, 1399, 1401):
                    self.lead.segment(file_id, segment, b"x" * length)
        self.list_files("good")
        self.assert_good(99, "good", tree.content("good", 5001))
        self.assertGreater(self.count("MC BAD PKT RECV"), 0)
        self.assertGreater(self.count("FILE SEG TOOBIG"), 0)
        self.assert_whole_files(cases)
        self.assert_works()

    def assert_whole_files(self, cases):
        """A final name stands for a file of which every byte was sent."""
        possible = {name for name, (size, _) in cases if size in (0, 1)}
        final = {name for name in names_below(self.place) if not name.endswith(".tmp")}
        self.assertLessEqual(final, possible | {"good"})

    def test_segments_beyond_the_file_and_of_wrong_length(self):
        content = tree.content("target", 10 * 1400 + 7)
        parts = [content[at:at + 1400] for at in range(0, len(content), 1400)]
        self.list_files("target", "good")
        self.lead.file_info(5, "target", len(content))
        for number in (11, 12, 1 << 16, 1 << 31, (1 << 32) - 1):
            self.lead.segment(5, number, parts[0])
        self.wait_for_count("FILE SEG TOOBIG", 5)
        bad = self.count("MC BAD PKT RECV")
        for number, length in ((0, 1399), (0, 1401), (0, 0), (9, 1), (10, 6), (10, 8), (10, 1400)):
            self.lead.segment(5, number, b"x" * length)
        self.wait_for_count("MC BAD PKT RECV", bad + 7)
        self.assertEqual(names_below(self.place), set())
        for number, part in reversed(list(enumerate(parts))):
            self.lead.segment(5, number, part)
        self.assertEqual(self.lead.report_of("target"), 0)
        with open(os.path.join(self.place, "target"), "rb") as file:
            self.assertEqual(file.read(), content)
        self.assert_works()

    def test_a_gap_over_a_whole_file_of_one_byte_segments(self):
        """Of as many segments as a node accepts; with one more the announcement is a bad datagram."""
        self.list_files("target", "good")
        bad = self.count("MC BAD PKT RECV")
        self.lead.file_info(4, "target", MOST_SEGMENTS + 1, 1)
        self.wait_for_count("MC BAD PKT RECV", bad + 1)
        self.lead.file_info(5, "target", MOST_SEGMENTS, 1)
        self.lead.segment(5, 0, b"x")
        self.lead.segment(5, MOST_SEGMENTS - 1, b"x")
        lab.wait_until(lambda: os.path.exists(os.path.join(self.place, "target.tmp")) and
                       os.path.getsize(os.path.join(self.place, "target.tmp")) == MOST_SEGMENTS,
                       what="the last segment to be written")
        self.assert_good(6, "good", tree.content("good", 3000))
        self.lead.file_send(wire.DELETE, ["target"])
        self.lead.report_of("target", 20)
        self.assert_works()

    def test_identifier_zero_and_unknown_identifiers(self):
        self.list_files("pending", "good")
        missing = self.count("FILE NOT FOUND")
        for file_id in (0, 1, 0xFFFFFFFF):
            self.lead.segment(file_id, 0, b"x" * 1400)
            self.lead.miss_done(file_id, "nobody knows")
        self.lead.file_info(1, "nobody knows", 10)
        self.wait_for_count("FILE NOT FOUND", missing + 4)
        self.lead.miss_done(0, "pending")
        self.assertNotEqual(self.lead.report_of("pending"), 0)
        self.assert_good(7, "good", tree.content("good", 3000))
        self.assertEqual(names_below(self.place), {"good"})
        self.assert_works()

    def test_absurd_links(self):
        names = [f"link {i}" for i in range(6)]
        self.list_files(*names, "good")
        targets = [b"", b"t" * 300, b"t" * 1400, b"a\0b", b"../" * 20, b"\xff" * 255]
        for i, (name, target) in enumerate(zip(names, targets)):
            self.lead.file_info(20 + i, name, 0xFFFFFFFF if i % 2 else len(target), 1400, symlink=1)
            self.lead.segment(20 + i, 0, target)
            self.lead.segment(20 + i, 0xFFFFFFFF, target)
        self.assert_good(7, "good", tree.content("good", 3000))
        for name in names_below(self.place) - {"good"}:
            self.assertLessEqual(len(os.readlink(os.path.join(self.place, name))), 255)
        self.assert_works()

    def test_a_stream_of_announcements_of_one_file(self):
        """Each one is a new transfer: what the last one began must be given back."""
        self.list_files("target", "good")
        for i in range(3000):
            self.lead.file_info(1000 + i, "target", 0xFFFFFFFF - i, 1400)
            self.lead.segment(1000 + i, 3_000_000, b"x" * 1400)
        self.assert_good(7, "good", tree.content("good", 3000))
        self.assert_good(8, "target", tree.content("target", 3000))
        self.assert_works()

    def test_damaged_data_messages_with_the_leads_address(self):
        self.list_files("target", "good")
        damaged = [d for d in hostile.malformed_data(self.lead.ip)]
        bad = self.count("MC BAD PKT RECV")
        for start in range(0, len(damaged), CHUNK):
            for datagram in damaged[start:start + CHUNK]:
                self.lead.send_data(datagram)
            sent = min(start + CHUNK, len(damaged))
            # Empty datagrams are no datagrams, and a cut can leave a decodable rest.
            self.wait_for_count("MC BAD PKT RECV", bad + sent * 9 // 10 - 10)
        self.assert_good(7, "good", tree.content("good", 3000))
        self.assert_works()

    # --- Control channel ---

    def control(self, node=None, **fields):
        """A control message of chosen header and body fields."""
        names = {name for name, _ in wire.STRUCTURES["ctrl_msg"]}
        body = {k: v for k, v in fields.items() if k in names}
        header = {k: v for k, v in fields.items() if k not in names}
        self.lead.send_control(wire.encode_datagram(
            "ctrl_hdr", self.lead.header(msg_id=wire.CTRL, card_class=3, **header),
            "ctrl_msg", {"msg_class": 2, **body}), node)

    def test_absurd_message_sizes(self):
        sizes = (0, 1, 1390, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)
        segment_sizes = (0, 1, 2, 1390, 0x80000000, 0xFFFFFFFF)
        for node in (None, self.node):
            for total, segment_size in itertools.product(sizes, segment_sizes):
                self.lead.sequence += 1
                for segment in (0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF):
                    self.control(node, sequence=self.lead.sequence, segment=segment,
                                 total_size=total, segment_size=segment_size, data=b"x" * 700)
        self.wait_for_count("MC BAD PKT RECV", 20, "CRT_Counters")
        self.wait_for_count("UC BAD PKT RECV", 20, "CRT_Counters")
        self.list_files("good")
        self.assert_good(7, "good", tree.content("good", 3000))
        self.assert_works()

    def test_absurd_sequences(self):
        for node in (None, self.node):
            for sequence in (0, 0xFFFFFFFF, 0x80000000, 0x7FFFFFFF, 1, 0xFFFFFFFE, 0xFFFFFFFF, 0):
                self.control(node, sequence=sequence, segment=0, total_size=4, segment_size=1390,
                             data=b"abcd")
                self.lead.send_control(wire.encode_datagram(
                    "ctrl_hdr", self.lead.header(msg_id=wire.PING, sequence=sequence)), node)
        self.assert_works()

    def test_acknowledgements_of_messages_that_were_never_sent(self):
        for kind in (wire.ACK, wire.NACK):
            for sequence in hostile.EXTREMES:
                for fields in ({}, {"segment": 0xFFFFFFFF}, {"unicast": 1}, {"unicast": -1}):
                    header = self.lead.header(msg_id=kind, sequence=sequence, **fields)
                    for node in (None, self.node):
                        self.lead.send_control(wire.encode_datagram("ctrl_hdr", header), node)
        self.list_files("good")
        self.assert_good(7, "good", tree.content("good", 3000))
        self.assert_works()

    def test_absurd_file_lists(self):
        body = {"operation": 1, "xact_id": 9, "type": 1, "location": 1, "priority": 2,
                "names": ["a", "b", "c"]}
        payloads = list(hostile.wrong_counts("file_send", body))
        payloads += hostile.wrong_masks(wire.encode("file_send", body), 6)
        payloads += hostile.cuts(wire.encode("file_send", body))
        payloads += [wire.encode("file_send", {**body, "operation": op, "names": names})
                     for op in (0, 4, 0xFFFFFFFF) for names in ([], [""], ["x"] * 300)]
        payloads += [wire.encode("file_send", {"operation": op}) for op in (1, 2, 3)]
        payloads += [wire.encode("file_send", {**body, "type": 0xFFFFFFFF, "priority": 0xFFFFFFFF,
                                               "names": ["" for _ in range(100)]})]
        bad = self.count("MC BAD PKT RECV")
        for payload in payloads:
            self.lead.message(payload)
        self.wait_for_count("MC BAD PKT RECV", bad + len(payloads) // 2)
        self.list_files("good")
        self.assert_good(7, "good", tree.content("good", 3000))
        self.assert_works()

    def assert_requests_are_few(self, seconds):
        """For so long."""
        label = "UC SNDREQ SENT"
        before, start = self.count(label), time.monotonic()
        lab.wait_until(lambda: time.monotonic() - start > seconds, seconds + 5, "the time to pass")
        sent, elapsed = self.count(label) - before, time.monotonic() - start
        self.assertLessEqual(sent, REQUESTS_PER_SECOND * (int(elapsed) + 1))
        return sent

    def test_a_list_of_many_names_draws_a_limited_number_of_requests(self):
        """And so do new processes of its lead, each of which is asked for every file anew."""
        self.list_files(*[f"f{i}" for i in range(30_000)])
        self.assertGreater(self.assert_requests_are_few(3), REQUESTS_PER_SECOND)
        for pid in range(100, 150):
            self.lead.pid = pid
            self.lead.ping()
        self.wait_for_count("NEW PID", 50, "CRS_Counters")
        self.assertGreater(self.assert_requests_are_few(2), 0)
        # Its report may get lost among the requests.
        content, path = tree.content("good", 3000), os.path.join(self.place, "good")
        self.list_files("good")
        lab.wait_until(lambda: self.lead.whole_file(7, "good", content) or os.path.exists(path), 20,
                       "another file to arrive meanwhile")
        with open(path, "rb") as file:
            self.assertEqual(file.read(), content)
        self.assertLess(resident_bytes(self.process), MEMORY_LIMIT)

    def test_the_processes_restart_again_and_again(self):
        """Each new process number restarts what is under way."""
        self.list_files(*[f"file {i}" for i in range(50)])
        for pid in range(100, 600):
            self.lead.send_control(wire.encode_datagram("ctrl_hdr", {
                "msg_id": wire.PING, "node_ip": self.lead.ip, "pid": pid,
                "sequence": self.lead.sequence}))
        self.wait_for_count("NEW PID", 100, "CRS_Counters")
        self.assert_works()
