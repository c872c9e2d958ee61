"""pkgdist-stat and pkgdist-trace look at nodes from outside: while they receive, and after they died."""

import json
import os
import re
import subprocess
import urllib.request

import tree
from support import SystemTest, lab
from terminal import Terminal

SEGMENT_BYTES = 1400
FILE_BYTES = 2_000_000
SEGMENTS = -(-FILE_BYTES // SEGMENT_BYTES)


class Inspection(SystemTest):
    NODES = 2

    def setUp(self):
        super().setUp()
        # Cleaning must not meet what others on this machine have left.
        lab.mount_memory("/dev/shm")
        self.addCleanup(lab.unmount, "/dev/shm")
        # What another laboratory has mapped counts as in use under its inode's number: have others.
        for _ in range(os.getpid() % 997):
            with open("/dev/shm/number", "wb"):
                pass
            os.unlink("/dev/shm/number")
        self.bin = os.path.dirname(self.programs.node)

    def tool(self, name, *arguments, expect=0):
        """Runs on the laboratory's machine, outside the network namespaces of the nodes."""
        result = subprocess.run([os.path.join(self.bin, name), *map(str, arguments)],
                                capture_output=True, text=True, timeout=20)
        self.assertEqual(result.returncode, expect, result.stderr + result.stdout[-500:])
        return result.stdout if expect == 0 else result.stderr

    def stat(self, *arguments, **options):
        return self.tool("pkgdist-stat", *arguments, **options)

    def trace(self, *arguments, **options):
        return self.tool("pkgdist-trace", *arguments, **options)

    def stat_json(self, *arguments):
        return [json.loads(line) for line in self.stat("--json", *arguments).splitlines()]

    @staticmethod
    def counts(event):
        return {(t["table"], e["label"]): e.get("count", e.get("mark"))
                for t in event["tables"] for e in t["entries"]}

    def push_one_file(self):
        self.start_nodes()
        tree.add(self.content, "large", FILE_BYTES)
        return self.push("--rate", "100")

    def wait_for_tables(self):
        """Until the first node has started both sides; its sockets are open then."""
        lab.wait_until(lambda: ("DRS_Counters", "FILE ADD") in self.statistics(self.net.nodes[0]),
                       what="statistics")

    def pids(self):
        return [self.node_processes[node.name].pid for node in self.net.nodes]


class StatOfNodes(Inspection):
    def test_tells_during_a_push_what_the_push_reports_at_its_end(self):
        self.start_nodes()
        tree.add(self.content, "large", FILE_BYTES)
        first = self.pids()[0]
        self.wait_for_tables()
        push = self.start_push("--rate", "20")
        lab.wait_until(lambda: self.statistics(self.net.nodes[0])["DRT_Counters", "MC SEGMENT"],
                       what="the first segment")
        rounds = self.stat_json(first, "--watch", "0.1", "--rounds", "5")
        end = push.finish()

        self.assertEqual(len(rounds), 5)
        received = [self.counts(event)["DRT_Counters", "MC SEGMENT"] for event in rounds]
        self.assertEqual(received, sorted(received))
        self.assertNotIn("seconds", rounds[0])
        for event, before, now in zip(rounds[1:], received, received[1:]):
            self.assertGreater(event["seconds"], 0.09)
            added = next(e["added"] for t in event["tables"] if t["table"] == "DRT_Counters"
                         for e in t["entries"] if e["label"] == "MC SEGMENT")
            self.assertEqual(added, now - before)
        self.assertGreater(received[-1], received[0], "nothing came while it was watched")

        self.assertEqual(end["segments_sent"] - end["repairs_sent"], SEGMENTS)
        for event in self.stat_json("--all"):
            counts = self.counts(event)
            self.assertEqual(counts["DRT_Counters", "MC SEGMENT"], SEGMENTS)
            self.assertEqual(counts["DRT_Counters", "MC SEGMENT"] +
                             counts["DRT_Counters", "FILE SEG DUP"] +
                             counts["DRT_Counters", "FILE NOT FOUND"],  # a repair behind the last one
                             end["segments_sent"])
            self.assertEqual(counts["DRS_Counters", "FILE ADD"], 1)
            self.assertEqual(counts["DRS_Histograms", "FILE WRITE TIME"], SEGMENTS)
            self.assertGreater(counts["DRT_Watermarks", "FILE QUEUE"], 0)

    def test_shows_nine_tables_and_every_socket_with_its_drops(self):
        self.push_one_file()
        node = self.net.nodes[0]
        event = self.stat_json(self.pids()[0])[0]
        self.assertEqual([t["table"] for t in event["tables"]], [
            "CRT_Counters", "CRT_Histograms", "CRS_Counters", "CRS_Histograms", "DRT_Counters",
            "DRT_Watermarks", "DRT_Histograms", "DRS_Counters", "DRS_Histograms"])
        self.assertEqual([len(t["entries"]) for t in event["tables"]], [29, 4, 13, 3, 24, 1, 5, 15, 7])
        sockets = {s["local"]: s["drops"] for s in event["sockets"]}
        self.assertLessEqual({"239.255.71.1:7100", "239.255.71.2:7101"}, set(sockets))
        self.assertEqual(sockets["239.255.71.2:7101"], self.kernel_drops(node, "0247FFEF:1BBD"))
        text = self.stat(self.pids()[0], "--nonzero")
        self.assertRegex(text, rf"\n  MC SEGMENT +{SEGMENTS}\n")
        self.assertRegex(text, r"\n  FILE WRITE TIME +\d+\n( +[<>].* +\d+ #*\n)+")
        self.assertRegex(text, r"\n  FILE QUEUE +\d+  highest \d+, reached 20\d\d-")
        self.assertNotIn("FILE TIMEOUT", text)

    @staticmethod
    def kernel_drops(node, address):
        """What the node's own host says of the socket."""
        table = node.run(["cat", "/proc/net/udp"], capture_output=True, text=True).stdout
        return int(next(line for line in table.splitlines() if address in line).split()[-1])

    def test_counts_datagrams_that_a_stopped_node_lost(self):
        self.start_nodes()
        tree.add(self.content, "large", FILE_BYTES)
        first = self.pids()[0]
        self.wait_for_tables()
        os.kill(first, 19)  # SIGSTOP: its sockets fill
        sender = self.net.lead.socket()
        for _ in range(6000):
            sender.sendto(b"x" * 1400, (self.net.nodes[0].address, 7103))
        sender.close()
        drops = {s["local"]: s["drops"] for s in self.stat_json(first)[0]["sockets"]}
        os.kill(first, 18)
        self.assertGreater(drops["0.0.0.0:7103"], 0)

    def test_prometheus_text_and_server_tell_the_same_as_json(self):
        self.push_one_file()
        pid = self.pids()[0]
        expected = self.counts(self.stat_json(pid)[0])["DRT_Counters", "MC SEGMENT"]
        port = 29471
        server = subprocess.Popen([os.path.join(self.bin, "pkgdist-stat"), "--listen", str(port)])
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)  # an orderly end takes it two seconds
        lab.wait_until(lambda: self.scrape(port), what="the server")
        for text in (self.stat("--all", "--prometheus"), self.scrape(port)):
            metrics = self.parse_metrics(text)
            key = ("pkgdist_drt_total", str(pid), "MC SEGMENT")
            self.assertEqual(metrics[key], expected)
            self.assertEqual(metrics["pkgdist_up", str(pid), None], 1)
            self.assertEqual(metrics["pkgdist_drs_seconds_count", str(pid), "FILE WRITE TIME"],
                             SEGMENTS)
        busy = self.stat("--listen", port, expect=3)
        self.assertIn(f"cannot listen on 127.0.0.1:{port}", busy)

    def test_health_comes_first_and_one_line_per_process_is_to_be_had(self):
        self.push_one_file()
        lines = self.stat(self.pids()[0]).splitlines()
        self.assertEqual([line[:12].rstrip() for line in lines[1:6]],
                         ["kernel drops", "queue", "disk", "loss", "time-outs"])
        self.assertIn(f"of {SEGMENTS} segments", lines[4])
        health = self.stat_json(self.pids()[0])[0]["health"]
        self.assertEqual([one["subject"] for one in health],
                         ["kernel drops", "queue", "disk", "loss", "time-outs"])
        self.assertEqual({one["level"] for one in health}, {"ok"})
        table = self.stat("--all", "--table").splitlines()
        self.assertEqual([line.split()[0] for line in table], ["process", *map(str, self.pids())])
        self.assertIn("--changed needs --watch", self.stat("--changed", expect=2))

    def test_watching_fits_the_terminal_and_shows_what_moves_first(self):
        self.start_nodes()
        tree.add(self.content, "large", FILE_BYTES)
        self.wait_for_tables()
        push = self.start_push("--rate", "10")
        lab.wait_until(lambda: self.statistics(self.net.nodes[0])["DRT_Counters", "MC SEGMENT"],
                       what="the first segment")
        screen = Terminal(self.net.lead, [os.path.join(self.bin, "pkgdist-stat"), "--watch", "0.2",
                                          "--rounds", "3", str(self.pids()[0])])
        self.assertEqual(screen.finish(), 0)
        push.finish()
        rounds = [part.split("\x1b[J")[0] for part in screen.text.split("\x1b[H")[2:]]
        self.assertEqual(len(rounds), 3)
        for text in rounds:
            lines = text.replace("\x1b[K", "").split("\r\n")
            self.assertLessEqual(len(lines), 24)
            self.assertLessEqual(max(map(len, lines)), 80)
        first = rounds[-1].split("\r\n")[7]
        self.assertRegex(first, r"^DR[TS] [A-Z ]+ +\d+ +\d+ +\d+\.\d")

    @staticmethod
    def scrape(port):
        try:
            return urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics").read().decode()
        except OSError:
            return ""

    def parse_metrics(self, text):
        """{(name, pid, entry): value}; every line must be one of the format's."""
        line_form = re.compile(r'([a-z_]+)(?:\{((?:[a-z]+="[^"\\]*",?)*)\})? ([-+0-9.eE]+|Nan|\+Inf)$')
        metrics = {}
        types = set()
        for line in text.splitlines():
            if line.startswith("# TYPE "):
                name = line.split()[2]
                self.assertNotIn(name, types, "a family must be in one piece")
                types.add(name)
            if line.startswith("#"):
                continue
            match = line_form.match(line)
            self.assertTrue(match, line)
            name, labels, value = match.groups()
            labels = dict(re.findall(r'([a-z]+)="([^"]*)"', labels or ""))
            metrics[name, labels.get("pid"), labels.get("entry")] = float(value)
        return metrics

    def test_tells_of_dead_processes_until_they_are_cleaned(self):
        self.push_one_file()
        first, second = self.pids()
        alive = self.stat_json(first)[0]
        self.assertTrue(alive["running"])
        self.kill_and_keep(self.net.nodes[0])
        dead = self.stat_json(first)[0]
        self.assertFalse(dead["running"])
        self.assertIsNone(dead["sockets"])
        self.assertEqual(self.counts(dead)["DRT_Counters", "MC SEGMENT"], SEGMENTS)
        listed = {event["pid"]: event["running"] for event in self.stat_json("--all")}
        self.assertEqual(listed, {first: False, second: True})
        self.assertEqual(self.stat_json()[0]["pid"], second, "the one that runs is meant")

        cleaned = self.stat("--clean").splitlines()
        self.assertEqual(cleaned, [f"removed /dev/shm/pkgdist-stat.{first}",
                                   f"removed /dev/shm/pkgdist-trace.{first}"])
        self.assertIn("has no statistics", self.stat(first, expect=3))
        self.assertEqual(sorted(os.listdir("/dev/shm")),
                         [f"pkgdist-stat.{second}", f"pkgdist-trace.{second}"])

    def kill_and_keep(self, node):
        process = self.node_processes[node.name]
        process.kill()
        process.wait()

    def test_says_what_is_wrong_with_objects_and_arguments(self):
        self.assertIn("no process has statistics", self.stat(expect=3))
        with open("/dev/shm/pkgdist-stat.1", "wb") as file:
            file.write(b"x" * 1000)
        self.assertIn("not a statistics object", self.stat("1", expect=1))
        self.assertIn("no process 'nobody'", self.stat("nobody", expect=3))
        self.assertIn("exclude each other", self.stat("--json", "--prometheus", expect=2))
        self.start_nodes()
        stat = [os.path.join(self.bin, "pkgdist-stat"), "--all", "--json"]  # fails until one is there
        lab.wait_until(lambda: len(subprocess.run(stat, capture_output=True).stdout.splitlines()) == 2,
                       what="two nodes")
        self.assertEqual(len(self.stat("pkgdist-node").splitlines()), 3, "a list of two")


