"""Files that cannot be written on one node: they fail there, are told, and nothing else stops."""

import errno
import os
import unittest

import tree
from support import (SHORT_WRITE, USER, BackgroundLead, SystemTest, errno_status, failures,
                     is_root_of_the_machine, lab, remove_tree, summary)


class FailuresOfOneNode(SystemTest):
    """The first node has the trouble; it and the others get everything else."""

    def setUp(self):
        super().setUp()
        self.troubled, *self.others = self.net.nodes
        tree.small(self.content, small_files=10)

    def at_troubled(self, name):
        return os.path.join(self.directory_of(self.troubled), name)

    def assert_fails_alone(self, end, name, *numbers, statuses=()):
        """Only `name` has failed, on the troubled node alone, which says so to lead and caller."""
        statuses = [*statuses, *(errno_status(number) for number in numbers)]
        told = failures(end)
        self.assertEqual(told[self.troubled.address].keys(), {name})
        self.assertIn(told[self.troubled.address][name], statuses)
        for node in self.others:
            self.assertEqual(told[node.address], {})
        self.assertFalse(end["complete"])
        self.wait_until_told(len(lab.manifest(self.content)))
        ended = {e["name"]: e["status"] for e in self.node_events(self.troubled, "file")}
        self.assertEqual(ended[name], told[self.troubled.address][name])
        self.assertEqual(sum(status != 0 for status in ended.values()), 1)
        done = self.node_events(self.troubled, "transaction-done")
        self.assertEqual(sum(e["failed"] for e in done), 1)
        self.assert_received(*self.others)
        self.assert_received_but(name)
        self.assert_alive()

    def outcome_at_node(self, name):
        return next(e["text"] for e in self.node_events(self.troubled, "file") if e["name"] == name)

    def text_at_lead(self, end):
        """Of the one failure there is."""
        return next(f["text"] for node in end["nodes"] for f in node["failed"])

    def wait_until_told(self, files):
        """The lead may hear of the last file before the node's own callbacks have run."""
        def told():
            done = self.node_events(self.troubled, "transaction-done")
            return sum(e["files"] for e in done) >= files

        lab.wait_until(told, what="the end of every file to be told to the caller")

    def assert_received_but(self, *names):
        expected = lab.manifest(self.content)
        actual = lab.manifest(self.directory_of(self.troubled))
        for name in names:
            expected.pop(name)
            actual.pop(name, None)
        self.assertEqual(lab.differences(expected, actual), [])

    def test_a_full_disk(self):
        self.mount(self.at_troubled("small disk"), "size=1m")
        tree.add(self.content, "small disk/too large", 5_000_000)
        self.start_nodes()
        end = summary(self.push(expect=1))
        # The end of the disk is inside of a segment, of which it takes the first part.
        self.assert_fails_alone(end, "small disk/too large", statuses=[SHORT_WRITE])
        self.assertIn("the disk is full", self.text_at_lead(end))
        self.assertRegex(self.outcome_at_node("small disk/too large"),
                         r"the disk is full: \d+ of 1048576 bytes are free at .*/small disk")
        lab.wait_until(lambda: os.listdir(self.at_troubled("small disk")) == [],
                       what="the partial file to be removed")

    def test_a_disk_without_inodes(self):
        self.mount(self.at_troubled("full of names"), "nr_inodes=3")
        tree.write(self.at_troubled("full of names"), "mine", b"1")
        os.symlink("mine", self.at_troubled("full of names/also mine"))
        tree.add(self.content, "full of names/one more", 3000)
        self.start_nodes()
        end = summary(self.push(expect=1))
        self.assertIn("no inodes left", self.text_at_lead(end))
        self.assertRegex(self.outcome_at_node("full of names/one more"),
                         "no inodes are left at .*/full of names$")

    def test_a_name_that_is_too_long_for_its_location(self):
        long = "/".join(["directory with a long name"] * 8)
        tree.add(self.content, long, 3000)
        place = self.directory(os.path.join(self.directory_of(self.troubled), "of a location that is long, too"))
        self.start_node(self.troubled, location=f"1={place}")
        for node in self.others:
            self.start_node(node)
        self.push(expect=1)
        said = [e["text"] for e in self.node_events(self.troubled, "error")]
        self.assertEqual(len(said), 1, "lists that come again are not told again")
        self.assertRegex(said[0], r"the name is too long: 2\d\d bytes with its location and .tmp, 255 at most$")

    def test_a_full_disk_has_room_again_for_the_next_push(self):
        self.mount(self.at_troubled("small disk"), "size=1m")
        tree.add(self.content, "small disk/too large", 5_000_000)
        self.start_nodes()
        self.push(expect=1)
        tree.add(self.content, "small disk/too large", 500_000)
        self.push()
        self.assert_received()

    def test_a_disk_that_is_full_and_is_freed_during_a_push(self):
        """What came meanwhile failed and is named, what came later is there, and the next push brings
        the rest and nothing else."""
        disk = self.at_troubled("small disk")
        self.mount(disk, "size=4m")
        tree.write(disk, "of somebody else", b"x" * 3_900_000)
        names = [f"small disk/{number:02}" for number in range(80)]
        for name in names:
            tree.add(self.content, name, 30_000)
        self.start_nodes()
        lead = self.start_push("--rate", "4")

        def failed_at_node():
            return {e["name"] for e in self.node_events(self.troubled, "file") if e["status"] != 0}

        lab.wait_until(lambda: len(failed_at_node()) > 3, 20, "files that find no room")
        os.unlink(os.path.join(disk, "of somebody else"))
        end = lead.finish(expect=1)
        failed = failures(end)[self.troubled.address]
        self.assertLess(len(failed), len(names) - 10, "the rest found room")
        # Of a second attempt, after the partial file has gone, the last one.
        self.assertLessEqual(set(failed.values()), {SHORT_WRITE, errno_status(errno.ENOSPC),
                                                    errno_status(errno.ENOENT)})
        self.assertEqual(failed_at_node(), failed.keys())
        lab.wait_until(lambda: not [name for name in os.listdir(disk) if name.endswith(".tmp")],
                       what="the partial files to be removed")
        self.assert_received_but(*failed)
        self.assertFalse({os.path.basename(name) for name in failed} & set(os.listdir(disk)))
        self.assert_received(*self.others)
        arrived = {name: os.stat(os.path.join(disk, name)).st_ino for name in os.listdir(disk)}
        self.push()
        self.assert_received()
        for name, inode in arrived.items():
            self.assertEqual(os.stat(os.path.join(disk, name)).st_ino, inode, f"{name} was received again")
        self.assert_alive()

    def test_a_directory_that_cannot_be_written(self):
        self.mount(self.at_troubled("sealed"), "ro")
        tree.add(self.content, "sealed/file", 3000)
        self.start_nodes()
        self.assert_fails_alone(summary(self.push(expect=1)), "sealed/file", errno.EROFS)
        self.assertRegex(self.outcome_at_node("sealed/file"),
                         "/sealed is on a read-only file system$")

    def test_a_directory_that_cannot_be_made(self):
        self.mount(self.at_troubled("sealed"), "ro")
        tree.add(self.content, "sealed/deeper/still/file", 3000)
        self.start_nodes()
        self.assert_fails_alone(summary(self.push(expect=1)), "sealed/deeper/still/file",
                                errno.EROFS, errno.ENOENT)

    def test_a_directory_where_a_file_should_go(self):
        tree.write(self.directory_of(self.troubled), "taken/inside", b"mine")
        tree.add(self.content, "taken", 3000)
        self.start_nodes()
        end = summary(self.push(expect=1))
        with open(self.at_troubled("taken/inside"), "rb") as file:
            self.assertEqual(file.read(), b"mine")
        remove_tree(self.at_troubled("taken"))
        self.assert_fails_alone(end, "taken", errno.EISDIR)

    def test_a_directory_where_a_link_should_go(self):
        tree.write(self.directory_of(self.troubled), "taken/inside", b"mine")
        tree.link(self.content, "taken", "one byte")
        self.start_nodes()
        end = summary(self.push(expect=1))
        with open(self.at_troubled("taken/inside"), "rb") as file:
            self.assertEqual(file.read(), b"mine")
        remove_tree(self.at_troubled("taken"))
        self.assert_fails_alone(end, "taken", errno.EEXIST, errno.EISDIR)

    def test_a_file_where_a_directory_should_be(self):
        tree.write(self.directory_of(self.troubled), "flat", b"mine")
        tree.add(self.content, "flat/file", 3000)
        self.start_nodes()
        end = summary(self.push("--keep-directory-links", expect=1))
        with open(self.at_troubled("flat"), "rb") as file:
            self.assertEqual(file.read(), b"mine")
        os.unlink(self.at_troubled("flat"))
        self.assert_fails_alone(end, "flat/file", errno.ENOTDIR)

    def test_a_node_that_is_stopped_takes_its_partial_files_along(self):
        tree.add(self.content, "vast/large", 20_000_000)
        tree.write(self.directory_of(self.troubled), "vast/mine.tmp", b"not of this process")
        process = self.start_node(self.troubled)
        for node in self.others:
            self.start_node(node)
        lead = self.start_push("--rate", "20", "--timeout", "5")
        partial = self.at_troubled("vast/large.tmp")
        lab.wait_until(lambda: os.path.exists(partial), 20, "the file to be begun")
        process.terminate()
        self.assertEqual(process.wait(timeout=10), 0)
        self.assertEqual(os.listdir(self.at_troubled("vast")), ["mine.tmp"])
        lead.finish(expect=1)

    def test_a_directory_that_vanishes_while_its_file_is_received(self):
        tree.add(self.content, "vanishing/large", 20_000_000)
        self.start_nodes()
        lead = self.start_push("--rate", "100")
        partial = self.at_troubled("vanishing/large.tmp")
        lab.wait_until(lambda: os.path.exists(partial), 20, "the file to be begun")
        remove_tree(self.at_troubled("vanishing"))
        end = lead.finish(expect=1)
        self.assert_fails_alone(end, "vanishing/large", errno.ENOENT)
        # The push makes its directories at the end, this one anew.
        self.assertEqual(os.listdir(self.at_troubled("vanishing")), [])

    def test_the_table_for_people_names_file_node_and_reason(self):
        tree.write(self.directory_of(self.troubled), "flat", b"mine")
        tree.add(self.content, "flat/file", 3000)
        self.start_nodes()
        result = self.net.lead.run(
            [self.programs.lead, "--interface", self.net.lead.address, "--location",
             f"1={self.content}", "push", "--keep-directory-links", "--nodes", self.addresses(), "."],
            capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 1)
        table = result.stdout[result.stdout.index("missing:"):].splitlines()[1:]
        lines = [line for line in table if "flat/file" in line]
        self.assertEqual(len(lines), 1, table)
        self.assertIn(self.troubled.address, lines[0])
        self.assertIn(os.strerror(errno.ENOTDIR), lines[0])


