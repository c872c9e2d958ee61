"""The laboratory itself: what it builds is gone when it stops, so the next one finds its place free."""

import unittest

from support import lab


class Laboratory(unittest.TestCase):
    def test_one_can_follow_another_at_once(self):
        for _ in range(10):
            lab.Lab(nodes=3).stop()

    def test_a_process_left_in_a_host_keeps_no_name_taken(self):
        first = lab.Lab(nodes=1)
        left = first.nodes[0].spawn(["sleep", "60"])
        self.addCleanup(left.wait)
        self.addCleanup(left.kill)
        first.nodes[0].processes.clear()
        first.stop()
        lab.Lab(nodes=1).stop()

    def test_one_that_fails_to_build_leaves_nothing(self):
        class Impossible(lab.Lab):
            def _build(self):
                super()._build()
                raise RuntimeError("no more hosts")

        with self.assertRaisesRegex(RuntimeError, "no more hosts"):
            Impossible(nodes=1)
        lab.Lab(nodes=1).stop()
