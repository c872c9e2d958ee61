"""Messages in both directions, whatever the network loses: once, whole, and with a true status."""

import contextlib
import hashlib
import os
import socket
import stat
import subprocess

from support import BackgroundLead, SystemTest, lab

SIZES = (1, 1390, 1391, 2780, 200_000)


class Messages(SystemTest):
    def setUp(self):
        super().setUp()
        self.sent = 0

    def sink(self, name):
        """A command that keeps each message under its class and digest, with a count."""
        place = self.directory(name)
        return place, (f"f=$(mktemp -p {place} .XXXXXX); cat > $f; "
                       f"echo $(sha256sum < $f | cut -c-64) $PKGDIST_MESSAGE_CLASS "
                       f">> {place}/log; rm $f")

    def received(self, place):
        """Sorted (digest, class) of every message that came."""
        path = os.path.join(place, "log")
        if not os.path.exists(path):
            return []
        with open(path, encoding="utf-8") as file:
            return sorted(tuple(line.split()) for line in file)

    def message(self, size):
        """(path, digest) of a file with bytes that no other message has."""
        self.sent += 1
        data = hashlib.shake_128(str(self.sent).encode()).digest(size)
        path = os.path.join(self.directory("m"), str(self.sent))
        with open(path, "wb") as file:
            file.write(data)
        return path, hashlib.sha256(data).hexdigest()

    def lose(self, percent):
        for host in self.net.hosts():
            host.lose(percent)

    def start_listening_nodes(self):
        places = []
        for node in self.net.nodes:
            place, command = self.sink(f"s{node.name}")
            places.append(place)
            with open(self.log_of(node), "ab") as log:
                node.spawn([self.programs.node, "--interface", node.address, "--location",
                            f"1={self.directory_of(node)}", "--json", "run", "--on-message",
                            command], stdout=log)
        return places

    def from_the_lead(self, percent):
        places = self.start_listening_nodes()
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(serving.events("node-appeared")) == 3, what="the nodes")
        self.lose(percent)
        expected = [[] for _ in places]
        for size in SIZES:
            path, digest = self.message(size)
            status, events, _ = serving.request("message", "--class", "3", f"@{path}")
            good = {e["node"] for e in events if e["event"] == "outcome" and e["acknowledged"]}
            self.assertEqual(status == 0, len(good) == len(places))
            for node, one in zip(self.net.nodes, expected):
                if node.address in good:
                    one.append((digest, "3"))
            path, digest = self.message(size)
            only = self.net.nodes[0]
            status, _, _ = serving.request("message", "--nodes", only.address, f"@{path}")
            if status == 0:
                expected[0].append((digest, "2"))
        self.lose(0)
        for place, one in zip(places, expected):
            # What was reported as missing may have come all the same; what was not has, once.
            lab.wait_until(lambda p=place, o=one: set(o) <= set(self.received(p)), 10, "messages")
            came = self.received(place)
            self.assertEqual(len(came), len(set(came)), "a message came twice")
            if percent < 20:
                self.assertEqual(came, sorted(one))
        total = sum(map(len, expected))
        self.assertEqual(total, 4 * len(SIZES), f"{total} acknowledged")
        serving.stop()

    def test_messages_of_the_lead_without_loss(self):
        self.from_the_lead(0)

    def test_messages_of_the_lead_at_5_percent_loss(self):
        self.from_the_lead(5)

    def test_messages_of_the_lead_at_20_percent_loss(self):
        self.from_the_lead(20)

    def from_the_nodes(self, percent, may_fail=0):
        place, command = self.sink("slead")
        serving = BackgroundLead(self, "serve", "--on-message", command)
        serving.wait_for("role")
        self.lose(percent)
        good = []
        failed = 0
        for size in SIZES:
            senders = []
            for node in self.net.nodes:
                path, digest = self.message(size)
                senders.append((digest, node.spawn(
                    [self.programs.node, "--interface", node.address, "--location",
                     f"1={self.directory_of(node)}", "send", "--class", "4", f"@{path}"],
                    stdout=subprocess.DEVNULL)))
            for digest, process in senders:
                if process.wait(timeout=90) == 0:
                    good.append((digest, "4"))
                else:
                    failed += 1
        self.lose(0)
        lab.wait_until(lambda: set(good) <= set(self.received(place)), 10, "messages")
        came = self.received(place)
        self.assertEqual(len(came), len(set(came)), "a message came twice")
        self.assertLessEqual(failed, may_fail)
        if failed == 0:
            self.assertEqual(came, sorted(good))
        serving.stop()

    def test_messages_of_nodes_without_loss(self):
        self.from_the_nodes(0)

    def test_messages_of_nodes_at_5_percent_loss(self):
        self.from_the_nodes(5)

    def test_messages_of_nodes_at_20_percent_loss(self):
        self.from_the_nodes(20, may_fail=1)

    def test_who_did_not_acknowledge_is_said(self):
        self.start_listening_nodes()
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: len(serving.events("node-appeared")) == 3, what="the nodes")
        self.net.nodes[2].lose(99.99)
        status, events, _ = serving.request("message", "--timeout", "2", "hello")
        self.assertEqual(status, 1)
        missing = [e["node"] for e in events if e["event"] == "outcome" and not e["acknowledged"]]
        self.assertEqual(missing, [self.net.nodes[2].address])
        self.assertEqual(len(serving.events("message-outcome")), 3)

    def test_hostile_requests_are_refused_and_leave_the_lead_alone(self):
        serving = BackgroundLead(self, "serve")
        serving.wait_for("role")
        path = f"/run/pkgdist-lead-{serving.host.address}-7102.sock"
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        for line in (b"", b"{", b"[]", b"null", b"{}", b'{"command":7}', b'{"command":"boom"}',
                     b"[" * 100_000, b'{"command":"message","class":1,"data":"AA=="}',
                     b'{"command":"message","class":2,"data":"!!!!"}',
                     b'{"command":"message","class":2,"data":"A==="}',
                     b'{"command":"message","class":2,"data":""}',
                     b'{"command":"message","class":2,"data":"AAAA","timeout":-1}',
                     b'{"command":"message","class":2,"data":"AAAA","nodes":["x"]}',
                     b'{"command":"message","class":2,"data":"AAAA","nodes":7}',
                     b'{"command":"cancel","transaction":0}', b'{"command":"cancel"}',
                     b'{"command":"delete","location":9,"names":["AAAA"]}',
                     b'{"command":"delete","location":1,"names":[]}',
                     b'{"command":"delete","location":1,"names":["AAAA"]}', b"\xff\xfe\x00"):
            with self.subTest(line[:60]), socket.socket(socket.AF_UNIX) as client:
                client.settimeout(5)
                client.connect(path)
                if line:
                    client.sendall(line + b"\n")
                    self.assertIn(b'"error"', client.recv(4096))
        with socket.socket(socket.AF_UNIX) as client:  # a line without end
            client.settimeout(5)
            client.connect(path)
            with contextlib.suppress(OSError):
                for _ in range(100):
                    client.sendall(b"x" * 65536)
            with contextlib.suppress(ConnectionResetError):
                self.assertIn(b"too long", client.recv(4096))
        crowd = [socket.socket(socket.AF_UNIX) for _ in range(80)]
        for client in crowd:
            client.connect(path)
        for client in crowd:
            client.close()
        status, events, _ = serving.request("message", "hello")
        self.assertEqual((status, events[-1]["event"]), (1, "done"))

    def test_a_request_without_a_lead_says_so(self):
        result = self.net.lead.run([self.programs.lead, "--interface", self.net.lead.address,
                                    "message", "hello"], capture_output=True, text=True)
        self.assertEqual(result.returncode, 3)
        self.assertIn("no lead takes commands at", result.stderr)

    def test_a_socket_left_by_a_killed_lead_is_replaced(self):
        first = BackgroundLead(self, "serve")
        first.wait_for("role")
        first.kill()
        second = BackgroundLead(self, "serve")
        second.wait_for("role")
        status, events, _ = second.request("message", "hello")
        self.assertEqual((status, events[-1]["missing"]), (1, 0))
