"""A node that installs releases is killed (SIGKILL) at random moments: `current` is a whole tree at each of them,
and the next process goes on.

PKGDIST_KILLS=1000 for a long run, in parts that are test classes of their own: run.py -j 8 runs these at once, each
with its own node and lead. PKGDIST_SEED repeats the moments of an earlier run with the same PKGDIST_KILLS.
"""

import collections
import os
import random
import threading
import time

import lab
from release_node import ReleaseNode
from support import BackgroundLead

KILLS = int(os.environ.get("PKGDIST_KILLS", "24"))
KILLS_OF_A_PART = 24  # at least, where there are several
MOST_PARTS = 8
PARTS = max(1, min(MOST_PARTS, KILLS // KILLS_OF_A_PART))
SEED = int(os.environ.get("PKGDIST_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 32)
ROUND_SECONDS = 180
HEALTH = ("--health", "sleep 0.1")
CHANGED_BYTES = 3_000_000
RATE = "60M"  # a second takes the changed file most of the way: many kills find a part of it


class Kills(ReleaseNode):
    PART = 0

    def setUp(self):
        super().setUp()
        self.random = random.Random(f"{SEED} {self.PART}")
        self.kills = KILLS // PARTS + (self.PART < KILLS % PARTS)
        self.at = collections.Counter()  # in which state it was killed, and beside a part of the large file
        self.killer = None  # of the round, until its clock runs

    def release_files(self, version):
        """Some change, some stay."""
        return {"big": self.kept, "changes": self.random.randbytes(CHANGED_BYTES), f"only/{version}": b"x",
                "settings": str(version).encode()}

    def test_current_is_a_whole_tree_whenever_the_node_is_killed(self):
        print(f"{self.kills} kills; to repeat: PKGDIST_KILLS={KILLS} PKGDIST_SEED={SEED} -k {type(self).__name__}.")
        self.kept = self.random.randbytes(400_000)
        self.start(*HEALTH)
        self.lead = BackgroundLead(self, "serve", "--rate", RATE)
        self.wait_for_lead()
        self.wait_for_state("idle")
        self.build(1, self.release_files(1))
        self.push_description()
        began = time.monotonic()
        self.answer(self.order("check"), "fetching")
        self.fetch()
        self.activate()
        whole = time.monotonic() - began
        current = 1
        for version in range(2, self.kills + 2):
            self.build(version, self.release_files(version))
            self.killer = threading.Thread(target=self.kill_after,
                                           args=(self.random.uniform(0, whole), current, version))
            killer, self.trouble = self.killer, None
            installed = self.install_somehow()
            killer.join()
            if self.trouble is not None:
                raise self.trouble
            # A trial that was killed has failed; anything else goes on to the end.
            current = version if installed else current
            self.assertEqual(self.check_tree(), current)
            lab.wait_until(self.answers, 20, "the node, which may have been killed at the very end")
            self.assertEqual(self.ask("status")["current"]["version"], current)
        print("killed while", dict(self.at))

    def answers(self):
        return self.node.run(self.node_command("release", "status"), capture_output=True, timeout=20).returncode == 0

    def kill_after(self, seconds, old, new):
        time.sleep(seconds)
        self.kill_node()
        try:
            self.at[self.states()[-1]["state"]] += 1
            self.at["part of a file"] += os.path.exists(os.path.join(self.place, ".pkgdist/incoming/changes.tmp"))
            version = self.check_tree()
            self.assertIn(version, (old, new))
        except AssertionError as trouble:
            self.trouble = trouble
        self.start(*HEALTH)

    def install_somehow(self):
        """Until the release is current (true), or has failed because it was killed on trial (false)."""
        end = time.monotonic() + ROUND_SECONDS
        while True:
            try:
                return self.attempt()
            except (AssertionError, lab.subprocess.TimeoutExpired):
                if time.monotonic() > end:
                    raise

    def attempt(self):
        self.push("--max-time", "5", paths=[".pkgdist"])
        if self.killer is not None:
            self.killer.start()
            self.killer = None
        return self.install_checked()

    def install_checked(self):
        state = self.next_state("check", "fetching", "ready", "confirmed", "refused")
        if state["state"] == "refused":
            self.assertIn("was activated before and failed", state["problem"])
            return False
        if state["state"] == "fetching":
            self.push("--max-time", "5", paths=["."])
            state = self.next_state("fetched", "ready", "confirmed")
        if state["state"] == "ready":
            state = self.next_state("activate", "confirmed", "failed")
        return state["state"] == "confirmed"

    def next_state(self, what, *wanted):
        return self.answer(self.order(what), *wanted, seconds=10)


# The other parts, as classes of this module for the loader.
globals().update({f"Kills{part + 1}": type(f"Kills{part + 1}", (Kills,), {"PART": part, "__module__": __name__})
                  for part in range(1, PARTS)})
