"""What really travels, decoded by a second codec that shares nothing with the programs' own."""

import os

import tree
import wire
from scripted_lead import ScriptedLead
from support import IN_PROGRESS, SystemTest, capture_push, lab

PROGRAM_CLASS = 5


def reencoded(datagram, channel):
    """The datagram made anew from what was decoded of it."""
    if channel == "ctrl":
        header, body = wire.decode_ctrl(datagram)
        return wire.encode_datagram("ctrl_hdr", header, "ctrl_msg" if body else None, body)
    header, body = wire.decode_data(datagram)
    return wire.encode_datagram("data_hdr", header, wire.DATA_BODIES[header["msg_id"]], body)


class Wire(SystemTest):
    NODES = 1
    OTHERS = ("observer",)

    def test_what_the_lead_sends_decodes_to_what_was_pushed(self):
        tree.small(self.content, small_files=5)
        self.start_nodes()
        captured = capture_push(self, self.net.others["observer"])
        for channel, datagrams in captured.items():
            for datagram in datagrams:
                self.assertLessEqual(len(datagram), wire.PACKET_MAX)
                self.assertEqual(reencoded(datagram, channel), datagram)
        self.check_control([wire.decode_ctrl(d) for d in captured["ctrl"]])
        self.check_data([wire.decode_data(d) for d in captured["data"]])

    def check_control(self, messages):
        lead = wire.address(self.net.lead.address)
        self.assertEqual({h["node_ip"] for h, _ in messages}, {lead})
        self.assertEqual({h["msg_id"] for h, _ in messages}, {wire.PING, wire.CTRL, wire.ACK})
        # What it asks before it leads: whether another one does.
        self.assertEqual([h["sequence"] for h, _ in messages if h["msg_id"] == wire.ACK], [0] * 3)
        pings = [h["sequence"] for h, _ in messages if h["msg_id"] == wire.PING]
        self.assertEqual(pings, sorted(pings))
        parts = {}
        for header, body in messages:
            # What the programs say to each other is a message like any other.
            if header["msg_id"] == wire.CTRL and body["msg_class"] != PROGRAM_CLASS:
                self.assertEqual(body["msg_class"], wire.CLASS_FILE_SEND)
                place = parts.setdefault(header["sequence"], bytearray(body["total_size"]))
                at = header.get("segment", 0) * body["segment_size"]
                place[at:at + len(body["data"])] = body["data"]
        orders = [wire.decode("file_send", bytes(parts[sequence])) for sequence in sorted(parts)]
        deletes = [one for one in orders if one["operation"] == wire.DELETE]
        lists = [one for one in orders if one["operation"] == wire.LIST]
        # What is no directory makes room for those of the tree, before anything is announced.
        self.assertEqual(orders, deletes + lists)
        directories = {os.path.join(*name.split("/")[:depth]) for name in lab.manifest(self.content)
                       for depth in range(1, name.count("/") + 1)}
        self.assertEqual({name for one in deletes for name in one["names"]}, directories)
        self.assertEqual({one["location"] for one in deletes}, {1})
        names = [name for one in lists for name in one["names"]]
        self.assertEqual(sorted(names), sorted(lab.manifest(self.content)))
        for one in lists:
            self.assertEqual((one["type"], one["location"], one["priority"]), (1, 1, 2))

    def check_data(self, messages):
        manifest = lab.manifest(self.content)
        infos = {b["name"]: b for h, b in messages if h["msg_id"] == wire.FILE_INFO}
        self.assertEqual(infos.keys(), manifest.keys())
        contents = {}
        for header, body in messages:
            if header["msg_id"] == wire.SEGMENT:
                contents.setdefault(body["file_id"], {})[body["segment"]] = body["data"]
        for name, entry in manifest.items():
            info = infos[name]
            data = b"".join(part for _, part in sorted(contents[info["file_id"]].items()))
            self.assertEqual((info["status"], info["location"]), (0, 1))
            self.assertEqual(info["size"], len(data))
            if entry[0] == "link":
                self.assertEqual((info["symlink"], data), (1, entry[1].encode()))
            else:
                _, mode, mtime, size, _ = entry
                self.assertEqual((info["symlink"], info["mode"], info["mtime"], info["size"]),
                                 (0, mode, mtime, size))

    def test_what_a_node_sends_decodes_to_what_it_should_say(self):
        node, = self.net.nodes
        ip = wire.address(node.address)
        with ScriptedLead(self.net.lead) as lead:
            process = self.start_node(node, "--node-id", "7/8/9", "--card-class", "13")
            lead.wait_for_node(node)
            own = {"node_ip": ip, "pid": process.pid, "card_class": 13, "node_id": 0x070809}
            self.check_control_answers(lead, own)
            self.check_requests(lead, ip)

    def check_control_answers(self, lead, own):
        lead.forget_answers()
        lead.ping(status=0x0123456789ABCDEF)
        self.assertEqual(lead.wait_for_control(wire.PING_REPLY),
                         {**own, "msg_id": wire.PING_REPLY, "sequence": lead.sequence,
                          "status": 0x0123456789ABCDEF})
        lead.file_send(wire.LIST, ["file", "never sent"])
        self.assertEqual(lead.wait_for_control(wire.ACK),
                         {**own, "msg_id": wire.ACK, "sequence": lead.sequence,
                          "ack_sequence": lead.sequence - 1})
        lead.sequence += 1  # a message that is lost
        lost = lead.sequence
        lead.file_send(wire.LIST, [])
        self.assertEqual(lead.wait_for_control(wire.NACK),
                         {**own, "msg_id": wire.NACK, "sequence": lost, "ack_sequence": lost - 1})

    def check_requests(self, lead, ip):
        data = tree.content("file", 5 * tree.SEGMENT + 1)
        parts = [data[at:at + tree.SEGMENT] for at in range(0, len(data), tree.SEGMENT)]
        lead.file_info(77, "file", len(data))
        for i in (0, 1, 4):
            lead.segment(77, i, parts[i])
        self.assertEqual(lead.wait_for_data(wire.REQ_SINGLE),
                         {"file_id": 77, "segment": 2, "num": 2})
        lead.miss_done(77, "file")
        self.assertEqual(lead.report_of("file"), IN_PROGRESS)
        lead.forget_answers()
        for i in (2, 3, 5):
            lead.segment(77, i, parts[i], repair=1)
        self.assertEqual(lead.wait_for_data(wire.REQ_DONE),
                         {"file_id": 77, "status": 0, "name": "file", "location": 1})
        self.assertEqual(lead.wait_for_data(wire.FILE_REQ),
                         {"type": 1, "location": 1, "priority": 2, "name": "never sent"})
        self.assertEqual({h["node_ip"] for h, _ in lead.data_answers}, {ip})
