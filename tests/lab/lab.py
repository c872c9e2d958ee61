"""The laboratory: several hosts on one machine, in network namespaces on a bridge, with loss.

One host is the lead, the others are nodes, each with an address of its own and its own network
stack; what a host loses is dropped by an nftables rule on its input. Everything lives in namespaces
that this process makes for itself (user, network, mount), so nothing of the machine's own network is
touched and everything is gone when the process ends.

    lab.enter()                      # re-executes this program inside its own namespaces
    with lab.Lab(nodes=3) as net:
        net.nodes[0].lose(5.0)
        net.nodes[0].spawn([...])
        net.lead.run([...])
"""

import ctypes
import hashlib
import json
import os
import shutil
import signal
import socket
import stat
import subprocess
import sys
import tempfile
import threading
import time

MARK = "PKGDIST_LAB"
SUBNET = "10.71.0"
BRIDGE = "br0"


def available():
    """Whether this system lets us make namespaces, with a bridge and packet filter in them."""
    probe = ("mount -t tmpfs lab /run && mkdir /run/netns && ip link add br0 type bridge && "
             "ip netns add probe && ip netns exec probe nft add table ip t")
    return subprocess.run(_unshare() + ["sh", "-c", probe], capture_output=True).returncode == 0


def _unshare():
    return ["unshare", "--net", "--mount"] + ([] if os.geteuid() == 0 else ["--user", "--map-root-user"])


def enter():
    """Continues inside namespaces of our own; returns at once when already there."""
    if os.environ.get(MARK):
        return
    os.environ[MARK] = "1"
    os.execvp("unshare", _unshare() + [sys.executable] + sys.argv)


def _sh(*command):
    result = subprocess.run(command, capture_output=True, text=True)
    if result.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: exit status {result.returncode}: {result.stderr.strip()}")


def _delete(*command):
    """For what may not be there: a laboratory that was built in part is taken down like a whole one."""
    subprocess.run(command, capture_output=True)


class Loopback:
    """An address of this machine's loopback network, for where namespaces are forbidden."""

    prefix = []

    def __init__(self, address):
        self.name = self.address = address
        self.processes = []

    def spawn(self, command, **options):
        process = subprocess.Popen([*self.prefix, *command], **options)
        self.processes.append(process)
        return process

    def run(self, command, **options):
        return subprocess.run([*self.prefix, *command], **options)

    def stop_all(self):
        for process in self.processes:
            if process.poll() is None:
                process.send_signal(signal.SIGTERM)
        for process in self.processes:
            try:
                process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()


class Host(Loopback):
    """One host: a network namespace with an interface on the bridge."""

    def __init__(self, name, number):
        super().__init__(f"{SUBNET}.{number}")
        self.name = name
        self.port = f"{name}-br"
        self.prefix = ["ip", "netns", "exec", name]

    def plug_in(self):
        _sh("ip", "netns", "add", self.name)
        self._exec("ip", "link", "set", "lo", "up")
        self.add_interface()

    def unplug(self):
        # The link goes first, and by name: with its namespace it would go some time later, when the
        # kernel gets round to it, and the next laboratory would find its name taken.
        _delete("ip", "link", "delete", self.port)
        _delete("ip", "netns", "delete", self.name)

    def _exec(self, *command):
        _sh(*self.prefix, *command)

    # --- The interface eth0 ---

    def add_interface(self):
        """With a number that no interface of this host had before."""
        _sh("ip", "link", "add", self.port, "type", "veth", "peer", "name", "eth0", "netns", self.name)
        _sh("ip", "link", "set", self.port, "master", BRIDGE, "up")
        self.change_address("add", self.address)
        self.set_interface("up")

    def remove_interface(self):
        _sh("ip", "link", "delete", self.port)

    def restore_interface(self):
        """Whether there is one or not."""
        _delete("ip", "link", "delete", self.port)
        self.add_interface()

    def set_interface(self, state):
        """"up" or "down"."""
        self._exec("ip", "link", "set", "eth0", state)

    def change_address(self, what, address):
        """`what`: "add" or "delete"."""
        self._exec("ip", "address", what, f"{address}/24", "dev", "eth0")

    def socket(self, port=0, address=None):
        """A UDP socket of this host, in this process; bound, sending multicast from its interface."""
        return _in_namespace(f"/run/netns/{self.name}", lambda: self._open_socket(port, address))

    def _open_socket(self, port, address):
        own = socket.inet_aton(self.address)
        result = socket.socket(socket.AF_INET, socket.SOCK_DGRAM | socket.SOCK_CLOEXEC)
        result.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        result.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, own)
        result.bind((address or self.address, port))
        return result

    def raw_socket(self):
        """A socket that takes whole IP packets, whatever source address they have."""
        return _in_namespace(f"/run/netns/{self.name}", lambda: socket.socket(
            socket.AF_INET, socket.SOCK_RAW | socket.SOCK_CLOEXEC, socket.IPPROTO_RAW))

    def group_socket(self, group, port):
        """A socket that has joined a multicast group."""
        result = self.socket(port, group)
        result.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                          socket.inet_aton(group) + socket.inet_aton(self.address))
        return result

    def lose(self, percent):
        """Drops this share of the UDP datagrams that arrive here."""
        limit = round(percent * 100)
        self.filter(*[f"ip protocol udp numgen random mod 10000 < {limit} drop"] if limit else [])

    def filter(self, *rules):
        """What arrives here passes these rules of nftables, in place of all that stood before."""
        self._exec("nft", "add table ip lab; flush table ip lab; "
                          "add chain ip lab input { type filter hook input priority 0; }")
        for rule in rules:
            self._exec("nft", f"add rule ip lab input {rule}")


