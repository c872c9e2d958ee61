"""A host's clock is set while a push runs: by an administrator, by a time service, by a dead battery.

The clock of this machine stays as it is: the processes of one host see another time of day, which a
preloaded library adds to the real one as a file says. Durations (the monotonic clock) are untouched,
as when a real clock is set.
"""

import glob
import os
import unittest

import tree
from support import ROOT, SystemTest, lab

PRELOADED = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
YEARS = 365 * 24 * 3600


@unittest.skipUnless(PRELOADED, "needs the package faketime")
class ClockIsSet(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        tree.small(self.content, small_files=20, medium=6_000_000)
        self.offset = os.path.join(ROOT, "offset")
        self.set_clock(0)

    def set_clock(self, seconds):
        with open(self.offset + ".new", "w", encoding="ascii") as file:
            file.write(f"{seconds:+d}\n")
        os.rename(self.offset + ".new", self.offset)

    def let_clock_be_set(self, host):
        settings = {"LD_PRELOAD": PRELOADED[0], "FAKETIME_TIMESTAMP_FILE": self.offset,
                    "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1", "NO_FAKE_STAT": "1"}
        plain = host.prefix
        host.prefix = [*plain, "env", *(f"{name}={value}" for name, value in settings.items())]
        self.addCleanup(setattr, host, "prefix", plain)

    def set_during_a_push(self, steps):
        lead = self.start_push("--rate", "10")
        for seconds in steps:
            before = len(lead.events("push-progress"))
            lab.wait_until(lambda: len(lead.events("push-progress")) > before, what="progress")
            self.set_clock(seconds)
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()
        self.assert_alive()
        return lead

    def test_the_leads_clock_is_set_to_and_fro_and_every_file_arrives(self):
        self.start_nodes()
        self.let_clock_be_set(self.net.lead)
        lead = self.set_during_a_push([3600, -3600, 20 * YEARS])
        times = [event["time"] for event in lead.events()]
        self.assertGreater(max(times) - min(times), 19 * YEARS)  # the clock was set, seen by the lead

    def test_a_nodes_clock_is_set_to_and_fro_and_every_file_arrives(self):
        node, other = self.net.nodes
        self.let_clock_be_set(node)
        self.start_nodes()
        self.set_during_a_push([3600, -3600, 20 * YEARS])
        times = [event["time"] for event in self.node_events(node)]
        self.assertGreater(max(times) - min(times), 19 * YEARS)
        times = [event["time"] for event in self.node_events(other)]
        self.assertLess(max(times) - min(times), 3600)

    def test_a_lead_whose_clock_went_back_between_two_pushes_is_followed(self):
        self.start_nodes()
        self.let_clock_be_set(self.net.lead)
        self.push()
        self.set_clock(-20 * YEARS)
        tree.add(self.content, "another", 300_000)
        self.push()
        self.assert_received()
