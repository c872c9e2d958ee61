"""Properties of a host's link in the laboratory, and what the kernel counts there.

A switch port is the bridge's end of a node's link: a queue set there delays and drops what travels
to that node, without pushing back on the sender, as a switch does.
"""

import json
import subprocess


def send_single_datagrams(host):
    """Cuts the sender's batches into datagrams on its link, as most network cards do. Without this a
    virtual link carries a batch as one packet, and what drops a packet drops the whole batch."""
    _run(host.prefix, "ethtool", "-K", "eth0", "gso", "off", "tso", "off",
         "tx-udp-segmentation", "off")


def limit_port(host, rate, buffer):
    """A switch port towards this host: `rate` as tc writes it, a buffer of so many bytes."""
    _run([], "tc", "qdisc", "add", "dev", host.port, "root", "tbf", "rate", rate,
         "burst", "16kb", "limit", str(buffer))


def limit_sending(host, rate):
    """A link of this rate for what this host sends: the sender waits, nothing is dropped."""
    _run(host.prefix, "tc", "qdisc", "add", "dev", "eth0", "root", "tbf", "rate", rate,
         "burst", "64kb", "latency", "1s")


def delay(host, milliseconds):
    """Holds back what this host sends."""
    _run(host.prefix, "tc", "qdisc", "add", "dev", "eth0", "root", "netem",
         "delay", f"{milliseconds}ms", "limit", "100000")


def can_delay():
    """Whether this kernel has the queue that delays."""
    probe = subprocess.run(["tc", "qdisc", "add", "dev", "lo", "root", "netem", "delay", "1ms"],
                           capture_output=True)
    if probe.returncode == 0:
        _run([], "tc", "qdisc", "delete", "dev", "lo", "root")
    return probe.returncode == 0


def port_drops(host):
    """Packets that the switch port towards this host has dropped."""
    text = _run([], "tc", "-s", "-j", "qdisc", "show", "dev", host.port)
    return sum(queue.get("drops", 0) for queue in json.loads(text))


def socket_drops(host):
    """Datagrams that arrived at this host and found the receive buffer of their socket full."""
    rows = [line.split() for line in _run(host.prefix, "cat", "/proc/net/snmp").splitlines()
            if line.startswith("Udp:")]
    return int(dict(zip(*rows))["RcvbufErrors"])


def sent_bytes(host):
    return _interface_count(host, 8)


def received_packets(host):
    return _interface_count(host, 1)


def _interface_count(host, column):
    text = _run(host.prefix, "cat", "/proc/net/dev")
    line = next(line for line in text.splitlines() if line.strip().startswith("eth0:"))
    return int(line.split(":")[1].split()[column])


def _run(prefix, *command):
    result = subprocess.run([*prefix, *command], capture_output=True, text=True)
    if result.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: exit status {result.returncode}: "
                           f"{result.stderr.strip()}")
    return result.stdout
