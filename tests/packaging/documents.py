"""The commands in the documents, run as they stand: what is in ```sh boxes, on the programs out of the
package, each page in namespaces of its own (network, mounts, processes). Marks in the pages say what is
not run and why (tests/docs/boxes.py); of that the options are looked up in the programs' help.
"""

import concurrent.futures
import os
import re
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
sys.path.insert(0, os.path.join(SOURCE, "tests", "lab"))
sys.path.insert(0, os.path.join(SOURCE, "tests", "docs"))
import boxes  # noqa: E402
import lab  # noqa: E402

# Of an installation, below its root.
LIBRARIES = os.path.join("usr", "lib", subprocess.run(
    ["dpkg-architecture", "-qDEB_HOST_MULTIARCH"], capture_output=True, text=True, check=True).stdout.strip())
SCENE = os.path.join(SOURCE, "tests", "docs", "scene.sh")
# Run by tests/packaging/run.py, in the directory that its programs then come from.
ELSEWHERE = {"integration.md"}
SANDBOX = ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]


def pages():
    """Path of each page by its name."""
    docs = os.path.join(SOURCE, "docs")
    names = sorted(name for name in os.listdir(docs) if name.endswith(".md"))
    return {"README.md": os.path.join(SOURCE, "README.md")} | {
        name: os.path.join(docs, name) for name in names}


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


class Outcome:
    """How a page's boxes went."""

    def __init__(self, page, result):
        self.page = page
        self.status = result.returncode
        self.said = result.stdout
        last = re.findall(r"^== (\S+)$", result.stdout, re.MULTILINE)
        self.complaint = (f"{last[-1] if last else page}: exit status {self.status}\n"
                          f"{result.stdout[-1500:]}\n{result.stderr[-2500:]}")


def run_page(page, text, root):
    """Runs a page's boxes in a sandbox of their own; the programs come from below `root`."""
    environment = os.environ | {
        "PATH": os.path.join(root, "usr", "bin") + ":" + os.environ["PATH"],
        "LD_LIBRARY_PATH": os.path.join(root, LIBRARIES), "LC_ALL": "C"}
    with tempfile.TemporaryDirectory(prefix="pkgdist-documents-") as place:
        commands = f". {SCENE}\n" + boxes.script(text, page)
        # timeout(1) keeps what was said until then.
        result = subprocess.run(["timeout", "100", *SANDBOX, "bash", "-c", commands], cwd=place,
                                env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                                text=True, timeout=130)
    return Outcome(page, result)


def help_of(root, program, words):
    """What a program says about itself and about the command that is among the words."""
    path = os.path.join(root, "usr", "bin", program)
    environment = os.environ | {"LD_LIBRARY_PATH": os.path.join(root, LIBRARIES)}

    def ask(*command):
        return subprocess.run([path, *command, "--help"], env=environment, capture_output=True,
                              text=True, timeout=20).stdout

    text = ask()
    commands = set(re.findall(r"^  ([a-z]+) ", text, re.MULTILINE))
    command = next((word for word in words if word in commands), None)
    return text + (ask(command) if command else "")


def unknown_options(root, box):
    for program, words in boxes.calls(box.commands):
        known = set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", help_of(root, program, words)))
        for option in sorted(boxes.options(words) - known):
            yield f"line {box.line}: {program} has no option {option}"


class Documents(unittest.TestCase):
    ROOT = None  # an installation, set by run.py

    @classmethod
    def setUpClass(cls):
        if not (lab.available() or os.environ.get(lab.MARK)):
            raise unittest.SkipTest("no namespaces here")
        cls.texts = {page: read(path) for page, path in pages().items() if page not in ELSEWHERE}
        with concurrent.futures.ThreadPoolExecutor(max_workers=4) as pool:
            outcomes = pool.map(lambda item: run_page(*item, cls.ROOT), cls.texts.items())
            cls.outcomes = {outcome.page: outcome for outcome in outcomes}
        every = [box for text in cls.texts.values() for box in boxes.boxes(text)]
        run, left = (sum(box.count() for box in every if box.runs is want) for want in (True, False))
        print(f"commands in documents: {run} run, {left} not run")

    def test_every_command_works(self):
        failed = [outcome.complaint for outcome in self.outcomes.values() if outcome.status != 0]
        self.assertEqual(failed, [], "\n".join(failed))

    def test_commands_that_are_not_run_use_options_that_exist(self):
        found = [f"{page}: {complaint}" for page, text in self.texts.items()
                 for box in boxes.boxes(text) if not box.runs
                 for complaint in unknown_options(self.ROOT, box)]
        self.assertEqual(found, [])

    def test_the_pages_are_read(self):
        run = sum(box.count() for text in self.texts.values() for box in boxes.boxes(text) if box.runs)
        self.assertGreater(run, 20)


class TheRunner(unittest.TestCase):
    """What the check itself finds."""

    def setUp(self):
        if not (lab.available() or os.environ.get(lab.MARK)):
            self.skipTest("no namespaces here")

    @staticmethod
    def run_text(text):
        return run_page("page", text, Documents.ROOT)

    def test_a_command_that_fails_is_named_with_its_line(self):
        outcome = self.run_text("\n```sh\ntrue\n```\n\n```sh\nfalse\ntrue\n```\n")
        self.assertNotEqual(outcome.status, 0)
        self.assertTrue(outcome.complaint.startswith("page:6: exit status 1"), outcome.complaint)

    def test_an_option_that_does_not_exist_fails(self):
        self.assertNotEqual(self.run_text("```sh\npkgdist-stat --no-such-option\n```\n").status, 0)
        marked = boxes.boxes("<!-- not run: here -->\n```sh\npkgdist-lead push --nodes 1 --no-such . # --comment\n```\n")
        self.assertEqual(list(unknown_options(Documents.ROOT, marked[0])),
                         ["line 2: pkgdist-lead has no option --no-such"])

    def test_a_command_that_should_run_on_and_ends_fails(self):
        self.assertEqual(self.run_text("<!-- until: 0.2 -->\n```sh\nsleep 9\n```\n").status, 0)
        self.assertNotEqual(self.run_text("<!-- until: 5 -->\n```sh\ntrue\n```\n").status, 0)
