"""The wire structures, encoded and decoded a second time, independently of the programs under test.

Each structure is one table of fields in their order on the wire. A structure is written as a
big-endian 32-bit mask (bit n: field n is present) and then the present fields, without padding.
Messages are dictionaries that hold the present fields only.

    datagram = encode_datagram("data_hdr", {"msg_id": FILE_INFO, "node_ip": 0},
                               "file_info", {"file_id": 1, "name": "a", ...})
    header, body = decode_data(datagram)

Numbers are masked to their width when encoded, so that tests can write -1 for "all ones".
"""

import ipaddress
import struct


class WireError(ValueError):
    """A structure that cannot be decoded; the text says what is wrong."""


# --- Kinds of fields ---


class Number:
    def __init__(self, code, signed=False):
        self.format = ">" + code
        self.size = struct.calcsize(self.format)
        self.signed = signed

    def encode(self, value):
        return (value & ((1 << 8 * self.size) - 1)).to_bytes(self.size, "big")

    def decode(self, reader):
        return int.from_bytes(reader.take(self.size), "big", signed=self.signed)


class Counted:
    """A length or count, then that many bytes or elements."""

    def __init__(self, count, element=None, text=False):
        self.count, self.element, self.text = count, element, text

    def encode(self, value):
        if self.text and isinstance(value, str):
            value = value.encode(errors="surrogateescape")
        if self.element is None:
            return self.count.encode(len(value)) + bytes(value)
        return self.count.encode(len(value)) + b"".join(self.element.encode(v) for v in value)

    def decode(self, reader):
        count = self.count.decode(reader)
        if self.element is not None:
            return [self.element.decode(reader) for _ in range(count)]
        value = reader.take(count)
        if not self.text:
            return value
        if b"\0" in value:
            raise WireError("a zero byte inside a string")
        return value.decode(errors="surrogateescape")


U8, U16, U32, U64 = Number("B"), Number("H"), Number("I"), Number("Q")
S32 = Number("i", signed=True)
STRING = Counted(U16, text=True)
BYTES = Counted(U32)
ADDRESSES = Counted(U16, U32)
STRINGS = Counted(U16, STRING)

# --- The structures ---

STRUCTURES = {
    "ctrl_hdr": [("msg_id", U32), ("node_ip", U32), ("pid", U32), ("sequence", U32),
                 ("card_class", U32), ("segment", U32), ("unicast", S32), ("status", U64),
                 ("node_id", U32), ("ack_sequence", U32)],
    "ctrl_msg": [("msg_class", U32), ("node_list", ADDRESSES), ("total_size", U32),
                 ("segment_size", U32), ("rxmt", U32), ("data", BYTES)],
    "data_hdr": [("msg_id", U32), ("node_ip", U32)],
    "send_req": [("type", U32), ("location", U32), ("priority", U32), ("name", STRING)],
    "req_single": [("file_id", U32), ("segment", U32), ("num", U32)],
    "req_done": [("file_id", U32), ("status", U64), ("name", STRING), ("location", U32)],
    "file_info": [("file_id", U32), ("name", STRING), ("size", U32), ("segment_size", U32),
                  ("status", U64), ("mode", U32), ("mtime", U32), ("node_list", ADDRESSES),
                  ("symlink", U8), ("location", U32)],
    "segment": [("file_id", U32), ("segment", U32), ("repair", U8), ("data", BYTES)],
    "miss_done": [("file_id", U32), ("name", STRING), ("node_list", ADDRESSES), ("location", U32)],
    "file_send": [("operation", U32), ("xact_id", U32), ("type", U32), ("location", U32),
                  ("priority", U32), ("names", STRINGS)],
}

# Kinds of control datagrams.
PING, PING_REPLY, CTRL, ACK, NACK = 1, 2, 3, 4, 5
# Kinds of data datagrams.
FILE_REQ, REQ_SINGLE, REQ_DONE, FILE_INFO, SEGMENT, MISS_DONE = 1, 2, 3, 4, 5, 6
DATA_BODIES = {FILE_REQ: "send_req", REQ_SINGLE: "req_single", REQ_DONE: "req_done",
               FILE_INFO: "file_info", SEGMENT: "segment", MISS_DONE: "miss_done"}
# Operations of a file_send.
LIST, CANCEL, DELETE = 1, 2, 3
# The message class that carries file_send.
CLASS_FILE_SEND = 1
# Card classes: everybody, and those of a list.
EVERYBODY, LISTED = 3, 4
PACKET_MAX = 1472

# --- Encoding and decoding ---


class _Reader:
    def __init__(self, data):
        self.data, self.at = data, 0

    def take(self, size):
        if size > len(self.data) - self.at:
            raise WireError(f"{size} bytes wanted, {len(self.data) - self.at} left")
        self.at += size
        return self.data[self.at - size:self.at]


def encode(name, message):
    unknown = message.keys() - {field for field, _ in STRUCTURES[name]}
    if unknown:
        raise WireError(f"{name} has no field {', '.join(sorted(unknown))}")
    mask, parts = 0, []
    for bit, (field, kind) in enumerate(STRUCTURES[name]):
        if field in message:
            mask |= 1 << bit
            parts.append(kind.encode(message[field]))
    return U32.encode(mask) + b"".join(parts)


def decode(name, data):
    reader, message = _Reader(data), {}
    mask = U32.decode(reader)
    if mask >> len(STRUCTURES[name]):
        raise WireError(f"mask {mask:#x} names fields that {name} does not have")
    for bit, (field, kind) in enumerate(STRUCTURES[name]):
        if mask >> bit & 1:
            message[field] = kind.decode(reader)
    if reader.at != len(data):
        raise WireError(f"{len(data) - reader.at} bytes behind {name}")
    return message


def frame(header, body=b""):
    return U32.encode(len(header)) + header + body


def split(datagram):
    reader = _Reader(datagram)
    header = reader.take(U32.decode(reader))
    return header, datagram[reader.at:]


def encode_datagram(header_name, header, body_name=None, body=None):
    encoded = encode(body_name, body) if body_name else b""
    return frame(encode(header_name, header), encoded)


def encode_data(msg_id, node_ip, body):
    return encode_datagram("data_hdr", {"msg_id": msg_id, "node_ip": node_ip},
                           DATA_BODIES[msg_id], body)


def decode_ctrl(datagram):
    """Header and body of a control datagram; the body is None unless it is a message."""
    header, body = split(datagram)
    fields = decode("ctrl_hdr", header)
    if fields.get("msg_id") == CTRL:
        return fields, decode("ctrl_msg", body)
    if body:
        raise WireError(f"{len(body)} bytes behind the header of a datagram that has no body")
    return fields, None


def decode_data(datagram):
    header, body = split(datagram)
    fields = decode("data_hdr", header)
    if fields.get("msg_id") not in DATA_BODIES:
        raise WireError(f"no data message has the number {fields.get('msg_id')}")
    return fields, decode(DATA_BODIES[fields["msg_id"]], body)


def address(text):
    """An address as the messages carry it."""
    return int(ipaddress.IPv4Address(text))
