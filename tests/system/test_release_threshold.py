"""Releases that more than one key has to sign: what nodes take, keep and tell, and what a lead sends."""

import os

import lab
from release_node import ReleaseNode
from support import ROOT, errno_status, failures, summary
from test_release_push import Fleet

SIX = {"etc/settings": b"colour = blue\n", "big": os.urandom(300_000)}
SEVEN = {**SIX, "etc/settings": b"colour = green\n", "new/file": b"y"}
TWO = ("--threshold", "2")


class Keys:
    """Of a release node: two more trusted keys, and one that nobody trusts."""

    def make_keys(self):
        for name in ("two", "three"):
            self.new_key(self.secret_of(name), name)
        self.new_key(self.secret_of("stranger"), "../stranger")

    @staticmethod
    def secret_of(name):
        return os.path.join(ROOT, name + ".key")

    def co_sign(self, *names):
        """These sign, too, in the second file and those that follow."""
        for number, name in enumerate(names, 2):
            self.sign_too(number, self.secret_of(name))

    def kept_in(self, directory):
        """Signatures that are kept with a release."""
        return sorted(n for n in os.listdir(os.path.join(directory, ".pkgdist")) if "minisig" in n)


class ReleaseThreshold(Keys, ReleaseNode):
    def setUp(self):
        super().setUp()
        self.make_keys()

    def staged(self):
        staging = os.path.join(self.place, ".pkgdist", "staging")
        return os.path.join(staging, os.listdir(staging)[0])

    def test_a_release_that_too_few_have_signed_is_refused_with_the_reason_and_taken_when_one_more_has(self):
        self.start_both(*TWO)
        self.build(6, SIX)
        self.assertEqual(self.begin("refused")["problem"],
                         "signatures by 2 of 3 trusted keys are needed, 1 is there")
        self.co_sign("stranger")
        self.assertEqual(self.begin("refused")["problem"],
                         "signatures by 2 of 3 trusted keys are needed, 1 is there; .pkgdist/manifest.minisig.2: the "
                         f"manifest is signed with key {self.key_of('../stranger')}, which is not trusted here")
        self.co_sign("stranger", "two")
        self.begin("fetching")
        self.assertEqual(self.kept_in(self.staged()), ["manifest.minisig", "manifest.minisig.3"])
        self.fetch()
        self.activate()
        self.assertEqual(self.check_tree(), 6)
        self.assertEqual(self.ask("status")["signers"], [self.key_of("one"), self.key_of("two")])
        self.assertEqual(self.ask("verify")["signers"], [self.key_of("one"), self.key_of("two")])

    def test_a_node_that_is_killed_goes_on_with_the_signatures_that_hold(self):
        self.start_both(*TWO)
        self.build(6, SIX)
        self.co_sign("stranger", "three")
        self.begin("fetching")
        self.push(paths=["big"])
        lab.wait_until(lambda: self.ask("status")["missing"] == 1, 10, "the file to be checked")
        self.restart(*TWO)
        self.assertEqual(self.wait_for_state("fetching")["missing"], 1)
        self.fetch()
        self.restart(*TWO)
        self.wait_for_state("ready")
        self.activate()
        self.assertEqual(self.kept_in(os.path.join(self.place, "current")), ["manifest.minisig", "manifest.minisig.3"])
        self.restart(*TWO)
        self.assertEqual(self.wait_for_state("idle")["signers"], [self.key_of("one"), self.key_of("three")])
        self.assertEqual(self.check_tree(), 6)

    def test_a_raised_threshold_keeps_what_is_installed_and_what_it_keeps_out(self):
        self.start_both()
        self.install(6, SIX)
        self.restart(*TWO)
        idle = self.wait_for_state("idle")
        self.assertEqual((idle["current"], idle["signers"]), (self.release, [self.key_of("one")]))
        self.build(5, {"five": b"5"})
        self.co_sign("two")
        self.assertIn("version 5 is below the installed 6", self.begin("refused")["problem"])
        self.build(7, SEVEN)
        self.assertIn("1 is there", self.begin("refused")["problem"])
        self.co_sign("two")
        self.begin("fetching")
        self.fetch()
        self.activate()
        self.assertEqual(self.check_tree(), 7)
        self.assertIn("signatures by 2 of 3 trusted keys are needed, 1 is there",
                      self.ask("rollback", expect=1)["problem"])

    def test_no_other_names_are_taken(self):
        self.start_both(*TWO)
        self.build(6, SIX)
        self.co_sign("two")
        self.begin("fetching")
        names = [".pkgdist/manifest.minisig" + ending for ending in (".1", ".10", ".2.new", "2")]
        for name in names:
            self.write(name, b"x")
        self.write(".pkgdist/manifest.minisig.4", b"x" * 16_385)
        refused = failures(summary(self.push(paths=[".pkgdist"], expect=1)))[self.node.address]
        self.assertEqual(refused, {**{name: errno_status(1) for name in names},
                                   ".pkgdist/manifest.minisig.4": errno_status(27)})


class PushWithTwoSignatures(Keys, Fleet):
    def setUp(self):
        super().setUp()
        self.make_keys()

    def test_a_lead_sends_every_signature_that_is_there(self):
        one, two, three = self.net.nodes
        self.start_taker(one, *TWO)
        self.start_taker(two)
        self.start_taker(three, "--threshold", "3")
        self.build(6, SIX)
        self.co_sign("two")
        result = self.push_release("--activate", "those", expect=1)
        self.assertEqual(self.stages(result), {"node1": "confirmed", "node2": "confirmed", "node3": "refused"})
        self.assertIn("signatures by 3 of 3 trusted keys are needed, 2 are there", self.problems(result)["node3"])
        for node in (one, two):
            self.assertEqual(self.kept_in(os.path.join(self.place_of(node), "current")),
                             ["manifest.minisig", "manifest.minisig.2"])
        self.co_sign("two", "three")
        self.push_release()
        self.assertEqual(self.versions(), [6, 6, 6])
