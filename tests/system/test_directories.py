"""Directories of a push: modes, times, empty ones; what the lead does not have, with --delete."""

import os
import stat

import tree
from support import ROOT, BackgroundLead, SystemTest, lab, names_below

TIME = 1_234_567_890


class TreeTest(SystemTest):
    NODES = 2

    def add_directory(self, name, mode=0o755, mtime=TIME, root=None):
        path = os.path.join(root or self.content, name)
        os.makedirs(path, exist_ok=True)
        os.chmod(path, mode)
        os.utime(path, (mtime, mtime))
        return path

    def of(self, node, name):
        """(mode, time) of a directory on a node."""
        info = os.lstat(os.path.join(self.directory_of(node), name))
        self.assertTrue(stat.S_ISDIR(info.st_mode), name)
        return stat.S_IMODE(info.st_mode), int(info.st_mtime)

    def events(self, result, name):
        return {e["node"]: e for e in result.events if e["event"] == name}


class Directories(TreeTest):
    def test_directories_have_the_mode_and_time_of_the_leads_also_empty_ones(self):
        tree.add(self.content, "a/b/file", 3000)
        tree.add(self.content, "top", 10)
        self.add_directory("a/empty/inside", 0o700, TIME + 1)
        self.add_directory("a/empty", 0o755, TIME + 2)
        self.add_directory("a/b", 0o750, TIME + 3)
        self.add_directory("a", 0o711, TIME + 4)
        self.start_nodes()
        result = self.push()
        for node in self.net.nodes:
            self.assertEqual(self.of(node, "a/empty/inside"), (0o700, TIME + 1))
            self.assertEqual(self.of(node, "a/empty"), (0o755, TIME + 2))
            self.assertEqual(self.of(node, "a/b"), (0o750, TIME + 3))
            self.assertEqual(self.of(node, "a"), (0o711, TIME + 4))
            self.assertEqual(self.events(result, "directories")[node.address]["set"], 4)
            self.assertEqual(self.node_events(node, "message"), [])
        # A file that comes anew changes the time of its directory on the node; the push mends it.
        tree.write(self.content, "a/b/another", b"x")
        self.add_directory("a/b", 0o750, TIME + 9)
        self.push(paths=("a",))
        for node in self.net.nodes:
            self.assertEqual(self.of(node, "a/b"), (0o750, TIME + 9))

    def test_a_tree_of_empty_directories_travels(self):
        self.add_directory("only/empty/directories", 0o750)
        self.add_directory("only/empty")
        self.add_directory("only")
        self.start_nodes()
        self.push()
        for node in self.net.nodes:
            self.assertEqual(self.of(node, "only/empty/directories"), (0o750, TIME))
            self.assertEqual(self.of(node, "only"), (0o755, TIME))

    def test_the_nodes_umask_and_set_id_bits_hold_for_directories(self):
        self.add_directory("shared", 0o2775)
        tree.add(self.content, "shared/file", 10)
        self.add_directory("shared", 0o2775)
        first, second = self.net.nodes
        for node, options in ((first, ()), (second, ("--umask", "0", "--allow-setuid"))):
            with open(self.log_of(node), "ab") as log:
                node.spawn([self.programs.node, "--interface", node.address, "--location",
                            f"1={self.directory_of(node)}", "--json", *options, "run"], stdout=log)
        self.push()
        self.assertEqual(self.of(first, "shared"), (0o755, TIME))
        self.assertEqual(self.of(second, "shared"), (0o2775, TIME))

    def test_a_link_in_the_place_of_a_directory_is_not_followed(self):
        outside = self.add_directory("outside", 0o700, TIME - 5, root=ROOT)
        self.add_directory("d/empty", 0o755)
        tree.add(self.content, "other", 10)
        first, _ = self.net.nodes
        os.symlink(outside, os.path.join(self.directory_of(first), "d"))
        self.start_nodes()
        result = self.push("--keep-directory-links")
        self.assertEqual((os.stat(outside).st_mode & 0o7777, os.listdir(outside)), (0o700, []))
        failed = self.events(result, "directories")[first.address]["failed"]
        self.assertEqual([f["name"] for f in failed], ["d/empty", "d"])

    def test_a_push_through_a_lead_that_serves_sets_them_too(self):
        self.add_directory("d/empty", 0o710)
        tree.add(self.content, "d/file", 10)
        self.start_nodes()
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(serving.events("node-introduced")) == 2, what="the nodes")
        status, events, error = serving.request("push", "--nodes", self.addresses(), ".")
        self.assertEqual(status, 0, error)
        self.assertEqual(len([e for e in events if e["event"] == "directories"]), 2)
        for node in self.net.nodes:
            self.assertEqual(self.of(node, "d/empty"), (0o710, TIME))


