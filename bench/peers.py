"""The programs under measurement. Each one runs a case and returns an `Outcome`.

One rule for all of them: the receivers are up before the clock starts, the clock runs from the start
of the sender's command to its exit, and a command that takes longer than the limit is killed.
"""

import dataclasses
import json
import os
import signal
import subprocess
import threading
import time

import lab

PROGRAMS = {"udpcast": ("udp-sender", "udp-receiver"),
            "udpcast-half": ("udp-sender", "udp-receiver"),
            "uftp": ("uftp", "uftpd")}
PEERS = tuple(PROGRAMS)
SETTLE_SECONDS = 0.2     # from the receivers' sockets to the start of the clock
SAMPLE_SECONDS = 0.05    # between two readings of the receivers' memory
LEAVE_SECONDS = 5        # for receivers to end
RECEIVE_BUFFER = 3 << 20  # bytes; what pkgdist asks for, offered to peers that take an option


@dataclasses.dataclass
class Outcome:
    seconds: float
    done: bool             # the sender says that all went well
    cpu: list              # seconds of each receiver
    memory: list           # peak resident bytes of each receiver
    own_seconds: float = 0  # what the program itself reports, if it does


class Receivers:
    """The receivers of one run. A receiver is one process, or several that work as one."""

    def __init__(self):
        self.members = []
        self._peaks = {}
        self._done = threading.Event()
        self._sampler = threading.Thread(target=self._sample)

    def add(self, *processes):
        self.members.append(processes)

    def wait_until_up(self, port):
        for processes in self.members:
            lab.wait_until(lambda: _is_bound(processes[0].pid, port), 10, f"UDP port {port}")
        time.sleep(SETTLE_SECONDS)
        self._sampler.start()

    def stop(self, leave_by_themselves=False):
        """Ends them; processor seconds and peak memory of each."""
        everyone = [process for processes in self.members for process in processes]
        if leave_by_themselves:
            _have_ended(everyone)
        self._done.set()
        self._sampler.join()
        self._read_peaks()
        for process in everyone:
            os.kill(process.pid, signal.SIGTERM)  # one that has ended is ours until waited for
        if not _have_ended(everyone):
            for process in everyone:
                os.kill(process.pid, signal.SIGKILL)
        used = {process.pid: _wait_for_usage(process) for process in everyone}
        return ([sum(used[p.pid] for p in processes) for processes in self.members],
                [sum(self._peaks.get(p.pid, 0) for p in processes) for processes in self.members])

    # The peak that wait() returns is no use here: it includes the process that started the program.
    def _sample(self):
        while not self._done.wait(SAMPLE_SECONDS):
            self._read_peaks()

    def _read_peaks(self):
        for processes in self.members:
            for process in processes:
                if peak := _peak_memory(process.pid):
                    self._peaks[process.pid] = peak


def _is_bound(pid, port):
    with open(f"/proc/{pid}/net/udp", encoding="ascii") as file:  # of the process's own network
        return any(line.split()[1].endswith(f":{port:04X}") for line in list(file)[1:])


def _peak_memory(pid):
    try:
        with open(f"/proc/{pid}/status", encoding="utf-8") as file:
            return next((int(line.split()[1]) * 1024 for line in file if line.startswith("VmHWM:")), 0)
    except (FileNotFoundError, ProcessLookupError):
        return 0


def _have_ended(processes):
    """Whether they have, after some time for it."""
    end = time.monotonic() + LEAVE_SECONDS
    while not all(map(_has_ended, processes)):
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


def _has_ended(process):
    return os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None


def _wait_for_usage(process):
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    return usage.ru_utime + usage.ru_stime


def timed(case, command, **options):
    """Wall-clock seconds from the command's start to its exit, and whether it succeeded."""
    options.setdefault("stdout", subprocess.DEVNULL)
    options.setdefault("stderr", subprocess.DEVNULL)
    case.started = time.monotonic()
    process = case.lead.spawn(command, start_new_session=True, **options)
    killer = threading.Timer(case.limit, _kill_group, (process.pid,))
    killer.start()
    status = process.wait()
    seconds = time.monotonic() - case.started
    killer.cancel()
    return seconds, status == 0


