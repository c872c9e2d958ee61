"""The throughput benchmark (scripts/bench) measures what it says: it is run on little content, end to
end, and its figures are compared with what the network and the clock of this test say."""

import json
import os
import socket
import subprocess
import sys
import unittest

import support
from support import SystemTest, lab

_HERE = os.path.dirname(os.path.abspath(__file__))
BENCH = os.path.join(_HERE, "..", "..", "bench")
sys.path.insert(0, BENCH)

import links  # noqa: E402
import report  # noqa: E402


def run_bench(*arguments):
    """Its output and the record of every run, from namespaces of its own."""
    path = os.path.join(lab.work_directory(), "record.json")
    build = os.path.dirname(os.path.dirname(support.PROGRAMS.lead))
    environment = {name: value for name, value in os.environ.items() if name != lab.MARK}
    try:
        done = subprocess.run([sys.executable, os.path.join(BENCH, "throughput.py"), build,
                               "--json", path, *arguments],
                              env=environment, capture_output=True, text=True, timeout=100)
        if done.returncode != 0:
            raise AssertionError(done.stderr)
        with open(path, encoding="utf-8") as file:
            return done.stdout, json.load(file)
    finally:
        lab.remove(os.path.dirname(path))


class Throughput(unittest.TestCase):
    def test_every_cell_has_its_rows_columns_and_identical_content(self):
        text, record = run_bench("--megabytes", "4", "--files", "20", "--runs", "1", "--nodes", "2",
                                 "--loss", "0", "5", "--cells", "large", "small", "--markdown")
        lines = text.splitlines()
        self.assertTrue(lines[0].startswith("machine: "))
        for column in report.COLUMNS:
            self.assertIn(column, lines[1])
        rows = record["results"]
        self.assertEqual([(row["cell"], row["loss"]) for row in rows],
                         [("large", 0), ("large", 5), ("small", 0), ("small", 5)])
        for row in rows:
            run, = row["runs"]
            self.assertTrue(run["identical"], row)
            self.assertGreater(run["sent"], 1.0, row)
            self.assertGreater(run["seconds"], run["own_seconds"], row)
            self.assertGreater(run["cpu"], 0, row)
            self.assertGreater(run["memory"], 1, row)
        for lossless, lossy in (rows[:2], rows[2:]):
            self.assertGreater(lossy["runs"][0]["sent"], lossless["runs"][0]["sent"])
        markdown = [line for line in lines if line.startswith("| ")]
        self.assertEqual(len(markdown), 2 + len(rows))

    def test_a_run_that_takes_longer_than_the_limit_has_failed(self):
        _, record = run_bench("--cells", "tiny", "--runs", "1", "--limit", "0.01")
        run, = record["results"][0]["runs"]
        self.assertFalse(run["identical"])
        self.assertLess(run["seconds"], 1)

    def test_another_build_runs_beside(self):
        build = os.path.dirname(os.path.dirname(support.PROGRAMS.lead))
        _, record = run_bench("--cells", "tiny", "--runs", "1", "--beside", build)
        self.assertEqual([row["program"] for row in record["results"]],
                         ["pkgdist", "pkgdist (beside)"])
        for row in record["results"]:
            self.assertTrue(row["runs"][0]["identical"], row)

    def test_a_slow_port_drops_and_takes_its_time(self):
        _, record = run_bench("--cells", "slow-node", "--megabytes", "4", "--nodes", "3", "--runs",
                              "1", "--slow-rate", "10mbit", "--rate", "100")
        run, = record["results"][0]["runs"]
        self.assertTrue(run["identical"], run)
        self.assertGreater(run["port_drops"], 0)
        self.assertGreater(run["seconds"], (1 << 19) * 8 / 10e6)
        self.assertLess(run["fast_seconds"], run["seconds"])


class Links(SystemTest):
    """The laboratory's links, which the benchmark's cells are made of."""

    NODES = 1
    UDP_SEGMENT = 103  # of linux/udp.h; Python has no name for it
    BATCH = 10

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.batch_packets = cls.packets_of_a_batch(cls.net)
        links.send_single_datagrams(cls.net.lead)

    @classmethod
    def packets_of_a_batch(cls, net):
        before = links.received_packets(net.nodes[0])
        sender = net.lead.socket()
        sender.setsockopt(socket.IPPROTO_UDP, cls.UDP_SEGMENT, 1000)
        sender.sendto(bytes(1000 * cls.BATCH), (net.nodes[0].address, 7999))
        sender.close()
        return links.received_packets(net.nodes[0]) - before

    def test_a_batch_is_cut_into_datagrams(self):
        self.assertLess(self.batch_packets, self.BATCH)  # a packet, and what finds the neighbour
        self.assertGreaterEqual(self.packets_of_a_batch(self.net), self.BATCH)

    def test_a_full_receive_buffer_is_counted_as_drops(self):
        receiver = self.net.nodes[0].socket(7998)
        receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        sender = self.net.lead.socket()
        for _ in range(50):
            sender.sendto(bytes(1000), (self.net.nodes[0].address, 7998))
        self.assertGreater(links.socket_drops(self.net.nodes[0]), 0)
        receiver.close()
        sender.close()


class Report(unittest.TestCase):
    @staticmethod
    def row(program, loss, *sent, identical=True):
        return {"cell": "large", "content": "4 MiB", "program": program, "nodes": 1, "loss": loss,
                "batches": False, "runs": [{"seconds": 1.0 + i, "mbs": (4 << 20) / 1e6 / (1.0 + i), "cpu": 2.0,
                          "memory": 8.0, "sent": each, "stolen": float(i), "socket_drops": i,
                          "identical": identical} for i, each in enumerate(sent)]}

    def texts(self, row, results):
        return dict(zip(report.COLUMNS, report.cells_of(row, results)))

    def test_medians_with_fastest_and_slowest_and_the_worst_of_drops(self):
        row = self.row("a", 0, 1.1, 1.05, 1.2)
        texts = self.texts(row, [row])
        self.assertEqual((texts["median s"], texts["min..max"]), ("2.00", "1.00..3.00"))
        self.assertEqual((texts["drops"], texts["stolen %"]), ("2", "2.0"))
        self.assertEqual((texts["sent/content"], texts["identical"]), ("1.100", "3/3"))

    def test_bytes_over_what_is_needed_start_at_the_leanest_run_without_loss(self):
        lossless, lossy = self.row("a", 0, 1.1, 1.05), self.row("a", 50, 2.1)
        other = self.row("b", 0, 1.01)
        self.assertEqual(self.texts(lossy, [lossless, lossy, other])["sent/needed"], "1.000")
        self.assertEqual(self.texts(lossy, [lossy, other])["sent/needed"], "-")

    def test_failed_runs_are_counted_but_not_timed(self):
        row = self.row("a", 0, 1.1, identical=False)
        texts = self.texts(row, [row])
        self.assertEqual((texts["median s"], texts["identical"]), ("-", "0/1"))

    def test_what_is_needed_is_the_expected_maximum_over_the_nodes(self):
        self.assertEqual(report.needed(3, 0), 1.0)
        self.assertAlmostEqual(report.needed(1, 50), 2.0, places=6)
        self.assertAlmostEqual(report.needed(2, 50), 8 / 3, places=6)

    def test_markdown_leaves_out_columns_that_say_nothing(self):
        text = report.markdown([self.row("a", 0, 1.1)])
        self.assertNotIn("port drops", text)
        self.assertEqual(len(text.splitlines()), 3)
