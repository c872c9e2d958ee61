"""The Wireshark dissector, field by field, beside the tests' own codec: every kind of datagram, what receivers
refuse, and a real push."""

import datetime
import json
import os
import shutil
import struct
import subprocess
import tempfile

import tree
import wire
from support import SystemTest, capture_push, lab

SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "wireshark", "pkgdist.lua")
LEAD, NODE = wire.address("10.71.0.1"), wire.address("10.71.0.2")
RAW_IP = 101  # link type: packets begin with the IP header
# What the dissector concludes, beside what it reads.
CONCLUDED = {f"{channel}_{name}" for channel in ("ctrl", "data")
             for name in ("poll", "reply_to", "round_trip", "batch", "repaired")}
# What the dissector calls the structures that wire.py names otherwise.
NAMES = {"ctrl_hdr": "ctrl", "data_hdr": "data"}


def packet(datagram, port):
    udp = struct.pack(">HHHH", 40000, port, 8 + len(datagram), 0)
    ip = struct.pack(">BBHHHBBHII", 0x45, 0, 20 + len(udp) + len(datagram), 0, 0, 1, 17, 0, LEAD, NODE)
    return ip + udp + datagram


def pcap(packets):
    records = b"".join(struct.pack("<IIII", i, 0, len(one), len(one)) + one for i, one in enumerate(packets))
    return struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, RAW_IP) + records


EVERY_CONTROL = [
    ({"msg_id": wire.PING, "node_ip": LEAD, "pid": 4711, "sequence": 12, "status": 0xFEDCBA9876543210}, None),
    ({"msg_id": wire.PING_REPLY, "node_ip": NODE, "pid": 1, "sequence": 0xFFFFFFFF, "card_class": 3,
      "unicast": -1, "node_id": 0x010203, "ack_sequence": 11}, None),
    ({"msg_id": wire.ACK, "node_ip": NODE, "sequence": 3}, None),
    ({"msg_id": wire.NACK, "node_ip": NODE, "sequence": 3, "segment": 7, "unicast": 1}, None),
    ({"msg_id": wire.CTRL, "node_ip": LEAD, "sequence": 13, "segment": 1, "card_class": 4},
     {"msg_class": 2, "node_list": [NODE, LEAD], "total_size": 2000, "segment_size": 1300, "rxmt": 1,
      "data": b"\x00middle\xff"}),
    ({"msg_id": wire.CTRL}, {"data": b""}),
]
A_LIST = {"operation": wire.DELETE, "xact_id": 9, "type": 1, "location": 6, "priority": 2, "names": ["a/b", "", "c"]}
EVERY_DATA = [
    ({"msg_id": wire.FILE_REQ, "node_ip": NODE}, {"type": 6, "location": 1, "priority": 4, "name": "a name"}),
    ({"msg_id": wire.REQ_SINGLE, "node_ip": NODE}, {"file_id": 1, "segment": 2, "num": 3}),
    ({"msg_id": wire.REQ_DONE, "node_ip": NODE},
     {"file_id": 1, "status": 0x3010127800000BF7, "name": "\u00fcber", "location": 2}),
    ({"msg_id": wire.FILE_INFO, "node_ip": LEAD},
     {"file_id": 7, "name": "x", "size": 0xFFFFFFFF, "segment_size": 1400, "status": 0, "mode": 0o755,
      "mtime": 1_700_000_000, "node_list": [NODE], "symlink": 1, "location": 1}),
    ({"msg_id": wire.SEGMENT, "node_ip": LEAD}, {"file_id": 7, "segment": 2, "repair": 1, "data": b"abc"}),
    ({"msg_id": wire.SEGMENT}, {"file_id": 7, "segment": 2}),
    ({"msg_id": wire.MISS_DONE, "node_ip": LEAD}, {"file_id": 7, "name": "x", "node_list": [NODE, LEAD], "location": 5}),
]


def displayed(field, value):
    """A field's value as tshark prints it."""
    if field in ("node_ip", "node_list"):
        values = value if isinstance(value, list) else [value]
        return [".".join(str(v >> shift & 255) for shift in (24, 16, 8, 0)) for v in values]
    if field == "data":
        return [":".join(f"{byte:02x}" for byte in value)] if value else []
    if field in ("name", "names"):
        values = value if isinstance(value, list) else [value]
        return [one.encode(errors="surrogateescape").decode(errors="replace") for one in values]
    if field == "status":
        return [f"0x{value:016x}"]
    if field == "node_id":
        return [f"0x{value:08x}"]
    if field == "mtime":
        moment = datetime.datetime.fromtimestamp(value, datetime.timezone.utc)
        return [f"{moment:%Y-%m-%dT%H:%M:%S}.000000000Z"]
    return [str(value)]


