"""Runs a command under the restrictions of a systemd unit, where no systemd runs:

    confine.py UNIT UID WRITABLE COMMAND...

Started as root. The command gets the user UID without capabilities (none can be gained), a user namespace of
its own, the file system that the unit describes, which can be written only below WRITABLE, in /dev/shm and in a
/tmp of its own, and filters of system calls and of their arguments: by the same calls of the kernel, and for the
same calls, as systemd makes them. Directives that are not known here end this program, so that a unit cannot be
hardened without this test.

Not to be had without systemd: the devices that a control group lets through (with PrivateDevices no other is in
/dev, nor a privilege to make one), and the account and directories of DynamicUser: UID and WRITABLE stand for them.
"""

import ctypes
import functools
import os
import re
import socket
import struct
import subprocess
import sys

LIBC = ctypes.CDLL(None, use_errno=True)
SYSCALL_NUMBERS = "/usr/include/x86_64-linux-gnu/asm/unistd_64.h"

# How the service is started, or given by the arguments of this program.
ABOUT_THE_START = {
    "Description", "Documentation", "Wants", "After", "ConditionPathExists", "Environment", "EnvironmentFile",
    "ExecStart", "Restart", "RestartSec", "User", "StateDirectory", "RuntimeDirectory", "RuntimeDirectoryMode",
    "WantedBy"}
APPLIED = {
    "NoNewPrivileges": ["yes"], "CapabilityBoundingSet": [""], "ProtectSystem": ["strict"], "ProtectHome": ["yes"],
    "ProtectProc": ["invisible"], "ProtectKernelTunables": ["yes"], "ProtectControlGroups": ["yes"],
    "PrivateTmp": ["yes"], "PrivateDevices": ["yes"], "PrivateUsers": ["yes"], "DynamicUser": ["yes"],
    "LockPersonality": ["yes"], "MemoryDenyWriteExecute": ["yes"], "RestrictNamespaces": ["yes"],
    "SystemCallArchitectures": ["native"], "SystemCallFilter": None, "RestrictAddressFamilies": None}
# Of these, what is beyond a file system or a capability is a filter of calls that SystemCallFilter of our units
# does not let through anyway. This program looks whether that is so.
FILTERED_ANYWAY = {
    "ProtectClock": ["clock_settime", "clock_adjtime", "settimeofday"],
    "ProtectHostname": ["sethostname", "setdomainname"],
    "ProtectKernelLogs": ["syslog"],
    "ProtectKernelModules": ["init_module", "finit_module", "delete_module"],
    "RestrictRealtime": ["sched_setscheduler", "sched_setattr"]}

CLONE_NEWNS, CLONE_NEWUTS, CLONE_NEWUSER = 0x20000, 0x4000000, 0x10000000
MS_NOSUID, MS_NODEV, MS_NOEXEC, MS_BIND, MS_MOVE, MS_REC, MS_PRIVATE = 2, 4, 8, 4096, 8192, 16384, 1 << 18
AT_FDCWD, AT_EMPTY_PATH, AT_RECURSIVE, MOUNT_ATTR_RDONLY = -100, 0x1000, 0x8000, 1
SYS_OPEN_TREE, SYS_MOVE_MOUNT, SYS_MOUNT_SETATTR = 428, 429, 442
OPEN_TREE_CLONE, MOVE_MOUNT_F_EMPTY_PATH = 1, 4
PR_SET_NO_NEW_PRIVS, PR_CAPBSET_DROP, PR_SET_SECCOMP, SECCOMP_MODE_FILTER = 38, 24, 22, 2
LAST_CAPABILITY = 63


def check(result, what):
    if result < 0:
        raise OSError(ctypes.get_errno(), what)
    return result


def directives(unit):
    found = {}
    with open(unit, encoding="utf-8") as file:
        for key, value in re.findall(r"^(\w+)=(.*)$", file.read(), re.MULTILINE):
            found.setdefault(key, []).append(value)
    for key, value in found.items():
        if key in ABOUT_THE_START or (key in FILTERED_ANYWAY and value == ["yes"]):
            continue
        if key not in APPLIED or APPLIED[key] not in (None, value):
            sys.exit(f"{unit}: {key}={value} is not known here")
    missing = (APPLIED.keys() | FILTERED_ANYWAY.keys()) - found.keys()
    if missing:
        sys.exit(f"{unit}: {', '.join(sorted(missing))} would be applied here and is not there")
    return found


# --- The file system ---


def mount(what, where, kind, flags=0, options=None):
    encoded = [None if text is None else text.encode() for text in (what, where, kind, options)]
    check(LIBC.mount(*encoded[:3], flags, encoded[3]), f"mount {where}")


def bind(what, where, flags=0):
    mount(what, where, None, MS_BIND | flags)


