"""Pushes that meet a fault end by themselves and tell the truth, and nodes work when it is over: ports
that a packet filter drops, processes that are stopped and continued."""

import errno
import os
import signal

import tree
from support import SystemTest, errno_status, failures, lab, summary


class FilteredPorts(SystemTest):
    """Each port in turn. The last node has nothing in its way."""

    def setUp(self):
        super().setUp()
        tree.small(self.content, small_files=20, medium=2_000_000)
        self.start_nodes()

    def states(self, end):
        return [{n["node"]: n["state"] for n in end["nodes"]}[node.address] for node in self.net.nodes]

    def assert_works_without_filters(self):
        for host in self.net.hosts():
            host.filter()
        tree.add(self.content, "another", 300_000)
        self.assertTrue(summary(self.push())["complete"])
        self.assert_received()
        self.assert_alive()

    def test_without_the_control_channel_nodes_never_appear(self):
        first, second, last = self.net.nodes
        first.filter("udp dport 7100 drop")
        self.net.lead.filter(f"ip saddr {second.address} udp dport 7102 drop")
        end = summary(self.push("--timeout", "3", expect=1))
        self.assertEqual(self.states(end), ["never heard", "never heard", "complete"])
        self.assert_received(last)
        self.assert_works_without_filters()

    def test_without_the_nodes_own_port_a_push_is_whole(self):
        for node in self.net.nodes:
            node.filter("udp dport 7103 drop")
        self.assertTrue(summary(self.push())["complete"])
        self.assert_received()

    def test_without_the_data_channel_nodes_are_left_out_and_the_reason_is_told(self):
        first, second, last = self.net.nodes
        first.filter("udp dport 7101 drop")
        self.net.lead.filter(f"ip saddr {second.address} udp dport 7104 drop")
        end = summary(self.push(expect=1, timeout=90))
        self.assertEqual(self.states(end), ["failed", "failed", "complete"])
        told = failures(end)
        self.assertEqual(set(told[first.address].values()), {errno_status(errno.ENODATA)})
        self.assertEqual(set(told[second.address].values()), {errno_status(errno.ECOMM)})
        texts = {f["text"] for node in end["nodes"] for f in node["failed"]}
        self.assertEqual(len([t for t in texts if "--data-group" in t]), 1, texts)
        self.assertEqual(len([t for t in texts if "--req-port" in t]), 1, texts)
        self.assert_received(last)
        self.assert_works_without_filters()

    def test_a_port_that_is_filtered_for_a_while_in_a_push_costs_nothing_but_time(self):
        lead = self.start_push("--rate", "1")
        lead.wait_for("push-started")
        for port, host in ((7100, self.net.nodes[0]), (7101, self.net.nodes[1]),
                           (7102, self.net.lead), (7104, self.net.lead)):
            host.filter(f"udp dport {port} drop")
            before = len(lead.events("push-progress"))
            lab.wait_until(lambda: len(lead.events("push-progress")) >= before + 1,
                           what="a second or two of the push")
            host.filter()
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()
        self.assert_works_without_filters()


class StoppedProcesses(SystemTest):
    """SIGSTOP and SIGCONT, as a debugger, a full terminal or a frozen container do it."""

    NODES = 2

    def setUp(self):
        super().setUp()
        tree.small(self.content, small_files=20, medium=20_000_000)
        self.node, self.other = self.net.nodes
        self.start_nodes()
        self.stopped = []
        self.addCleanup(self.continue_all)

    def begin_push(self, *arguments):
        lead = self.start_push("--rate", "40", *arguments)
        partial = os.path.join(self.directory_of(self.node), tree.BIG + ".tmp")
        lab.wait_until(lambda: os.path.exists(partial) and os.stat(partial).st_size > 2_000_000,
                       what="the large file to be begun")
        return lead

    def stop(self, process):
        process.send_signal(signal.SIGSTOP)
        self.stopped.append(process)

    def continue_all(self):
        while self.stopped:
            self.stopped.pop().send_signal(signal.SIGCONT)

    def assert_everybody_gets_all_of_another_push(self):
        tree.add(self.content, "another", 300_000)
        self.assertTrue(summary(self.push())["complete"])
        self.assert_received()
        self.assert_alive()

    def test_a_node_that_is_stopped_for_a_while_gets_everything(self):
        lead = self.begin_push()
        self.stop(self.node_processes[self.node.name])
        before = len(lead.events("push-progress"))
        lab.wait_until(lambda: len(lead.events("push-progress")) >= before + 3,
                       what="three seconds of the push")
        self.continue_all()
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()
        self.assert_everybody_gets_all_of_another_push()

    def test_a_node_that_stays_stopped_is_told_as_silent_and_works_when_continued(self):
        lead = self.begin_push("--timeout", "3")
        self.stop(self.node_processes[self.node.name])
        end = lead.finish(expect=1)
        self.assertEqual({n["node"]: n["state"] for n in end["nodes"]},
                         {self.node.address: "silent", self.other.address: "complete"})
        self.assert_received(self.other)
        self.continue_all()
        self.assert_everybody_gets_all_of_another_push()

    def test_a_lead_that_is_stopped_for_a_while_goes_on(self):
        lead = self.begin_push()
        self.stop(lead.process)
        # Asking again, the node counts: at growing intervals of a tenth of a second.
        lab.wait_until(lambda: self.statistics(self.node).total("FILE NOT DNE TO") >= 1,
                       what="the node to miss the lead")
        self.continue_all()
        self.assertTrue(lead.finish()["complete"])
        self.assert_received()
        self.assert_everybody_gets_all_of_another_push()

    def test_a_lead_that_dies_while_it_is_stopped_leaves_nodes_that_work(self):
        lead = self.begin_push()
        self.stop(lead.process)
        self.stopped.clear()
        lead.kill()
        self.net.lead.processes.remove(lead.process)
        self.assert_everybody_gets_all_of_another_push()
