"""How the programs take wrong arguments: status 2, one clear line, nothing else."""

import os

import tree
from support import ROOT, SystemTest

ADDRESS = "10.71.0.1"


class Usage(SystemTest):
    NODES = 0

    def assert_refused(self, command):
        with self.subTest(arguments=" ".join(command[1:])[:100]):
            result = self.net.lead.run(command, capture_output=True, text=True, timeout=10)
            self.assertEqual(result.returncode, 2, result.stderr)
            self.assertEqual(result.stdout, "")
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
            self.assertTrue(result.stderr.startswith(os.path.basename(command[0]) + ": "))
            return result.stderr
        return ""

    def lead(self, *arguments):
        return [self.programs.lead, "--interface", ADDRESS, *arguments]

    def push(self, *arguments):
        return self.lead("--location", f"1={self.content}", "push", *arguments)

    def node(self, *arguments):
        return [self.programs.node, "--interface", ADDRESS, *arguments]

    def test_the_lead_refuses_wrong_arguments(self):
        tree.add(self.content, "file", 10)
        tree.add(ROOT, "outside", 10)
        place = ("--location", f"1={self.content}")
        for command in (
                [self.programs.lead], [self.programs.lead, "serve"], self.lead(),
                self.lead("dance"), self.lead("serve"), self.lead("push", "--nodes", "1", "file"),
                self.lead(*place, "--location", "7=/tmp", "serve"),
                self.lead(*place, "--location", "0=/tmp", "serve"),
                self.lead("--location", "1=", "serve"), self.lead("--location", "one", "serve"),
                self.lead("--location", "1=mem:/x", "serve"),
                self.lead(*place, "--ctrl-group", "10.0.0.1:7100", "serve"),
                self.lead(*place, "--ctrl-group", "239.255.71.1", "serve"),
                self.lead(*place, "--lead-port", "0", "serve"),
                self.lead(*place, "--req-port", "65536", "serve"),
                self.lead(*place, "--req-port", "7104x", "serve"),
                [self.programs.lead, "--interface", "10.71.0", *place, "serve"],
                [self.programs.lead, "--interface", "localhost", *place, "serve"],
                self.push("file"), self.push("--nodes", "1"), self.push("--nodes", "0", "file"),
                self.push("--nodes", "-1", "file"), self.push("--nodes", "99999999999", "file"),
                self.push("--nodes", "10.71.0.2,", "file"), self.push("--nodes", "x", "file"),
                self.push("--nodes", "1", "--type", "0", "file"),
                self.push("--nodes", "1", "--type", "12", "file"),
                self.push("--nodes", "1", "--priority", "5", "file"),
                self.push("--nodes", "1", "--to", "7", "file"),
                self.push("--nodes", "1", "--to", "2", "file"),
                self.push("--nodes", "1", "--rate", "0", "file"),
                self.push("--nodes", "1", "--rate", "fast", "file"),
                self.push("--nodes", "1", "--timeout", "0", "file"),
                self.push("--nodes", "1", "--metrics", "0", "file"),
                self.push("--nodes", "1", "--metrics", "localhost:9471", "file"),
                self.lead(*place, "serve", "--metrics", "127.0.0.1:"),
                self.push("--nodes", "1", "--no-such-option", "file"),
                self.push("--nodes", "1", "no such file"),
                self.push("--nodes", "1", "../outside"), self.push("--nodes", "1", "/etc/hostname"),
                self.lead("--location", "1=/no/such/root", "push", "--nodes", "1", ".")):
            self.assert_refused(command)

    def test_the_node_refuses_wrong_arguments(self):
        for command in (
                [self.programs.node], [self.programs.node, "run"], self.node(), self.node("dance"),
                self.node("--interface", "10.71.0.300", "run"),
                self.node("--location", "7=/tmp", "run"), self.node("--location", "1", "run"),
                self.node("--node-id", "1/2", "run"), self.node("--node-id", "1/2/256", "run"),
                self.node("--node-id", "1/2/3/4", "run"), self.node("--card-class", "x", "run"),
                self.node("--data-group", "1.2.3.4:5", "run"), self.node("--node-port", "0", "run"),
                self.node("get"), self.node("get", "file"),
                self.node("--location", f"1={self.content}", "get", "--to", "2", "file"),
                self.node("--location", f"1={self.content}", "get", "--type", "12", "file"),
                self.node("--location", f"1={self.content}", "get", "--priority", "0", "file"),
                self.node("--location", f"1={self.content}", "get", "--timeout", "-1", "file"),
                self.node("send"), self.node("send", ""), self.node("send", "--class", "1", "x"),
                self.node("--umask", "8", "run"), self.node("--umask", "1000", "run"),
                self.node("--umask", "", "run"), self.node("run", "extra"), self.node("run", "--repair-interval", "19"),
                self.node("run", "--repair-interval", "10001"),
                self.node("run", "--repair-interval", "soon"), self.node("run", "--repair-interval")):
            self.assert_refused(command)

    def test_the_lead_refuses_a_tree_that_cannot_travel(self):
        cases = {"link": "longer than 255 bytes", "name": "longer than 240 bytes",
                 "huge": "4 GiB"}
        for kind, reason in cases.items():
            root = self.directory(kind)
            if kind == "link":
                tree.link(root, "link", "t" * (tree.MAX_TARGET + 1))
            elif kind == "name":
                tree.add(root, tree.longest_name() + "x", 1)
            else:
                tree.add(root, "sparse", 0)
                os.truncate(os.path.join(root, "sparse"), 1 << 32)
            line = self.assert_refused(self.lead("--location", f"1={root}", "push", "--nodes", "1",
                                                 "."))
            self.assertIn(reason, line)

    def test_an_empty_tree_is_refused(self):
        self.assertIn("no file", self.assert_refused(self.push("--nodes", "1", ".")))

    def test_help_and_version_go_to_standard_output(self):
        for program in (self.programs.lead, self.programs.node):
            for arguments in (["--help"], ["--version"], ["push" if "lead" in program else "get",
                                                          "--help"]):
                result = self.net.lead.run([program, *arguments], capture_output=True, text=True,
                                           timeout=10)
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                self.assertNotEqual(result.stdout, "")

    def test_an_address_of_another_host_is_a_failure_with_one_line(self):
        serve = ("--location", f"1={self.content}", "serve")
        for command in ([self.programs.lead, "--interface", "10.71.0.77", *serve],
                        self.lead(*serve, "--metrics", "10.71.0.77:9471")):
            result = self.net.lead.run(command, capture_output=True, text=True, timeout=10)
            self.assertEqual(result.returncode, 3, result.stderr)
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
