"""Runs the system tests:  run.py BUILD_DIR [-k PATTERN] [-j JOBS]

Enters namespaces of its own first. The last line of the output counts the tests. Where the system
forbids namespaces, every test is reported as skipped. With several jobs, so many classes run at once,
each in namespaces of its own; most tests wait most of the time.
"""

import argparse
import collections
import concurrent.futures
import os
import re
import subprocess
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


def class_of(test):
    return f"{type(test).__module__}.{type(test).__qualname__}"


def classes_of(tests):
    """Their names, those with most tests first."""
    counts = collections.Counter(map(class_of, tests))
    return [name for name, _ in counts.most_common()]


def run_class(name):
    """What this program said about one class, and its counts; a class that ends without a count has
    failed as a whole."""
    done = subprocess.run([sys.executable, *sys.argv, "--class", name], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    counts = re.search(r"^system: (\d+) passed, (\d+) failed, (\d+) skipped$", done.stdout, re.M)
    if counts is None:
        return done.stdout, (0, 1, 0)
    return done.stdout[:counts.start()], tuple(map(int, counts.groups()))


def run_jobs(classes, jobs):
    total = [0, 0, 0]
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for text, counts in pool.map(run_class, classes):
            print(text, end="", flush=True)
            total = [a + b for a, b in zip(total, counts)]
    print("system: {} passed, {} failed, {} skipped".format(*total))
    return 0 if total[1] == 0 else 1


def main():
    parser = argparse.ArgumentParser(description="Runs the system tests.")
    parser.add_argument("build", help="the build directory whose bin/ holds the programs")
    parser.add_argument("-k", dest="patterns", action="append", help="run matching tests only")
    parser.add_argument("-q", "--quiet", action="store_true", help="one dot per test")
    parser.add_argument("-j", "--jobs", type=int, default=1, help="classes that run at once")
    parser.add_argument("--class", dest="only", help=argparse.SUPPRESS)
    options = parser.parse_args()

    loader = unittest.TestLoader()
    if options.patterns:
        loader.testNamePatterns = [p if "*" in p else f"*{p}*" for p in options.patterns]
    here = os.path.dirname(os.path.abspath(__file__))
    tests = list(leaves(loader.discover(here, "test_*.py", here)))
    if options.only:
        tests = [test for test in tests if class_of(test) == options.only]
    suite = loader.suiteClass(tests)

    if not os.environ.get(lab.MARK) and not lab.available():
        for test in tests:
            print(f"{test} ... skipped: this system does not let us make network namespaces")
        print(f"system: 0 passed, 0 failed, {len(tests)} skipped")
        return 0
    if options.jobs > 1 and not options.only:
        return run_jobs(classes_of(tests), options.jobs)
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
