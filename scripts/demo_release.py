"""The demonstration of signed releases: see scripts/demo."""

import os
import shlex
import shutil
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "lab"))
import lab  # noqa: E402

LOSS_PERCENT = 2.0
SMALL_FILES = 2000
LARGE_FILE = 30_000_000  # bytes


class Demo:
    def __init__(self, programs, net, work):
        self.programs, self.net, self.work = programs, net, work
        self.release_program = os.path.join(os.path.dirname(programs.lead), "pkgdist-release")
        self.keys = self.directory("keys")
        self.secret = os.path.join(work, "release.key")
        self.good = True

    def directory(self, *names):
        path = os.path.join(self.work, *names)
        os.makedirs(path, exist_ok=True)
        return path

    def run(self, host, program, *arguments, quiet=False):
        command = [program, *arguments]
        shown = " ".join(shlex.quote(a) for a in [os.path.basename(program), *arguments])
        print(f"\n{host.name + ': ' if host else ''}$ {shown.replace(self.work + '/', '')}", flush=True)
        options = {"stdout": subprocess.DEVNULL} if quiet else {}
        result = host.run(command, **options) if host else subprocess.run(command, **options)
        self.good = self.good and result.returncode == 0
        return result.returncode

    # --- Releases ---

    def make(self, directory, version):
        self.run(None, self.release_program, "make", directory, "--name", "demo", "--version", str(version),
                 "--floor", "1", quiet=True)
        manifest = os.path.join(directory, ".pkgdist", "manifest")
        with open(manifest, encoding="utf-8") as file:
            head = file.readline().strip()
        self.run(None, "minisign", "-S", "-s", self.secret, "-m", manifest, "-t", head, quiet=True)

    def first_tree(self):
        tree = self.directory("release-1")
        if os.path.isdir("/usr/share/zoneinfo"):
            shutil.copytree("/usr/share/zoneinfo", os.path.join(tree, "zoneinfo"), symlinks=True)
        for i in range(SMALL_FILES):
            path = os.path.join(self.directory("release-1", "app", f"{i % 40:02}"), f"{i}.conf")
            with open(path, "wb") as file:
                file.write(os.urandom(1000 + i))
        with open(os.path.join(tree, "app", "image"), "wb") as file:
            file.write(os.urandom(LARGE_FILE))
        return tree

    def second_tree(self, first):
        """Six of the files are other ones."""
        tree = os.path.join(self.work, "release-2")
        shutil.copytree(first, tree, symlinks=True, ignore=shutil.ignore_patterns(".pkgdist"))
        for i in range(5):
            with open(os.path.join(tree, "app", f"{i:02}", f"{i}.conf"), "ab") as file:
                file.write(b"changed\n")
        with open(os.path.join(tree, "app", "new"), "wb") as file:
            file.write(b"not in the first one\n")
        return tree

    # --- Nodes ---

    def start_nodes(self):
        subprocess.run(["minisign", "-G", "-W", "-p", os.path.join(self.keys, "demo.pub"), "-s", self.secret],
                       check=True, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        print(f"one lead and three nodes on a bridge, {LOSS_PERCENT:g} % of what each node receives is lost; "
              "each node runs\n$ pkgdist-node --interface ADDRESS run --releases demo=PLACE --keys KEYS --state STATE")
        for host in self.net.nodes:
            host.lose(LOSS_PERCENT)
            host.spawn([self.programs.node, "--interface", host.address, "--json", "run",
                        "--releases", f"demo={self.directory(host.name)}", "--keys", self.keys,
                        "--state", self.directory(host.name + ".state")], stdout=subprocess.DEVNULL)

    def lead(self, *arguments):
        return self.run(self.net.lead, self.programs.lead, "--interface", self.net.lead.address, *arguments)

    def push(self, directory):
        start = time.monotonic()
        self.lead("push", "--release", directory, "--nodes", "3")
        print(f"({time.monotonic() - start:.1f} s)")

    def show(self):
        addresses = ",".join(host.address for host in self.net.nodes)
        self.lead("releases", "--verify", "--nodes", addresses)

    def current(self, host):
        return os.readlink(os.path.join(self.work, host.name, "current"))

    def expect(self, version):
        """Every node has this release, as it was signed."""
        for host in self.net.nodes:
            place = os.path.join(self.work, host.name)
            whole = subprocess.run([self.release_program, "check", os.path.join(place, "current"), "--keys", self.keys],
                                   capture_output=True, text=True)
            right = os.path.basename(self.current(host)).startswith(f"{version}-") and whole.returncode == 0
            print(f"{host.name}: current -> {self.current(host)}: {'as signed' if right else 'WRONG'}")
            self.good = self.good and right

    def run_all(self):
        self.start_nodes()
        first = self.first_tree()
        self.make(first, 1)
        self.push(first)
        self.expect(1)
        second = self.second_tree(first)
        self.make(second, 2)
        self.run(None, self.release_program, "diff", first, second)
        self.push(second)
        self.expect(2)
        self.show()
        print("\nback to the first one, on each node:")
        for host in self.net.nodes:
            self.run(host, self.programs.node, "--interface", host.address, "release", "rollback")
        self.expect(1)
        print("\nevery node did what it was told" if self.good else "\nNOT everything went well")
        return 0 if self.good else 1


def main():
    if not (os.environ.get(lab.MARK) or lab.available()):
        print("this system forbids network namespaces: the demonstration of releases needs them")
        return 1
    lab.enter()
    work = lab.work_directory()
    try:
        with lab.Lab(nodes=3) as net:
            return Demo(lab.Programs(sys.argv[1]), net, work).run_all()
    finally:
        lab.remove(work)


sys.exit(main())
