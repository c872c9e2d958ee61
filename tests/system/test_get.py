"""Nodes that ask: pkgdist-node get against pkgdist-lead serve."""

import errno
import os
import select
import subprocess

import tree
import wire
from support import INVALID, ROOT, BackgroundLead, SystemTest, errno_status, lab, names_below


class Get(SystemTest):
    OTHERS = ("other",)

    def serve(self):
        tree.small(self.content, small_files=10, medium=2_000_000)
        lead = BackgroundLead(self, "serve")
        lead.wait_for("serving")
        return lead

    def command(self, node, *arguments):
        return [self.programs.node, "--umask", "0", "--allow-setuid", "--interface", node.address, "--location",
                f"1={self.directory_of(node)}", "--json", "get", *arguments]

    def get(self, *arguments, node=None, expect=0):
        node = node or self.net.nodes[0]
        result = node.run(self.command(node, *arguments), capture_output=True, text=True,
                          timeout=120)
        self.assertEqual(result.returncode, expect, result.stderr + result.stdout)
        result.events = lab.parse_events(result.stdout)
        result.outcomes = {e["name"]: e["status"] for e in result.events if e["event"] == "file"}
        return result

    def assert_has(self, *names, node=None):
        expected = lab.manifest(self.content)
        actual = lab.manifest(self.directory_of(node or self.net.nodes[0]))
        self.assertEqual(lab.differences({n: expected[n] for n in names}, actual), [])

    def test_an_existing_file(self):
        self.serve()
        result = self.get("sizes/64 segments and one")
        self.assertEqual(result.outcomes, {"sizes/64 segments and one": 0})
        self.assert_has("sizes/64 segments and one")

    def test_several_files_and_links(self):
        self.serve()
        names = ("one byte", "empty", tree.BIG, "links/relative", "only links/in here/up",
                 tree.longest_name(), "links/longest", "modes/program")
        result = self.get(*names)
        self.assertEqual(result.outcomes, dict.fromkeys(names, 0))
        self.assert_has(*names)

    def test_a_missing_file_fails_with_the_leads_reason(self):
        self.serve()
        result = self.get("no such file", expect=1)
        self.assertEqual(result.outcomes, {"no such file": errno_status(errno.ENOENT)})
        self.assertEqual(lab.manifest(self.directory_of(self.net.nodes[0])), {})

    def test_a_directory_is_no_file(self):
        self.serve()
        self.assertEqual(self.get("sizes", expect=1).outcomes,
                         {"sizes": errno_status(errno.EISDIR)})

    def test_a_missing_file_does_not_stop_the_others(self):
        self.serve()
        result = self.get("one byte", "no such file", "sizes/1 segments", expect=1)
        self.assertEqual(result.outcomes, {"one byte": 0, "sizes/1 segments": 0,
                                           "no such file": errno_status(errno.ENOENT)})
        self.assert_has("one byte", "sizes/1 segments")

    def test_files_arrive_at_20_percent_loss(self):
        self.serve()
        for host in self.net.hosts():
            host.lose(20)
        names = ("one byte", tree.BIG, "sizes/65 segments", "links/relative")
        self.get(*names)
        self.assert_has(*names)

    def test_three_nodes_ask_for_the_same_file_at_once(self):
        self.serve()
        processes = [node.spawn(self.command(node, tree.BIG), stdout=subprocess.DEVNULL)
                     for node in self.net.nodes]
        for process in processes:
            self.assertEqual(process.wait(timeout=60), 0)
        for node in self.net.nodes:
            self.assert_has(tree.BIG, node=node)

    def test_a_file_that_is_there_already_is_not_transferred(self):
        self.serve()
        self.get(tree.BIG)
        path = os.path.join(self.directory_of(self.net.nodes[0]), tree.BIG)
        before = os.stat(path)
        self.get(tree.BIG)
        after = os.stat(path)
        self.assertEqual((before.st_ino, before.st_ctime_ns), (after.st_ino, after.st_ctime_ns))

    def test_a_name_with_a_parent_component_is_refused_before_anybody_is_asked(self):
        lead = self.serve()
        names = ("../x", "a/../../x", "..", "sizes/..")
        self.assertEqual(self.get(*names, expect=1).outcomes, dict.fromkeys(names, INVALID))
        self.assertEqual(lead.events("requested"), [])
        self.assertFalse(os.path.exists(os.path.join(ROOT, "x")))
        self.assertEqual(names_below(self.directory_of(self.net.nodes[0])), set())

    def test_a_name_that_no_request_can_carry_is_refused(self):
        self.serve()
        name = "n" * 400
        result = self.get(name, "one byte", expect=1)
        self.assertNotEqual(result.outcomes[name], 0)
        self.assertEqual(result.outcomes["one byte"], 0)

    def test_a_name_and_that_of_its_partial_file_both_arrive(self):
        self.serve()
        tree.add(self.content, "large", 500_000)
        tree.add(self.content, "large.tmp", 400_000)
        for host in self.net.hosts():
            host.lose(5)
        names = ("large.tmp", "large", "ends with.tmp", "one byte")
        self.assertEqual(self.get(*names).outcomes, dict.fromkeys(names, 0))
        self.assert_has(*names)

    def test_without_a_lead_it_ends_with_status_1_and_one_line(self):
        result = self.get("--timeout", "1", "file", expect=1)
        self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
        self.assertIn("no lead", result.stderr)

    def test_serve_ends_orderly_when_it_is_told_to(self):
        lead = self.serve()
        self.get("one byte")
        lead.wait_for("request-ended")
        lead.stop()
        self.assertEqual(len(lead.events("stopped")), 1)
        ended = lead.events("request-ended")
        self.assertEqual([(e["name"], e["status"]) for e in ended], [("one byte", 0)])

    def test_the_lead_serves_nothing_from_outside_its_root(self):
        """Requests that no node of ours sends, by hand."""
        self.serve()
        tree.write(ROOT, "secret", b"the secret that must not travel")
        tree.write(ROOT, "c-neighbour/secret", b"the secret that must not travel")
        other = self.net.others["other"]
        observer = other.group_socket("239.255.71.2", 7101)
        sender = other.socket()
        self.addCleanup(observer.close)
        self.addCleanup(sender.close)
        names = ("../secret", "sizes/../../secret", "/../secret", "..", ROOT + "/secret",
                 "sizes/../../c-neighbour/secret", "./../secret", "one byte")
        requests = [wire.encode_data(wire.FILE_REQ, wire.address(other.address), {
            "type": 1, "location": 1, "priority": 1, "name": name}) for name in names]
        seen = []

        def served():
            """The last request is a proper one: after its content the others were dealt with."""
            for request in requests:
                sender.sendto(request, (self.net.lead.address, 7104))
            while select.select([observer], [], [], 0.2)[0]:
                seen.append(wire.decode_data(observer.recv(2000)))
            return any(b.get("data") == tree.content("one byte", 1) for _, b in seen)

        lab.wait_until(served, 15, "the proper request to be served")
        self.assertFalse([b for _, b in seen if b"secret" in b.get("data", b"")])
        refused = {b["name"]: b["status"] for _, b in seen if "size" in b and b["status"] != 0}
        self.assertEqual(refused.keys(), set(names) - {"one byte"})