def _in_namespace(path, action):
    """What `action` returns when it runs in another network namespace."""
    outcome = []

    def enter_and_act():
        try:
            descriptor = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
            try:
                libc = ctypes.CDLL(None, use_errno=True)
                if libc.setns(descriptor, 0) != 0:  # of this thread alone
                    raise OSError(ctypes.get_errno(), "setns")
            finally:
                os.close(descriptor)
            outcome.append((action(), None))
        except Exception as error:
            outcome.append((None, error))

    thread = threading.Thread(target=enter_and_act)
    thread.start()
    thread.join()
    result, error = outcome[0]
    if error is not None:
        raise error
    return result


class Lab:
    """`others`: names of hosts beside the lead and the nodes, in `net.others`."""

    def __init__(self, nodes=3, others=()):
        self.lead = Host("lead", 1)
        self.nodes = [Host(f"node{i + 1}", i + 2) for i in range(nodes)]
        self.others = {name: Host(name, 101 + i) for i, name in enumerate(others)}
        try:
            self._build()
        except Exception:
            self.stop()
            raise

    def _build(self):
        _sh("mount", "-t", "tmpfs", "lab", "/run")
        os.makedirs("/run/netns", exist_ok=True)
        _sh("ip", "link", "set", "lo", "up")
        _sh("ip", "link", "add", BRIDGE, "type", "bridge", "mcast_snooping", "0")
        _sh("ip", "link", "set", BRIDGE, "up")
        for host in self.hosts():
            host.plug_in()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def hosts(self):
        return [self.lead, *self.nodes, *self.others.values()]

    def stop_processes(self):
        for host in self.hosts():
            host.stop_all()

    def stop(self):
        self.stop_processes()
        for host in self.hosts():
            host.unplug()
        _delete("ip", "link", "delete", BRIDGE)
        _delete("umount", "--lazy", "/run")


class Programs:
    """The programs of one build, with the options that all of them share."""

    def __init__(self, build):
        self.lead = os.path.join(build, "bin", "pkgdist-lead")
        self.node = os.path.join(build, "bin", "pkgdist-node")
        self.doctor = os.path.join(build, "bin", "pkgdist-doctor")

    def start_node(self, host, directory, *arguments, log=None, location=None):
        """A node that receives into `directory`; its events go to the file `log` as JSON. Files get
        every permission bit that they have on the lead."""
        sink = open(log, "ab") if log else subprocess.DEVNULL
        place = location or f"1={directory}"
        return host.spawn([self.node, "--interface", host.address, "--location", place, "--json",
                           "--umask", "0", "--allow-setuid", *arguments, "run"], stdout=sink)

    def push(self, host, root, *arguments, paths=(".",), to=1, timeout=300):
        """Pushes and waits. The result has .returncode, .events (of --json) and .stderr."""
        try:
            result = host.run([self.lead, "--interface", host.address, "--location", f"{to}={root}",
                               "--json", "push", *arguments, *paths],
                              capture_output=True, text=True, timeout=timeout)
        except subprocess.TimeoutExpired as late:
            said = (late.stdout or b"").decode(errors="replace")[-2000:]
            raise AssertionError(f"the push did not end in {timeout} s; its last words: {said}") from late
        result.events = parse_events(result.stdout)
        return result

    def start_lead(self, host, root, *arguments, **options):
        return host.spawn([self.lead, "--interface", host.address, "--location", f"1={root}",
                           "--json", *arguments], **options)


# Looks at every event that is parsed, when tests have set it.
check_event = None


def parse_lines(text):
    return [json.loads(line) for line in text.splitlines() if line.startswith("{")]


def parse_events(text):
    """Events of pkgdist-lead and pkgdist-node."""
    events = parse_lines(text)
    if check_event is not None:
        for event in events:
            check_event(event)
    return events


def wait_until(condition, seconds=20.0, what="condition"):
    """Polls a condition about other processes; the one place where tests look at the wall clock."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return
        time.sleep(0.02)
    raise AssertionError(f"{what}: not within {seconds} s")


def manifest(root):
    """Everything that travels, by relative name: content, kind, mode and time of each file."""
    entries = {}
    for directory, directories, files in os.walk(root):
        links = [d for d in directories if os.path.islink(os.path.join(directory, d))]
        for name in files + links:
            path = os.path.join(directory, name)
            info = os.lstat(path)
            relative = os.path.relpath(path, root)
            if stat.S_ISLNK(info.st_mode):
                entries[relative] = ("link", os.readlink(path))
            elif stat.S_ISREG(info.st_mode):
                entries[relative] = ("file", stat.S_IMODE(info.st_mode), int(info.st_mtime),
                                     info.st_size, sha256(path))
    return entries


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while block := file.read(1 << 20):
            digest.update(block)
    return digest.hexdigest()


def differences(expected, actual):
    """Names that are missing, unexpected or different, each with the reason."""
    result = []
    for name in sorted(expected.keys() | actual.keys()):
        if name not in actual:
            result.append(f"{name}: missing")
        elif name not in expected:
            result.append(f"{name}: not expected")
        elif expected[name] != actual[name]:
            result.append(f"{name}: {actual[name]} instead of {expected[name]}")
    return result


def work_directory():
    """A directory in memory, for content and received files."""
    return tempfile.mkdtemp(prefix="pkgdist-lab-", dir="/dev/shm" if os.path.isdir("/dev/shm") else None)


def remove(directory):
    shutil.rmtree(directory, ignore_errors=True)


def mount_memory(path, options="size=80%"):
    """An empty file system in memory, visible inside our own namespaces only."""
    _sh("mount", "-t", "tmpfs", "-o", options, "lab", path)


def unmount(path):
    _sh("umount", "--lazy", path)
