"""What pkgdist-doctor finds, each trouble provoked once. Doctors run on several hosts at the same time."""

import os
import socket
import subprocess

from scripted_lead import CTRL_GROUP, ScriptedLead
from support import ROOT, BackgroundLead, SystemTest, lab

# Long enough for the three probes that a finding needs.
USUAL = {"--seconds": "1", "--receive-buffer": "4096", "--need": "1000"}
HERE_ONLY = ("--seconds", "0")
OK, WARNINGS, PROBLEMS, USAGE = 0, 1, 1, 2


class Examination:
    """A doctor at work on a host; its findings, once it has ended."""

    def __init__(self, test, host, role, *arguments, without=()):
        self.test = test
        usual = [word for option, value in {"--interface": host.address, **USUAL}.items()
                 if option not in arguments for word in (option, value)]
        command = [test.programs.doctor, "--json", *usual, *arguments, role]
        if without:
            command = ["setpriv", "--bounding-set", ",".join(without), "--"] + command
        self.process = host.spawn(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self._said = None

    def said(self):
        if self._said is None:
            out, error = self.process.communicate(timeout=30)
            self.test.assertEqual(error, "")
            self._said = lab.parse_lines(out)
        return self._said

    @property
    def status(self):
        self.said()
        return self.process.returncode

    def findings(self, check=None, level=None):
        return [e for e in self.said() if e["event"] == "finding" and check in (None, e["check"])
                and level in (None, e["level"])]

    def levels(self):
        return {(e["check"], e["level"]) for e in self.findings() if e["level"] in ("warning", "problem")}


class Doctor(SystemTest):
    NODES = 2
    OTHERS = ("rogue",)

    def examine(self, host, role, *arguments, **options):
        return Examination(self, host, role, *arguments, **options)

    def both(self, *arguments, node_arguments=()):
        """Doctors on the lead and on the first node, until both have ended."""
        lead = self.examine(self.net.lead, "lead", "--wait", "10", *arguments)
        node = self.examine(self.net.nodes[0], "node", "--wait", "10", *arguments, *node_arguments)
        lead.said(), node.said()
        return lead, node

    def sh(self, host, *command):
        host.run(command, check=True, capture_output=True)

    def filter(self, host, rule):
        self.sh(host, "nft", f"add table ip lab; add chain ip lab input {{ type filter hook input "
                             f"priority 0; }}; add rule ip lab input {rule}")

    def assert_finding(self, examination, check, level, *words):
        found = [e for e in examination.findings(check, level) if all(w in e["what"] for w in words)]
        self.assertTrue(found, examination.said())
        for event in found:
            if level in ("warning", "problem"):
                self.assertTrue(event["why"] and event["mend"], event)
        return found[0]

    # --- All is well ---

    def test_a_network_that_works_has_no_warning_at_either_end(self):
        directory = self.directory_of(self.net.nodes[0])
        lead, node = self.both(node_arguments=("--location", f"1={directory}", "--location",
                                               "2=mem:/doctor-test-"))
        self.assertEqual((lead.levels(), node.levels()), (set(), set()))
        self.assertEqual((lead.status, node.status), (OK, OK))
        self.assert_finding(lead, "network", "ok", f"node {self.net.nodes[0].address} on all 10 ways")
        self.assert_finding(node, "network", "ok", f"lead {self.net.lead.address} on all 10 ways")
        self.assert_finding(node, "groups", "ok", "239.255.71.2")
        self.assert_finding(node, "address", "ok")
        self.assert_finding(node, "querier", "note", "no IGMP querier")
        self.assert_finding(node, "location 2", "ok")
        self.assertEqual(os.listdir(directory), [])
        self.assertEqual([n for n in os.listdir("/dev/shm") if n.startswith("doctor-test-")], [])
        end = node.said()[-1]
        self.assertEqual((end["event"], end["status"], end["problems"], end["warnings"]),
                         ("verdict", OK, 0, 0))

    def test_people_get_lines_with_reason_and_remedy(self):
        host = self.net.lead
        result = host.run([self.programs.doctor, "--interface", host.address, *HERE_ONLY,
                           "--receive-buffer", str(1 << 30), "--location", "1=/no/such", "node"],
                          capture_output=True, text=True, timeout=30)
        self.assertEqual((result.returncode, result.stderr), (PROBLEMS, ""))
        self.assertRegex(result.stdout, r"PROBLEM  location 1 /no/such: no file can be made: No such "
                                        r"file or directory\n +why: .+\n +fix: mkdir -p /no/such\n")
        self.assertRegex(result.stdout, r"\n\d problems?, \d warnings?, \d notes?\n$")

    def test_wrong_arguments_are_refused(self):
        for arguments in ([], ["lead"], ["--interface", "10.71.0.1"],
                          ["--interface", "10.71.0.1", "--seconds", "-1", "lead"]):
            result = self.net.lead.run([self.programs.doctor, *arguments], capture_output=True,
                                       text=True, timeout=10)
            self.assertEqual((result.returncode, result.stdout), (USAGE, ""))
            self.assertEqual(len(result.stderr.splitlines()), 1)

    # --- The network ---

    def test_multicast_that_a_packet_filter_drops_is_told_at_both_ends(self):
        node = self.net.nodes[0]
        self.filter(node, "ip daddr 224.0.0.0/4 ip protocol udp counter drop")
        at_lead, at_node = self.both()
        self.assertEqual((at_lead.status, at_node.status), (PROBLEMS, PROBLEMS))
        self.assert_finding(at_lead, "multicast", "problem", "239.255.71.1:7100", "239.255.71.2:7101",
                            node.address)
        self.assert_finding(at_node, "filter", "problem", "'ip lab input'", "7100, 7101")
        for examination in (at_lead, at_node):
            self.assertEqual(len(examination.levels()), 1, "one cause is one finding")

    def test_multicast_that_is_lost_on_the_way_names_the_querier_that_was_not_heard(self):
        # What the doctor cannot tell from the rule is like a switch that does not forward.
        self.filter(self.net.nodes[0], "ip daddr 224.0.0.0/4 ip protocol udp meta length gt 1 drop")
        for examination in self.both():
            finding = self.assert_finding(examination, "multicast", "problem", "239.255.71.1:7100",
                                          "239.255.71.2:7101", "no IGMP querier was heard")
            self.assertIn("querier", finding["mend"])
            self.assertEqual(examination.levels(), {("multicast", "problem")})
            self.assertEqual(examination.findings("querier"), [])

    def test_a_default_of_drop_is_told_at_once_with_the_rules_that_let_pkgdist_through(self):
        def examine(host, role):
            return self.examine(host, role, *HERE_ONLY)

        for host, role, ports in ((self.net.nodes[0], "node", "7100, 7101, 7103"),
                                  (self.net.lead, "lead", "7100, 7102, 7104")):
            self.addCleanup(self.sh, host, "nft", "delete table inet guard")
            self.sh(host, "nft", "add table inet guard; add chain inet guard incoming { type filter hook input "
                                 "priority 0; policy drop; }; add rule inet guard incoming ct state "
                                 "established,related accept; add rule inet guard incoming iif lo accept; "
                                 "add rule inet guard incoming tcp dport { 22, 7100-7104 } accept")
            finding = self.assert_finding(examine(host, role), "filter", "problem",
                                          "'inet guard incoming'", ports, "policy drop")
            self.sh(host, "sh", "-c", finding["mend"])
            self.assertEqual(examine(host, role).findings("filter"), [])
            self.assertIn(f"udp dport {{ {ports} }} accept",
                          host.run(["nft", "list", "ruleset"], capture_output=True, text=True).stdout)
        at_lead, at_node = self.both()
        self.assertEqual((at_lead.levels(), at_node.levels()), (set(), set()))

    def test_rules_of_which_the_end_is_not_known_close_nothing_and_are_named(self):
        host = self.net.nodes[0]
        self.addCleanup(self.sh, host, "nft", "delete table inet guard")
        self.sh(host, "nft", "add table inet guard; add chain inet guard incoming { type filter hook input "
                             "priority 0; policy drop; }; add rule inet guard incoming ct state established accept; "
                             "add rule inet guard incoming ct mark 7 accept; "
                             "add rule inet guard incoming ip saddr 192.0.2.0/24 udp dport 7100-7104 accept")
        examined = self.examine(host, "node", *HERE_ONLY)
        finding = self.assert_finding(examined, "filter", "note", "'inet guard incoming'",
                                      "UDP to ports 7100, 7101, 7103", "(ct mark)", "(ip saddr)")
        self.assertIn("is not known", finding["what"])
        self.assertEqual(finding["mend"], "nft -a list chain inet guard incoming")
        self.assertEqual(examined.findings("filter", "problem"), [])

    def test_ports_that_go_out_are_looked_at_too(self):
        host = self.net.nodes[0]
        self.addCleanup(self.sh, host, "nft", "delete table ip guard")
        self.sh(host, "nft", "add table ip guard; add chain ip guard leaving { type filter hook output priority 0; "
                             "policy drop; }; add rule ip guard leaving udp dport 7102 accept")
        finding = self.assert_finding(self.examine(host, "node", *HERE_ONLY), "filter", "problem",
                                      "'ip guard leaving'", "7104")
        self.assertNotIn("7102", finding["what"])

    def test_several_nodes_are_one_table_at_the_lead(self):
        nodes = [self.examine(node, "node", "--wait", "10") for node in self.net.nodes]
        host = self.net.lead
        lead = host.run([self.programs.doctor, "--interface", host.address, "--seconds", "2", "--wait", "10",
                         "--receive-buffer", "4096", "lead"], capture_output=True, text=True, timeout=30)
        self.assertEqual(lead.returncode, OK, lead.stdout)
        lines = lead.stdout.splitlines()
        table = lines[lines.index(next(line for line in lines if line.startswith("host "))):]
        for node in self.net.nodes:
            self.assertRegex("\n".join(table), rf"{node.address} +10/10 +0.0 %  -")
        self.assertEqual(table[3], "2 hosts, 2 without trouble")
        self.assertTrue(any(line.startswith("ok       this host  interface, ") for line in lines), lines)
        self.assertEqual([one.status for one in nodes], [OK, OK])

    def test_three_hundred_nodes_that_are_not_heard_are_one_finding_and_one_table(self):
        host = self.net.lead
        nodes = [f"10.71.{200 + i // 250}.{i % 250 + 1}" for i in range(300)]
        lead = host.run([self.programs.doctor, "--interface", host.address, "--seconds", "1", "--receive-buffer", "4096",
                         "--peer", ",".join(nodes), "lead"], capture_output=True, text=True, timeout=60)
        self.assertEqual(lead.returncode, 1, lead.stderr)
        lines = lead.stdout.splitlines()
        self.assertEqual([line for line in lines if line.startswith("PROBLEM  network")],
                         [f"PROBLEM  network    nothing was heard of nodes {', '.join(nodes[:5])} and 295 more"])
        table = lines[lines.index(next(line for line in lines if line.startswith("host "))) + 1:]
        self.assertEqual([line.split()[0] for line in table[:300]], nodes)
        self.assertEqual(table[300], "300 hosts, 0 without trouble")
        self.assertLess(len(lines), 330)

    def test_answers_that_a_packet_filter_drops_are_told(self):
        self.filter(self.net.lead, "udp dport 7104 drop")
        at_lead, at_node = self.both()
        self.assert_finding(at_lead, "filter", "problem", "port 7104", "'ip lab input'")
        self.assertEqual(at_lead.levels(), {("filter", "problem")})
        self.assert_finding(at_node, "unicast", "problem", "port 7104")
        self.assertEqual(at_node.levels(), {("unicast", "problem")})

    def test_a_host_of_which_nothing_is_heard_is_a_problem_when_it_was_named(self):
        self.filter(self.net.lead, "ip protocol udp drop")
        self.filter(self.net.nodes[0], "ip protocol udp drop")
        at_node = self.examine(self.net.nodes[0], "node", "--peer", self.net.lead.address)
        alone = self.examine(self.net.nodes[1], "node")
        self.assert_finding(at_node, "network", "problem", self.net.lead.address)
        self.assertEqual(alone.levels(), {("network", "warning")})
        self.assertEqual(alone.status, WARNINGS)

    def test_loss_is_a_warning(self):
        self.net.nodes[0].lose(40)
        at_lead, at_node = self.both("--seconds", "2")
        for examination in (at_lead, at_node):
            self.assert_finding(examination, "loss", "warning")
            self.assertEqual({c for c, _ in examination.levels()} - {"filter"}, {"loss"})

    def test_a_link_that_takes_no_full_datagram_is_told(self):
        self.sh(self.net.nodes[0], "ip", "link", "set", "eth0", "mtu", "1400")
        self.addCleanup(self.sh, self.net.nodes[0], "ip", "link", "set", "eth0", "mtu", "1500")
        at_lead, at_node = self.both()
        self.assert_finding(at_node, "mtu", "problem", "eth0 has an MTU of 1400", "1,472 bytes")
        self.assert_finding(at_lead, "mtu", "problem", "1,472 bytes", self.net.nodes[0].address)
        for examination in (at_lead, at_node):
            self.assertEqual(len(examination.findings("mtu")), 1, "one cause is one finding")
            self.assertEqual(examination.levels(), {("mtu", "problem")})

    def test_a_host_without_a_route_is_told(self):
        node = self.net.nodes[0]
        self.sh(node, "ip", "route", "delete", "10.71.0.0/24", "dev", "eth0")
        self.addCleanup(self.sh, node, "ip", "route", "add", "10.71.0.0/24", "dev", "eth0")
        at_node = self.examine(node, "node", *HERE_ONLY, "--peer", self.net.lead.address)
        finding = self.assert_finding(at_node, "route", "problem", self.net.lead.address,
                                      "Network is unreachable")
        self.assertIn(f"ip route add {self.net.lead.address}/32 dev eth0", finding["mend"])

    def test_an_address_that_is_not_there_ends_the_examination(self):
        result = self.net.lead.run([self.programs.doctor, "--json", "--interface", "10.71.0.99", "node"],
                                   capture_output=True, text=True, timeout=10)
        self.assertEqual(result.returncode, PROBLEMS)
        self.assertIn("no interface has 10.71.0.99", result.stdout)

    def test_two_hosts_with_one_address_are_told(self):
        rogue, node = self.net.others["rogue"], self.net.nodes[0]
        self.sh(rogue, "ip", "address", "add", f"{node.address}/32", "dev", "eth0")
        self.addCleanup(self.sh, rogue, "ip", "address", "delete", f"{node.address}/32", "dev", "eth0")
        at_lead = self.examine(self.net.lead, "lead", "--wait", "10")
        here = self.examine(node, "node")
        there = Examination(self, rogue, "node", "--interface", node.address)
        bystander = self.examine(self.net.nodes[1], "node")
        for examination in (at_lead, bystander):
            self.assert_finding(examination, "address", "problem", f"two hosts have {node.address}",
                                "hardware addresses", "processes")
            self.assertEqual(len(examination.findings("address")), 1)
        for examination in (here, there):
            self.assert_finding(examination, "address", "problem", "another host")

    def test_a_querier_is_heard_when_there_is_one(self):
        bridge = ["ip", "link", "set", "br0", "type", "bridge"]
        subprocess.run([*bridge, "mcast_snooping", "1", "mcast_querier", "1"], check=True)
        self.addCleanup(subprocess.run, [*bridge, "mcast_snooping", "0", "mcast_querier", "0"])
        # The bridge asks some seconds after it was told to; leaving a group makes it ask at once.
        heard = self.examine(self.net.nodes[1], "node", "--seconds", "3")
        self.assert_finding(heard, "querier", "ok")

    def test_what_needs_privileges_is_said_to_be_unchecked_without(self):
        plain = self.examine(self.net.nodes[0], "node", without=["-net_raw", "-net_admin"])
        self.assert_finding(plain, "privileges", "note", "one address", "querier (needs CAP_NET_RAW)",
                            "packet filter (needs CAP_NET_ADMIN)")
        self.assertEqual([plain.findings(check) for check in ("querier", "address", "filter")], [[], [], []])
        self.assert_finding(self.examine(self.net.nodes[0], "node"), "privileges", "ok")

    def test_ports_that_need_a_privilege_are_told(self):
        usual = self.examine(self.net.nodes[0], "node", *HERE_ONLY, "--node-port", "500",
                             without=["-net_bind_service"])
        self.assert_finding(usual, "privileges", "problem", "port 500", "CAP_NET_BIND_SERVICE")
        root = self.examine(self.net.nodes[0], "node", *HERE_ONLY, "--node-port", "500")
        self.assertEqual(root.findings("privileges"), [])

    # --- Leads and nodes that run ---

    def test_a_second_lead_is_told_on_either_side(self):
        with ScriptedLead(self.net.lead) as first, ScriptedLead(self.net.others["rogue"], pid=666) as second:
            at_lead = self.examine(self.net.nodes[1], "lead")
            at_node = self.examine(self.net.nodes[0], "node")
            while at_lead.process.poll() is None or at_node.process.poll() is None:
                first.ping()
                second.ping()
                self.pause()
        self.assert_finding(at_lead, "lead", "problem", "10.71.0.101 (process 666)")
        self.assert_finding(at_node, "lead", "problem", "10.71.0.1 ", "10.71.0.101 ")

    def pause(self):
        with self.net.lead.socket() as quiet:
            quiet.settimeout(0.1)
            self.assertRaises(socket.timeout, quiet.recv, 1)

    def test_a_lead_and_a_node_that_run_are_left_alone(self):
        with open(os.path.join(self.content, "file"), "wb") as file:
            file.write(os.urandom(300_000))
        node = self.net.nodes[0]
        self.start_node(node)
        serving = BackgroundLead(self, "serve")
        lab.wait_until(lambda: os.path.exists(self.log_of(node)) and
                       self.node_events(node, "lead-changed"), what="the lead to be known")
        at_lead, at_node = self.both()
        self.assertEqual(at_lead.levels() | at_node.levels(), set())
        self.assert_finding(at_node, "lead", "ok", "10.71.0.1 (process")
        self.assert_finding(at_lead, "ports", "note", "port 7102", "a lead runs here")
        self.assert_finding(at_node, "ports", "note", "239.255.71.2:7101", "a node runs here")
        serving.stop()
        self.net.lead.processes.clear()
        result = self.programs.push(self.net.lead, self.content, "--nodes", node.address)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assert_received(node)
        self.assertGreater(self.statistics(node).total("MC BAD PKT RECV"), 0)
        self.assert_alive()

    def test_what_is_no_probe_is_ignored(self):
        node = self.net.nodes[0]
        at_node = self.examine(node, "node")
        with self.net.lead.socket() as sender:
            while at_node.process.poll() is None:
                for text in ("PDOC", "PDOC{", 'PDOC{"v":1}', "PDOC[]", 'PDOC{"v":"x","r":7}',
                             'PDOC{"v":1,"r":true,"t":1,"a":2,"p":3,"w":99,"l":0,"s":[],"o":[]}',
                             'PDOC{"v":1,"r":true,"t":1,"a":2,"p":3,"w":0,"l":0,"s":[1],"o":[[1]]}'):
                    sender.sendto(text.encode(), CTRL_GROUP)
                    sender.sendto(text.encode(), (node.address, 7103))
                self.pause()
        self.assertEqual(at_node.levels(), {("network", "warning")})

    # --- This host ---

    def test_a_buffer_that_the_kernel_cuts_is_told(self):
        def granted(wanted):
            with self.net.nodes[0].socket() as probe:
                probe.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, wanted)
                return probe.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF) // 2

        wanted = 1 << 29
        self.assertLess(granted(wanted), wanted)
        examination = self.examine(self.net.nodes[0], "node", *HERE_ONLY, "--receive-buffer", str(wanted))
        finding = self.assert_finding(examination, "buffers", "warning", str(granted(wanted)))
        self.assertEqual(finding["mend"], f"sysctl -w net.core.rmem_max={wanted}")

    def test_full_and_missing_locations_are_told(self):
        small, none = os.path.join(ROOT, "small"), os.path.join(ROOT, "none")
        self.mount(small, "size=64k")
        room = self.directory("room")
        with open(os.path.join(small, "file"), "wb") as file:
            file.write(bytes(64 * 1024))
        node = self.examine(self.net.nodes[0], "node", *HERE_ONLY, "--need", "1000000000000",
                            "--location", f"1={small}", "--location", f"2={none}", "--location", f"3={room}")
        lead = self.examine(self.net.lead, "lead", *HERE_ONLY, "--location", f"1={none}", "--location", f"2={room}")
        self.assert_finding(node, "location 1", "problem", "0 of 1400 bytes", "No space left")
        self.assert_finding(node, "location 2", "problem", "No such file")
        self.assert_finding(node, "location 3", "warning", "bytes are left")
        self.assert_finding(lead, "location 1", "problem", "cannot be read")
        self.assert_finding(lead, "location 2", "ok")
        self.assertEqual(os.listdir(small), ["file"])
