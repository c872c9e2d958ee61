"""What tests of nodes with --releases share: releases that are made and signed, and a node that takes them."""

import base64
import hashlib
import json
import os
import shutil
import subprocess

import lab
import node_statistics
from support import ROOT, BackgroundLead, SystemTest, remove_tree


class ReleaseNode(SystemTest):
    """One node that takes releases of "base", and a lead that serves the directory they are made in."""

    NODES = 1

    def setUp(self):
        super().setUp()
        if shutil.which("minisign") is None:
            self.skipTest("minisign is not installed")
        self.node = self.net.nodes[0]
        self.keys = self.directory("keys")
        self.secret = os.path.join(ROOT, "secret.key")
        self.new_key(self.secret, "one")
        self.place = self.directory("place")
        self.state = self.directory("state")
        self.release = None
        self.lead = None
        self.number = 0

    # --- Releases ---

    def minisign(self, *arguments):
        subprocess.run(["minisign", *arguments], check=True, capture_output=True, stdin=subprocess.DEVNULL)

    def new_key(self, secret, name):
        self.minisign("-G", "-W", "-p", os.path.join(self.keys, name + ".pub"), "-s", secret)

    def key_of(self, name):
        """As the programs name it: bytes 2 to 9 of the key's line, the last one first."""
        with open(os.path.join(self.keys, name + ".pub"), encoding="utf-8") as file:
            line = base64.b64decode(file.read().splitlines()[1])
        return line[2:10][::-1].hex().upper()

    def sign_too(self, number, secret):
        """One more signature of the release that was made, in the file with this number."""
        manifest = os.path.join(self.content, ".pkgdist", "manifest")
        with open(manifest, encoding="utf-8") as file:
            head = file.readline().strip()
        self.minisign("-S", "-s", secret, "-m", manifest, "-x", f"{manifest}.minisig.{number}", "-t", head)

    def write(self, name, content):
        path = os.path.join(self.content, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
        os.chmod(path, 0o644)

    def build(self, version, files, *arguments):
        """A signed release of these files, in place of the one before. A file that stays keeps its time."""
        remove_tree(os.path.join(self.content, ".pkgdist"))
        for name in self.files():
            if name not in files:
                os.unlink(os.path.join(self.content, name))
        for name, content in files.items():
            path = os.path.join(self.content, name)
            if not os.path.exists(path) or open(path, "rb").read() != content:
                self.write(name, content)
        self.make(version, *arguments)

    def files(self):
        found = []
        for place, _, names in os.walk(self.content):
            found += [os.path.relpath(os.path.join(place, name), self.content) for name in names]
        return [name for name in found if not name.startswith(".pkgdist/")]

    def make(self, version, *arguments):
        made = subprocess.run([self.release_program, "make", self.content, "--name", "base", "--version", str(version),
                               "--floor", "0", *arguments], capture_output=True, text=True, timeout=60)
        self.assertEqual(made.returncode, 0, made.stderr)
        manifest = os.path.join(self.content, ".pkgdist", "manifest")
        with open(manifest, "rb") as file:
            text = file.read()
        self.minisign("-S", "-s", self.secret, "-m", manifest, "-t", text.split(b"\n")[0].decode())
        self.release = {"version": version, "manifest": hashlib.sha256(text).hexdigest()}

    @property
    def release_program(self):
        return os.path.join(os.path.dirname(self.programs.lead), "pkgdist-release")

    # --- The node ---

    def node_command(self, *arguments):
        return [self.programs.node, "--interface", self.node.address, "--json", *arguments]

    def run_arguments(self, *more):
        return self.node_command("run", "--releases", f"base={self.place}", "--keys", self.keys, "--state", self.state,
                                 *more)

    def start(self, *more):
        with open(self.log_of(self.node), "ab") as log:
            process = self.node.spawn(self.run_arguments(*more), stdout=log)
        self.node_processes[self.node.name] = process
        return process

    def kill_node(self):
        process = self.node_processes[self.node.name]
        self.kill(process)
        node_statistics.forget_trace(process.pid)

    def restart(self, *more):
        """Killed, and started again; its events begin anew."""
        self.kill_node()
        os.truncate(self.log_of(self.node), 0)
        self.start(*more)
        self.wait_for_lead()

    def ask(self, *arguments, expect=0):
        """A command to the node: its last event."""
        done = self.node.run(self.node_command("release", *arguments), capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, expect, done.stdout + done.stderr)
        return lab.parse_events(done.stdout)[-1]

    def wait_for_lead(self):
        lab.wait_until(lambda: self.node_events(self.node, "lead-changed"), 20, "the node to follow the lead")

    def states(self):
        return self.node_events(self.node, "installation")

    def wait_for_state(self, *wanted, seconds=20):
        """Until the last state is one of these."""
        lab.wait_until(lambda: self.states() and self.states()[-1]["state"] in wanted, seconds,
                       f"the state {wanted}; states: {[(s['state'], s['problem']) for s in self.states()[-8:]]}")
        return self.states()[-1]

    def check_tree(self):
        """`current` is a whole tree of a signed release: its version."""
        target = os.readlink(os.path.join(self.place, "current"))  # may name another one in a moment
        checked = subprocess.run([self.release_program, "check", os.path.join(self.place, target), "--keys", self.keys],
                                 capture_output=True, text=True, timeout=60)
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)
        return int(target.split("/")[-1].split("-")[0])

    # --- The lead ---

    def start_both(self, *more):
        self.start(*more)
        self.lead = BackgroundLead(self, "serve")
        self.wait_for_lead()
        self.wait_for_state("idle")

    def order(self, what, release=None):
        """Sends an order. What the node says afterwards is its answer, and begins at this place."""
        place = len(self.states())
        self.number += 1
        order = {"number": self.number, "location": 1, "name": "base", **(release or self.release), "order": what}
        text = "pkgdist-release-order 1 " + json.dumps(order) + "\n"
        for _ in range(3):  # a lead may find out with a message that the node is a new process
            status, events, errors = self.lead.request("message", "--class", "5", "--nodes", self.node.address, text)
            if status == 0:
                return place
        return self.fail(f"{errors} {events}")

    def answer(self, place, *wanted, seconds=20):
        """The first state of these since an order."""
        def found():
            return [state for state in self.states()[place:] if state["state"] in wanted]
        try:
            lab.wait_until(found, seconds, f"one of {wanted} among the states since the order")
        except AssertionError as late:
            said = [(state["state"], state["problem"]) for state in self.states()[place:]]
            raise AssertionError(f"{late}; states: {said}; last events: {self.node_events(self.node)[-5:]}") from late
        return found()[0]

    def push_description(self):
        self.push(paths=[".pkgdist"])

    def begin(self, *wanted):
        """The node gets the manifest, and checks it: what it says then."""
        self.push_description()
        return self.answer(self.order("check"), *(wanted or ("fetching", "ready")))

    def fetch(self, *wanted, expect=0):
        self.push(paths=["."], expect=expect)
        return self.answer(self.order("fetched"), *(wanted or ("ready",)))

    def activate(self, *wanted):
        return self.answer(self.order("activate"), *(wanted or ("confirmed",)))

    def install(self, version, files, *arguments):
        self.build(version, files, *arguments)
        if self.begin()["state"] == "fetching":
            self.fetch()
        self.activate()
