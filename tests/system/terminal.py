"""A program on a real terminal, and what stands on the terminal's screen afterwards."""

import fcntl
import os
import pty
import re
import select
import struct
import termios
import time


class Terminal:
    def __init__(self, host, command, columns=80, rows=24):
        self.columns = columns
        self.text = ""
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.process = host.spawn(command, stdin=slave, stdout=slave, stderr=slave)
        os.close(slave)

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
            self.text += block.decode(errors="replace")
        return self.text

    def finish(self, seconds=60.0):
        self.read(seconds=seconds)
        os.close(self.master)
        return self.process.wait(timeout=10)

    def screen(self):
        """The lines that a terminal of this width shows, those that have scrolled away too."""
        lines, row, column = [""], 0, 0
        for part in re.findall(r"\x1b\[\d*[A-Z]|\r|\n|[^\x1b\r\n]", self.text):
            if part == "\x1b[1A":
                row = max(0, row - 1)
            elif part == "\x1b[2K":
                lines[row] = ""
            elif part == "\r":
                column = 0
            elif part == "\n":
                row += 1
            else:
                if column == self.columns:
                    row, column = row + 1, 0
                lines += [""] * (row + 1 - len(lines))
                lines[row] = lines[row][:column].ljust(column) + part + lines[row][column + 1:]
                column += 1
            lines += [""] * (row + 1 - len(lines))
        return [line.rstrip() for line in lines]
