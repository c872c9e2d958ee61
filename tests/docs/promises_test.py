"""docs/promises.md names the test that holds each promise; every name must be that of a test.

Names are read from the sources: `Suite.name` of a GoogleTest case, `Class.test_name` of a Python
case, or the name given to add_test().
"""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TABLE = ROOT / "docs" / "promises.md"
# Names tests in its text: `Suite.name`.
THREATS = ROOT / "docs" / "threat-model.md"
IN_TEXT = re.compile(r"`([A-Z]\w+\.\w+_\w+)`")

GTEST = re.compile(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.MULTILINE)
CTEST = re.compile(r"\badd_test\(\s*NAME\s+(\S+)")
PYTHON_CLASS = re.compile(r"^class\s+(\w+)")
PYTHON_TEST = re.compile(r"^    def\s+(test_\w+)")
NAME = re.compile(r"`([^`]+)`")


def cpp_tests(text):
    return {f"{suite}.{name}" for suite, name in GTEST.findall(text)}


def ctest_tests(text):
    return set(CTEST.findall(text))


def python_tests(text):
    names, suite = set(), None
    for line in text.splitlines():
        if found := PYTHON_CLASS.match(line):
            suite = found[1]
        elif suite and (found := PYTHON_TEST.match(line)):
            names.add(f"{suite}.{found[1]}")
    return names


def existing_tests(root):
    readers = (("*.cpp", cpp_tests), ("*.py", python_tests), ("CMakeLists.txt", ctest_tests))
    return {
        name
        for pattern, read in readers
        for path in (root / "tests").rglob(pattern)
        for name in read(path.read_text(encoding="utf-8"))
    }


def rows(text):
    """(line number, promise, names of tests) of every row below a table's rule."""
    in_table = False
    for number, line in enumerate(text.splitlines(), 1):
        if not line.startswith("|"):
            in_table = False
        elif re.fullmatch(r"\|[\s|:-]+\|", line):
            in_table = True
        elif in_table:
            promise, tests = line.strip("|").rsplit("|", 1)
            yield number, promise.strip(), NAME.findall(tests)


def complaints(text, tests):
    seen = {}
    for number, promise, names in rows(text):
        if not names:
            yield f"line {number}: no test holds: {promise}"
        for name in names:
            if name not in tests:
                yield f"line {number}: no such test: {name}"
        if promise in seen:
            yield f"line {number}: promised in line {seen[promise]} already: {promise}"
        seen[promise] = number


class Promises(unittest.TestCase):
    def test_every_promise_names_tests_that_exist(self):
        found = list(complaints(TABLE.read_text(encoding="utf-8"), existing_tests(ROOT)))
        self.assertEqual(found, [], "\n" + "\n".join(found))

    def test_the_threat_model_names_tests_that_exist(self):
        named = IN_TEXT.findall(THREATS.read_text(encoding="utf-8"))
        self.assertGreater(len(named), 20)
        self.assertEqual(sorted(set(named) - existing_tests(ROOT)), [])

    def test_the_table_is_read(self):
        self.assertGreater(len(list(rows(TABLE.read_text(encoding="utf-8")))), 50)


class Check(unittest.TestCase):
    """What the check itself finds."""

    HEAD = "| promise | test |\n|---|---|\n"

    def complaints(self, table):
        return list(complaints(self.HEAD + table, {"A.b", "A.c"}))

    def test_names_of_existing_tests_are_accepted(self):
        self.assertEqual(self.complaints("| one | `A.b`, `A.c` |\n| two | `A.b` |\n"), [])

    def test_a_test_that_does_not_exist_is_named(self):
        self.assertEqual(self.complaints("| one | `A.b`, `A.x` |\n"), ["line 3: no such test: A.x"])

    def test_a_promise_without_a_test_is_named(self):
        self.assertEqual(self.complaints("| one | soon |\n"), ["line 3: no test holds: one"])

    def test_a_promise_made_twice_is_named(self):
        found = self.complaints("| one | `A.b` |\n| one | `A.c` |\n")
        self.assertEqual(found, ["line 4: promised in line 3 already: one"])

    def test_tests_are_read_from_every_kind_of_source(self):
        self.assertEqual(
            cpp_tests("TEST(A, b) {\nTEST_F(C, d) {\nTEST_P(\n    E,\n    f) {\n// TEST(G, h)\n")
            | cpp_tests("TYPED_TEST(I, j) {\nTYPED_TEST_SUITE(K, l);\n"),
            {"A.b", "C.d", "E.f", "I.j"},
        )
        self.assertEqual(
            python_tests("class A(Base):\n    def test_b(self):\n    def helper(self):\n"),
            {"A.test_b"},
        )
        self.assertEqual(ctest_tests("add_test(NAME a.b\n  COMMAND c)"), {"a.b"})


if __name__ == "__main__":
    unittest.main()
