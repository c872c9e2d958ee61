"""The trees that the tests distribute: reproducible content, every kind of name and file."""

import hashlib
import os

SEGMENT = 1400  # bytes of a data segment
MAX_NAME = 240  # bytes of the longest name that the lead takes
MAX_TARGET = 255  # bytes of the longest target of a link that travels
BIG = "big file.bin"
BIG_SIZE = 200 * 1000 * 1000
SMALL_FILES = 1000


def content(name, size):
    """Pseudo-random bytes that depend on the name alone."""
    return hashlib.shake_128(os.fsencode(name)).digest(size)


def write(root, name, data, mode=0o644, mtime=1_000_000_000):
    path = os.path.join(root, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(data)
    os.chmod(path, mode)
    os.utime(path, (mtime, mtime))


def add(root, name, size, **attributes):
    write(root, name, content(name, size), **attributes)


def link(root, name, target):
    path = os.path.join(root, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    os.symlink(target, path)
    os.utime(path, (1_500_000_000, 1_500_000_000), follow_symlinks=False)


def longest_name():
    """A name of exactly the greatest length, with directories."""
    return ("d" * 59 + "/") * 3 + "n" * (MAX_NAME - 180)


def add_edge_sizes(root):
    add(root, "empty", 0)
    add(root, "one byte", 1)
    for k in (1, 2, 63, 64, 65):
        add(root, f"sizes/{k} segments", k * SEGMENT)
        add(root, f"sizes/{k} segments less one", k * SEGMENT - 1)
        add(root, f"sizes/{k} segments and one", k * SEGMENT + 1)
    add(root, "sizes/k+1 segments", 65 * SEGMENT + SEGMENT)


def add_links(root):
    link(root, "links/relative", "../one byte")
    link(root, "links/dangling", "no/such/file")
    link(root, "links/absolute", "/no/such/place")
    link(root, "links/longest", "t" * MAX_TARGET)
    link(root, "links/to a directory", "../sizes")
    link(root, "only links/in here/up", "../../empty")


def add_names(root):
    add(root, "deep/" + "/".join(str(i) for i in range(30)) + "/bottom", 3000)
    add(root, "  spaces  /  in a name ", 10)
    add(root, "sm\u00f8rrebr\u00f8d/\u4f60\u597d/\U0001f40c", 1500)
    add(root, os.fsdecode(b"not utf-8 \xe9\xff"), 77)
    add(root, "odd\nname\t\"quoted\" \\ %s %n", 5)
    add(root, "-v", 1)
    add(root, "ends with.tmp", 2000)
    add(root, "..hidden/...", 20)
    add(root, longest_name(), 4321)


def add_attributes(root):
    add(root, "modes/private", 100, mode=0o600)
    add(root, "modes/program", 5000, mode=0o755)
    add(root, "modes/read only", 100, mode=0o444)
    add(root, "modes/everything", 100, mode=0o777)
    add(root, "times/1970", 100, mtime=1)
    add(root, "times/1999", 1401, mtime=946_684_799)
    add(root, "times/beyond 2038", 100, mtime=3_000_000_000)


def add_small_files(root, count):
    for i in range(count):
        add(root, f"small/{i % 10}/{i}", (i * 7919) % 6000, mode=0o640 if i % 2 else 0o644,
            mtime=1_100_000_000 + i)


def small(root, small_files=40, medium=0):
    """Every kind of name and file, a moment to distribute."""
    add_edge_sizes(root)
    add_links(root)
    add_names(root)
    add_attributes(root)
    add_small_files(root, small_files)
    if medium:
        add(root, BIG, medium)


def full(root):
    """Every kind of name and file, 1,000 small files and one of 200 MB."""
    small(root, SMALL_FILES, BIG_SIZE)
