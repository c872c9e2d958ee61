"""Alert rules and the dashboard: well-formed, and about metrics that the programs export."""

import json
import os
import re
import subprocess
import sys

import tree
from support import SystemTest
from test_metrics import PORT, SCRAPE

HERE = os.path.dirname(os.path.abspath(__file__))
PACKAGING = os.path.join(HERE, "..", "..", "packaging")
RULES = os.path.join(PACKAGING, "prometheus", "pkgdist.rules.yml")
DASHBOARD = os.path.join(PACKAGING, "grafana", "pkgdist.json")


def promtool(*arguments, **options):
    return subprocess.run(["promtool", *arguments], capture_output=True, text=True, timeout=60, **options)


class Monitoring(SystemTest):
    NODES = 1

    def exported(self):
        """The texts that a lead and pkgdist-stat serve while a push runs and a node was heard."""
        self.start_nodes()
        tree.add(self.content, "large", 3_000_000)
        lead = self.start_push("--metrics", PORT, "--rate", "10")
        lead.wait_for("progress")
        of_lead = self.net.lead.run([sys.executable, "-c", SCRAPE, f"127.0.0.1:{PORT}"],
                                    capture_output=True, text=True, timeout=10).stdout.split("\n", 1)[1]
        lead.finish()
        stat = os.path.join(os.path.dirname(self.programs.node), "pkgdist-stat")
        pid = self.node_processes[self.net.nodes[0].name].pid
        of_node = subprocess.run([stat, str(pid), "--prometheus"], capture_output=True, text=True,
                                 timeout=10).stdout
        return of_lead, of_node

    def test_what_the_programs_export_passes_the_lint(self):
        for text in self.exported():
            self.assertIn("pkgdist_", text)
            result = promtool("check", "metrics", input=text)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))

    def test_rules_and_dashboard_ask_for_what_is_exported(self):
        text = "".join(self.exported())
        names = set(re.findall(r"^(pkgdist_[a-z_]+)", text, re.M))
        entries = set(re.findall(r'entry="([^"]+)"', text))
        with open(RULES, encoding="utf-8") as file:
            rules = file.read()
        with open(DASHBOARD, encoding="utf-8") as file:
            dashboard = json.load(file)
        targets = [target["expr"] for panel in dashboard["panels"] for target in panel.get("targets", [])]
        self.assertGreater(len(targets), 20)
        for text in (rules, *targets):
            asked = set(re.findall(r"\bpkgdist_[a-z_]+", text))
            self.assertEqual(asked - names, set())
            for values in re.findall(r'entry=~?"([^"]+)"', text):
                self.assertEqual(set(values.split("|")) - entries, set())
        # Grafana's own variables have no meaning elsewhere.
        plain = [re.sub(r"\$__rate_interval", "5m", re.sub(r"\$(instance|process)", ".*", one)) for one in targets]
        checked = {"groups": [{"name": "dashboard", "rules": [
            {"record": f"panel:{i}", "expr": one} for i, one in enumerate(plain)]}]}
        path = os.path.join(self.content, "panels.yml")
        with open(path, "w", encoding="utf-8") as file:
            json.dump(checked, file)
        result = promtool("check", "rules", path)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_alerts_fire_for_what_they_are_about_and_for_nothing_else(self):
        result = promtool("check", "rules", RULES)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        result = promtool("test", "rules", os.path.join(HERE, "alerts_test.yml"))
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
