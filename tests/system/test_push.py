"""A pushed tree arrives on every node, whatever the network loses."""

import os
import time

import tree
from support import SystemTest, Watcher, failures, lab, summary


class PushUnderLoss(SystemTest):
    """The full tree, to three nodes."""

    LEAD_LOSS = 5.0  # of what nodes answer, wherever nodes lose anything

    def setUp(self):
        super().setUp()
        tree.full(self.content)

    def push_everything(self, percent):
        for node in self.net.nodes:
            node.lose(percent)
        self.net.lead.lose(self.LEAD_LOSS if percent else 0)
        self.start_nodes()
        wholes = {}
        for name in (tree.BIG, "sizes/65 segments", tree.longest_name(), "one byte"):
            digest = lab.sha256(os.path.join(self.content, name))
            wholes.update({os.path.join(self.directory_of(n), name): {digest}
                           for n in self.net.nodes})
        started = time.monotonic()
        with Watcher(wholes) as watcher:
            result = self.push(timeout=240)
        seconds = time.monotonic() - started
        self.assertEqual(watcher.partial, [])
        self.assertTrue(summary(result)["complete"])
        self.assertEqual(list(failures(summary(result)).values()), [{}, {}, {}])
        self.assert_received()
        self.assert_alive()
        print(f"[{percent:g} % loss: {seconds:.1f} s] ", end="", flush=True)
        return result

    def repairs(self, result):
        return sum(node["repairs"] for node in summary(result)["nodes"])

    def test_arrives_without_loss_and_a_second_push_transfers_links_only(self):
        self.push_everything(0)
        before = self.states()
        result = self.push()
        self.assertEqual(self.states(), before, "a file was written again")
        manifest = lab.manifest(self.content).values()
        files = sum(entry[0] == "file" for entry in manifest)
        self.assert_received()
        counters = next(e for e in result.events if e["event"] == "counters")
        self.assertLess(counters["data_bytes_sent"], 2_000_000)
        for node in summary(result)["nodes"]:
            self.assertEqual((node["files"], node["present"]), (len(manifest), files), counters)

    def test_arrives_at_1_percent_loss(self):
        self.assertGreater(self.repairs(self.push_everything(1)), 0)

    def test_arrives_at_5_percent_loss(self):
        self.assertGreater(self.repairs(self.push_everything(5)), 0)

    def test_arrives_at_20_percent_loss(self):
        self.assertGreater(self.repairs(self.push_everything(20)), 0)

    def states(self):
        """Of every received file: which one it is, and when it was last changed."""
        result = {}
        for node in self.net.nodes:
            directory = self.directory_of(node)
            for name, entry in lab.manifest(directory).items():
                if entry[0] == "file":
                    info = os.stat(os.path.join(directory, name))
                    result[node.name, name] = (info.st_ino, info.st_ctime_ns)
        return result


class Push(SystemTest):
    def test_every_kind_of_name_arrives_at_20_percent_loss(self):
        tree.small(self.content, medium=3_000_000)
        for host in self.net.hosts():
            host.lose(20)
        self.start_nodes()
        self.push()
        self.assert_received()

    def test_a_new_version_replaces_the_old_one_in_one_step(self):
        self.start_nodes()
        names = ("large", "medium")
        sizes = (20_000_000, 300_000)
        for name, size in zip(names, sizes):
            tree.add(self.content, name, size)
        self.push()
        old = {name: lab.sha256(os.path.join(self.content, name)) for name in names}
        for name, size in zip(names, sizes):
            tree.write(self.content, name, tree.content("new" + name, size), mtime=1_200_000_000)
        wholes = {os.path.join(self.directory_of(node), name):
                  {old[name], lab.sha256(os.path.join(self.content, name))}
                  for node in self.net.nodes for name in names}
        for node in self.net.nodes:
            node.lose(5)
        with Watcher(wholes) as watcher:
            self.push("--rate", "200")
        self.assertEqual(watcher.partial, [])
        self.assertEqual(watcher.seen, wholes.keys())
        self.assert_received()

    def test_an_equal_file_of_type_6_is_transferred_again(self):
        self.start_nodes()
        tree.add(self.content, "file", 100_000)
        self.push()
        result = self.push("--type", "6")
        self.assertEqual([n["present"] for n in summary(result)["nodes"]], [0, 0, 0])
        self.assert_received()

    def test_a_file_of_the_same_size_but_another_time_is_transferred_again(self):
        self.start_nodes()
        tree.add(self.content, "file", 100_000)
        self.push()
        tree.write(self.content, "file", tree.content("other", 100_000), mtime=1_000_000_001)
        self.push()
        self.assert_received()

    def test_only_the_named_paths_travel(self):
        self.start_nodes()
        tree.small(self.content)
        self.push(paths=("sizes", "one byte"))
        expected = {n for n in lab.manifest(self.content) if n.startswith("sizes/")} | {"one byte"}
        for node in self.net.nodes:
            self.assertEqual(lab.manifest(self.directory_of(node)).keys(), expected)

    def test_empty_directories_travel(self):
        self.start_nodes()
        os.makedirs(os.path.join(self.content, "nothing/in here"))
        tree.add(self.content, "file", 10)
        self.push()
        for node in self.net.nodes:
            self.assertEqual(sorted(os.listdir(self.directory_of(node))), ["file", "nothing"])
            self.assertEqual(os.listdir(os.path.join(self.directory_of(node), "nothing")), ["in here"])

    def test_links_in_directories_of_their_own_arrive(self):
        for i in range(300):
            tree.link(self.content, f"directory {i}/of a link/link", f"target {i}")
        self.start_nodes()
        self.push()
        self.assert_received()

    def test_no_temporary_file_is_left(self):
        self.start_nodes()
        tree.small(self.content)
        self.push()
        names = lab.manifest(self.content).keys()
        for node in self.net.nodes:
            self.assertEqual(lab.manifest(self.directory_of(node)).keys(), names)

    def test_a_node_that_never_appears_is_told_and_the_others_get_everything(self):
        first, second, absent = self.net.nodes
        self.start_node(first)
        self.start_node(second)
        tree.small(self.content)
        result = self.push("--timeout", "2", expect=1)
        states = {node["node"]: node["state"] for node in summary(result)["nodes"]}
        self.assertEqual(states, {first.address: "complete", second.address: "complete",
                                  absent.address: "never heard"})
        self.assert_received(first, second)