class Mirror(TreeTest):
    def setUp(self):
        super().setUp()
        for name in ("kept", "d/kept", "d/sub/kept"):
            tree.add(self.content, name, 100)

    def add_on_nodes(self, *names):
        for node in self.net.nodes:
            for name in names:
                tree.add(self.directory_of(node), name, 10)

    def names(self, node):
        return names_below(self.directory_of(node))

    def test_names_that_the_lead_does_not_have_go_and_are_told_first(self):
        self.add_on_nodes("gone", "d/gone", "d/sub/old/deep/gone", "elsewhere/stays")
        first, second = self.net.nodes
        tree.add(self.directory_of(second), "d/only here", 10)
        self.start_nodes()
        result = self.push("--delete", paths=("d",))
        told = self.events(result, "removing")
        self.assertEqual(told[first.address]["names"], ["d/gone", "d/sub/old"])
        self.assertEqual(told[second.address]["names"], ["d/gone", "d/only here", "d/sub/old"])
        self.assertEqual(self.events(result, "removed")[first.address]["removed"], 2)
        for node in self.net.nodes:
            self.assertEqual(self.names(node),
                             {"gone", "elsewhere/stays", "d/kept", "d/sub/kept"})
        self.push("--delete")
        for node in self.net.nodes:
            self.assertEqual(self.names(node), {"kept", "d/kept", "d/sub/kept"})
            self.assertFalse(os.path.exists(os.path.join(self.directory_of(node), "elsewhere")))

    def test_a_quiet_push_removes_them_without_a_word(self):
        self.add_on_nodes("d/gone")
        self.start_nodes()
        done = self.net.lead.run([self.programs.lead, "--interface", self.net.lead.address, "--location",
                                  f"1={self.content}", "push", "--quiet", "--delete", "--nodes", self.addresses(), "d"],
                                 capture_output=True, text=True, timeout=60)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        for node in self.net.nodes:
            self.assertNotIn("d/gone", self.names(node))

    def test_a_dry_run_lists_them_and_changes_nothing(self):
        self.add_on_nodes("d/gone")
        self.start_nodes()
        result = self.push("--delete", "--dry-run", paths=("d",))
        for node in self.net.nodes:
            self.assertEqual(self.events(result, "would-remove")[node.address]["names"], ["d/gone"])
            self.assertEqual(self.names(node), {"d/gone"})

    def test_a_dry_run_through_a_lead_that_serves_does_the_same(self):
        self.add_on_nodes("d/gone")
        self.start_nodes()
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(serving.events("node-introduced")) == 2, what="the nodes")
        status, events, error = serving.request("push", "--delete", "--dry-run", "--nodes",
                                                self.addresses(), "d")
        self.assertEqual(status, 0, error)
        self.assertEqual([e["names"] for e in events if e["event"] == "would-remove"],
                         [["d/gone"]] * 2)
        status, events, error = serving.request("push", "--delete", "--nodes", self.addresses(), "d")
        self.assertEqual(status, 0, error)
        for node in self.net.nodes:
            self.assertEqual(self.names(node), {"d/kept", "d/sub/kept"})

    def test_excluded_names_are_protected_with_the_directories_that_hold_them(self):
        tree.add(self.content, "d/a.log", 10)
        self.add_on_nodes("d/b.log", "d/gone", "d/old/c.log", "d/old/gone", "d/older/gone")
        self.start_nodes()
        self.push("--delete", "--exclude", "*.log", paths=("d",))
        for node in self.net.nodes:
            self.assertEqual(self.names(node),
                             {"d/kept", "d/sub/kept", "d/b.log", "d/old/c.log"})
            self.assertFalse(os.path.exists(os.path.join(self.directory_of(node), "d/older")))

    def test_nothing_goes_in_a_push_of_files_or_of_a_part(self):
        self.add_on_nodes("d/gone")
        self.start_nodes()
        self.push("--delete", paths=("d/kept",), expect=2)
        listed = os.path.join(ROOT, "list")
        with open(listed, "w", encoding="utf-8") as file:
            file.write("d\n")
        self.push("--delete", "--files-from", listed, paths=(), expect=2)
        for node in self.net.nodes:
            self.assertEqual(self.names(node), {"d/gone"})

    def test_what_cannot_be_pushed_is_not_taken_for_gone(self):
        path = os.path.join(self.content, "d/huge")
        tree.add(self.content, "d/huge", 10)
        self.start_nodes()
        self.push("d")
        os.truncate(path, 1 << 32)
        self.push("--delete", paths=("d",), expect=1)
        for node in self.net.nodes:
            self.assertIn("d/huge", self.names(node))

    def test_links_go_as_links(self):
        outside = os.path.join(ROOT, "outside")
        tree.add(ROOT, "outside/file", 10)
        for node in self.net.nodes:
            os.makedirs(os.path.join(self.directory_of(node), "d"))
            os.symlink(outside, os.path.join(self.directory_of(node), "d/link"))
        self.start_nodes()
        self.push("--delete", paths=("d",))
        for node in self.net.nodes:
            self.assertEqual(self.names(node), {"d/kept", "d/sub/kept"})
        self.assertEqual(os.listdir(outside), ["file"])


