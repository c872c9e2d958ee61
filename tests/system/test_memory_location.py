"""Locations that are shared-memory objects instead of directories."""

import errno
import os

import tree
from support import SystemTest, errno_status, failures, lab, summary

OBJECTS = "/dev/shm"
SIZES = {"large": 5_000_000, "empty": 0, "one byte": 1, "two segments": 2 * tree.SEGMENT,
         "two segments and one": 2 * tree.SEGMENT + 1}


class MemoryLocation(SystemTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.remove_objects)
        for name, size in SIZES.items():
            tree.add(self.content, name, size)

    def prefix(self, node):
        return f"pkgdist-test-{os.getpid()}-{node.name}-"

    def objects(self, node):
        prefix = self.prefix(node)
        return {n[len(prefix):] for n in os.listdir(OBJECTS) if n.startswith(prefix)}

    def remove_objects(self):
        for node in self.net.nodes:
            for name in self.objects(node):
                os.unlink(os.path.join(OBJECTS, self.prefix(node) + name))

    def start_memory_nodes(self):
        for node in self.net.nodes:
            self.start_node(node, location=f"1=mem:/{self.prefix(node)}")

    def assert_objects(self):
        for node in self.net.nodes:
            self.assertEqual(self.objects(node), SIZES.keys())
            for name, size in SIZES.items():
                path = os.path.join(OBJECTS, self.prefix(node) + name)
                self.assertEqual(os.stat(path).st_size, size)
                self.assertEqual(lab.sha256(path), lab.sha256(os.path.join(self.content, name)))

    def test_objects_have_the_right_bytes(self):
        for node in self.net.nodes:
            node.lose(5)
        self.start_memory_nodes()
        self.push()
        self.assert_objects()

    def test_a_second_push_transfers_every_object_again(self):
        self.start_memory_nodes()
        self.push()
        result = self.push()
        self.assertEqual([n["present"] for n in summary(result)["nodes"]], [0, 0, 0])
        self.assert_objects()

    def test_a_name_that_no_object_can_have_fails_alone(self):
        tree.add(self.content, "directory/file", 5000)
        self.start_memory_nodes()
        result = self.push(expect=1)
        status = errno_status(errno.EINVAL)
        self.assertEqual(failures(summary(result)),
                         {n.address: {"directory/file": status} for n in self.net.nodes})
        self.assert_objects()
        self.assert_alive()

    def test_memory_and_directory_locations_stand_side_by_side(self):
        for node in self.net.nodes:
            self.start_node(node, "--location", f"3=mem:/{self.prefix(node)}")
        self.push()
        self.push("--to", "3", to=3)
        self.assert_received()
        self.assert_objects()

    def test_an_orderly_end_leaves_nothing_behind(self):
        process = self.start_node(self.net.nodes[0])
        self.push("--timeout", "1", expect=1)
        own = [f"pkgdist-stat.{process.pid}", f"pkgdist-trace.{process.pid}"]
        self.assertLessEqual(set(own), set(os.listdir(OBJECTS)))
        process.terminate()
        self.assertEqual(process.wait(timeout=10), 0)
        self.assertTrue(set(own).isdisjoint(os.listdir(OBJECTS)))
