"""A disk that remembers every write and flush, so that it can be looked at as it was when the power went.

The disk is one file of a file system in user space (FUSE, spoken here directly), on which a loop device stands:
what the kernel writes to the device, and when it asks the device to flush its cache, arrives here in order. A disk
with a cache keeps what was written before the last flush that ended; of what was written since, any part may be
there or not.
"""

import ctypes
import os
import struct
import threading

BLOCK = 4096
_ROOT = 1  # the only node of the file system: a regular file
_IN = struct.Struct("<IIQQIIIHH")
_OUT = struct.Struct("<IiQ")
_MAX_WRITE = 1 << 20

_GETATTR, _SETATTR, _OPEN, _READ, _WRITE, _STATFS = 3, 4, 14, 15, 16, 17
_RELEASE, _FSYNC, _FLUSH, _INIT = 18, 20, 25, 26
_FORGET, _INTERRUPT, _BATCH_FORGET = 2, 36, 42
_BIG_WRITES, _MAX_PAGES = 1 << 5, 1 << 22
_ENOSYS = 38


class RecordedDisk:
    """A file of `image`'s content at `path`, to be mounted with -o loop. Needs root and /dev/fuse."""

    def __init__(self, path, image):
        self.image = bytearray(image)
        self._lock = threading.Lock()
        self._base = None  # content when the recording began
        self._log = []  # (offset, bytes) of writes, None for flushes
        with open(path, "wb"):
            pass
        self._device = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
        options = f"fd={self._device},rootmode=100000,user_id=0,group_id=0,max_read={_MAX_WRITE}"
        libc = ctypes.CDLL(None, use_errno=True)
        if libc.mount(b"recorded", os.fsencode(path), b"fuse", 0, options.encode()) != 0:
            raise OSError(ctypes.get_errno(), "mount of a recorded disk")
        threading.Thread(target=self._serve, daemon=True).start()

    # --- What was recorded ---

    def record(self):
        """From now on; what has been written so far counts as being on the disk."""
        with self._lock:
            self._base = bytes(self.image)
            self._log = []

    def log(self):
        with self._lock:
            return list(self._log)

    def after_power_cut(self, log, place, random_part=None):
        """The content when the power goes behind the first `place` entries of a log. What was written since the last
        flush is gone; with a random.Random(), each block of it is there or not."""
        image = bytearray(self._base)
        flushed = max((i for i in range(place) if log[i] is None), default=0)
        for entry in log[:flushed]:
            if entry is not None:
                image[entry[0]:entry[0] + len(entry[1])] = entry[1]
        for entry in log[flushed:place] if random_part else []:
            if entry is not None:
                _write_some(image, *entry, random_part)
        return image

    # --- The file system ---

    def _serve(self):
        while True:
            try:
                request = os.read(self._device, _MAX_WRITE + 8192)
            except OSError:  # unmounted
                os.close(self._device)
                return
            _, opcode, unique, *_ = _IN.unpack_from(request)
            if opcode in (_FORGET, _BATCH_FORGET, _INTERRUPT):
                continue
            answer = self._answer(opcode, memoryview(request)[_IN.size:])
            error, body = (-_ENOSYS, b"") if answer is None else (0, answer)
            os.write(self._device, _OUT.pack(_OUT.size + len(body), error, unique) + body)

    def _answer(self, opcode, body):
        if opcode == _INIT:
            return struct.pack("<IIIIHHIIHHI28x", 7, 31, _MAX_WRITE, _BIG_WRITES | _MAX_PAGES, 16, 16, _MAX_WRITE, 1,
                               _MAX_WRITE // BLOCK, 0, 0)
        if opcode in (_GETATTR, _SETATTR):
            return struct.pack("<QII6Q10I", 1 << 30, 0, 0, _ROOT, len(self.image), len(self.image) // 512, 0, 0, 0,
                               0, 0, 0, 0o100600, 1, 0, 0, 0, BLOCK, 0)
        if opcode == _OPEN:
            return struct.pack("<QII", 0, 0, 0)
        if opcode == _READ:
            offset, size = struct.unpack_from("<8xQI", body)
            return bytes(self.image[offset:offset + size])
        if opcode == _WRITE:
            return self._write(body)
        if opcode == _FSYNC:
            with self._lock:
                self._log.append(None)
            return b""
        if opcode == _STATFS:
            return struct.pack("<5Q3I4x24x", 1 << 20, 0, 0, 1, 0, BLOCK, 255, BLOCK)
        return b"" if opcode in (_FLUSH, _RELEASE) else None

    def _write(self, body):
        offset, size = struct.unpack_from("<8xQI", body)
        data = bytes(body[40:40 + size])
        with self._lock:
            self.image[offset:offset + size] = data
            self._log.append((offset, data))
        return struct.pack("<II", size, 0)


def _write_some(image, offset, data, chance):
    for at in range(0, len(data), BLOCK):
        if chance.random() < 0.5:
            part = data[at:at + BLOCK]
            image[offset + at:offset + at + len(part)] = part


def works():
    return os.geteuid() == 0 and os.access("/dev/fuse", os.R_OK | os.W_OK)
