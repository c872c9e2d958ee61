"""Commands in the documents stand in ```sh boxes, where tests/packaging runs them, and every mark of a
box is understood. Here only the shell's grammar is checked; nothing is run."""

import pathlib
import re
import subprocess
import unittest

import boxes

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
# A line that looks typed: indented as code, and beginning with a program.
STRAY = re.compile(r"^    (pkgdist-[a-z]+|scripts/\w+|sysctl|systemctl|mkdir|nft|ip|cmake|apt-get|tcpdump|tshark) ")


def stray_commands(text):
    return [number for number, line in enumerate(text.splitlines(), 1) if STRAY.match(line)]


class Pages(unittest.TestCase):
    def test_every_box_is_shell(self):
        for page in PAGES:
            for box in boxes.boxes(page.read_text(encoding="utf-8")):
                result = subprocess.run(["bash", "-n"], input=box.commands, capture_output=True, text=True)
                self.assertEqual(result.returncode, 0, f"{page.name}:{box.line}: {result.stderr}")
                self.assertGreater(box.count(), 0, f"{page.name}:{box.line}: an empty box")

    def test_no_command_stands_outside_a_box(self):
        stray = {page.name: stray_commands(page.read_text(encoding="utf-8")) for page in PAGES}
        self.assertEqual({name: lines for name, lines in stray.items() if lines}, {})

    def test_links_lead_somewhere(self):
        for page in PAGES:
            for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", page.read_text(encoding="utf-8")):
                self.assertTrue((page.parent / target).exists(), f"{page.name}: {target}")

    def test_links_to_sections_lead_to_headings(self):
        def anchors(path):
            headings = re.findall(r"^#+ (.*)$", path.read_text(encoding="utf-8"), re.MULTILINE)
            return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}

        for page in PAGES:
            links = re.findall(r"\]\(([^)#:]*\.md)?#([^)]+)\)", page.read_text(encoding="utf-8"))
            for target, anchor in links:
                path = page.parent / target if target else page
                self.assertIn(anchor, anchors(path), f"{page.name}: {target}#{anchor}")


class Boxes(unittest.TestCase):
    """What the reader of pages finds."""

    def test_a_box_knows_its_line_and_marks(self):
        found = boxes.boxes("text\n\n<!-- not run: why -->\n```sh\na b\n# c\nd \\\n  e\n```\n```\nno\n```\n```sh\nf\n```\n")
        self.assertEqual([(box.line, box.runs, box.count()) for box in found], [(4, False, 2), (13, True, 1)])

    def test_a_mark_away_from_its_box_is_an_error(self):
        with self.assertRaises(ValueError):
            boxes.boxes("<!-- not run: why -->\n\n```sh\na\n```\n")

    def test_a_box_without_an_end_is_an_error(self):
        with self.assertRaises(ValueError):
            boxes.boxes("```sh\na\n")

    def test_only_boxes_without_that_mark_are_in_the_script(self):
        text = boxes.script("<!-- not run: why -->\n```sh\na\n```\n<!-- with: x -->\n```sh\nb\n```\n", "page")
        self.assertEqual(text, "begin_box 'page:6' x\nb\nend_box\n")

    def test_options_of_calls_are_found(self):
        found = list(boxes.calls("sudo pkgdist-lead --a 1 push \\\n  --b=2 . # --c\necho pkgdist-node --d\n"))
        self.assertEqual([(program, boxes.options(words)) for program, words in found],
                         [("pkgdist-lead", {"--a", "--b"})])

    def test_a_stray_command_is_found(self):
        self.assertEqual(stray_commands("a\n    pkgdist-lead --x\n    text of a list\n"), [2])


if __name__ == "__main__":
    unittest.main()