def _kill_group(pid):
    try:
        os.killpg(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


class Pkgdist:
    """As it is called by hand. `own_time`: with the program's own account of the time."""

    def __init__(self, name, build, rate, lead_options, node_options, own_time=False):
        self.name = name
        self.output = ["--json"] if own_time else []
        self.programs = lab.Programs(build)
        self.lead_options = (["--rate", str(rate)] if rate else []) + lead_options
        self.node_options = node_options

    def run(self, case):
        receivers = Receivers()
        for host, directory in zip(case.nodes, case.directories):
            receivers.add(host.spawn(
                [*case.wrapper, self.programs.node, "--interface", host.address, "--location",
                 f"1={directory}", *self.node_options, "run"], stdout=subprocess.DEVNULL))
        receivers.wait_until_up(7100)
        command = [self.programs.lead, "--interface", case.lead.address, "--location",
                   f"1={case.root}", *self.output, "push", "--nodes", str(len(case.nodes)),
                   *self.lead_options, "."]
        log = os.path.join(case.work, "lead.log")
        with open(log, "wb") as sink:
            seconds, done = timed(case, command, stdout=sink)
        cpu, memory = receivers.stop()
        return Outcome(seconds, done, cpu, memory, self._own_seconds(log))

    @staticmethod
    def _own_seconds(log):
        with open(log, encoding="utf-8") as file:
            ends = [e for e in lab.parse_events(file.read()) if e["event"] == "push-finished"]
        return ends[-1]["seconds"] if ends else 0


class Raw:
    """Sender and receiver without a protocol. They lose what they lose, so the time is divided by the
    share that arrived."""

    def __init__(self, build, batch):
        self.tool, self.batch = os.path.join(build, "bin", "raw_pair"), batch
        self.name = f"raw pair, {batch} a call"

    def run(self, case):
        receivers = Receivers()
        for host, directory in zip(case.nodes, case.directories):
            receivers.add(host.spawn(
                [*case.wrapper, self.tool, "--interface", host.address, "receive", "--file",
                 os.path.join(directory, "raw")], stdout=subprocess.PIPE, text=True))
        receivers.wait_until_up(7199)
        seconds, done = timed(case, [self.tool, "--interface", case.lead.address, "send",
                                     "--bytes", str(case.bytes), "--rate", "100000",
                                     "--batch", str(self.batch)])
        texts = [processes[0].stdout.read() for processes in receivers.members]
        cpu, memory = receivers.stop()
        received = min(json.loads(text.splitlines()[-1])["received"] for text in texts)
        return Outcome(seconds * case.bytes / max(received, 1), done, cpu, memory)


class Udpcast:
    """Several files travel as an archive through its pipe. The sender is told to be patient and to
    repeat its greeting, since it gives up receivers whose answers are lost."""

    name = "udpcast"
    DUPLEX = ("--full-duplex",)
    COMMON = ("--nokbd", "--no-progress", "--mcast-rdv-address", "239.255.1.1", "--interface", "eth0")

    def __init__(self, rate):
        self.rate = ["--max-bitrate", f"{rate}m"] if rate else []

    def run(self, case):
        receivers = Receivers()
        for host, directory in zip(case.nodes, case.directories):
            receivers.add(*self._receiver(case, host, directory))
        receivers.wait_until_up(9000)
        command = " ".join(["udp-sender", *self.DUPLEX, "--retries-until-drop", "2000",
                            "--rexmit-hello-interval", "100", "--min-receivers",
                            str(len(case.nodes)), *self.COMMON, *self.rate])
        command = f"{command} --file {case.root}/{case.single}" if case.single else \
            f"tar -cf - -C {case.root} . | {command}"
        seconds, done = timed(case, ["sh", "-c", command])
        cpu, memory = receivers.stop(leave_by_themselves=True)
        return Outcome(seconds, done, cpu, memory)

    def _receiver(self, case, host, directory):
        command = [*case.wrapper, "udp-receiver", "--nosync", *self.COMMON]
        if case.single:
            return [host.spawn([*command, "--file", os.path.join(directory, case.single)],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)]
        receiver = host.spawn(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        unpacker = host.spawn(["tar", "-xf", "-", "-C", directory], stdin=receiver.stdout,
                              stderr=subprocess.DEVNULL)
        receiver.stdout.close()  # the unpacker has it now
        return [receiver, unpacker]


class UdpcastHalf(Udpcast):
    """It waits for all answers after each slice: slower, but no socket overruns, and a receiver that
    loses datagrams gets the end of the file, where full duplex leaves it without."""

    name = "udpcast-half"
    DUPLEX = ("--half-duplex", "--slice-size", "64")


class Uftp:
    """The sender is told who the receivers are, so that it stops asking for more of them; the
    receivers are told (-q) not to ask a name server, which no host here has."""

    name = "uftp"

    def __init__(self, rate):
        self.rate = str(int(rate * 1000)) if rate else "-1"

    def run(self, case):
        receivers = Receivers()
        buffer = [] if case.wrapper else ["-B", str(RECEIVE_BUFFER)]
        for host, directory in zip(case.nodes, case.directories):
            receivers.add(host.spawn(
                [*case.wrapper, "uftpd", "-q", "-d", "-t", "-D", directory, "-I", "eth0", *buffer],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        receivers.wait_until_up(1044)
        command = ["uftp", "-I", "eth0", "-R", self.rate, "-H",
                   ",".join(node_id(host.address) for host in case.nodes),
                   *sorted(os.listdir(case.root))]
        seconds, done = timed(case, command, cwd=case.root)
        cpu, memory = receivers.stop()
        return Outcome(seconds, done, cpu, memory)


def node_id(address):
    """The name by which uftp knows a receiver."""
    return "0x" + "".join(f"{int(part):02x}" for part in address.split("."))
