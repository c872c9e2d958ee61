"""The table of exit statuses in docs/operations.md against the help text and the manual page of each program."""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = sorted(path.name for path in (ROOT / "tools").glob("pkgdist-*"))


def table():
    """The meaning of each status, without its examples."""
    page = (ROOT / "docs" / "operations.md").read_text(encoding="utf-8")
    section = page.split("## Exit statuses")[1].split("\n## ")[0]
    return {int(status): text.split(":")[0].strip()
            for status, text in re.findall(r"^\| (\d) \| (.*) \|$", section, re.MULTILINE)}


def of_help(program):
    """What the last part of the help tells about each status."""
    sources = "\n".join(path.read_text(encoding="utf-8")
                        for path in sorted((ROOT / "tools" / program).glob("*.cpp")))
    if "app.footer(" not in sources:  # then run_cli() gives it one
        sources = (ROOT / "tools" / "common" / "cli_common.cpp").read_text(encoding="utf-8")
    # A raw string, or literals of which each stands in a line.
    text = re.sub(r'(\\n)?"\s*\n\s*"(\\n)?', "\n", sources)
    sentence = re.search(r"Exit status: ([^.]*)\.", text)[1]
    parts = [re.sub(r"\s+", " ", part).strip() for part in sentence.split(";")]
    return {int(part[0]): part[2:] for part in parts}


def of_manual(program):
    page = (ROOT / "packaging" / "man" / f"{program}.1").read_text(encoding="utf-8")
    section = page.split(".Sh EXIT STATUS")[1].split("\n.Sh")[0]
    return {int(status): text for status, text in re.findall(r"^\.It (\d)\n(.*)\.$", section, re.MULTILINE)}


class ExitStatuses(unittest.TestCase):
    def test_the_help_of_each_program_tells_those_of_the_table(self):
        for program in PROGRAMS:
            with self.subTest(program=program):
                told = of_help(program)
                self.assertEqual(list(told), [0, 1, 2, 3])
                for status, meaning in table().items():
                    self.assertRegex(told[status], rf"^{meaning}($|[:,] )")

    def test_the_manual_page_of_each_program_tells_those_of_the_table(self):
        self.assertGreaterEqual(len(PROGRAMS), 6)
        self.assertEqual(list(table()), [0, 1, 2, 3])
        for program in PROGRAMS:
            with self.subTest(program=program):
                told = of_manual(program)
                self.assertEqual({status: text.lower() for status, text in told.items()}, table())


if __name__ == "__main__":
    unittest.main()
