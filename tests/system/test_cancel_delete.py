"""Lists to cancel and to delete, in the middle of a push and outside of one."""


import tree
from support import (DELETED, BackgroundLead, SystemTest, failures, lab, names_below, summary)

CANCELLED = DELETED - 2


class CancelAndDelete(SystemTest):
    def start_large_push(self):
        tree.add(self.content, tree.BIG, 60_000_000)
        tree.add(self.content, "later", 3000)
        self.start_nodes()
        push = self.start_push("--rate", "60")
        for node in self.net.nodes:
            lab.wait_until(lambda n=node: self.statistics(n).total("MC SEGMENT") > 5000, 30,
                           "the middle of the large file")
        return push

    def events_of_files(self, node):
        return {e["name"]: e["status"] for e in self.node_events(node, "file")}

    def test_a_cancel_in_the_middle_of_a_push_ends_it_everywhere(self):
        push = self.start_large_push()
        transaction = push.events("push-started")[0]["transaction"]
        status, events, error = push.request("cancel", str(transaction))
        self.assertEqual(status, 0, (events, error))
        end = push.finish(expect=1, seconds=20)
        for node in self.net.nodes:
            self.assertEqual(failures(end)[node.address],
                             {tree.BIG: CANCELLED, "later": CANCELLED})
            lab.wait_until(lambda n=node: self.node_events(n, "transaction-done"), 5, "the end")
            done = self.node_events(node, "transaction-done")
            self.assertEqual([(e["transaction"], e["status"]) for e in done],
                             [(transaction, CANCELLED)])
            self.assertEqual(set(self.events_of_files(node).values()), {CANCELLED})
            self.assertEqual(names_below(self.directory_of(node)), set())
        self.assert_alive()

    def test_a_cancel_for_one_node_leaves_the_others_alone(self):
        push = self.start_large_push()
        transaction = push.events("push-started")[0]["transaction"]
        first, *others = self.net.nodes
        status, _, error = push.request("cancel", "--nodes", first.address, str(transaction))
        self.assertEqual(status, 0, error)
        end = push.finish(expect=1, seconds=60)
        self.assertEqual(set(failures(end)[first.address].values()), {CANCELLED})
        self.assert_received(*others)
        self.assertEqual(names_below(self.directory_of(first)), set())

    def test_a_delete_in_the_middle_of_a_push_deletes_that_file_alone(self):
        push = self.start_large_push()
        status, _, error = push.request("delete", "--to", "1", tree.BIG)
        self.assertEqual(status, 0, error)
        end = push.finish(expect=1, seconds=60)
        for node in self.net.nodes:
            self.assertEqual(failures(end)[node.address], {tree.BIG: DELETED})
            self.assertEqual(names_below(self.directory_of(node)), {"later"})

    def test_a_delete_in_the_middle_of_a_push_of_what_is_nowhere_ends_with_1(self):
        push = self.start_large_push()
        lab.wait_until(lambda: len(push.events("node-introduced")) == len(self.net.nodes), 20, "the introductions")
        status, events, _ = push.request("delete", "never there", "later")
        self.assertEqual(status, 1)
        left_out = "no such file; the push that runs leaves it out"
        self.assertEqual([{n["name"]: n["text"] for n in e["names"]} for e in events if e["event"] == "outcome"],
                         [{"never there": "no such file", "later": left_out}] * len(self.net.nodes))
        end = push.finish(expect=1, seconds=60)
        for node in self.net.nodes:
            self.assertEqual(failures(end)[node.address], {"later": DELETED})
            self.assertEqual(names_below(self.directory_of(node)), {tree.BIG})

    def test_a_delete_outside_of_a_push_removes_files_that_are_there(self):
        for name in ("kept", "gone", "directory/gone"):
            tree.add(self.content, name, 100)
        self.start_nodes()
        self.push()
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(serving.events("node-appeared")) == 3, what="the nodes")
        lab.wait_until(lambda: len(serving.events("node-introduced")) == 3, what="the introductions")
        status, events, error = serving.request("delete", "gone", "directory/gone")
        self.assertEqual(status, 0, error)
        self.assertEqual(events[-1]["acknowledged"], 3)
        for node in self.net.nodes:
            lab.wait_until(lambda n=node: names_below(self.directory_of(n)) == {"kept"}, 5,
                           "the files to be gone")

    def test_a_cancel_of_nothing_changes_nothing(self):
        self.start_nodes()
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(serving.events("node-introduced")) == 3, what="the introductions")
        self.assertEqual(serving.request("cancel", "4711")[0], 1)
        for node in self.net.nodes:
            self.assertEqual(self.node_events(node, "file"), [])

    def test_a_name_that_leaves_the_location_is_refused(self):
        serving = BackgroundLead(self, "serve")
        serving.wait_for("role")
        status, events, error = serving.request("delete", "../etc/passwd")
        self.assertEqual((status, events[-1]["event"]), (3, "error"))
        self.assertIn("../etc/passwd", error)

    def test_a_name_with_a_slash_before_it_is_refused_with_the_rule(self):
        serving = BackgroundLead(self, "serve")
        serving.wait_for("role")
        status, _, error = serving.request("delete", "/etc/passwd")
        self.assertEqual(status, 2)
        self.assertIn("names are relative to the storage location", error)
