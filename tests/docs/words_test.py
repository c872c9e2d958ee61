"""The words of pages, manual pages, help texts and messages: standard terms, no metaphors and no words of
our own where the field has one. What is in commands, code and test names is not read."""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]

# What not to write, and what to write instead.
INSTEAD = {
    r"carry it, and what mends|what mends it": "diagnoses the network and suggests fixes",
    r"need no program of their own": "a ready-made receiver",
    r"\bor like it\b": "or similar",
    r"\bof (other|another) makes?\b": "third-party",
    r"\bleaves? the message out\b": "skips the message but advances its sequence",
    r"\bwait together\b": "share one repair",
    r"\bcrowds?\b": "many nodes",
    r"\bare no rate\b": "are not counted",
    r"\blies? about\b": "leftover",
    r"\bholds? against\b": "which defences exist",
    r"\bstuck\b": "no progress",
    r"\bmute\b": "silent",
    r"\bripens?\b": "delayed repair",
    r"\btorn\b": "partial batch",
    r"\bechoe?s?\b": "second copy",
    r"\bhow [\w ]+ stands?\b": "polls the nodes, shows the state of",
    r"\bmend: ": "fix: ",
    r"\bhouse\b|\bground\b": "component, layer, foundation",
    r"\bcounts on\b": "advances its sequence",
    r"\bmiss done question": "poll",
}
TERMS = ("location", "transaction", "card class", "message class", "file type", "node id", "poll", "repair")


def prose_of_page(text):
    """Markdown without its boxes and without what stands in backquotes; lines stay where they are."""
    text = re.sub(r"^```.*?^```$", lambda box: "\n" * box[0].count("\n"), text, flags=re.MULTILINE | re.DOTALL)
    return re.sub(r"`[^`\n]*`", "", text)


def strings_of_source(text):
    """What stands in quotes; lines stay where they are."""
    return "\n".join("" if line.startswith("#include") else
                     " ".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', line)) for line in text.splitlines())


def texts():
    """(name, what a user reads of it)"""
    for patterns, reader in ((["README.md", "CHANGELOG.md", "docs/*.md"], prose_of_page),
                             (["packaging/man/*", "packaging/systemd/*", "packaging/sysctl/*"], str),
                             (["tools/**/*.cpp", "tools/**/*.h", "lead/src/**/*.cpp"], strings_of_source)):
        for path in sorted(path for pattern in patterns for path in ROOT.glob(pattern)):
            yield str(path.relative_to(ROOT)), reader(path.read_text(encoding="utf-8"))


def complaints(name, text):
    return [f"{name}:{number}: '{match[0]}'; write: {instead}"
            for number, line in enumerate(text.splitlines(), 1)
            for pattern, instead in INSTEAD.items()
            if (match := re.search(pattern, line, re.IGNORECASE))]


class Words(unittest.TestCase):
    def test_users_read_standard_terms(self):
        read = list(texts())
        self.assertGreater(len(read), 50)
        self.assertEqual([line for name, text in read for line in complaints(name, text)], [])

    def test_a_word_of_our_own_is_found_in_prose_and_not_in_commands(self):
        page = "Before a crowd\n```sh\necho stuck\n```\nof `mute` nodes.\n"
        self.assertEqual(complaints("page", prose_of_page(page)), ["page:1: 'crowd'; write: many nodes"])
        source = '#include "echo.h"\nint stuck;  // torn\nprint("no \\"stuck\\" node");\n'
        self.assertEqual(complaints("source", strings_of_source(source)),
                         ["source:3: 'stuck'; write: no progress"])

    def test_the_glossary_explains_the_terms_of_help_texts(self):
        glossary = (ROOT / "docs" / "glossary.md").read_text(encoding="utf-8")
        explained = {term.strip() for row in re.findall(r"^\| ([^|]+) \|", glossary, re.MULTILINE)
                     for term in row.split(",")}
        self.assertEqual(set(TERMS) - explained, set())


if __name__ == "__main__":
    unittest.main()
