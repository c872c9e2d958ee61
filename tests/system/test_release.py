"""Releases: made, signed and checked by programs, pushed to a node as they are, checked there again."""

import json
import os
import shutil
import subprocess

from support import ROOT, SystemTest


class Release(SystemTest):
    NODES = 1

    def setUp(self):
        super().setUp()
        if shutil.which("minisign") is None:
            self.skipTest("minisign is not installed")
        self.keys = self.directory("keys")
        self.secret = os.path.join(ROOT, "secret.key")
        self.minisign("-G", "-W", "-p", os.path.join(self.keys, "one.pub"), "-s", self.secret)
        self.write("etc/settings", b"colour = blue\n")
        self.write("big", os.urandom(300_000))
        os.symlink("etc/settings", os.path.join(self.content, "link"))

    def write(self, name, content):
        path = os.path.join(self.content, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
        os.chmod(path, 0o644)

    def minisign(self, *arguments):
        subprocess.run(["minisign", *arguments], check=True, capture_output=True,
                       stdin=subprocess.DEVNULL)

    def program(self, *arguments, expect=0):
        result = subprocess.run([os.path.join(os.path.dirname(self.programs.lead), "pkgdist-release"), *arguments],
                                capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, expect, result.stdout + result.stderr)
        return result

    def make(self, version, *arguments):
        self.program("make", self.content, "--name", "base", "--version", str(version), "--floor", "5",
                     *arguments)

    def sign(self, *arguments):
        manifest = os.path.join(self.content, ".pkgdist", "manifest")
        with open(manifest, encoding="utf-8") as file:
            head = file.readline().strip()
        self.minisign("-S", "-s", self.secret, "-m", manifest, "-t", head, *arguments)

    def check(self, directory, *arguments, expect=0):
        return self.program("check", directory, "--keys", self.keys, *arguments, expect=expect)

    def read(self, name):
        with open(os.path.join(self.content, name), "rb") as file:
            return file.read()

    def test_a_signed_release_is_pushed_and_checked_on_the_node(self):
        # A push leaves the mode of directories to the node, which has no umask here.
        os.chmod(os.path.join(self.content, "etc"), 0o777)
        self.make(7)
        self.sign()
        self.assertIn("signed with key", self.check(self.content).stdout)
        self.start_nodes()
        self.push()
        received = self.directory_of(self.net.nodes[0])
        self.assertIn("base version 7", self.check(received).stdout)
        # What a stranger changes later is found.
        with open(os.path.join(received, "etc", "settings"), "r+b") as file:
            file.write(b"C")
        refused = self.check(received, expect=1)
        self.assertEqual(refused.stdout, "content differs: etc/settings\n")
        self.assertIn("refused (bad-tree)", refused.stderr)

    def test_every_change_of_the_tree_is_named(self):
        self.make(7)
        self.sign()
        self.write("new", b"")
        os.unlink(os.path.join(self.content, "link"))
        os.symlink("elsewhere", os.path.join(self.content, "link"))
        os.chmod(os.path.join(self.content, "big"), 0o755)
        refused = self.check(self.content, expect=1)
        self.assertEqual(refused.stdout.splitlines(),
                         ["mode differs: big", "target differs: link", "not in the manifest: new"])

    def test_signatures_of_others_and_without_label_are_refused(self):
        self.make(7)
        manifest = os.path.join(self.content, ".pkgdist", "manifest")
        self.minisign("-S", "-s", self.secret, "-m", manifest)
        self.assertIn("refused (re-labelled)", self.check(self.content, expect=1).stderr)
        other = os.path.join(ROOT, "other.key")
        self.minisign("-G", "-W", "-p", os.path.join(ROOT, "other.pub"), "-s", other)
        self.secret = other
        self.sign()
        self.assertIn("refused (unknown-key)", self.check(self.content, expect=1).stderr)

    def test_check_counts_the_keys_that_signed_and_a_new_manifest_loses_all_signatures(self):
        self.make(7)
        self.sign()
        few = self.check(self.content, "--threshold", "2", expect=1).stderr
        self.assertIn("refused (too-few-signatures): 2 signatures by different keys are needed, and only 1 is trusted",
                      few)
        self.secret = os.path.join(ROOT, "two.key")
        self.minisign("-G", "-W", "-p", os.path.join(self.keys, "two.pub"), "-s", self.secret)
        self.assertIn("signatures by 2 of 2 trusted keys are needed, 1 is there",
                      self.check(self.content, "--threshold", "2", expect=1).stderr)
        second = os.path.join(self.content, ".pkgdist", "manifest.minisig.2")
        self.sign("-x", second)
        both = "signed with keys [0-9A-F]{16}, [0-9A-F]{16}\n"
        self.assertRegex(self.check(self.content, "--threshold", "2").stdout, both)
        self.assertRegex(self.check(self.content).stdout, both)
        with open(second, "r+b") as file:
            file.write(b"U")
        self.assertIn("1 is there; .pkgdist/manifest.minisig.2: the signature file lacks the line",
                      self.check(self.content, "--threshold", "2", expect=1).stderr)
        self.assertRegex(self.check(self.content).stdout, "signed with key [0-9A-F]{16}\n")
        self.make(7)
        self.assertEqual(sorted(os.listdir(os.path.join(self.content, ".pkgdist"))), ["leaves", "manifest"])
        for wrong in (["--threshold", "0", "--keys", self.keys], ["--threshold", "10", "--keys", self.keys],
                      ["--threshold", "2"]):
            self.program("check", self.content, *wrong, expect=2)

    def test_one_tree_gives_one_manifest_and_a_new_manifest_loses_its_signature(self):
        self.make(7, "--threads", "1")
        first = self.read(".pkgdist/manifest"), self.read(".pkgdist/leaves")
        self.sign()
        self.make(7, "--threads", "4", "--cache", os.path.join(ROOT, "cache"))
        self.make(7, "--cache", os.path.join(ROOT, "cache"))
        self.assertEqual(first, (self.read(".pkgdist/manifest"), self.read(".pkgdist/leaves")))
        self.assertFalse(os.path.exists(os.path.join(self.content, ".pkgdist", "manifest.minisig")))

    def test_show_and_diff_say_what_an_update_takes(self):
        self.make(6)
        old = os.path.join(ROOT, "old-manifest")
        shutil.copy(os.path.join(self.content, ".pkgdist", "manifest"), old)
        self.write("etc/settings", b"colour = green\n")
        shutil.copy2(os.path.join(self.content, "big"), os.path.join(self.content, "same"))
        self.make(7)
        diff = self.program("diff", old, self.content)
        self.assertEqual(diff.stdout.splitlines(),
                         ["+ same", "~ etc/settings",
                          "0 removed, 1 added, 1 changed; to send: 1 file, 15 bytes"])
        self.assertEqual(json.loads(self.program("diff", old, self.content, "--json").stdout)["sent"],
                         ["etc/settings"])
        shown = json.loads(self.program("show", self.content, "--json", "--entries").stdout)
        self.assertEqual((shown["name"], shown["version"], shown["floor"], shown["files"]),
                         ("base", 7, 5, 3))
        self.assertEqual([entry["path"] for entry in shown["entries"]],
                         ["big", "etc", "etc/settings", "link", "same"])

    def test_what_a_release_cannot_have_is_refused(self):
        os.chmod(os.path.join(self.content, "big"), 0o4755)
        refused = self.program("make", self.content, "--name", "base", "--version", "7", "--floor", "5",
                               expect=1)
        self.assertIn("refused (mode)", refused.stderr)
        self.make(7, "--allow-setuid")
        os.mkfifo(os.path.join(self.content, "pipe"))
        refused = self.program("make", self.content, "--name", "base", "--version", "7", "--floor", "5",
                               expect=1)
        self.assertIn("refused (bad-tree): 'pipe'", refused.stderr)
        self.program("make", self.content, "--name", "base", "--version", "7", "--floor", "8", expect=2)
