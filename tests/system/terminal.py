"""A program on a real terminal of an emulator, and what stands on its screen."""

import fcntl
import os
import pty
import select
import struct
import termios
import time

import pyte


class Terminal:
    def __init__(self, host, command, columns=80, rows=24, environment=None):
        self.text = ""
        self.emulator = pyte.HistoryScreen(columns, rows, history=10_000)
        self.stream = pyte.ByteStream(self.emulator)
        self.master, slave = pty.openpty()
        self.resize(columns, rows, slave)
        self.environment = os.environ | {"TERM": "linux", "LC_ALL": "C.UTF-8"} | (environment or {})
        self.process = host.spawn(command, stdin=slave, stdout=slave, stderr=slave, env=self.environment,
                                  start_new_session=True,
                                  preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        os.close(slave)

    def resize(self, columns, rows, descriptor=None):
        fcntl.ioctl(descriptor or self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.emulator.resize(rows, columns)

    def type(self, keys):
        os.write(self.master, keys.encode())

    def read(self, enough=lambda text: False, seconds=60.0):
        """What the program writes until `enough` says so, or until it ends."""
        end = time.monotonic() + seconds
        while time.monotonic() < end and not enough(self.text):
            if not select.select([self.master], [], [], 0.1)[0]:
                continue
            try:
                block = os.read(self.master, 1 << 16)
            except OSError:  # the last program has gone
                break
            self.stream.feed(block)
            self.text += block.decode(errors="replace")
        return self.text

    def wait_for(self, part, seconds=20.0):
        """Reads until the screen shows it."""
        self.read(lambda _: any(part in line for line in self.shown()), seconds)
        assert any(part in line for line in self.shown()), f"{part!r} is not on the screen:\n" + "\n".join(self.shown())

    def finish(self, seconds=60.0):
        self.read(seconds=seconds)
        os.close(self.master)
        return self.process.wait(timeout=10)

    def shown(self):
        """The lines on the screen."""
        return [line.rstrip() for line in self.emulator.display]

    def screen(self):
        """The same, and those that have scrolled away."""
        columns = range(self.emulator.columns)
        gone = ["".join(line[column].data for column in columns).rstrip()
                for line in self.emulator.history.top]
        return gone + self.shown()