class FailuresOfTheContent(SystemTest):
    """Files that the lead loses between its start and their turn."""

    def gathering_push(self):
        """A push that has read its tree and waits for the nodes."""
        lead = self.start_push()
        observer = self.net.nodes[0].group_socket("239.255.71.1", 7100)
        self.addCleanup(observer.close)
        observer.settimeout(10)
        observer.recv(2000)
        observer.close()
        return lead

    def assert_one_fails_everywhere(self, lead, name, *numbers):
        self.start_nodes()
        end = lead.finish(expect=1)
        for address, failed in failures(end).items():
            self.assertEqual(failed.keys(), {name}, address)
            self.assertIn(failed[name], [errno_status(number) for number in numbers])
        expected = lab.manifest(self.content)
        expected.pop(name, None)
        for node in self.net.nodes:
            self.assertEqual(lab.differences(expected, lab.manifest(self.directory_of(node))), [])
        self.assert_alive()

    def test_a_file_that_vanishes_fails_on_every_node(self):
        tree.small(self.content, small_files=10)
        lead = self.gathering_push()
        os.unlink(os.path.join(self.content, "small/3/3"))
        self.assert_one_fails_everywhere(lead, "small/3/3", errno.ENOENT)

    def test_a_file_that_becomes_a_directory_fails_on_every_node(self):
        tree.small(self.content, small_files=10)
        lead = self.gathering_push()
        path = os.path.join(self.content, "small/3/3")
        os.unlink(path)
        os.mkdir(path)
        self.assert_one_fails_everywhere(lead, "small/3/3", errno.EISDIR)

    def test_a_file_of_the_node_s_own_under_the_partial_name_stays(self):
        """The failure is the lead's: nothing was written on the node."""
        tree.small(self.content, small_files=10)
        for node in self.net.nodes:
            tree.write(self.directory_of(node), "small/3/3.tmp", b"the owner's")
        lead = self.gathering_push()
        path = os.path.join(self.content, "small/3/3")
        os.unlink(path)
        os.mkdir(path)
        self.start_nodes()
        end = lead.finish(expect=1)
        for node in self.net.nodes:
            self.assertEqual(failures(end)[node.address], {"small/3/3": errno_status(errno.EISDIR)})
            with open(os.path.join(self.directory_of(node), "small/3/3.tmp"), "rb") as file:
                self.assertEqual(file.read(), b"the owner's")

    def test_a_file_that_has_changed_arrives_as_it_is_now(self):
        tree.small(self.content, small_files=10)
        lead = self.gathering_push()
        tree.add(self.content, "small/3/3", 70_000, mtime=1_300_000_000)
        self.start_nodes()
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()

    def test_a_file_that_is_written_to_while_it_is_sent_fails_and_is_never_mixed(self):
        tree.add(self.content, "large", 20_000_000)
        tree.add(self.content, "other", 3_000)
        self.start_nodes()
        lead = self.start_push("--rate", "100")
        partial = os.path.join(self.directory_of(self.net.nodes[0]), "large.tmp")
        lab.wait_until(lambda: os.path.exists(partial) and os.path.getsize(partial) > 1_000_000,
                       what="the file to be under way")
        with open(os.path.join(self.content, "large"), "r+b") as file:
            file.seek(15_000_000)
            file.write(b"changed in its place")
        end = lead.finish(expect=1)
        for address, failed in failures(end).items():
            self.assertEqual(failed, {"large": errno_status(errno.ESTALE)}, address)
        for node in self.net.nodes:
            self.assertEqual(sorted(lab.manifest(self.directory_of(node))), ["other"])
        self.push()
        self.assert_received()

    def test_an_interrupted_push_says_so_and_ends_with_status_1(self):
        tree.small(self.content, small_files=10)
        lead = self.gathering_push()
        lead.process.terminate()
        end = lead.finish(expect=1, seconds=10)
        self.assertFalse(end["complete"])
        self.assertEqual(len(lead.events("interrupted")), 1)


