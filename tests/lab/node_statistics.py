"""Reads the statistics of a running process from its shared-memory object."""

import mmap
import os
import struct

_MAGIC = 0x5441545344474B50
_HEADER = struct.Struct("=QIIQQQIIII")
_TABLE = struct.Struct("=32s32s64sIIIIQQQ")
_ENTRY = struct.Struct("=16sQ")
_COUNTER_KINDS = (0, 1)
_WATERMARK_KIND = 32


def object_path(pid):
    return f"/dev/shm/pkgdist-stat.{pid}"


def _text(raw):
    return raw.split(b"\0", 1)[0].decode().rstrip()


class Tables(dict):
    """(table, label) -> count; watermarks give their mark. Absent entries count as 0."""

    def __missing__(self, _):
        return 0

    def total(self, label):
        """Over all tables that have an entry of this label."""
        return sum(value for (_, name), value in self.items() if name == label)


def read(pid):
    """The counters of a process, empty while it has registered none."""
    tables = Tables()
    try:
        file = open(object_path(pid), "rb")
    except FileNotFoundError:
        return tables
    with file:
        if os.fstat(file.fileno()).st_size < _HEADER.size:
            return tables
        with mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as memory:
            _read_tables(memory, tables)
    return tables


def _read_tables(memory, tables):
    magic, _, _, _, _, offset, stride, _, count, _ = _HEADER.unpack_from(memory, 0)
    if magic != _MAGIC:
        return
    for i in range(count):
        _, table, _, kind, _, entries, width, entries_at, values_at, _ = _TABLE.unpack_from(
            memory, offset + i * stride)
        word = 4 if kind == _WATERMARK_KIND else 0
        if kind not in _COUNTER_KINDS and kind != _WATERMARK_KIND:
            continue
        for j in range(entries):
            label, _ = _ENTRY.unpack_from(memory, entries_at + j * _ENTRY.size)
            value, = struct.unpack_from("=I", memory, values_at + j * width + word)
            tables[_text(table), _text(label)] = value


def forget(pid):
    """Removes the statistics that a killed process left behind."""
    _remove(object_path(pid))


def forget_trace(pid):
    """Removes the trace that a killed process left behind."""
    _remove(f"/dev/shm/pkgdist-trace.{pid}")


def _remove(path):
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass
