"""push --checksum: nodes compare the content of every file, and receive again what differs."""

import contextlib
import os
import shutil
import subprocess

import tree
from support import ROOT, BackgroundLead, SystemTest, lab, summary

BIG = 1_000_000  # more than one leaf


class ChecksumTest(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        tree.small(self.content, small_files=20)
        tree.add(self.content, "d/big", BIG)

    def compared(self, result):
        events = result.events() if callable(result.events) else result.events
        return {e["node"]: e for e in events if e["event"] == "compared"}

    def assert_agree(self, result, *again):
        """On every node, where only the first had something to receive again."""
        compared = self.compared(result)
        self.assertEqual(set(compared), {node.address for node in self.net.nodes})
        for node in self.net.nodes:
            event = compared[node.address]
            names = list(again) if node is self.net.nodes[0] else []
            self.assertEqual((event["good"], event["received_again"], event["failed"], event["text"]),
                             (True, names, [], ""))

    def spoil(self, name, root=None):
        """Another byte in the middle, with the same size and time."""
        path = os.path.join(root or self.directory_of(self.net.nodes[0]), name)
        info = os.stat(path)
        with open(path, "r+b") as file:
            file.seek(info.st_size // 2)
            byte = file.read(1)[0]
            file.seek(info.st_size // 2)
            file.write(bytes([byte ^ 1]))
        os.utime(path, ns=(info.st_atime_ns, info.st_mtime_ns))


class Checksum(ChecksumTest):
    def test_contents_that_agree_are_told_of_every_node(self):
        tree.add_names(self.content)
        tree.add(self.content, ".pkgdist/manifest", 100)
        self.start_nodes()
        self.assert_agree(self.push("--checksum"))
        self.assert_received()
        for node in self.net.nodes:
            self.assertEqual(self.node_events(node, "message"), [])
            self.assertEqual(self.node_events(node, "compared"), [])

    def test_a_push_asks_for_nothing_of_the_kind_unless_told_to(self):
        self.start_nodes()
        self.assertEqual(self.compared(self.push()), {})

    def test_what_differs_is_received_again_although_size_and_time_are_the_same(self):
        self.start_nodes()
        self.push()
        wrong = ["d/big", "small/3/3"]
        for name in wrong:
            self.spoil(name)
        self.push()
        self.assertEqual(len(lab.differences(lab.manifest(self.content), lab.manifest(self.directory_of(self.net.nodes[0])))), 2)
        self.assert_agree(self.push("--checksum"), *wrong)
        self.assert_received()
        told = self.node_events(self.net.nodes[0], "compared")
        self.assertEqual([(e["received_again"], e["failed"]) for e in told], [(wrong, [])])

    def test_what_stays_wrong_is_named_for_each_node_and_nothing_is_removed_there(self):
        lead = self.start_push("--checksum", "--delete")
        # The lead has read its files, and sends something else.
        lead.wait_for("push-requested")
        self.spoil("d/big", self.content)
        for node in self.net.nodes:
            tree.add(self.directory_of(node), "other", 10)
        self.start_nodes()
        lead.finish(expect=1)
        compared = self.compared(lead)
        for node in self.net.nodes:
            sent = [e for e in lead.events("request-ended") if (e["node"], e["name"]) == (node.address, "d/big")]
            # The lead ends with the answer that follows the third reception, whose report may come later.
            self.assertIn([e["status"] for e in sent], ([0, 0], [0, 0, 0]))
            event = compared[node.address]
            self.assertEqual((event["good"], event["received_again"], event["failed"]),
                             (False, [], [{"name": "d/big", "text": "it has another content, received again 3 times"}]))
            self.assertTrue(os.path.exists(os.path.join(self.directory_of(node), "other")))
            self.assertEqual([e["failed"] for e in self.node_events(node, "compared")], [event["failed"]])

    def test_what_the_lead_cannot_read_twice_the_same_is_not_compared_and_named(self):
        self.start_nodes()
        path = os.path.join(self.content, "growing")
        writer = subprocess.Popen(["sh", "-c", f"while :; do echo x >> {path}; done"])
        self.addCleanup(writer.wait)
        self.addCleanup(writer.kill)
        lab.wait_until(lambda: os.path.exists(path), what="the file that grows")
        tree.add(self.content, "growing-not", 10)
        os.truncate(path, 300_000_000)
        result = self.programs.push(self.net.lead, self.content, "--nodes", self.addresses(), "--checksum",
                                    "--max-time", "1", "growing")
        self.assertEqual(result.returncode, 1)
        self.assertEqual([(e["name"], e["text"]) for e in result.events if e["event"] == "not-compared"],
                         [("growing", "it changed while it was read")])

    def test_a_node_whose_program_does_not_answer_is_named(self):
        heard, unheard = self.net.nodes
        self.start_nodes()
        # Messages of this node do not arrive; its answers to pings and lists do.
        message = "@th,128,32 3"  # the kind, behind the header of UDP and two words
        self.net.lead.filter(f"ip saddr {unheard.address} udp dport 7102 {message} drop")
        result = self.push("--checksum", expect=1)
        compared = self.compared(result)
        self.assertTrue(compared[heard.address]["good"])
        self.assertEqual((compared[unheard.address]["good"], compared[unheard.address]["text"]),
                         (False, "its program does not do it"))

    def test_a_repair_that_finds_the_disk_full_keeps_the_file_that_is_there_and_tells_why(self):
        self.fill_disk()
        troubled = self.net.nodes[0]
        self.spoil("small disk/spoiled")
        with self.nothing_changes_on(self.small_disk):
            compared = self.compared(self.push("--checksum", expect=1))
        self.assertTrue(compared[self.net.nodes[1].address]["good"])
        told = compared[troubled.address]
        self.assertEqual((told["good"], told["received_again"]), (False, []))
        [failed] = told["failed"]
        self.assertEqual(failed["name"], "small disk/spoiled")
        self.assertRegex(failed["text"], "^it has another content; receiving it again: the disk is full")
        # With room, the same push mends it.
        subprocess.run(["mount", "-o", "remount,size=20m", self.small_disk], check=True)
        self.assert_agree(self.push("--checksum"), "small disk/spoiled")
        self.assert_received()

    def test_a_new_file_that_has_no_room_leaves_the_old_one(self):
        self.fill_disk()
        with open(os.path.join(self.content, "small disk/good"), "ab") as file:
            file.write(bytes(BIG))
        with self.nothing_changes_on(self.small_disk):
            result = self.push("--checksum", expect=1)
        troubled = self.net.nodes[0].address
        self.assertEqual(self.compared(result)[troubled]["text"], "it does not have every file of the push")
        [failed] = next(node["failed"] for node in summary(result)["nodes"] if node["node"] == troubled)
        self.assertEqual(failed["name"], "small disk/good")
        self.assertIn("the disk is full", failed["text"])

    @contextlib.contextmanager
    def nothing_changes_on(self, directory):
        """Not even by a partial file that stays."""
        before = lab.manifest(directory)
        yield
        lab.wait_until(lambda: lab.differences(before, lab.manifest(directory)) == [],
                       what="everything to be as it was")

    def fill_disk(self):
        """What both nodes have, the first on a disk with no room for one of the files more."""
        for name in ("spoiled", "good"):
            tree.add(self.content, f"small disk/{name}", BIG)
        self.small_disk = os.path.join(self.directory_of(self.net.nodes[0]), "small disk")
        self.mount(self.small_disk, f"size={2 * BIG + 500_000}")
        self.start_nodes()
        self.push()

    def test_a_push_through_a_lead_that_serves_compares_too(self):
        self.start_nodes()
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(serving.events("node-introduced")) == 2, what="the nodes")
        self.assertEqual(serving.request("push", "--nodes", self.addresses(), ".")[0], 0)
        self.spoil("d/big")
        status, events, error = serving.request("push", "--nodes", self.addresses(), "--checksum", ".")
        self.assertEqual(status, 0, error)
        again = {e["node"]: e["received_again"] for e in events if e["event"] == "compared"}
        first, second = self.net.nodes
        self.assertEqual(again, {first.address: ["d/big"], second.address: []})
        self.assert_received()


class SignedChecksum(ChecksumTest):
    def setUp(self):
        super().setUp()
        if shutil.which("minisign") is None:
            self.skipTest("minisign is not installed")
        self.own, self.other = self.key("own"), self.key("other")
        for node in self.net.nodes:
            with open(self.log_of(node), "ab") as log:
                node.spawn([self.programs.node, "--interface", node.address, "--location",
                            f"1={self.directory_of(node)}", "--json", "run", "--push-keys", os.path.join(ROOT, "own.pub")],
                           stdout=log)

    def key(self, name):
        path = os.path.join(ROOT, name)
        subprocess.run(["minisign", "-G", "-W", "-p", path + ".pub", "-s", path + ".key"], check=True,
                       capture_output=True, stdin=subprocess.DEVNULL)
        return path + ".key"

    def texts(self, result):
        return {e["text"] for e in self.compared(result).values()}

    def test_a_node_with_keys_compares_what_one_of_them_signed(self):
        self.assert_agree(self.push("--checksum", "--checksum-key", self.own))

    def test_what_nobody_or_another_key_signed_is_refused(self):
        self.assertEqual(self.texts(self.push("--checksum", expect=1)), {"nobody has signed what it brings"})
        [text] = self.texts(self.push("--checksum", "--checksum-key", self.other, expect=1))
        self.assertIn("not trusted here", text)

    def test_a_secret_key_that_others_may_read_is_refused(self):
        os.chmod(self.own, 0o644)
        result = self.push("--checksum", "--checksum-key", self.own, expect=3)
        self.assertIn("others may read or write the secret key", result.stderr)
