"""The permissions of what a node receives."""

import os
import stat
import subprocess

import tree
from support import ROOT, SystemTest, remove_tree

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

    def test_memory_objects_are_closed_to_others_by_the_umask_alone(self):
        """Their mode is 0777, whatever the file's is."""
        remove_tree(os.path.join(self.content, "new"))
        for name, mode in MODES.items():
            tree.add(self.content, name, 100)
            os.chmod(os.path.join(self.content, name), mode)
        for options, mode in ((), 0o755), (("--umask", "077"), 0o700), (("--umask", "0", "--allow-setuid"), 0o777):
            with self.subTest(options=options):
                for node in self.net.nodes:
                    self.start_memory_node(node, *options)
                self.push()
                for node in self.net.nodes:
                    self.assertEqual(self.object_modes(node), dict.fromkeys(MODES, mode))
                self.stop_processes()
                self.remove_objects()

    def prefix(self, node):
        return f"pkgdist-test-{os.getpid()}-{node.name}-"

    def objects(self, node):
        """Names of this node's objects and the paths of these."""
        prefix = self.prefix(node)
        return {name[len(prefix):]: os.path.join("/dev/shm", name) for name in os.listdir("/dev/shm")
                if name.startswith(prefix)}

    def object_modes(self, node):
        return {name: stat.S_IMODE(os.stat(path).st_mode) for name, path in self.objects(node).items()}

    def remove_objects(self):
        for node in self.net.nodes:
            for path in self.objects(node).values():
                os.unlink(path)

    def start_memory_node(self, node, *options):
        self.addCleanup(self.remove_objects)
        node.spawn([self.programs.node, "--interface", node.address, "--location",
                    f"1=mem:/{self.prefix(node)}", *options, "run"], stdout=subprocess.DEVNULL)

    def test_a_stricter_umask_is_kept(self):
        files, directories = self.received_with("--umask", "077")
        self.assertEqual(set(files.values()), {0o600, 0o700})
        self.assertEqual(directories, {0o700})
