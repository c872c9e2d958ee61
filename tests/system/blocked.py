"""Readers that do not read: pipes that are full before a program writes to them."""

import fcntl
import os
import select
import time


class BlockedPipe:
    """A pipe of the smallest size that has no room. `write` is for a program's standard output."""

    def __init__(self):
        self.read, self.write = os.pipe()
        fcntl.fcntl(self.write, fcntl.F_SETPIPE_SZ, 4096)
        os.set_blocking(self.write, False)
        self.filled = 0
        try:
            while True:
                self.filled += os.write(self.write, b"\n" * 4096)
        except BlockingIOError:
            os.set_blocking(self.write, True)

    def close_write(self):
        """The program has its own copy: the end is seen when the program has ended."""
        os.close(self.write)

    def drain(self, seconds=60.0):
        """Everything that was written, until the writers have gone."""
        text = b""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if not select.select([self.read], [], [], 0.1)[0]:
                continue
            block = os.read(self.read, 1 << 16)
            if not block:
                break
            text += block
        os.close(self.read)
        return text.decode(errors="replace")


def keeps_stop_signals(process):
    """Whether a program has come so far that it takes SIGINT itself."""
    with open(f"/proc/{process.pid}/status", encoding="utf-8") as file:
        blocked = next(line for line in file if line.startswith("SigBlk:"))
    return int(blocked.split()[1], 16) & 1 << 1 != 0


def sleeps_in_poll(process):
    """Whether the main thread waits for something."""
    with open(f"/proc/{process.pid}/stat", encoding="utf-8") as file:
        return file.read().rsplit(")", 1)[1].split()[0] == "S"
