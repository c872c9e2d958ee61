"""The permissions of what a node receives."""

import os
import stat
import subprocess

import tree
from support import ROOT, SystemTest

MODES = {"shared": 0o666, "program": 0o777, "private": 0o600, "setuid": 0o4755, "setgid": 0o2775, "sticky": 0o1644}


class Permissions(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        self.place = os.path.join(ROOT, "made", "by", "the", "node")
        for name, mode in MODES.items():
            tree.add(self.content, f"new/directory/{name}", 100)
            os.chmod(os.path.join(self.content, "new", "directory", name), mode)
        for name in ("new", "new/directory"):
            os.chmod(os.path.join(self.content, name), 0o777)

    def received_with(self, *options):
        """Modes of the received files, and of the directories above them."""
        for node, place in zip(self.net.nodes, (self.place, self.directory("other"))):
            node.spawn([self.programs.node, "--interface", node.address, "--location", f"1={place}", *options, "run"],
                       stdout=subprocess.DEVNULL)
        self.push()
        files = {name: self.mode("new", "directory", name) for name in MODES}
        return files, {self.mode(*parts) for parts in ((), ("new",), ("new", "directory"))}

    def mode(self, *parts):
        return stat.S_IMODE(os.stat(os.path.join(self.place, *parts)).st_mode)

    def test_others_may_not_write_and_nothing_runs_as_somebody_else(self):
        files, directories = self.received_with()
        self.assertEqual(files, {"shared": 0o644, "program": 0o755, "private": 0o600, "setuid": 0o755,
                                 "setgid": 0o755, "sticky": 0o644})
        self.assertEqual(directories, {0o755})

    def test_every_bit_travels_where_that_is_asked_for(self):
        files, directories = self.received_with("--umask", "0", "--allow-setuid")
        self.assertEqual(files, MODES)
        self.assertEqual(directories, {0o777})

    def test_a_stricter_umask_is_kept(self):
        files, directories = self.received_with("--umask", "077")
        self.assertEqual(set(files.values()), {0o600, 0o700})
        self.assertEqual(directories, {0o700})
