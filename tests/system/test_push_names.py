"""Names and entries with which a push has to be careful."""

import errno
import os
import socket
import unittest

import tree
import wire
from support import (ROOT, UNKNOWN_FILE, USER, BackgroundLead, SystemTest, errno_status, failures,
                     is_root_of_the_machine, lab, names_below, summary)


class NamesOfPartialFiles(SystemTest):
    """NAME and NAME.tmp in one tree: the second is where a node receives the first."""

    LOSS = 3.0  # percent

    def setUp(self):
        super().setUp()
        for i in range(20):
            tree.add(self.content, f"f{i}", 200_000)
            tree.add(self.content, f"f{i}.tmp", 150_000)
        tree.add(self.content, "chain", 50_000)
        tree.add(self.content, "chain.tmp", 60_000)
        tree.add(self.content, "chain.tmp.tmp", 70_000)
        tree.add(self.content, "tree", 50_000)
        tree.add(self.content, "tree.tmp/file", 50_000)
        tree.add(self.content, "linked", 50_000)
        tree.link(self.content, "linked.tmp", "f0")

    def start_lossy_nodes(self):
        for host in self.net.hosts():
            host.lose(self.LOSS)
        self.start_nodes()

    def test_both_arrive_whole_in_spite_of_loss(self):
        self.start_lossy_nodes()
        self.assertTrue(summary(self.push())["complete"])
        self.assert_received()

    def test_a_request_for_one_waits_while_the_other_is_pushed(self):
        self.start_lossy_nodes()
        lead = self.start_push("--rate", "20")
        lead.wait_for("push-started")
        node = self.net.nodes[0]
        # Another process of the host cannot receive at the same time: what asks is a datagram.
        self.ask_for(node, "f19.tmp", "chain.tmp.tmp", "tree.tmp/file")
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()

    def ask_for(self, node, *names):
        sender = node.socket()
        self.addCleanup(sender.close)
        for name in names:
            sender.sendto(wire.encode_data(wire.FILE_REQ, wire.address(node.address), {
                "type": 1, "location": 1, "priority": 1, "name": name}), (self.net.lead.address, 7104))


class LeftOut(SystemTest):
    """An entry that cannot be sent costs itself alone."""

    NODES = 2

    def setUp(self):
        super().setUp()
        tree.small(self.content, small_files=5)
        self.long = tree.longest_name() + "x"
        tree.add(self.content, self.long, 1)
        tree.add(self.content, "huge", 0)
        os.truncate(os.path.join(self.content, "huge"), 1 << 32)

    def assert_all_else_arrived(self):
        expected = lab.manifest(self.content)
        del expected[self.long], expected["huge"]
        for node in self.net.nodes:
            self.assertEqual(lab.differences(expected, lab.manifest(self.directory_of(node))), [])

    def test_is_named_the_rest_arrives_and_the_exit_status_tells(self):
        self.start_nodes()
        result = self.push(expect=1)
        self.assertTrue(summary(result)["complete"])
        left_out = {e["name"]: e["text"] for e in result.events if e["event"] == "left-out"}
        self.assertEqual(set(left_out), {self.long, "huge"})
        self.assertIn("4 GiB", left_out["huge"])
        self.assertIn(f"left out: {self.long}: ", result.stderr)
        self.assert_all_else_arrived()

    def test_refuses_the_whole_push_when_that_is_asked_for(self):
        self.start_nodes()
        result = self.push("--strict", expect=2)
        self.assertEqual(result.events, [])
        self.assertEqual(len(result.stderr.splitlines()), 2, result.stderr)
        for node in self.net.nodes:
            self.assertEqual(names_below(self.directory_of(node)), set())

    def test_pipes_and_sockets_are_left_out_too(self):
        os.mkfifo(os.path.join(self.content, "pipe"))
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(os.path.join(self.content, "socket"))
        self.start_nodes()
        left_out = {e["name"]: e["text"] for e in self.push(expect=1).events if e["event"] == "left-out"}
        self.assertEqual(set(left_out), {self.long, "huge", "pipe", "socket"})
        self.assertEqual((left_out["pipe"], left_out["socket"]),
                         ("a named pipe cannot be sent", "a socket cannot be sent"))
        self.assert_all_else_arrived()
        for name in (self.long, "huge"):
            os.remove(os.path.join(self.content, name))
        refused = self.push("--strict", expect=2)
        self.assertEqual(refused.stderr.splitlines(), ["pkgdist-lead: pipe: a named pipe cannot be sent",
                                                       "pkgdist-lead: socket: a socket cannot be sent"])

    @unittest.skipUnless(is_root_of_the_machine(), "another user can only be taken by root")
    def test_a_directory_that_cannot_be_read_refuses_the_whole_push_when_that_is_asked_for(self):
        for name in (self.long, "huge"):
            os.remove(os.path.join(self.content, name))
        os.chmod(os.path.join(self.content, "small"), 0o700)
        self.start_nodes()
        refused = self.net.lead.run(
            ["setpriv", "--reuid", str(USER), "--clear-groups", self.programs.lead, "--interface",
             self.net.lead.address, "--location", f"1={self.content}", "--json", "push", "--strict", "--nodes",
             self.addresses(), "."], capture_output=True, text=True, timeout=60)
        self.assertEqual((refused.returncode, refused.stdout), (2, ""))
        self.assertIn("pkgdist-lead: small: the directory cannot be read: Permission denied",
                      refused.stderr.splitlines())
        for node in self.net.nodes:
            self.assertEqual(names_below(self.directory_of(node)), set())

    def test_on_one_node_is_reported_for_that_node(self):
        """A location whose path leaves too little room for the longest name."""
        os.remove(os.path.join(self.content, self.long))
        os.remove(os.path.join(self.content, "huge"))
        deep = self.directory("1/" + "deep" * 8)
        first, second = self.net.nodes
        self.start_node(first, location=f"1={deep}")
        self.start_node(second)
        result = self.push(expect=1, timeout=100)
        failed = failures(summary(result))
        self.assertEqual(failed, {first.address: {tree.longest_name(): UNKNOWN_FILE},
                                  second.address: {}})
        expected = lab.manifest(self.content)
        del expected[tree.longest_name()]
        self.assertEqual(lab.differences(expected, lab.manifest(deep)), [])