class Dissector(SystemTest):
    NODES = 1
    OTHERS = ("observer",)

    def decode(self, datagrams, *arguments):
        """tshark's fields of each (datagram, port): [{field: [values]}]."""
        with tempfile.NamedTemporaryFile(suffix=".pcap", delete=False) as file:
            file.write(pcap([packet(*one) for one in datagrams]))
        self.addCleanup(os.remove, file.name)
        result = subprocess.run(["tshark", "-n", "-X", f"lua_script:{SCRIPT}", "-r", file.name, "-T", "ek",
                                 "-J", "pkgdist_ctrl pkgdist_data", *arguments],
                                capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertNotIn("Lua", result.stderr)
        packets = [json.loads(line)["layers"] for line in result.stdout.splitlines() if '"layers"' in line]
        self.assertEqual(len(packets), len(datagrams))
        return [self.flat(one) for one in packets]

    def flat(self, layers):
        """The dissector's own fields, wherever they stand: {"ctrl_msg_id": [values]}."""
        fields = {}
        for name, value in layers.items():
            parts = value if isinstance(value, list) else [value]
            for part in parts:
                if isinstance(part, dict):
                    for inner, values in self.flat(part).items():
                        fields.setdefault(inner, []).extend(values)
                elif name.startswith(("pkgdist_ctrl_pkgdist_", "pkgdist_data_pkgdist_")):
                    fields.setdefault(name.split("_", 3)[3], []).append(part)
        return fields

    def assert_decoded(self, fields, structures):
        """Every field of the structures (name, message), and no field more."""
        expected = {}
        for name, message in structures:
            for field, value in message.items():
                shown = displayed(field, value)
                if shown:
                    expected[f"{NAMES.get(name, name)}_{field}"] = shown
        self.assertEqual({name: [str(v) for v in values] for name, values in fields.items()
                          if name not in CONCLUDED}, expected)

    def test_every_kind_of_datagram_is_shown_as_the_codec_reads_it(self):
        message = wire.encode("file_send", A_LIST)
        whole = {"msg_class": wire.CLASS_FILE_SEND, "total_size": len(message), "segment_size": 1300, "data": message}
        datagrams, expected = [], []
        for header, body in [*EVERY_CONTROL, ({"msg_id": wire.CTRL, "sequence": 14}, whole)]:
            datagrams.append((wire.encode_datagram("ctrl_hdr", header, "ctrl_msg" if body else None, body), 7103))
            expected.append([("ctrl_hdr", header), ("ctrl_msg", body or {})])
        expected[-1].append(("file_send", A_LIST))
        for header, body in EVERY_DATA:
            name = wire.DATA_BODIES[header["msg_id"]]
            datagrams.append((wire.encode_datagram("data_hdr", header, name, body), 7104))
            expected.append([("data_hdr", header), (name, body)])
        for fields, structures in zip(self.decode(datagrams), expected):
            self.assert_decoded(fields, structures)

    def test_what_receivers_refuse_is_marked_and_nothing_else(self):
        ping = wire.encode_datagram("ctrl_hdr", {"msg_id": wire.PING})
        info = wire.encode_data(wire.FILE_INFO, LEAD, {"file_id": 1, "name": "name"})
        refused = [(ping + b"x", 7100), (ping[:-1], 7102), (b"PDOC{}", 7103), (b"\0\0", 7101),
                   (info[:-1], 7101), (info + b"\0", 7101), (info.replace(b"name", b"n\0me"), 7104),
                   (wire.frame(wire.U32.encode(1 << 10)), 7100),
                   (wire.encode_datagram("data_hdr", {"msg_id": 7}), 7101),
                   (wire.encode_datagram("data_hdr", {"msg_id": wire.SEGMENT}), 7101)]
        for datagram, port in refused:
            with self.assertRaises(wire.WireError):
                wire.decode_ctrl(datagram) if port in (7100, 7102, 7103) else wire.decode_data(datagram)
        good = [(ping, 7100), (info, 7101)]
        marked = self.marks([*refused, *good])
        self.assertEqual(marked, [True] * len(refused) + [False] * len(good))

    def marks(self, datagrams):
        return [any(name.endswith("_malformed") for name in fields) for fields in self.decode(datagrams)]

    def segments(self, numbers, size=1400, repair=0):
        return [wire.encode_data(wire.SEGMENT, LEAD, {"file_id": 7, "segment": n, "repair": repair, "data": b"x" * size})
                for n in numbers]

    def test_a_frame_with_a_batch_shows_every_datagram(self):
        last = self.segments([41], size=10)
        fields, small, lone = self.decode([(b"".join(self.segments(range(41)) + last), 7101),
                                           (b"".join(self.segments([1, 2, 3], size=20)), 7101),
                                           (self.segments([5])[0], 7101)])
        self.assertEqual([int(n) for n in fields["segment_segment"]], list(range(42)))
        self.assertEqual(fields["data_batch"], ["42"])
        self.assertFalse(any(name.endswith("_malformed") for name in fields))
        self.assertEqual(small["segment_segment"], ["1", "2", "3"])
        self.assertNotIn("data_batch", lone)

    def test_one_bad_datagram_of_a_batch_is_marked_alone(self):
        batch = self.segments(range(10))
        batch[4] = batch[4][:20] + b"\xff" * (len(batch[4]) - 20)
        fields = self.decode([(b"".join(batch), 7101)])[0]
        self.assertEqual(len(fields["data_malformed"]), 1)
        self.assertEqual([n for n in fields["segment_segment"] if int(n) < 10], [str(n) for n in range(10) if n != 4])
        # A short frame is a batch only when it is one without fault.
        short = self.segments([1, 2], size=20)
        self.assertEqual(self.marks([(short[0] + short[1][:-1], 7101), (short[0] + b"x", 7101)]), [True, True])

    def test_polls_pings_and_repairs_are_marked_and_answers_have_their_round_trip(self):
        window = {"file_id": 99, "name": "poll", "node_list": [NODE], "location": 0}
        of_file = {"file_id": 7, "name": "a/b", "location": 1}
        ping = {"msg_id": wire.PING, "node_ip": LEAD, "sequence": 1, "status": 77}
        reply = {"msg_id": wire.PING_REPLY, "node_ip": NODE, "sequence": 1, "status": 77}

        def report(poll, **changes):
            return wire.encode_data(wire.REQ_DONE, NODE, {
                **{k: v for k, v in poll.items() if k != "node_list"}, "status": 0, **changes})

        # The packets are a second apart.
        polled, done, answered, late, asked, repair, pinged, ponged, again = self.decode([
            (wire.encode_data(wire.MISS_DONE, LEAD, window), 7101),
            (report(of_file), 7104),
            (report(window), 7104),
            (report({**window, "file_id": 98}), 7104),
            (wire.encode_data(wire.MISS_DONE, LEAD, of_file), 7101),
            (self.segments([5], repair=1)[0], 7101),
            (wire.encode_datagram("ctrl_hdr", ping), 7100),
            (wire.encode_datagram("ctrl_hdr", reply), 7102),
            (report(of_file, file_id=6), 7104)])
        self.assertEqual([f.get("data_poll") for f in (polled, asked)], [[True], [True]])
        for fields in (done, late):
            self.assertNotIn("data_reply_to", fields)
        self.assertEqual((answered["data_reply_to"], answered["data_round_trip"]), (["1"], ["2.000000000"]))
        self.assertEqual((again["data_reply_to"], again["data_round_trip"]), (["5"], ["4.000000000"]))
        self.assertIn("data_repaired", repair)
        self.assertNotIn("data_repaired", asked)
        self.assertNotIn("ctrl_reply_to", pinged)
        self.assertEqual((ponged["ctrl_reply_to"], ponged["ctrl_round_trip"]), (["7"], ["1.000000000"]))

    def test_a_real_push_decodes_to_what_the_codec_reads(self):
        tree.small(self.content, small_files=5)
        self.start_nodes()
        captured = capture_push(self, self.net.others["observer"])
        datagrams, expected = [], []
        for datagram in captured["ctrl"]:
            header, body = wire.decode_ctrl(datagram)
            structures = [("ctrl_hdr", header), ("ctrl_msg", body or {})]
            if body and len(body["data"]) == body["total_size"]:
                structures.append(("file_send", wire.decode("file_send", body["data"])))
            datagrams.append((datagram, 7100))
            expected.append(structures)
        for datagram in captured["data"]:
            header, body = wire.decode_data(datagram)
            datagrams.append((datagram, 7101))
            expected.append([("data_hdr", header), (wire.DATA_BODIES[header["msg_id"]], body)])
        for fields, structures in zip(self.decode(datagrams), expected):
            self.assert_decoded(fields, structures)
        self.assertGreater(len(captured["data"]), 20)

    def test_a_capture_on_the_leads_virtual_link_has_no_malformed_frame(self):
        tree.add(self.content, "large", 3_000_000)
        self.start_nodes()
        directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, directory)
        os.chmod(directory, 0o777)
        path = os.path.join(directory, "capture.pcapng")
        capture = self.net.lead.spawn(["dumpcap", "-q", "-i", "eth0", "-f", "udp portrange 7100-7104", "-w", path],
                                      stderr=subprocess.DEVNULL)
        lab.wait_until(lambda: os.path.exists(path) and os.path.getsize(path) > 0, what="the capture")
        self.push()
        capture.terminate()
        capture.wait(timeout=10)

        def count(display):
            result = subprocess.run(["tshark", "-n", "-X", f"lua_script:{SCRIPT}", "-r", path, "-Y", display],
                                    capture_output=True, text=True, timeout=60)
            self.assertEqual(result.returncode, 0, result.stderr)
            return len(result.stdout.splitlines())

        self.assertEqual(count("pkgdist.ctrl.malformed || pkgdist.data.malformed"), 0)
        self.assertGreater(count("pkgdist.data.batch"), 0)
        self.assertGreater(count("pkgdist.data.round_trip"), 0)
        self.assertGreater(count("pkgdist.ctrl.round_trip"), 0)