def set_read_only(path, read_only, recursive):
    attributes = struct.pack("=4Q", MOUNT_ATTR_RDONLY * read_only, MOUNT_ATTR_RDONLY * (not read_only), 0, 0)
    check(LIBC.syscall(SYS_MOUNT_SETATTR, AT_FDCWD, path.encode(), AT_RECURSIVE * recursive, attributes,
                       len(attributes)), f"mount_setattr {path}")


def hide(place, kept):
    """Nothing is below the place any more, and nobody may look, but for what has to be kept of it."""
    if not os.path.isdir(place):
        return
    kept = [path for path in kept if path.startswith(place + "/")]
    trees = {path: check(LIBC.syscall(SYS_OPEN_TREE, AT_FDCWD, path.encode(), OPEN_TREE_CLONE | AT_RECURSIVE),
                         f"open_tree {path}") for path in kept}
    mount("tmpfs", place, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0711" if kept else "mode=0000")
    for path, tree in trees.items():
        os.makedirs(path)
        check(LIBC.syscall(SYS_MOVE_MOUNT, tree, b"", AT_FDCWD, path.encode(), MOVE_MOUNT_F_EMPTY_PATH),
              f"move_mount {path}")
        os.close(tree)


def make_own_devices():
    """A /dev with the pseudo devices and shared memory alone."""
    made = "/tmp/dev"
    os.mkdir(made)
    mount("tmpfs", made, "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755")
    for name in ("null", "zero", "full", "random", "urandom", "tty"):
        if os.path.exists(f"/dev/{name}"):
            os.close(os.open(f"{made}/{name}", os.O_CREAT, 0o600))
            bind(f"/dev/{name}", f"{made}/{name}")
    for name in ("shm", "pts"):
        os.mkdir(f"{made}/{name}")
        bind(f"/dev/{name}", f"{made}/{name}", MS_REC)
    for name, target in (("fd", "/proc/self/fd"), ("stdin", "fd/0"), ("stdout", "fd/1"), ("stderr", "fd/2")):
        os.symlink(target, f"{made}/{name}")
    mount(made, "/dev", None, MS_MOVE)
    os.rmdir(made)


def protect_file_system(writable, program):
    check(LIBC.unshare(CLONE_NEWNS | CLONE_NEWUTS), "unshare")
    mount(None, "/", None, MS_REC | MS_PRIVATE)
    for place in ("/home", "/root", "/run/user"):
        hide(place, [os.path.dirname(os.path.dirname(program)), writable])
    hide("/usr/lib/modules", [])
    mount("tmp", "/tmp", "tmpfs", 0, "mode=1777")
    make_own_devices()
    mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, "hidepid=2")
    bind("/proc/sys", "/proc/sys", MS_REC)
    bind("/dev/null", "/proc/kmsg")
    bind("/dev/null", "/proc/kallsyms")
    bind(writable, writable)
    set_read_only("/", True, True)
    for place in (writable, "/tmp", "/dev", "/dev/shm", "/proc"):
        set_read_only(place, False, False)


# --- The user ---


def become(uid):
    os.setgroups([])
    os.setresgid(uid, uid, uid)
    os.setresuid(uid, uid, uid)
    check(LIBC.prctl(4, 1, 0, 0, 0), "PR_SET_DUMPABLE")  # or /proc/self belongs to root
    check(LIBC.unshare(CLONE_NEWUSER), "unshare")
    for name, text in (("setgroups", "deny"), ("uid_map", f"{uid} {uid} 1"), ("gid_map", f"{uid} {uid} 1")):
        with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
            file.write(text)
    for capability in range(LAST_CAPABILITY + 1):
        LIBC.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0)
    check(LIBC.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "PR_SET_NO_NEW_PRIVS")


# --- System calls ---


@functools.cache
def syscall_set(name):
    """The calls of a set as systemd defines it, with the sets in it."""
    listing = subprocess.run(["systemd-analyze", "syscall-filter", name], capture_output=True, text=True,
                             check=True).stdout
    calls = set()
    for line in listing.splitlines():
        word = line.strip()
        if word == name or word.startswith("#") or not word:
            continue
        calls |= syscall_set(word) if word.startswith("@") else {word}
    return calls


def allowed_numbers(filters):
    allowed = set()
    for line in filters:
        sets = set().union(*(syscall_set(name) for name in line.lstrip("~").split()))
        allowed = allowed - sets if line.startswith("~") else allowed | sets
    with open(SYSCALL_NUMBERS, encoding="ascii") as file:
        numbers = dict(re.findall(r"#define __NR_(\w+) (\d+)", file.read()))
    numbers = {name: int(number) for name, number in numbers.items()}
    return {numbers[name] for name in allowed if name in numbers}, numbers


