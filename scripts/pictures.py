"""The pictures: see scripts/pictures."""

import html
import os
import shutil
import signal
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, "..", "tests", "lab"), os.path.join(HERE, "..", "tests", "system")]
import lab  # noqa: E402
from terminal import Terminal  # noqa: E402

NODES = 8
COLUMNS, ROWS = 100, 24
FILES, FILE_BYTES = 120, 250_000
COLOURS = {"default": "#d7dce3", "red": "#ff7b72", "green": "#7ee787", "brown": "#e3b341", "blue": "#79c0ff",
           "magenta": "#d2a8ff", "cyan": "#76e3ea", "black": "#0d1117", "white": "#ffffff"}
# Of the picture, in its own units.
CHARACTER, LINE, MARGIN = 8.4, 18, 12


class Picture:
    """A terminal's screen as SVG."""

    def __init__(self, emulator, rows):
        self.emulator, self.rows = emulator, rows

    def svg(self):
        width = self.emulator.columns * CHARACTER + 2 * MARGIN
        height = self.rows * LINE + 2 * MARGIN
        lines = "\n".join(self.line(row) for row in range(self.rows))
        return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height:.0f}" '
                'font-family="ui-monospace, DejaVu Sans Mono, monospace" font-size="14">\n'
                f'<rect width="100%" height="100%" rx="8" fill="{COLOURS["black"]}"/>\n{lines}\n</svg>\n')

    def line(self, row):
        """Runs of one colour are one text, as wide as its characters are together."""
        runs = []
        for column in range(self.emulator.columns):
            cell = self.emulator.buffer[row][column]
            if runs and runs[-1][1] == cell.fg:
                runs[-1][2] += cell.data
            else:
                runs.append([column, cell.fg, cell.data])
        return "".join(self.run(row, *run) for run in runs if run[2].strip())

    @staticmethod
    def run(row, column, colour, text):
        column += len(text) - len(text.lstrip())
        text = text.strip()
        return (f'<text x="{MARGIN + column * CHARACTER:.1f}" y="{MARGIN + (row + 0.75) * LINE:.1f}" '
                f'fill="{COLOURS.get(colour, COLOURS["default"])}" textLength="{len(text) * CHARACTER:.1f}" '
                f'xml:space="preserve">{html.escape(text)}</text>')


def fill(root):
    os.makedirs(root)
    for i in range(FILES):
        with open(os.path.join(root, f"part-{i:03}"), "wb") as file:
            file.write(os.urandom(FILE_BYTES))


class Stage:
    """One lead and some nodes, of which one loses datagrams and one is stopped for a while."""

    def __init__(self, programs, net, work):
        self.programs, self.net, self.work = programs, net, work
        lab.mount_memory("/srv")  # in this process's own mount namespace: a path that readers know
        self.root = "/srv/packages"
        fill(os.path.join(self.root, "release-7"))
        self.net.nodes[2].lose(4)

    def start_nodes(self):
        self.processes = []
        for node in self.net.nodes:
            directory = os.path.join(self.work, node.name)
            shutil.rmtree(directory, ignore_errors=True)
            os.makedirs(directory)
            self.processes.append(self.programs.start_node(node, directory, log=directory + ".log"))

    def command(self, *options, json=False):
        return [self.programs.lead, "--interface", self.net.lead.address, "--location", f"1={self.root}",
                *(["--json"] if json else []), "push", "--nodes", str(NODES), "--rate", "20", *options,
                "release-7"]

    def on_terminal(self, *options):
        """The screen in the middle of a push, with one node stopped."""
        self.start_nodes()
        terminal = Terminal(self.net.lead, self.command(*options), COLUMNS, ROWS)
        terminal.read(seconds=6)
        self.processes[5].send_signal(signal.SIGSTOP)
        terminal.wait_for("heard 3 s")
        lines = [number for number, line in enumerate(terminal.shown(), 1) if line]
        picture = Picture(terminal.emulator, lines[-1]).svg()
        self.processes[5].send_signal(signal.SIGCONT)
        terminal.process.send_signal(signal.SIGINT)
        terminal.finish()
        self.net.stop_processes()
        return picture

    def page(self):
        self.start_nodes()
        events, page = os.path.join(self.work, "events"), os.path.join(self.work, "page.html")
        with open(events, "wb") as file:
            push = self.net.lead.spawn(self.command(json=True), stdout=file)
            try:
                push.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.processes[5].kill()
                self.processes[5].wait()
                node = self.net.nodes[5]
                self.processes[5] = self.programs.start_node(node, os.path.join(self.work, node.name),
                                                             log=os.path.join(self.work, node.name + ".log"))
            push.wait(timeout=120)
        subprocess.run([self.programs.lead, "report", events, "-o", page], check=True)
        return page


def photograph(page, picture, size="1000,1250"):
    subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                    f"--screenshot={picture}", f"--window-size={size}", "file://" + page], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)


def main():
    build, target = (os.path.abspath(argument) for argument in sys.argv[1:3])
    lab.enter()
    os.makedirs(target, exist_ok=True)
    work = lab.work_directory()
    try:
        with lab.Lab(nodes=NODES) as net:
            stage = Stage(lab.Programs(build), net, work)
            for name, options in (("push.svg", ()), ("top.svg", ("--top",))):
                with open(os.path.join(target, name), "w", encoding="utf-8") as file:
                    file.write(stage.on_terminal(*options))
            photograph(stage.page(), os.path.join(target, "report.png"))
    finally:
        lab.remove(work)


main()
