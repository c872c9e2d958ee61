"""What is measured: the cells of the table, each a content and a network.

    large           one large file, to one and three nodes, with and without loss
    small           many small files, the same
    tiny            one file of 1 kB to three nodes: what a push costs that has nothing to carry
    default-socket  the large file to one node with the kernel's default limit of a receive buffer
    small-switch    the large file through a switch port of 300 Mbit/s with a buffer of 100 kB
    slow-node       a file of an eighth of the size; of three nodes, one has a slow switch port. With
                    two nodes its host is on the network and takes no part, for comparison
    delay           the large file with 20 ms each way
    batches         the large file; what is dropped are the sender's whole batches, not datagrams
"""

import dataclasses
import os
import subprocess

import lab
import links

DEFAULT_LIMIT_BYTES = 212992  # net.core.rmem_max of a kernel that nobody has configured
SWITCH_RATE = "300mbit"
SWITCH_BUFFER_BYTES = 100_000
DELAY_MILLISECONDS = 20
SLOW_NODE = 2                 # index; pushes to fewer nodes leave it out
WITHOUT_PRIVILEGE = ("setpriv", "--bounding-set", "-net_admin", "--inh-caps", "-net_admin")


@dataclasses.dataclass
class Cell:
    name: str
    content: str                 # large, small, tiny, eighth
    nodes: tuple
    loss: tuple                  # percent
    batches: bool = False        # datagrams are lost in whole batches
    default_socket: bool = False
    small_switch: bool = False
    slow_node: bool = False
    delay: bool = False

    def arrange(self, net, loss, options):
        """Gives a fresh laboratory this cell's network."""
        for host in net.hosts():
            # One of the peers sends to groups of its own choice, by the default route.
            host.run(["ip", "route", "add", "default", "dev", "eth0"], check=True)
            host.lose(loss)
        if options.lead_loss is not None and loss:
            net.lead.lose(options.lead_loss)
        if not (self.batches or options.batches):
            links.send_single_datagrams(net.lead)
        for number, host in enumerate(net.nodes):
            if self.small_switch:
                links.limit_port(host, SWITCH_RATE, SWITCH_BUFFER_BYTES)
            if self.slow_node and number == SLOW_NODE:
                links.limit_port(host, options.slow_rate, SWITCH_BUFFER_BYTES)
        for host in net.hosts() if self.delay else []:
            links.delay(host, DELAY_MILLISECONDS)

    def hosts(self, count):
        """On the network, beside the lead's, where so many are nodes."""
        return max(count, SLOW_NODE + 1) if self.slow_node else count

    def obstacle(self, options):
        """Why it cannot be made here, or None."""
        if self.delay and not links.can_delay():
            return "this kernel has no netem queue"
        if self.default_socket and not options.limit_sockets and \
                socket_limit() != DEFAULT_LIMIT_BYTES:
            return (f"net.core.rmem_max is {socket_limit()} here; --limit-sockets sets it to "
                    f"{DEFAULT_LIMIT_BYTES} for the whole machine during the runs")
        return None


CELLS = {cell.name: cell for cell in (
    Cell("large", "large", (1, 3), (0, 1, 5)),
    Cell("small", "small", (1, 3), (0, 1, 5)),
    Cell("tiny", "tiny", (3,), (0,)),
    Cell("default-socket", "large", (1,), (0,), default_socket=True),
    Cell("small-switch", "large", (1, 3), (0,), small_switch=True),
    Cell("slow-node", "eighth", (2, 3), (0,), slow_node=True),
    Cell("delay", "large", (1, 3), (0,), delay=True),
    Cell("batches", "large", (1, 3), (0, 1, 5), batches=True),
)}


def socket_limit():
    with open("/proc/sys/net/core/rmem_max", encoding="ascii") as file:
        return int(file.read())


class DefaultSocketLimit:
    """While entered, the machine's limit of receive buffers is the kernel's default. The limit cannot
    be changed for one network namespace, so it is set where this program was started from."""

    def __init__(self, wanted):
        self.before = socket_limit()
        self.change = wanted and self.before != DEFAULT_LIMIT_BYTES

    def __enter__(self):
        if self.change:
            self._set(DEFAULT_LIMIT_BYTES)
            if socket_limit() != DEFAULT_LIMIT_BYTES:
                raise RuntimeError("net.core.rmem_max has not changed here")

    def __exit__(self, *_):
        if self.change:
            self._set(self.before)

    @staticmethod
    def _set(value):
        subprocess.run(["nsenter", f"--net=/proc/{os.getppid()}/ns/net", "sysctl", "-q", "-w",
                        f"net.core.rmem_max={value}"], check=True)


class Content:
    """Files to be sent: below `root`, `bytes` together."""

    def __init__(self, kind, work, options):
        self.root = os.path.join(work, "content")
        os.makedirs(self.root)
        if kind == "small":
            self.name = f"{options.files:,} x {options.small:,} B"
            self._make_small(options.files, options.small)
        else:
            size = {"large": options.megabytes << 20, "eighth": options.megabytes << 17, "tiny": 1000}
            self.name = f"{size[kind] / (1 << 20):g} MiB" if kind != "tiny" else "1 kB"
            self._make_one(size[kind])
        self.entries = lab.manifest(self.root)
        self.bytes = sum(entry[3] for entry in self.entries.values())
        self.single = None if kind == "small" else "file"

    def _make_one(self, size):
        block = os.urandom(1 << 20)
        with open(os.path.join(self.root, "file"), "wb") as file:
            for i in range(0, size, len(block)):
                turn = (i >> 20) % 997  # no two blocks are the same
                file.write((block[turn:] + block[:turn])[:size - i])

    def _make_small(self, files, size):
        block = os.urandom(size * 2)
        for i in range(files):
            directory = os.path.join(self.root, f"{i // 100:03}")
            os.makedirs(directory, exist_ok=True)
            with open(os.path.join(directory, f"{i:06}"), "wb") as file:
                file.write(block[i % size:i % size + size])


class Case:
    """One run of one program: its hosts, its content, and a place for what each node receives."""

    def __init__(self, cell, net, count, content, work, options):
        self.lead, self.nodes = net.lead, net.nodes[:count]
        self.root, self.bytes, self.single = content.root, content.bytes, content.single
        self.entries, self.work, self.limit = content.entries, work, options.limit
        self.started = None  # when the sender's command was
        self.wrapper = WITHOUT_PRIVILEGE if cell.default_socket else ()
        self.directories = [os.path.join(work, host.name) for host in self.nodes]
        for directory in self.directories:
            os.makedirs(directory)

    def identical(self):
        """Names and content, which all programs keep."""
        expected = _names_and_content(self.entries)
        return all(_names_and_content(lab.manifest(d)) == expected for d in self.directories)

    def has_whole_file(self, node):
        """Whether this node's file is there with all its bytes; only of content that is one file."""
        try:
            info = os.stat(os.path.join(self.directories[node], self.single))
        except FileNotFoundError:
            return False
        return info.st_size == self.bytes and info.st_blocks * 512 >= self.bytes

    def clean(self):
        for directory in self.directories:
            lab.remove(directory)


def _names_and_content(entries):
    return {name: (entry[0], entry[-1]) for name, entry in entries.items()}
