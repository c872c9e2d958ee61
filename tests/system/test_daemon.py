"""Commands go through the lead that serves, and through the node that runs, on the same host."""

import os
import signal
import subprocess

import tree
from support import BackgroundLead, SystemTest, failures, lab, names_below, summary
from terminal import Terminal


class ServingLead(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        self.start_nodes()
        self.serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(self.serving.events("node-introduced")) == 2, 20, "the introductions")

    def pushed(self, *arguments, paths=(".",), expect=0):
        """A push without content root of its own, through the lead that serves: its events."""
        status, events, errors = self.serving.request("push", "--nodes", self.addresses(), *arguments,
                                                      *paths)
        self.assertEqual(status, expect, errors + self.why(events))
        return events

    def test_nodes_tells_who_they_are_and_what_they_have(self):
        tree.add(self.content, "release-7/a", 100)
        self.pushed("--name", "release 7")
        status, events, errors = self.serving.request("nodes")
        self.assertEqual(status, 0, errors)
        nodes = {e["node"]: e for e in events if e["event"] == "node"}
        self.assertEqual(set(nodes), {node.address for node in self.net.nodes})
        for node in nodes.values():
            self.assertEqual((node["has"], node["state"], node["version"]), ("release 7", "heard", "0.1.0"))
            self.assertTrue(node["name"])
            self.assertEqual([p["location"] for p in node["locations"]], [1])
            self.assertGreater(node["locations"][0]["free"], 0)
            self.assertLess(node["heard_seconds_ago"], 5)

    def test_status_tells_role_locations_and_process(self):
        status, events, errors = self.serving.request("status")
        self.assertEqual(status, 0, errors)
        told = events[0]
        self.assertEqual((told["pid"], told["role"], told["nodes"], told["push_running"]),
                         (self.serving.process.pid, "leading", 2, False))
        self.assertEqual(told["locations"], [{"location": 1, "path": self.content}])

    def test_a_push_goes_through_it_and_tells_the_same(self):
        tree.small(self.content, small_files=30)
        events = self.pushed("--durable")
        self.assert_received()
        kinds = {e["event"] for e in events}
        asked = next(e for e in events if e["event"] == "push-requested")
        self.assertEqual((asked["address"], asked["root"], asked["paths"]),
                         (self.net.lead.address, self.content, ["."]))
        self.assertLessEqual({"push-queued", "push-started", "file", "push-finished", "counters", "durable"},
                             kinds)
        end = [e for e in events if e["event"] == "push-finished"][-1]
        self.assertTrue(end["complete"])
        self.assertGreater(end["segments_sent"], 0)
        self.assertEqual([e["durable"] for e in events if e["event"] == "durable"], [True, True])
        self.serving.stop()

    def test_a_terminal_shows_bars_and_the_table(self):
        tree.add(self.content, "large", 150_000_000)
        terminal = Terminal(self.net.lead, self.plain("push", "--nodes", self.addresses(), "large"), columns=100)
        terminal.read(lambda text: "nodes done" in text, 30)
        self.assertIn("nodes done", terminal.text)
        self.assertEqual(terminal.finish(), 0)
        screen = "\n".join(terminal.screen())
        self.assertNotIn("nodes done", screen)
        for node in self.net.nodes:
            self.assertRegex(screen, rf"(?m)^{node.address} .* complete$")

    def plain(self, *arguments):
        return [self.programs.lead, "--interface", self.net.lead.address, *arguments]

    def test_people_read_the_lists_as_tables(self):
        tree.add(self.content, "a", 100)
        self.pushed("--name", "release-7")
        said = {command: self.net.lead.run(self.plain(command), capture_output=True, text=True).stdout
                for command in ("status", "nodes", "pushes")}
        self.assertIn(f"process {self.serving.process.pid}", said["status"])
        self.assertIn(f"location 1: {self.content}", said["status"])
        self.assertEqual(len(said["nodes"].splitlines()), 3)
        self.assertRegex(said["nodes"], rf"(?m)^{self.net.nodes[0].address} .* release-7 .* s ago +heard$")
        self.assertRegex(said["pushes"], r"(?m)^ +1  release-7 +done +1 +100 B  2 of 2 ")

    def test_a_second_push_counts_its_own_datagrams_only(self):
        tree.add(self.content, "large", 3_000_000)
        tree.add(self.content, "small", 100)
        self.pushed(paths=("large",))
        events = self.pushed(paths=("small",))
        self.assertLess(events[-1]["segments_sent"], 100)

    def test_pushes_queue_and_are_listed_and_cancelled_by_name(self):
        tree.add(self.content, "large", 40_000_000)
        tree.add(self.content, "small", 100)
        self.serve_at(20)
        first = self.begin_first()
        second = self.in_background("--name", "second", "small")
        lab.wait_until(lambda: "second" in self.states(), 20, "the second push")
        self.assertEqual(self.states(), {"first": "running", "second": "queued"})
        status, events, errors = self.serving.request("cancel", "first")
        self.assertEqual(status, 0, (events, errors))
        self.assertEqual(first.wait(timeout=20), 1)
        self.assertEqual(second.wait(timeout=20), 0)
        self.assertEqual(self.states(), {"first": "cancelled", "second": "done"})
        for node in self.net.nodes:
            self.assertEqual(names_below(self.directory_of(node)), {"small"})
        status, events, errors = self.serving.request("cancel", "first")
        self.assertEqual((status, events[0]["text"]), (1, "push 1 (first) has ended already"))

    def test_the_full_screen_view_shows_it_and_stops_a_node(self):
        tree.add(self.content, "file", 12_000_000)
        self.serve_at(8)
        terminal = Terminal(self.net.lead, [self.programs.lead, "--interface", self.net.lead.address, "push",
                                            "--nodes", self.addresses(), "--top", "."])
        terminal.wait_for("0 of 2 nodes done")
        terminal.wait_for("8.0 Mbit/s")
        terminal.type("\x1b[C")
        terminal.wait_for(f"{self.net.nodes[0].address}: ")
        terminal.type("k")
        terminal.wait_for("end the push for")
        terminal.type("y")
        terminal.wait_for("1 of 2 nodes done")
        terminal.type("q")
        self.assertEqual(terminal.finish(), 1, terminal.text)
        self.assertIn("cancelled", " ".join(terminal.screen()))
        self.assertEqual(self.states(), {".": "incomplete"})

    def watch(self, *arguments):
        return Terminal(self.net.lead, [self.programs.lead, "--interface", self.net.lead.address, *arguments, "top"])

    def test_top_follows_one_push_after_the_other_and_stops_a_node(self):
        self.serve_at(8)
        view = self.watch()
        view.wait_for("no push runs; 2 nodes are heard")
        tree.add(self.content, "first", 6_000_000)
        tree.add(self.content, "second", 100)
        first = self.in_background("--name", "release-7", "first")
        view.wait_for("push release-7  0 of 2 nodes done, 8.0 Mbit/s")
        second = self.in_background("--name", "release-8", "second")
        view.wait_for("1 push waits: release-8")
        view.type("\x1b[C")
        view.wait_for(f"{self.net.nodes[0].address}: ")
        view.type("k")
        view.wait_for("end the push for")
        view.type("y")
        view.wait_for("1 of 2 nodes done")
        view.type("\x1b")
        view.wait_for("push release-8  2 of 2 nodes done", 30)
        view.wait_for("no push runs; 2 nodes are heard")
        self.assertEqual((first.wait(timeout=10), second.wait(timeout=10)), (1, 0))
        self.assert_received_name(self.net.nodes[1], "first")
        self.serving.stop()
        view.wait_for("the lead has ended")
        view.type("q")
        self.assertEqual(view.finish(), 0)

    def assert_received_name(self, node, name):
        self.assertEqual(lab.sha256(os.path.join(self.directory_of(node), name)),
                         lab.sha256(os.path.join(self.content, name)))

    def test_top_sees_a_push_without_a_serving_lead_which_does_not_wait_for_it(self):
        self.serving.stop()
        tree.add(self.content, "file", 4_000_000)
        lead = self.start_push("--rate", "8")
        lead.wait_for("push-started")
        view = self.watch()
        view.wait_for("0 of 2 nodes done, 8.0 Mbit/s")
        self.assertTrue(lead.finish()["complete"])
        view.wait_for("the lead has ended")
        view.type("q")
        self.assertEqual(view.finish(), 0)

    def test_top_without_a_lead_says_so(self):
        self.serving.stop()
        view = self.watch()
        self.assertEqual(view.finish(), 3)
        self.assertIn("none is running with this interface and port", "".join(view.screen()))
        alone = self.net.lead.run([self.programs.lead, "top"], capture_output=True, text=True, timeout=10)
        self.assertEqual(alone.returncode, 2)
        self.assertIn("EVENTS, or --interface of a lead that runs here, is required", alone.stderr)

    def test_a_view_that_is_left_or_suspended_holds_up_nobody(self):
        tree.add(self.content, "file", 100)
        view = self.watch()
        view.wait_for("no push runs")
        view.process.send_signal(signal.SIGSTOP)
        self.pushed()
        view.process.send_signal(signal.SIGCONT)
        view.wait_for("2 of 2 nodes done")
        view.type("q")
        self.assertEqual(view.finish(), 0)
        self.pushed()

    def test_a_cancel_for_one_node_leaves_the_push_to_the_others(self):
        tree.add(self.content, "large", 60_000_000)
        self.serve_at(100)
        push = self.in_background("large")
        lab.wait_until(lambda: self.states().get("large") == "running", 20, "the push")
        first, second = self.net.nodes
        transaction = self.serving.events("push-started")[0]["transaction"]
        status, _, error = self.serving.request("cancel", "--nodes", first.address, "large")
        self.assertEqual(status, 3)
        self.assertIn("number of its transaction", error)
        status, events, error = self.serving.request("cancel", "--nodes", first.address, str(transaction))
        self.assertEqual(status, 0, (events, error))
        self.assertEqual(push.wait(timeout=60), 1)
        self.assert_received(second)
        self.assertEqual(names_below(self.directory_of(first)), set())

    def in_background(self, *arguments):
        command = [self.programs.lead, "--interface", self.net.lead.address, "--json", "push", "--nodes",
                   self.addresses(), *arguments]
        return self.net.lead.spawn(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def states(self):
        return {e["name"]: e["state"] for e in self.serving.request("pushes")[1] if e["event"] == "push"}

    def test_an_interrupted_push_says_what_is_missing_and_ends_in_the_lead(self):
        tree.add(self.content, "large", 400_000_000)
        push = self.net.lead.spawn([self.programs.lead, "--interface", self.net.lead.address, "--json", "push",
                                    "--nodes", self.addresses(), "large"], stdout=subprocess.PIPE, text=True)
        lab.wait_until(lambda: self.states().get("large") == "running", 20, "the push")
        push.send_signal(signal.SIGINT)
        out, _ = push.communicate(timeout=10)
        events = lab.parse_events(out)
        self.assertEqual(push.returncode, 1)
        told = [e for e in events if e["event"] == "interrupted"]
        self.assertEqual({n["node"] for n in told[0]["nodes"]}, {n.address for n in self.net.nodes})
        lab.wait_until(lambda: self.states() == {"large": "cancelled"}, 10, "its end")

    def test_a_client_that_dies_leaves_its_push_running(self):
        tree.add(self.content, "file", 20_000_000)
        push = self.in_background("file")
        lab.wait_until(lambda: self.states().get("file") == "running", 20, "the push")
        self.kill(push)
        lab.wait_until(lambda: self.states() == {"file": "done"}, 60, "its end")
        self.assert_received()

    def test_a_queued_push_is_cancelled_by_its_number(self):
        tree.add(self.content, "large", 12_000_000)
        tree.add(self.content, "small", 100)
        self.serve_at(8)
        first = self.begin_first()
        second = self.start_push_through("--name", "second", "small")
        lab.wait_until(lambda: "second" in self.states(), 20, "the second push")
        third = self.in_background("--name", "third", "small")
        lab.wait_until(lambda: "third" in self.states(), 20, "the third push")
        status, events, errors = self.serving.request("cancel", "2")
        self.assertEqual((status, events[0]["text"]), (0, "push 2 (second) is cancelled before it began"), errors)
        out, said = second.communicate(timeout=10)
        self.assertEqual(second.returncode, 1)
        self.assertIn("the push was cancelled", said)
        self.assertEqual([e["number"] for e in lab.parse_events(out) if e["event"] == "push-queued"], [2])
        self.assertEqual(self.states(), {"first": "running", "second": "cancelled", "third": "queued"})
        self.assertEqual((first.wait(timeout=60), third.wait(timeout=20)), (0, 0))
        status, events, errors = self.serving.request("cancel", "2")
        self.assertEqual((status, events[0]["text"]), (1, "push 2 (second) has ended already"), errors)

    def serve_at(self, megabits):
        """Instead of the lead that serves, one that is so slow."""
        self.serving.stop()
        self.serving = BackgroundLead(self, "serve", "--rate", str(megabits))
        lab.wait_until(lambda: len(self.serving.events("node-introduced")) == 2, 20, "the introductions")

    def begin_first(self):
        first = self.in_background("--name", "first", "large")
        lab.wait_until(lambda: self.states().get("first") == "running", 20, "the first push")
        return first

    def start_push_through(self, *arguments):
        return self.net.lead.spawn([self.programs.lead, "--interface", self.net.lead.address, "--json", "push",
                                    "--nodes", self.addresses(), *arguments],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def test_a_second_push_says_behind_which_it_waits(self):
        tree.add(self.content, "large", 4_000_000)
        tree.add(self.content, "small", 100)
        self.serve_at(8)
        first = self.begin_first()
        second = self.net.lead.run(self.plain("push", "--nodes", self.addresses(), "small"), capture_output=True,
                                   text=True, timeout=60)
        self.assertEqual((first.wait(timeout=1), second.returncode), (0, 0))
        self.assertIn("push 2 waits for the end of first\n", second.stdout)
        self.assert_received()

    def test_a_push_whose_reader_is_gone_ends_with_every_file(self):
        """As of `push ... | head`, and of a terminal that is closed."""
        tree.add(self.content, "file", 3_000_000)
        self.serve_at(8)
        push = self.start_push_through("file")
        push.stdout.readline()
        push.stdout.close()
        self.assertIn(push.wait(timeout=60), (0, 1))
        lab.wait_until(lambda: self.states() == {"file": "done"}, 30, "its end")
        self.assert_received()
        self.assertIsNone(self.serving.process.poll())

    def test_another_root_for_the_location_is_refused_before_anything_is_sent(self):
        other = self.directory("other")
        tree.add(other, "file", 10)
        result = self.programs.push(self.net.lead, other, "--nodes", self.addresses())
        self.assertEqual(result.returncode, 3, result.stderr)
        self.assertIn(f"has location 1 in {self.content}, not {other}", result.stderr)

    def test_what_the_lead_was_told_at_its_start_is_refused(self):
        tree.add(self.content, "file", 10)
        self.assertIn("--rate", self.serving.request("push", "--nodes", "2", "--rate", "20", ".")[2])

    def test_a_second_lead_is_refused_by_name_of_the_first(self):
        second = self.programs.start_lead(self.net.lead, self.content, "serve", stderr=subprocess.PIPE, text=True)
        self.assertEqual(second.wait(timeout=10), 3)
        error = second.stderr.read()
        self.assertIn(f"process {self.serving.process.pid} (", error)
        self.assertIn("serve", error)


class NothingIsClaimed(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        for name in ("kept", "gone", "directory/gone"):
            tree.add(self.content, name, 100)
        self.start_nodes()
        self.push()
        self.serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(self.serving.events("node-introduced")) == 2, 20, "the introductions")

    def outcomes(self, events):
        return {e["node"]: {n["name"]: n["text"] for n in e["names"]}
                for e in events if e["event"] == "outcome"}

    def test_a_delete_of_what_no_node_has_ends_with_1_and_says_so(self):
        status, events, _ = self.serving.request("delete", "never there", "gone")
        self.assertEqual(status, 1)
        self.assertEqual(self.outcomes(events),
                         {node.address: {"never there": "no such file"} for node in self.net.nodes})
        for node in self.net.nodes:
            self.assertEqual(names_below(self.directory_of(node)), {"kept", "directory/gone"})

    def test_a_delete_of_a_directory_needs_recursive(self):
        status, events, _ = self.serving.request("delete", "directory")
        self.assertEqual(status, 1)
        for said in self.outcomes(events).values():
            self.assertIn("is a directory", said["directory"])
        status, events, errors = self.serving.request("delete", "-r", "directory")
        self.assertEqual(status, 0, (events, errors))
        for node in self.net.nodes:
            self.assertEqual(names_below(self.directory_of(node)), {"kept", "gone"})

    def test_a_file_that_some_nodes_have_is_deleted_and_the_others_named(self):
        os.unlink(os.path.join(self.directory_of(self.net.nodes[0]), "gone"))
        status, events, _ = self.serving.request("delete", "gone")
        self.assertEqual(status, 0)
        self.assertEqual(self.outcomes(events)[self.net.nodes[0].address], {"gone": "no such file"})
        self.assertEqual(self.outcomes(events)[self.net.nodes[1].address], {})

    def test_a_cancel_of_nothing_ends_with_1(self):
        status, events, _ = self.serving.request("cancel", "4711")
        self.assertEqual(status, 1)
        self.assertEqual({e["text"] for e in events if e["event"] == "outcome"},
                         {"no such transaction under way"})
        status, events, _ = self.serving.request("cancel", "no such push")
        self.assertEqual((status, events[0]["text"]), (1, "no push is called 'no such push'"))


class MissingLocation(SystemTest):
    NODES = 2

    def test_a_node_without_the_location_ends_at_once_on_both_sides(self):
        tree.add(self.content, "file", 100)
        with_it, without = self.net.nodes
        self.start_node(with_it)
        self.start_node(without, location=f"2={self.directory_of(without)}")
        result = self.push(expect=1, timeout=20)
        self.assertEqual([(e["node"], e["location"]) for e in result.events if e["event"] == "location-missing"],
                         [(without.address, 1)])
        self.assertEqual(set(failures(summary(result))[without.address]), {"file"})
        self.assert_received(with_it)
        lab.wait_until(lambda: self.node_events(without, "location-unset"), 10, "the node's word")
        self.assertEqual(self.node_events(without, "location-unset")[0]["location"], 1)


class RunningNode(SystemTest):
    NODES = 1

    def setUp(self):
        super().setUp()
        self.node = self.net.nodes[0]
        self.start_nodes()
        self.serving = BackgroundLead(self, "serve")
        self.serving.wait_for("node-introduced")

    def command(self, *arguments):
        result = self.node.run([self.programs.node, "--interface", self.node.address, "--json", *arguments],
                               capture_output=True, text=True, timeout=60)
        return result.returncode, lab.parse_events(result.stdout), result.stderr

    def test_get_goes_through_it_to_its_location(self):
        tree.add(self.content, "a", 5000)
        tree.add(self.content, "a.tmp", 100)
        status, events, errors = self.command("get", "a", "a.tmp")
        self.assertEqual(status, 0, errors)
        self.assertEqual({e["name"]: e["status"] for e in events if e["event"] == "file"}, {"a": 0, "a.tmp": 0})
        self.assert_received()
        self.assert_alive()

    def test_get_into_another_directory_than_the_nodes_is_refused(self):
        tree.add(self.content, "a", 5000)
        own, other = self.directory_of(self.node), self.directory("other")
        status, events, errors = self.command("--location", f"1={other}", "get", "a")
        self.assertEqual((status, events), (3, []), errors)
        self.assertIn(f"has location 1 in {own}, not {other}", errors)
        self.assertEqual(os.listdir(other), [])
        os.symlink(own, os.path.join(other, "the same"))
        status, _, errors = self.command("--location", f"1={other}/the same", "get", "a")
        self.assertEqual(status, 0, errors)
        self.assert_received()

    def test_get_of_what_is_not_there_fails_and_the_node_goes_on(self):
        status, events, _ = self.command("get", "nothing")
        self.assertEqual(status, 1)
        self.assertNotEqual(events[0]["status"], 0)
        self.assert_alive()

    def test_send_goes_through_it(self):
        status, events, errors = self.command("send", "--class", "3", "hello")
        self.assertEqual((status, events[-1]["status"]), (0, 0), errors)
        lab.wait_until(lambda: self.serving.events("message"), 5, "the message")
        self.assertEqual([(e["class"], e["size"]) for e in self.serving.events("message")], [(3, 5)])

    def test_status_tells_lead_and_locations(self):
        status, events, errors = self.command("status")
        self.assertEqual(status, 0, errors)
        told = events[0]
        self.assertEqual((told["address"], told["lead"], told["pid"]),
                         (self.node.address, self.net.lead.address, self.node_processes[self.node.name].pid))
        self.assertEqual([l["location"] for l in told["locations"]], [1])

    def test_a_second_node_is_refused_by_name_of_the_first(self):
        second = self.node.run([self.programs.node, "--interface", self.node.address, "--location",
                                f"1={self.directory('x')}", "run"], capture_output=True, text=True, timeout=20)
        self.assertEqual(second.returncode, 3)
        self.assertIn(f"process {self.node_processes[self.node.name].pid} (", second.stderr)

    def test_without_a_node_status_says_so(self):
        self.kill(self.node_processes[self.node.name])
        status, _, error = self.command("status")
        self.assertEqual(status, 3)
        self.assertIn("no node runs here", error)
