"""The code on the page for integrators: compiled against the installed package, without warnings, and
the first program, which the page calls whole, receives a push."""

import os
import re
import subprocess
import sys
import unittest

SOURCE = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
sys.path.insert(0, os.path.join(SOURCE, "tests", "lab"))
import documents  # noqa: E402
import lab  # noqa: E402

GUIDE = os.path.join(SOURCE, "docs", "integration.md")
COMPILERS = {"c": ["cc", "-std=c11"], "cpp": ["c++", "-std=c++20"]}
FRAGMENT = "#include <pkgdist/pkgdist_recv.h>\nint main(void) {{\n{}\nreturn 0;\n}}\n"


def code(path=GUIDE):
    """(language, text) of each ```c and ```cpp box; what is no program becomes the body of one."""
    found = re.findall(r"^```(c|cpp)\n(.*?)^```$", documents.read(path), re.MULTILINE | re.DOTALL)
    return [(language, text if "int main(" in text else FRAGMENT.format(text)) for language, text in found]


class GuideCode(unittest.TestCase):
    ROOT = None  # an installation, set by run.py

    def setUp(self):
        self.work = lab.work_directory()
        self.addCleanup(lab.remove, self.work)
        self.libraries = os.path.join(self.ROOT, documents.LIBRARIES)
        self.environment = os.environ | {"LD_LIBRARY_PATH": self.libraries,
                                         "PKG_CONFIG_PATH": os.path.join(self.libraries, "pkgconfig")}

    def build(self, number, language, text):
        program = os.path.join(self.work, f"program{number}")
        source = f"{program}.{language}"
        with open(source, "w", encoding="utf-8") as file:
            file.write(text)
        flags = subprocess.run(["pkg-config", "--cflags", "--libs", "pkgdist"], env=self.environment,
                               capture_output=True, text=True, check=True).stdout.split()
        result = subprocess.run([*COMPILERS[language], "-Wall", "-Wextra", "-Wpedantic", "-Werror", source,
                                 *flags, "-o", program], env=self.environment, capture_output=True, text=True)
        self.assertEqual((result.returncode, result.stderr), (0, ""), text)
        return program

    def test_all_code_of_the_guide_compiles_without_a_warning(self):
        boxes = code()
        self.assertEqual({language for language, _ in boxes}, {"c", "cpp"})
        self.assertGreaterEqual(len(boxes), 3)
        for number, (language, text) in enumerate(boxes):
            self.build(number, language, text)

    def test_the_whole_program_receives_a_push(self):
        program = self.build(0, *code()[0])
        content, received = (os.path.join(self.work, name) for name in ("content", "received"))
        os.makedirs(os.path.join(content, "directory"))
        os.mkdir(received)
        with open(os.path.join(content, "directory", "file"), "wb") as file:
            file.write(os.urandom(100_000))
        lead, node = lab.Loopback("127.0.0.1"), lab.Loopback("127.0.0.2")
        self.addCleanup(node.stop_all)
        process = node.spawn([program, node.address], env=self.environment, cwd=self.work,
                             stdout=subprocess.PIPE, text=True)
        programs = lab.Programs(os.path.join(self.ROOT, "usr"))
        result = programs.push(lead, content, "--nodes", node.address, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(process.stdout.readline(), "directory/file: success\n")
        with open(os.path.join(content, "directory", "file"), "rb") as sent, \
                open(os.path.join(received, "directory", "file"), "rb") as came:
            self.assertEqual(sent.read(), came.read())
