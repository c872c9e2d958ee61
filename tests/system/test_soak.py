"""The endurance run of scripts/soak, for half a minute: the same rounds, the same checks."""

from soak import Soak
from support import SystemTest


class Endurance(SystemTest):
    OTHERS = ("asker",)

    def test_nothing_grows_and_every_counter_agrees_with_every_other(self):
        soak = Soak(self.programs, self.net, self.directory("soak"), seconds=25, quiet_every=0)
        self.assertTrue(soak.run(), soak.summary())
        for kind in ("pushes", "killed pushes", "cancelled pushes", "requests", "deletes",
                     "messages to nodes", "messages to the lead"):
            self.assertGreater(soak.done[kind], 0, kind)
