"""Names that would leave the storage location, from a lead that is not to be trusted."""

import errno
import os

import tree
import wire
from scripted_lead import ScriptedLead
from support import DELETED, ROOT, SystemTest, errno_status, lab, names_below


class NamesOfAForgedLead(SystemTest):
    NODES = 1

    def setUp(self):
        super().setUp()
        self.node, = self.net.nodes
        self.place = self.directory_of(self.node)
        tree.write(ROOT, "victim", b"stays")
        self.lead = ScriptedLead(self.net.lead)
        self.addCleanup(self.lead.__exit__)
        self.start_node(self.node)
        self.lead.wait_for_node(self.node)
        self.outside = self.names_outside()

    def names_outside(self):
        own = os.path.basename(self.place) + "/"
        return {n for n in names_below(ROOT) if not n.startswith(own) and n.count(".log") == 0}

    def directories(self):
        return {name for name in os.listdir(ROOT) if os.path.isdir(os.path.join(ROOT, name))}

    def list_and_send(self, names, **fields):
        """Lists the names, sends each as a whole file, and waits for the last one."""
        self.lead.file_send(wire.LIST, names)
        self.wait_for_transactions(1)
        for i, name in enumerate(names):
            self.lead.whole_file(100 + i, name, b"content of " + name.encode(), **fields)
        last = len(names) - 1
        self.assertEqual(self.lead.report_of(names[last], meanwhile=lambda: self.lead.whole_file(
            100 + last, names[last], b"content of " + names[last].encode(), **fields)), 0)

    def wait_for_transactions(self, count):
        lab.wait_until(lambda: len(self.node_events(self.node, "transaction-start")) >= count,
                       what="the file list to arrive")

    EVIL = ["../evil", "a/../../evil", "..", "../victim", "a/..", "new/../../new directory/evil",
            "../1/../evil", "/../evil"]

    def test_a_list_with_parent_components_brings_the_other_names_only(self):
        before = self.directories()
        self.list_and_send([*self.EVIL, "good", "deep/er/good"])
        lab.wait_until(lambda: names_below(self.place) == {"good", "deep/er/good"},
                       what="both good files")
        self.assertEqual(self.names_outside(), self.outside)
        self.assertEqual(self.directories(), before)
        self.assertEqual(os.listdir(os.path.join(ROOT, "1", "deep")), ["er"])
        for name in self.EVIL:
            self.assertEqual([b for _, b in self.lead.data_answers if b.get("name") == name], [])
        with open(os.path.join(ROOT, "victim"), "rb") as file:
            self.assertEqual(file.read(), b"stays")
        self.assert_alive()

    def test_links_with_parent_components_in_their_names_are_not_made(self):
        self.list_and_send([*self.EVIL, "good"], symlink=1)
        self.assertEqual(names_below(self.place), {"good"})
        self.assertEqual(self.names_outside(), self.outside)

    def test_a_delete_list_with_parent_components_deletes_the_other_names_only(self):
        tree.write(self.place, "unwanted", b"goes")
        tree.write(self.place, "also/unwanted", b"goes")
        self.lead.file_send(wire.DELETE, ["../victim", "also/../../victim", "unwanted", "..",
                                          "no such file", "/../victim", "also/unwanted"])
        lab.wait_until(lambda: names_below(self.place) == set(), what="the deletion")
        self.assertEqual(self.names_outside(), self.outside)
        self.assert_alive()

    def test_a_deleted_file_that_is_being_received_ends_as_deleted(self):
        self.lead.file_send(wire.LIST, ["file"])
        self.wait_for_transactions(1)
        self.lead.file_info(5, "file", 10_000)
        self.lead.segment(5, 0, bytes(1400))
        partial = os.path.join(self.place, "file.tmp")
        lab.wait_until(lambda: os.path.exists(partial), what="the partial file")
        self.lead.file_send(wire.DELETE, ["file"])
        self.assertEqual(self.lead.report_of("file"), DELETED)
        lab.wait_until(lambda: names_below(self.place) == set(), what="the deletion")

    def test_locations_that_do_not_exist_are_ignored(self):
        for location in (0, 2, 7, 0x7FFFFFFF, 0xFFFFFFFF):
            self.lead.file_send(wire.LIST, ["file"], location=location)
            self.lead.file_send(wire.DELETE, ["file"], location=location)
        self.list_and_send(["good"])
        self.assertEqual(names_below(self.place), {"good"})
        self.assertEqual(self.names_outside(), self.outside)
        self.assert_alive()

    def test_names_that_are_too_long_stay_inside(self):
        names = ["n" * 300, "d/" * 200 + "n", "d" * 250 + "/x", "x" * 5000]
        self.lead.file_send(wire.LIST, names)
        self.wait_for_transactions(1)
        for i, name in enumerate(names[:3]):
            self.lead.whole_file(50 + i, name, b"content")
        self.lead.file_send(wire.LIST, ["good"])
        self.wait_for_transactions(2)
        self.lead.whole_file(99, "good", b"content")
        self.assertEqual(self.lead.report_of("good", meanwhile=lambda: self.lead.whole_file(
            99, "good", b"content")), 0)
        self.lead.file_send(wire.DELETE, names)
        self.assertEqual(self.names_outside(), self.outside)
        self.assert_alive()