class RefusedCalls(SystemTest):
    """What the system refuses is told with the call and the error."""

    NODES = 1

    def refuse(self, host, port):
        host.run(["nft", "add table ip refused; add chain ip refused output { type filter hook output priority 0; }; "
                         f"add rule ip refused output udp dport {port} drop"], check=True)
        self.addCleanup(host.run, ["nft", "delete table ip refused"], check=True)

    def test_a_lead_whose_datagrams_are_refused_says_so_once(self):
        tree.small(self.content, small_files=3)
        self.refuse(self.net.lead, 7101)
        self.start_nodes()
        lead = self.start_push("--timeout", "2", "--max-time", "4")
        lead.finish(expect=1)
        self.assertEqual(lead.errors().count("sendmmsg: Operation not permitted: datagrams are not sent"), 1)

    def test_a_message_that_cannot_be_sent_names_the_call_and_the_error(self):
        node = self.net.nodes[0]
        lead = BackgroundLead(self, "serve")
        lead.wait_for("serving")
        self.refuse(node, 7102)
        result = node.run([self.programs.node, "--interface", node.address, "send", "--timeout", "20", "text"],
                          capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 3)
        self.assertRegex(result.stdout + result.stderr, r"sendto of \d+ bytes failed.*Operation not permitted")

    @unittest.skipUnless(is_root_of_the_machine(), "another user can only be taken by root")
    def test_a_node_that_may_not_have_its_port_names_the_call_and_the_error(self):
        node = self.net.nodes[0]
        result = node.run(["setpriv", "--reuid", str(USER), "--clear-groups", self.programs.node, "--interface",
                           node.address, "--node-port", "700", "--location", f"1={self.directory_of(node)}", "run"],
                          capture_output=True, text=True, timeout=10)
        self.assertEqual(result.returncode, 3, result.stdout)
        self.assertRegex(result.stderr, r"bind failed.*Permission denied")
        self.assertNotIn("a system call failed", result.stderr)
