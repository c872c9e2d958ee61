"""What stands on the disk when the power goes right after the lead has said "complete".

The node's location is a file system of its own in an image. A copy of the image while it is mounted
is what a disk holds at that moment without the system's memory: what the system has not written yet
is not in it. The copy is mounted and recovered like a disk after a power cut.
"""

import os
import subprocess
import unittest

import tree
from support import ROOT, SystemTest, lab

IMAGE_BYTES = 64 << 20


def loop_devices_work():
    return os.geteuid() == 0 and subprocess.run(["losetup", "--find"], capture_output=True).returncode == 0


@unittest.skipUnless(loop_devices_work(), "needs loop devices")
class PowerCut(SystemTest):
    NODES = 1

    def setUp(self):
        super().setUp()
        tree.small(self.content, small_files=60, medium=1_000_000)
        self.image = os.path.join(ROOT, "disk")
        with open(self.image, "wb") as file:
            file.truncate(IMAGE_BYTES)
        # A journal that is written when asked only, as on a quiet machine within its usual seconds.
        subprocess.run(["mkfs.ext4", "-q", "-E", "lazy_itable_init=0", self.image], check=True)
        place = self.mounted(self.image, "n", "commit=300")
        self.start_node(self.net.nodes[0], location=f"1={place}")

    def mounted(self, image, name, options):
        place = self.directory(name)
        subprocess.run(["mount", "-o", f"loop,{options}", image, place], check=True)
        self.addCleanup(lab.unmount, place)
        self.addCleanup(self.stop_processes)  # before that
        return place

    def wrong_after_power_cut(self):
        """Names of the tree that are missing, empty or different on the disk as it is now."""
        copy = os.path.join(ROOT, "after")
        subprocess.run(["cp", "--sparse=always", self.image, copy], check=True)
        place = self.mounted(copy, "a", "rw")
        return lab.differences(lab.manifest(self.content), lab.manifest(place))

    def test_what_a_durable_push_called_complete_is_on_the_disk(self):
        self.push("--durable")
        self.assertEqual(self.wrong_after_power_cut(), [])

    def test_what_a_plain_push_called_complete_may_be_lost(self):
        self.push()
        self.assertNotEqual(self.wrong_after_power_cut(), [])
