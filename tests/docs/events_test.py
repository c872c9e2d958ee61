"""docs/events.md is made from the schema of the events, and the schema knows every event that the programs print."""

import importlib.machinery
import importlib.util
import json
import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCHEMA = ROOT / "packaging" / "schema" / "events.schema.json"
# Events are printed by their names.
PRINTED = re.compile(r"""(?:\bprint\(|\bnode_event\(|"event", )\s*"([a-z][a-z-]+)\"""")
# What a lead says to a client of its control socket about a push; the client prints events of it.
BETWEEN_PROGRAMS = {"begins", "command", "ended", "host", "mirror", "mirrored", "queued", "started", "state",
                    "heard", "release-told", "watching", "idle", "listed"}
PROGRAMS = ("pkgdist-lead", "pkgdist-node", "common")


def generator():
    loader = importlib.machinery.SourceFileLoader("events_page", str(ROOT / "scripts" / "events-page"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("events_page", loader))
    loader.exec_module(module)
    return module


class Events(unittest.TestCase):
    def test_the_page_is_made_from_the_schema(self):
        page = (ROOT / "docs" / "events.md").read_text(encoding="utf-8")
        self.assertEqual(page, generator().page(), "run scripts/events-page")

    def test_every_event_that_is_printed_is_in_the_schema(self):
        known = json.loads(SCHEMA.read_text(encoding="utf-8"))["properties"]["event"]["enum"]
        printed = set()
        for program in PROGRAMS:
            for source in (ROOT / "tools" / program).glob("*.cpp"):
                printed.update(PRINTED.findall(source.read_text(encoding="utf-8")))
        self.assertGreater(len(printed), 30)
        self.assertEqual(sorted(printed - set(known) - BETWEEN_PROGRAMS), [])


if __name__ == "__main__":
    unittest.main()
