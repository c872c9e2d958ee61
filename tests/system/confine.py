"""Runs a command under the restrictions of a systemd unit, where no systemd runs:

    confine.py UNIT UID WRITABLE COMMAND...

Started as root. The command gets the user UID without capabilities (none can be gained), a user namespace of
its own, a file system that can be written only below WRITABLE, in /dev/shm and in a /tmp of its own, and a
filter of system calls and address families, each as the unit says. Directives that are neither applied nor
listed below end this program, so that a unit cannot be hardened without this test.
"""

import ctypes
import os
import re
import socket
import struct
import subprocess
import sys

LIBC = ctypes.CDLL(None, use_errno=True)
SYSCALL_NUMBERS = "/usr/include/x86_64-linux-gnu/asm/unistd_64.h"

# What a process without privileges, in namespaces of its own, cannot do anyway; and what only says how the
# service is started.
WITHOUT_EFFECT_HERE = {
    "Description", "Documentation", "Wants", "After", "ConditionPathExists", "EnvironmentFile", "ExecStart", "Restart",
    "RestartSec", "DynamicUser", "User", "StateDirectory", "RuntimeDirectory", "RuntimeDirectoryMode", "WantedBy",
    "ProtectHome", "ProtectProc", "ProtectClock", "ProtectHostname", "ProtectKernelLogs", "ProtectKernelModules",
    "ProtectKernelTunables", "ProtectControlGroups", "PrivateDevices", "RestrictRealtime", "LockPersonality",
    "MemoryDenyWriteExecute", "RestrictNamespaces", "UMask", "Environment"}
APPLIED = {
    "NoNewPrivileges": ["yes"], "CapabilityBoundingSet": [""], "ProtectSystem": ["strict"], "PrivateTmp": ["yes"],
    "PrivateUsers": ["yes"], "SystemCallArchitectures": ["native"], "SystemCallFilter": None,
    "RestrictAddressFamilies": None}

CLONE_NEWNS, CLONE_NEWUSER = 0x20000, 0x10000000
MS_BIND, MS_REC, MS_PRIVATE = 4096, 16384, 1 << 18
AT_FDCWD, AT_RECURSIVE, MOUNT_ATTR_RDONLY, SYS_MOUNT_SETATTR = -100, 0x8000, 1, 442
PR_SET_NO_NEW_PRIVS, PR_CAPBSET_DROP, PR_SET_SECCOMP, SECCOMP_MODE_FILTER = 38, 24, 22, 2
LAST_CAPABILITY = 63


def check(result, what):
    if result != 0:
        raise OSError(ctypes.get_errno(), what)


def directives(unit):
    found = {}
    with open(unit, encoding="utf-8") as file:
        for key, value in re.findall(r"^(\w+)=(.*)$", file.read(), re.MULTILINE):
            found.setdefault(key, []).append(value)
    for key, value in found.items():
        if key in WITHOUT_EFFECT_HERE:
            continue
        if key not in APPLIED or APPLIED[key] not in (None, value):
            sys.exit(f"{unit}: {key}={value} is not known here")
    return found


# --- The file system ---


def set_read_only(path, read_only, recursive):
    attributes = struct.pack("=4Q", MOUNT_ATTR_RDONLY * read_only, MOUNT_ATTR_RDONLY * (not read_only), 0, 0)
    check(LIBC.syscall(SYS_MOUNT_SETATTR, AT_FDCWD, path.encode(), AT_RECURSIVE * recursive, attributes,
                       len(attributes)), f"mount_setattr {path}")


def make_read_only(writable):
    check(LIBC.unshare(CLONE_NEWNS), "unshare")
    check(LIBC.mount(None, b"/", None, MS_REC | MS_PRIVATE, None), "private mounts")
    check(LIBC.mount(b"tmp", b"/tmp", b"tmpfs", 0, b"mode=1777"), "mount /tmp")
    check(LIBC.mount(writable.encode(), writable.encode(), None, MS_BIND, None), f"bind {writable}")
    set_read_only("/", True, True)
    for place in (writable, "/tmp", "/dev/shm", "/proc"):
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
    return {int(numbers[name]) for name in allowed if name in numbers}, int(numbers["socket"])


def install_filter(filters, families):
    """Everything that is not allowed fails with EPERM, other address families with EAFNOSUPPORT."""
    allowed, socket_number = allowed_numbers(filters)
    load, equal, give = 0x20, 0x15, 0x06  # BPF_LD|W|ABS, BPF_JMP|JEQ|K, BPF_RET|K
    allow, error, kill = 0x7FFF0000, 0x00050000, 0x80000000
    domains = [int(getattr(socket, name)) for line in families for name in line.split()]
    program = [(load, 0, 0, 4), (equal, 1, 0, 0xC000003E), (give, 0, 0, kill),  # x86-64 alone
               (load, 0, 0, 0), (equal, 0, 2 * len(domains) + 2, socket_number), (load, 0, 0, 16)]
    for domain in domains:
        program += [(equal, 0, 1, domain), (give, 0, 0, allow)]
    program += [(give, 0, 0, error | 97)]
    for number in sorted(allowed - {socket_number}):
        program += [(equal, 0, 1, number), (give, 0, 0, allow)]
    program += [(give, 0, 0, error | 1)]
    code = ctypes.create_string_buffer(b"".join(struct.pack("=HBBI", *one) for one in program))
    header = ctypes.create_string_buffer(struct.pack("HxxxxxxP", len(program), ctypes.addressof(code)))
    check(LIBC.prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, header, 0, 0), "PR_SET_SECCOMP")


def main():
    unit, uid, writable, *command = sys.argv[1:]
    settings = directives(unit)
    allowed_numbers(settings["SystemCallFilter"])  # asks another program, which needs what is taken away below
    make_read_only(writable)
    become(int(uid))
    install_filter(settings["SystemCallFilter"], settings["RestrictAddressFamilies"])
    os.execv(command[0], command)


if __name__ == "__main__":
    main()
