"""The binary interface of the libraries against the one that is stored in packaging/abi:

    abi.py BUILD_DIR --store    describes the libraries of a build anew, at a release

What programs were built with must stay: functions, variables, and the layout of every public type.
Additions are no difference. Descriptions hold for one architecture.
"""

import functools
import gzip
import os
import platform
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
STORE = os.path.join(SOURCE, "packaging", "abi")
LIBRARIES = ("lib_inst_pkgdist_recv", "libpkgdist_platform")
ARCHITECTURE = "x86_64"  # of what is stored
HEADERS = [os.path.join(SOURCE, part, "include") for part in ("pkgdist", "platform")]


def library(build, name):
    return os.path.join(build, "lib", f"{name}.so")


def stored(name):
    return os.path.join(STORE, f"{name}.{ARCHITECTURE}.abi.gz")


@functools.cache
def describe(path):
    """The description of a library, without places and without types that no header declares."""
    headers = [word for directory in HEADERS for word in ("--headers-dir", directory)]
    return subprocess.run(["abidw", *headers, "--drop-private-types", "--no-corpus-path", "--no-comp-dir-path",
                           "--no-show-locs", path], capture_output=True, check=True, timeout=120).stdout


def compare(description, path):
    """abidiff's (exit status, report) for a description and a library; 0 is no difference."""
    with tempfile.NamedTemporaryFile(suffix=".abi") as old, tempfile.NamedTemporaryFile(suffix=".abi") as new:
        old.write(description)
        old.flush()
        new.write(describe(path))
        new.flush()
        result = subprocess.run(["abidiff", "--no-added-syms", old.name, new.name], capture_output=True,
                                text=True, timeout=120)
    return result.returncode, result.stdout + result.stderr


class BinaryInterface(unittest.TestCase):
    BUILD = None  # set by run.py

    def setUp(self):
        if platform.machine() != ARCHITECTURE:
            self.skipTest(f"the stored descriptions are of {ARCHITECTURE}")

    @staticmethod
    def stored(name):
        with gzip.open(stored(name)) as file:
            return file.read()

    def test_programs_that_were_built_before_still_run(self):
        for name in LIBRARIES:
            status, report = compare(self.stored(name), library(self.BUILD, name))
            self.assertEqual(status, 0, f"{name}; docs/integration.md, Versions: {report}")

    def assert_difference_is_found(self, name, before, after, words):
        description = self.stored(name)
        self.assertIn(before, description)
        status, report = compare(description.replace(before, after), library(self.BUILD, name))
        self.assertNotEqual(status, 0)
        self.assertIn(words, report)

    def test_a_function_that_went_is_found(self):
        self.assert_difference_is_found("lib_inst_pkgdist_recv", b"name='pkgdist_status_str'",
                                        b"name='pkgdist_status_old'", "pkgdist_status_old")

    def test_a_structure_that_changed_is_found(self):
        self.assert_difference_is_found("lib_inst_pkgdist_recv",
                                        b"<class-decl name='pkgdist_ctrl_timeouts' size-in-bits='384'",
                                        b"<class-decl name='pkgdist_ctrl_timeouts' size-in-bits='320'",
                                        "type size changed from 320 to 384")


def main():
    if len(sys.argv) != 3 or sys.argv[2] != "--store":
        print(__doc__, file=sys.stderr)
        return 2
    for name in LIBRARIES:
        with open(stored(name), "wb") as file, gzip.GzipFile("", "wb", mtime=0, fileobj=file) as packed:
            packed.write(describe(library(sys.argv[1], name)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
