"""Runs the system tests:  run.py BUILD_DIR [-k PATTERN] [-v]

Enters namespaces of its own first. The last line of the output counts the tests. Where the system
forbids namespaces, every test is reported as skipped.
"""

import argparse
import os
import sys
import time
import unittest

import support
from support import lab


def leaves(suite):
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from leaves(test)
        else:
            yield test


class TimedResult(unittest.TextTestResult):
    """Tells how long each test took, and counts those that passed."""

    passed = 0

    def startTest(self, test):
        self._started = time.monotonic()
        super().startTest(test)

    def addSuccess(self, test):
        self.passed += 1
        if self.showAll:
            self.stream.write(f"({time.monotonic() - self._started:.1f} s) ")
        super().addSuccess(test)


def main():
    parser = argparse.ArgumentParser(description="Runs the system tests.")
    parser.add_argument("build", help="the build directory whose bin/ holds the programs")
    parser.add_argument("-k", dest="patterns", action="append", help="run matching tests only")
    parser.add_argument("-q", "--quiet", action="store_true", help="one dot per test")
    options = parser.parse_args()

    loader = unittest.TestLoader()
    if options.patterns:
        loader.testNamePatterns = [p if "*" in p else f"*{p}*" for p in options.patterns]
    here = os.path.dirname(os.path.abspath(__file__))
    suite = loader.discover(here, "test_*.py", here)
    tests = list(leaves(suite))

    if not os.environ.get(lab.MARK) and not lab.available():
        for test in tests:
            print(f"{test} ... skipped: this system does not let us make network namespaces")
        print(f"system: 0 passed, 0 failed, {len(tests)} skipped")
        return 0
    lab.enter()

    support.PROGRAMS = lab.Programs(os.path.abspath(options.build))
    runner = unittest.TextTestRunner(stream=sys.stdout, verbosity=1 if options.quiet else 2,
                                     resultclass=TimedResult)
    result = runner.run(suite)
    # Several parts of one test may have failed.
    failed = len({getattr(test, "test_case", test).id()
                  for test, _ in result.failures + result.errors})
    skipped = len(result.skipped)
    print(f"system: {result.passed} passed, {failed} failed, {skipped} skipped")
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
