"""A host that writes any source address into its datagrams, and hears the lead's pings to answer them."""

import socket
import struct

import wire
from scripted_lead import CTRL_GROUP, LEAD_PORT, REQUEST_PORT


class Forger:
    """Sends to one lead, in the name of whichever nodes a test likes. Needs privileges in its namespace."""

    SOURCE_PORT = 40000

    def __init__(self, host, lead):
        self.host, self.lead = host, lead
        self.raw = host.raw_socket()
        self.pings = host.group_socket(*CTRL_GROUP)
        self.pings.settimeout(20)

    def close(self):
        self.raw.close()
        self.pings.close()

    def to_control(self, source, datagram):
        self._send(source, LEAD_PORT, datagram)

    def to_requests(self, source, datagram):
        self._send(source, REQUEST_PORT, datagram)

    def _send(self, source, port, payload):
        total = 20 + 8 + len(payload)
        # The kernel fills in identification and checksum of the first header; the second needs none.
        ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, total, 0, 0, 64, socket.IPPROTO_UDP, 0,
                         socket.inet_aton(source), socket.inet_aton(self.lead.address))
        udp = struct.pack("!HHHH", self.SOURCE_PORT, port, 8 + len(payload), 0)
        self.raw.sendto(ip + udp + payload, (self.lead.address, 0))

    def ping(self):
        """The latest ping of the lead; waits for one."""
        self.latest_ping()
        return self._next_ping()

    def latest_ping(self):
        """The last ping of the lead that has come and was not read yet, None without one."""
        latest = None
        self.pings.setblocking(False)
        try:
            while True:
                latest = self._next_ping()
        except BlockingIOError:
            pass
        self.pings.settimeout(20)
        return latest

    def _next_ping(self):
        while True:
            header, _ = wire.decode_ctrl(self.pings.recv(2000))
            if header["msg_id"] == wire.PING and header["node_ip"] == wire.address(self.lead.address):
                return header

    def answer(self, source, ping, pid, sequence=None, **fields):
        """An answer to the ping, as a node at this address would give it."""
        self.to_control(source, wire.encode_datagram("ctrl_hdr", {
            "msg_id": wire.PING_REPLY, "node_ip": wire.address(source), "pid": pid,
            "sequence": ping["sequence"] if sequence is None else sequence,
            "status": ping["status"], **fields}))