class Filter:
    """Rules in the order in which they are asked; the first that says something counts."""

    LOAD, EQUAL, ANY_BIT, AND, RETURN = 0x20, 0x15, 0x45, 0x54, 0x06  # classic BPF, on 32-bit words
    ALLOW, ERROR, KILL = 0x7FFF0000, 0x00050000, 0x80000000

    def __init__(self, numbers):
        self.numbers = numbers
        self.code = [(self.LOAD, 0, 0, 4), (self.EQUAL, 1, 0, 0xC000003E), (self.RETURN, 0, 0, self.KILL)]  # x86-64

    def rule(self, call, *code):
        """Code for one call; whatever it does not decide is left to the rules below."""
        if call in self.numbers:
            self.code += [(self.LOAD, 0, 0, 0), (self.EQUAL, 0, len(code), self.numbers[call]), *code]

    def argument(self, index):
        return (self.LOAD, 0, 0, 16 + 8 * index)  # the lower half

    def fail(self, error):
        return (self.RETURN, 0, 0, self.ERROR | error)

    def refuse(self, call, error=1):
        self.rule(call, self.fail(error))

    def refuse_bits(self, call, index, bits):
        self.rule(call, self.argument(index), (self.ANY_BIT, 0, 1, bits), self.fail(1))

    def refuse_all_bits(self, call, index, bits):
        self.rule(call, self.argument(index), (self.AND, 0, 0, bits), (self.EQUAL, 0, 1, bits), self.fail(1))

    def refuse_bits_with(self, call, index, bits, flag_index, flag):
        self.rule(call, self.argument(flag_index), (self.ANY_BIT, 0, 3, flag), self.argument(index),
                  (self.ANY_BIT, 0, 1, bits), self.fail(1))

    def refuse_others(self, call, index, values, error):
        self.rule(call, self.argument(index),
                  *((self.EQUAL, len(values) - i, 0, value) for i, value in enumerate(values)), self.fail(error))

    def allow(self, calls):
        self.code.append((self.LOAD, 0, 0, 0))
        for number in sorted(calls):
            self.code += [(self.EQUAL, 0, 1, number), (self.RETURN, 0, 0, self.ALLOW)]
        self.code.append(self.fail(1))

    def install(self):
        code = ctypes.create_string_buffer(b"".join(struct.pack("=HBBI", *one) for one in self.code))
        header = ctypes.create_string_buffer(struct.pack("HxxxxxxP", len(self.code), ctypes.addressof(code)))
        check(LIBC.prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, header, 0, 0), "PR_SET_SECCOMP")


def restrict_namespaces(rules):
    namespaces = 0x7E020080
    rules.refuse_bits("clone", 0, namespaces)
    rules.refuse_bits("unshare", 0, namespaces)
    rules.refuse_bits("setns", 1, namespaces)
    rules.rule("setns", rules.argument(1), (rules.EQUAL, 0, 1, 0), rules.fail(1))
    rules.refuse("clone3", 38)  # its flags cannot be looked at


def deny_write_execute(rules):
    write_execute, execute, shm_execute = 6, 4, 0o100000
    rules.refuse_all_bits("mmap", 2, write_execute)
    rules.refuse_bits("mprotect", 2, execute)
    rules.refuse_bits("pkey_mprotect", 2, execute)
    rules.refuse_bits("shmat", 2, shm_execute)


def restrict_suid_sgid(rules):
    """RestrictSUIDSGID, which DynamicUser implies."""
    bits = 0o6000
    for call, mode in (("chmod", 1), ("fchmod", 1), ("fchmodat", 2), ("fchmodat2", 2), ("mkdir", 1), ("mkdirat", 2),
                       ("mknod", 1), ("mknodat", 2), ("creat", 1)):
        rules.refuse_bits(call, mode, bits)
    rules.refuse_bits_with("open", 2, bits, 1, os.O_CREAT)
    rules.refuse_bits_with("openat", 3, bits, 2, os.O_CREAT)
    rules.refuse("openat2", 38)  # its mode cannot be looked at


def install_filter(settings):
    """What is not allowed fails with EPERM, other address families with EAFNOSUPPORT."""
    allowed, numbers = allowed_numbers(settings["SystemCallFilter"])
    for directive, calls in FILTERED_ANYWAY.items():
        for call in calls:
            if numbers[call] in allowed:
                sys.exit(f"{directive}: {call} is let through")
    rules = Filter(numbers)
    restrict_namespaces(rules)
    deny_write_execute(rules)
    restrict_suid_sgid(rules)
    rules.refuse_others("personality", 0, [LIBC.personality(0xFFFFFFFF)], 1)
    rules.refuse_others("socket", 0, [int(getattr(socket, name)) for line in settings["RestrictAddressFamilies"]
                                      for name in line.split()], 97)
    rules.allow(allowed)
    rules.install()


def main():
    unit, uid, writable, *command = sys.argv[1:]
    settings = directives(unit)
    allowed_numbers(settings["SystemCallFilter"])  # asks another program, which needs what is taken away below
    protect_file_system(writable, command[0])
    become(int(uid))
    install_filter(settings)
    os.execv(command[0], command)


if __name__ == "__main__":
    main()
