"""Datagrams that no honest program sends; always the same ones for the same seed.

Everything here is either undecodable or carries the given sender's address in its header, so that a
receiver which takes it for an honest message has a fault. Messages that only harm because a test
forges their sender are made by the tests.
"""

import random

import wire

EXTREMES = (0, 1, 2, 0x7F, 0xFF, 0x7FFF, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF)


def random_bytes(seed, count):
    """Bytes of every length up to more than a receiver takes."""
    generator = random.Random(seed)
    for i in range(count):
        size = i if i < 64 else generator.choice((generator.randrange(64), 1472, 1473, 4000,
                                                  generator.randrange(1473)))
        yield generator.randbytes(size)


def wrong_lengths(header, body):
    """An encoded header and body under every wrong length of the header."""
    for length in {*EXTREMES, len(header) - 1, len(header) + 1, len(header) + len(body),
                   len(header) + len(body) + 1}:
        if length != len(header):
            yield wire.U32.encode(length) + header + body


def cuts(datagram):
    """Everything shorter by cutting, and a byte too much."""
    for size in range(len(datagram)):
        yield datagram[:size]
    yield datagram + b"\0"


def wrong_counts(structure, message):
    """The structure with absurd counts and lengths in place of the right ones."""
    for field, kind in wire.STRUCTURES[structure]:
        if not isinstance(kind, wire.Counted) or field not in message:
            continue
        right = kind.encode(message[field])
        for count in EXTREMES:
            wrong = kind.count.encode(count) + right[kind.count.size:]
            if wrong != right:
                yield wire.encode(structure, message).replace(right, wrong, 1)


def wrong_masks(encoded, fields):
    """Presence masks that name fields which do not exist, or which are not there."""
    for bit in range(fields, 32):
        mask = int.from_bytes(encoded[:4], "big") | 1 << bit
        yield wire.U32.encode(mask) + encoded[4:]
    yield wire.U32.encode(-1) + encoded[4:]


def malformed(header_name, header, body_name, body):
    """Every kind of damage to one message."""
    encoded_header = wire.encode(header_name, header)
    encoded_body = wire.encode(body_name, body)
    yield from cuts(wire.frame(encoded_header, encoded_body))
    yield from wrong_lengths(encoded_header, encoded_body)
    for wrong in wrong_masks(encoded_header, len(wire.STRUCTURES[header_name])):
        yield wire.frame(wrong, encoded_body)
    for wrong in wrong_masks(encoded_body, len(wire.STRUCTURES[body_name])):
        yield wire.frame(encoded_header, wrong)
    for wrong in wrong_counts(body_name, body):
        yield wire.frame(encoded_header, wrong)
    for msg_id in EXTREMES:
        if msg_id > 6:
            yield wire.frame(wire.encode(header_name, {**header, "msg_id": msg_id}), encoded_body)


def data_messages(sender):
    """One well-formed message of every kind that travels on the data channel."""
    return {
        wire.FILE_REQ: {"type": 1, "location": 1, "priority": 1, "name": "no such file"},
        wire.REQ_SINGLE: {"file_id": 1, "segment": 0, "num": 1},
        wire.REQ_DONE: {"file_id": 1, "status": 0, "name": "no such file", "location": 1},
        wire.FILE_INFO: {"file_id": 1, "name": "no such file", "size": 10, "segment_size": 1400,
                         "status": 0, "mode": 0o644, "mtime": 1, "node_list": [sender],
                         "symlink": 0, "location": 1},
        wire.SEGMENT: {"file_id": 1, "segment": 0, "data": b"x" * 100},
        wire.MISS_DONE: {"file_id": 1, "name": "no such file", "node_list": [sender],
                         "location": 1},
    }


def malformed_data(sender):
    for msg_id, body in data_messages(sender).items():
        header = {"msg_id": msg_id, "node_ip": sender}
        yield from malformed("data_hdr", header, wire.DATA_BODIES[msg_id], body)


def malformed_control(sender, pid):
    body = {"msg_class": 2, "node_list": [sender, sender], "total_size": 10, "segment_size": 1390,
            "rxmt": 0, "data": b"0123456789"}
    for msg_id in (wire.CTRL, wire.PING_REPLY):
        header = {"msg_id": msg_id, "node_ip": sender, "pid": pid, "sequence": 5,
                  "card_class": 3, "segment": 0}
        yield from malformed("ctrl_hdr", header, "ctrl_msg", body)