class Completion(TreeTest):
    def start_with_command(self, command, *more):
        for node in self.net.nodes:
            with open(self.log_of(node), "ab") as log:
                self.node_processes[node.name] = node.spawn(
                    [self.programs.node, "--interface", node.address, "--location",
                     f"1={self.directory_of(node)}", "--json", "run", "--on-complete", command,
                     *more], stdout=log)

    def told(self, node):
        with open(os.path.join(ROOT, "told-" + node.address), encoding="utf-8") as file:
            return file.read().splitlines()

    COMMAND = (f'(echo "$PKGDIST_STATUS $PKGDIST_LOCATION"; tr "\\0" "\\n" < "$PKGDIST_NAMES_FILE"'
               f' | sort) >> {ROOT}/told-$(ip -4 -o addr show scope global | grep -o "10\\.[0-9.]*" '
               '| head -1)')

    def test_the_command_runs_once_at_the_end_with_the_names(self):
        names = [f"d/{i:04}" for i in range(1200)]
        for name in names:
            tree.add(self.content, name, 20)
        self.start_with_command(self.COMMAND)
        result = self.push()
        self.assertEqual({e["node"]: e["done"] for e in result.events if e["event"] == "on-complete"},
                         {node.address: True for node in self.net.nodes})
        for node in self.net.nodes:
            self.assertEqual(self.told(node), ["0 1", *names])

    def test_a_failure_is_told_at_both_ends(self):
        tree.add(self.content, "file", 20)
        self.start_with_command("exit 7")
        result = self.push(expect=1)
        for node in self.net.nodes:
            event = self.events(result, "on-complete")[node.address]
            self.assertEqual((event["done"], event["text"]), (False, "'exit 7' ended with exit status 7"))
            errors = [e["text"] for e in self.node_events(node, "error")]
            self.assertIn("'exit 7' ended with exit status 7", errors)

    def test_a_signal_and_the_time_limit_are_told(self):
        tree.add(self.content, "file", 20)
        first, second = self.net.nodes
        for node, command in ((first, "kill -SEGV $$"), (second, "sleep 60")):
            with open(self.log_of(node), "ab") as log:
                node.spawn([self.programs.node, "--interface", node.address, "--location",
                            f"1={self.directory_of(node)}", "--json", "run", "--on-complete",
                            command, "--complete-timeout", "0.5"], stdout=log)
        result = self.push(expect=1)
        events = self.events(result, "on-complete")
        self.assertIn("was ended by SIGSEGV", events[first.address]["text"])
        self.assertIn("--complete-timeout", events[second.address]["text"])

    def test_the_next_push_of_a_serving_lead_does_not_wait_for_commands(self):
        tree.add(self.content, "one", 20)
        tree.add(self.content, "two", 20)
        gate = os.path.join(ROOT, "gate")
        self.start_with_command(f"while ! test -e {gate}; do sleep 0.05; done")
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(serving.events("node-introduced")) == 2, what="the nodes")
        first = BackgroundLead(self, "push", "--nodes", self.addresses(), "one")
        first.wait_for("push-finished")
        second = BackgroundLead(self, "push", "--nodes", self.addresses(), "two")
        second.wait_for("push-finished")
        self.assertIsNone(first.process.poll())
        with open(gate, "w", encoding="utf-8"):
            pass
        first.finish()
        second.finish()
