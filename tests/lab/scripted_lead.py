"""A lead that does exactly what a test tells it, on the real sockets of a host.

It keeps no state of transfers: the test announces, sends segments in the order and with the
contents it likes, and looks at what the nodes answer.
"""

import select
import time

import wire

CTRL_GROUP = ("239.255.71.1", 7100)
DATA_GROUP = ("239.255.71.2", 7101)
LEAD_PORT, NODE_PORT, REQUEST_PORT = 7102, 7103, 7104
# Bytes of a control message's segment: header and body of one datagram stay below the limit.
CTRL_SEGMENT = 1300


class ScriptedLead:
    def __init__(self, host, pid=4711, sequence=1000):
        self.host = host
        self.ip = wire.address(host.address)
        self.pid = pid
        self.sequence = sequence  # of the last control message
        self.control = host.socket(LEAD_PORT)
        self.requests = host.socket(REQUEST_PORT)
        # (header, body) of everything that nodes sent, oldest first.
        self.control_answers = []
        self.data_answers = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.control.close()
        self.requests.close()

    # --- Raw datagrams ---

    def send_control(self, datagram, node=None):
        self.control.sendto(datagram, (node.address, NODE_PORT) if node else CTRL_GROUP)

    def send_data(self, datagram):
        self.requests.sendto(datagram, DATA_GROUP)

    # --- Messages ---

    def header(self, **fields):
        return {"node_ip": self.ip, "pid": self.pid, **fields}

    def ping(self, **fields):
        self.send_control(wire.encode_datagram(
            "ctrl_hdr", self.header(msg_id=wire.PING, sequence=self.sequence, **fields)))

    def message_datagrams(self, payload, msg_class=wire.CLASS_FILE_SEND, **body_fields):
        """The datagrams of the next control message, in order."""
        self.sequence += 1
        parts = [payload[i:i + CTRL_SEGMENT] for i in range(0, len(payload), CTRL_SEGMENT)] or [b""]
        return [wire.encode_datagram(
            "ctrl_hdr", self.header(msg_id=wire.CTRL, sequence=self.sequence,
                                    card_class=wire.EVERYBODY, segment=i),
            "ctrl_msg", {"msg_class": msg_class, "total_size": len(payload),
                         "segment_size": CTRL_SEGMENT, "data": part, **body_fields})
                for i, part in enumerate(parts)]

    def message(self, payload, **fields):
        for datagram in self.message_datagrams(payload, **fields):
            self.send_control(datagram)

    def file_send(self, operation, names, xact=1, type=1, location=1, priority=2):
        """A list of files to come, or to delete."""
        self.message(wire.encode("file_send", {
            "operation": operation, "xact_id": xact, "type": type, "location": location,
            "priority": priority, "names": names}))

    def file_info(self, file_id, name, size, segment_size=1400, **fields):
        self.send_data(wire.encode_data(wire.FILE_INFO, self.ip, {
            "file_id": file_id, "name": name, "size": size, "segment_size": segment_size,
            "status": 0, "mode": 0o644, "mtime": 1_000_000_000, "node_list": [], "symlink": 0,
            "location": 1, **fields}))

    def segment(self, file_id, segment, data, **fields):
        self.send_data(wire.encode_data(wire.SEGMENT, self.ip, {
            "file_id": file_id, "segment": segment, "data": data, **fields}))

    def miss_done(self, file_id, name, location=1, node_list=()):
        self.send_data(wire.encode_data(wire.MISS_DONE, self.ip, {
            "file_id": file_id, "name": name, "node_list": list(node_list), "location": location}))

    def whole_file(self, file_id, name, content, segment_size=1400, **fields):
        """Announces a file and sends every segment once."""
        self.file_info(file_id, name, len(content), segment_size, **fields)
        for i in range(max(1, -(-len(content) // segment_size))):
            self.segment(file_id, i, content[i * segment_size:(i + 1) * segment_size])

    # --- What nodes say ---

    def receive(self, seconds=0.0):
        """Takes in what has arrived, waiting up to `seconds` for the first datagram."""
        ready, _, _ = select.select([self.control, self.requests], [], [], seconds)
        while ready:
            for one in ready:
                datagram = one.recv(65536)
                if one is self.control:
                    self.control_answers.append(wire.decode_ctrl(datagram))
                else:
                    self.data_answers.append(wire.decode_data(datagram))
            ready, _, _ = select.select([self.control, self.requests], [], [], 0)

    def forget_answers(self):
        self.receive()
        self.control_answers.clear()
        self.data_answers.clear()

    def wait_for_control(self, kind, seconds=10.0, meanwhile=None, every=0.2, **fields):
        """The first control answer of this kind whose header has these fields; see _wait."""
        return self._wait(self.control_answers, kind, lambda header, _: header, fields, seconds,
                          meanwhile, every)[0]

    def wait_for_data(self, kind, seconds=10.0, meanwhile=None, every=0.2, **fields):
        """The first data answer of this kind whose body has these fields; see _wait."""
        return self._wait(self.data_answers, kind, lambda _, body: body, fields, seconds,
                          meanwhile, every)[1]

    def _wait(self, answers, kind, part, fields, seconds, meanwhile, every):
        """Old answers count. `meanwhile` is called at once and then periodically: what gets lost is
        said again."""
        end = time.monotonic() + seconds
        seen, next_call = 0, 0.0
        while True:
            for header, body in answers[seen:]:
                if header["msg_id"] == kind and fields.items() <= part(header, body).items():
                    return header, body
            seen = len(answers)
            now = time.monotonic()
            if now > end:
                raise AssertionError(f"no answer {kind} with {fields} within {seconds} s; the last "
                                     f"were {answers[-5:]}")
            if meanwhile and now >= next_call:
                meanwhile()
                next_call = now + every
            self.receive(min(every, end - now + 0.01))

    def wait_for_node(self, node, seconds=10.0):
        """Pings until the node answers with where this lead stands: it has been adopted. Its threads
        answer before its program takes lists of files; then it introduces itself."""
        source = wire.address(node.address)
        self.wait_for_control(wire.PING_REPLY, seconds, self.ping, node_ip=source,
                              sequence=self.sequence)
        self.wait_for_control(wire.CTRL, seconds, node_ip=source)

    def report_of(self, name, seconds=10.0, meanwhile=None):
        """The status that a node reports for a file."""
        return self.wait_for_data(wire.REQ_DONE, seconds, meanwhile, name=name)["status"]