class LinksOfTheRoot(SystemTest):
    """Links of directories in a content root, and nodes that ask for what is behind them."""

    NODES = 1

    def test_nothing_behind_a_link_that_leads_out_is_served(self):
        tree.write(ROOT, "elsewhere/secret", b"stays here")
        tree.add(self.content, "real/file", 100)
        tree.link(self.content, "out", os.path.join(ROOT, "elsewhere"))
        tree.link(self.content, "real/up", "../../elsewhere")
        tree.link(self.content, "current", "real")
        lead = BackgroundLead(self, "serve")
        lead.wait_for("serving")
        node, = self.net.nodes
        place = self.directory_of(node)
        names = ("out/secret", "real/up/secret", "current/file")
        result = node.run([self.programs.node, "--interface", node.address, "--location", f"1={place}", "--json",
                           "get", *names], capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 1, result.stderr)
        wanted = {"out/secret": errno_status(errno.EXDEV), "real/up/secret": errno_status(errno.EXDEV),
                  "current/file": 0}
        self.assertEqual({e["name"]: e["status"] for e in lab.parse_events(result.stdout) if e["event"] == "file"},
                         wanted)
        self.assertEqual(names_below(place), {"current/file"})
        told = {e["name"]: e["status"] for e in lead.events("requested")}
        self.assertEqual(told, wanted)


class DirectoriesInPlaceOfLinks(SystemTest):
    """A release has a directory where the last one had a link."""

    NODES = 2

    def setUp(self):
        super().setUp()
        tree.add(self.content, "lib64/a.so", 3000)
        tree.link(self.content, "lib", "lib64")
        tree.add(self.content, "other/deep/file", 100)
        self.start_nodes()
        self.push()
        os.remove(os.path.join(self.content, "lib"))
        tree.write(self.content, "lib/a.so", b"of this release", mtime=1_200_000_000)
        tree.write(self.content, "lib/plug/in", b"of this release", mtime=1_200_000_000)

    def test_the_link_is_replaced_and_what_it_led_to_stays(self):
        self.push()
        self.assert_received()

    def test_a_file_in_the_way_is_replaced_and_directories_keep_what_is_in_them(self):
        place = self.directory_of(self.net.nodes[0])
        os.remove(os.path.join(place, "lib"))
        tree.write(place, "lib", b"in the way")
        tree.write(place, "other/mine", b"stays")
        self.push()
        with open(os.path.join(place, "other/mine"), "rb") as file:
            self.assertEqual(file.read(), b"stays")
        os.remove(os.path.join(place, "other/mine"))
        self.assert_received()

    def test_the_link_is_written_through_when_that_is_asked_for(self):
        self.push("--keep-directory-links")
        for node in self.net.nodes:
            place = self.directory_of(node)
            self.assertEqual(os.readlink(os.path.join(place, "lib")), "lib64")
            with open(os.path.join(place, "lib64/a.so"), "rb") as file:
                self.assertEqual(file.read(), b"of this release")