class PushedLinks(SystemTest):
    """A lead that pushes a link out of the location, and then names behind it."""

    NODES = 1

    def setUp(self):
        super().setUp()
        self.node = self.net.nodes[0]
        self.place = self.directory_of(self.node)
        self.outside = self.directory("outside")
        tree.write(self.outside, "victim", b"stays")
        self.start_node(self.node)
        self.lead = ScriptedLead(self.net.lead)
        self.addCleanup(self.lead.__exit__)
        self.lead.wait_for_node(self.node)

    def push_one(self, file_id, name, content, **fields):
        """The status that the node reports."""
        self.lead.file_send(wire.LIST, [name], xact=file_id)
        lab.wait_until(lambda: any(e["transaction"] == file_id for e in self.node_events(self.node, "transaction-start")),
                       what="the list to arrive")
        return self.lead.report_of(name, meanwhile=lambda: self.lead.whole_file(file_id, name, content, **fields))

    def test_nothing_is_written_linked_or_deleted_behind_a_link_that_leads_out(self):
        for number, target in enumerate((self.outside, "../outside", "inside/../../outside")):
            link = f"link{number}"
            os.makedirs(os.path.join(self.place, "inside"), exist_ok=True)
            self.assertEqual(self.push_one(10 * number + 1, link, target.encode(), symlink=1), 0)
            self.assertEqual(self.push_one(10 * number + 2, f"{link}/victim", b"overwritten"),
                             errno_status(errno.EXDEV))
            self.assertEqual(self.push_one(10 * number + 3, f"{link}/new/directory/f", b"x"), errno_status(errno.EXDEV))
            self.assertEqual(self.push_one(10 * number + 4, f"{link}/victim", b"elsewhere", symlink=1),
                             errno_status(errno.EXDEV))
            self.lead.file_send(wire.DELETE, [f"{link}/victim"])
        self.lead.wait_for_control(wire.ACK, sequence=self.lead.sequence)
        self.assertEqual(os.listdir(self.outside), ["victim"])
        with open(os.path.join(self.outside, "victim"), "rb") as file:
            self.assertEqual(file.read(), b"stays")
        self.assert_alive()

    def test_links_that_stay_inside_are_followed(self):
        os.mkdir(os.path.join(self.place, "lib64"))
        self.assertEqual(self.push_one(1, "lib", b"lib64", symlink=1), 0)
        self.assertEqual(self.push_one(2, "lib/f", b"content"), 0)
        self.assertEqual(names_below(os.path.join(self.place, "lib64")), {"f"})