class TraceOfNodes(Inspection):
    def records(self, *arguments):
        return [json.loads(line) for line in self.trace("--json", *arguments).splitlines()]

    def test_shows_the_log_of_a_push_also_of_a_process_that_was_killed(self):
        self.push_one_file()
        first = self.pids()[0]
        texts = [record["text"] for record in self.records(first)]
        for part in ("CTRL recv init - mc addr 239.255.71.1 port 7100",
                     "DATA Recv File Add - File large Xact Id ",
                     f"Size {FILE_BYTES} Seg Size {SEGMENT_BYTES} Status 0",
                     "DATA Send File Done Callback"):
            self.assertTrue(any(part in text for text in texts), part)
        self.node_processes[self.net.nodes[0].name].kill()
        self.node_processes[self.net.nodes[0].name].wait()
        copy = os.path.join(self.content, "copy")
        with open(f"/dev/shm/pkgdist-trace.{first}", "rb") as file, open(copy, "wb") as to:
            to.write(file.read())
        self.assertEqual([record["text"] for record in self.records(copy)][:len(texts)], texts)

    def test_filters_select_by_place_level_time_and_number(self):
        self.push_one_file()
        first = self.pids()[0]
        everything = self.records(first)
        times = [record["time"] for record in everything]
        self.assertEqual(times, sorted(times))

        start = [r for r in everything if r["function"] == "instcomm_pkgdist_ctrl_recv_init"]
        self.assertEqual(self.records(first, "--function", "*ctrl_recv_init"), start)
        self.assertTrue(start and len(start) < len(everything))
        here = [r for r in everything if r["file"] == "pkgdist/src/pkgdist_data_recv_ctx.cpp"]
        self.assertEqual(self.records(first, "--file", "pkgdist_data_recv_ctx.cpp"), here)
        self.assertTrue(here)
        notable = [r for r in everything if r["level"] != "info"]
        self.assertEqual(self.records(first, "--level", "warning"), notable)
        self.assertIn("CTRL Lead Change Callback", notable[0]["text"])
        self.assertEqual(self.records(first, "--level", "error"), [])
        self.assertEqual(self.records(first, "--last", "3"), everything[-3:])
        middle = everything[len(everything) // 2]["time"]
        early = self.records(first, "--until", f"@{middle - 1e-6:.7f}")
        late = self.records(first, "--since", f"@{middle - 1e-6:.7f}")
        self.assertEqual(early + late, everything)
        self.assertTrue(early and late)
        line = self.trace(first, "--last", "1")
        self.assertRegex(line, r"^20\d\d-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \d+ info +pkgdist_\w+\.cpp:\d+ \w+: ")

    def test_takes_a_process_name_and_prints_transactions_as_the_lead_does(self):
        push = self.push_one_file()
        transaction = next(e["transaction"] for e in push.events if e["event"] == "push-started")
        several = self.trace("pkgdist-node", expect=3)
        for pid in self.pids():
            self.assertIn(f"{pid} (pkgdist-node, running since ", several)
        for process in self.node_processes.values():
            process.kill()
            process.wait()
        third = self.start_node(self.net.nodes[0])
        lab.wait_until(lambda: ("DRS_Counters", "FILE ADD") in self.statistics(self.net.nodes[0]),
                       what="statistics")
        self.assertEqual({r["pid"] for r in self.records("pkgdist-node")}, {third.pid})
        self.assertIn("no process 'nobody' has a trace", self.trace("nobody", expect=3))
        first = self.trace(self.pids()[1])
        self.assertIn(f"DATA Recv File Add - File large Xact Id {transaction}\n", first)

    def test_follows_until_the_process_ends(self):
        node = self.net.nodes[0]
        process = self.start_node(node)
        path = f"/dev/shm/pkgdist-trace.{process.pid}"
        lab.wait_until(lambda: os.path.exists(path), what="the trace")
        log = os.path.join(self.content, "..", "follow.log")
        with open(log, "wb") as out:
            follower = subprocess.Popen([os.path.join(self.bin, "pkgdist-trace"), str(process.pid),
                                         "--follow"], stdout=out)
        self.addCleanup(follower.wait)
        self.addCleanup(follower.kill)
        self.start_node(self.net.nodes[1])
        tree.add(self.content, "large", 1000)
        self.push()
        process.kill()
        process.wait()
        self.assertEqual(follower.wait(timeout=5), 0)
        with open(log, encoding="utf-8") as file:
            followed = file.read()
        self.assertIn("File large", followed)
        self.assertEqual(followed, self.trace(process.pid))

    def test_refuses_the_catalogue_of_another_build(self):
        self.push_one_file()
        path = f"/dev/shm/pkgdist-trace.{self.pids()[0]}"
        with open(path, "rb") as file:
            trace = file.read()
        build = re.findall(rb"[0-9a-f]{32}\0", trace)[0][:32]
        place = trace.rindex(build + b"\0" * 8)
        other = os.path.join(self.content, "other build")
        with open(other, "wb") as file:
            file.write(trace[:place] + b"0123456789abcdef" * 2 + trace[place + 32:])
        message = self.trace(other, expect=3)
        self.assertIn(f"made by build {build.decode()}, but the catalogue is that of build 0123", message)
        same = os.path.join(self.content, "this build")  # as it was then: the node goes on logging
        with open(same, "wb") as file:
            file.write(trace)
        self.assertEqual(self.trace(other, "--catalogue", path, "--last", "5"),
                         self.trace(same, "--last", "5"))
        with open(other, "wb") as file:
            file.write(trace[:3000])
        self.assertIn("truncated", self.trace(other, expect=3))
        self.assertIn("not a time", self.trace(path, "--since", "noon", expect=2))
        self.assertIn("No such file", self.trace("999999", expect=3))
