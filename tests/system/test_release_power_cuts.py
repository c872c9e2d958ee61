"""The power goes at random moments while a node installs a release: on the disk that is left, `current` is a whole
tree each time, and a node that starts there runs it.

The node's place and state are on a disk that remembers every write and flush (recorded_disk.py). An installation is
recorded once; then the disk is put together as it was at many moments of it, mounted and recovered.

PKGDIST_POWER_CUTS=1000 for a long run; PKGDIST_SEED repeats the moments of an earlier one.
"""

import collections
import os
import random
import subprocess
import unittest

import recorded_disk
from release_node import ReleaseNode
from support import ROOT, SystemTest, lab
from test_power_cut import loop_devices_work

CUTS = int(os.environ.get("PKGDIST_POWER_CUTS", "30"))
SEED = int(os.environ.get("PKGDIST_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 32)
IMAGE_BYTES = 24 << 20
NODE_EACH = 10  # of so many disks, a node is started on one


class OnRecordedDisk:
    """What tests on such a disk share; for a SystemTest."""

    def make_disk(self):
        """Where it is mounted."""
        image = os.path.join(ROOT, "image")
        with open(image, "wb") as file:
            file.truncate(IMAGE_BYTES)
        # The journal is written when asked only, as on a quiet machine within its usual seconds.
        subprocess.run(["mkfs.ext4", "-q", "-E", "lazy_itable_init=0", image], check=True)
        with open(image, "rb") as file:
            content = file.read()
        os.unlink(image)
        path = os.path.join(ROOT, "disk")
        self.disk = recorded_disk.RecordedDisk(path, content)
        self.addCleanup(lab.unmount, path)
        place = self.directory("d")
        subprocess.run(["mount", "-o", "loop,commit=300", path, place], check=True)
        self.addCleanup(lab.unmount, place)
        self.addCleanup(self.stop_processes)  # before that
        return place

    def with_disk_after(self, log, place, random_part, act):
        """What `act` says of the disk that is left of a power cut, mounted and recovered at a directory."""
        image = os.path.join(ROOT, "left")
        with open(image, "wb") as file:
            file.write(self.disk.after_power_cut(log, place, random_part))
        directory = self.directory("l")
        subprocess.run(["mount", "-o", "loop", image, directory], check=True)
        try:
            return act(directory)
        finally:
            subprocess.run(["umount", directory], check=True)


@unittest.skipUnless(loop_devices_work() and recorded_disk.works(), "needs loop devices and /dev/fuse")
class RecordedDisk(OnRecordedDisk, SystemTest):
    NODES = 1

    def test_what_was_not_flushed_is_gone_and_what_was_is_there(self):
        place = self.make_disk()
        os.sync()
        self.disk.record()
        kept, lost = (os.path.join(place, name) for name in ("kept", "lost"))
        for path in (kept, lost):
            with open(path, "wb") as file:
                file.write(b"x" * 10_000)
                if path == kept:
                    os.fsync(file.fileno())
        directory = os.open(place, os.O_RDONLY)
        os.fsync(directory)
        os.close(directory)
        log = self.disk.log()

        def sizes(directory):
            return {name: os.path.getsize(os.path.join(directory, name))
                    for name in ("kept", "lost") if os.path.exists(os.path.join(directory, name))}

        self.assertEqual(self.with_disk_after(log, 0, None, sizes), {})
        found = self.with_disk_after(log, len(log), None, sizes)
        self.assertEqual(found["kept"], 10_000)
        self.assertIn(found.get("lost", 0), (0, 10_000))


@unittest.skipUnless(loop_devices_work() and recorded_disk.works(), "needs loop devices and /dev/fuse")
class PowerCuts(OnRecordedDisk, ReleaseNode):
    NODES = 2

    def setUp(self):
        super().setUp()
        disk = self.make_disk()
        self.place, self.state = (os.path.join(disk, name) for name in ("place", "state"))
        os.makedirs(self.place)
        os.makedirs(self.state)
        self.random = random.Random(SEED)

    def addresses(self):
        return self.net.nodes[0].address  # the other one starts on what is left of disks

    def files_of(self, version):
        """Some change, some stay."""
        return {"big": self.kept, "changes": self.random.randbytes(200_000), f"only/{version}": b"x",
                "settings": str(version).encode()}

    def test_current_is_a_whole_tree_wherever_the_power_is_cut(self):
        print(f"seed {SEED}, {CUTS} power cuts")
        self.kept = self.random.randbytes(400_000)
        self.start_both()
        self.install(1, self.files_of(1))
        os.sync()
        self.disk.record()
        self.install(2, self.files_of(2))
        log = self.disk.log()
        self.assertGreater(sum(entry is None for entry in log), 3, "flushes while a release is installed")
        self.stop_processes()
        found = collections.Counter()
        for i, place in enumerate(self.moments(log)):
            part = self.random if i % 2 else None
            whole = self.with_disk_after(log, place, part, lambda left, i=i: self.check_left(left, i))
            found[whole] += 1
        print("versions on the disks", dict(found))
        self.assertEqual(set(found), {1, 2})
        self.assertEqual(self.with_disk_after(log, len(log), None, self.tree_of), 2)

    def moments(self, log):
        """The first and the last one, and others, half of them beside flushes, where something has just become final."""
        flushes = [i for i, entry in enumerate(log) if entry is None]
        yield from (0, len(log))
        for i in range(CUTS - 2):
            if i % 2:
                yield min(len(log), self.random.choice(flushes) + self.random.randrange(0, 3))
            else:
                yield self.random.randrange(0, len(log) + 1)

    def tree_of(self, left):
        """The version of the whole tree that is current there."""
        self.place, self.state = os.path.join(left, "place"), os.path.join(left, "state")
        return self.check_tree()

    def check_left(self, left, number):
        version = self.tree_of(left)
        self.assertIn(version, (1, 2))
        if number % NODE_EACH == 0:
            self.assertEqual(self.restarted_on(left), self.check_tree())
        return version

    def restarted_on(self, left):
        """A node starts on this disk: the version that it says is current."""
        self.node = self.net.nodes[1]
        with open(self.log_of(self.node), "wb") as log:
            process = self.node.spawn(self.run_arguments(), stdout=log)
        self.node_processes[self.node.name] = process
        try:
            self.wait_for_state("idle", "fetching", "ready", "confirmed", "failed", "refused")
            return self.ask("status")["current"]["version"]
        finally:
            self.kill_node()
