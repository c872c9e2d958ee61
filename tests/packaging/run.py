"""Packages, installed files and examples, as an integrator meets them:  run.py BUILD_DIR [-k PATTERN]

Runs the commands of docs/integration.md in a directory that looks like the source tree with the
build under test as its build/release, then looks at what they made and runs it, on the loopback
network of a network namespace where the system allows one. With the programs out of the packages it
also runs the commands of the other documents (documents.py). The last line counts the tests.
"""

import argparse
import atexit
import glob
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
sys.path.insert(0, os.path.join(SOURCE, "tests", "lab"))
sys.path.insert(0, os.path.join(SOURCE, "tests", "docs"))
import abi  # noqa: E402
import boxes  # noqa: E402
import documents  # noqa: E402
import guide_code  # noqa: E402
import lab  # noqa: E402

GUIDE = os.path.join(SOURCE, "docs", "integration.md")
LEAD = lab.Loopback("127.0.0.1")
NODE = lab.Loopback("127.0.0.2")


def commands_of(guide):
    """The ```sh boxes of a page, one after the other."""
    with open(guide, encoding="utf-8") as file:
        return "\n".join(box.commands for box in boxes.boxes(file.read()) if box.runs)


class TimedResult(unittest.TextTestResult):
    def startTest(self, test):
        self._started = time.monotonic()
        super().startTest(test)

    def addSuccess(self, test):
        self.stream.write(f"({time.monotonic() - self._started:.1f} s) ")
        super().addSuccess(test)


class Workplace:
    """A directory like the source tree, in which the guide's commands have been run."""

    def __init__(self, build):
        self.build = os.path.realpath(build)
        self.path = tempfile.mkdtemp(prefix="pkgdist-packaging-")
        for name in os.listdir(SOURCE):
            if name != "build" and not name.startswith("."):
                os.symlink(os.path.join(SOURCE, name), self.at(name))
        os.mkdir(self.at("build"))
        os.symlink(self.build, self.at("build", "release"))

    def at(self, *parts):
        return os.path.join(self.path, *parts)

    def run_guide(self):
        """Installing is simulated, which still finds packages that cannot be installed."""
        with open(self.at("build", "apt.conf"), "w", encoding="utf-8") as file:
            file.write('APT::Get::Simulate "true";\n')
        environment = os.environ | {"APT_CONFIG": self.at("build", "apt.conf"),
                                    "CMAKE_GENERATOR": "Ninja"}
        started = time.monotonic()
        result = subprocess.run(["bash", "-euxo", "pipefail", "-c", commands_of(GUIDE)],
                                cwd=self.path, env=environment, capture_output=True, text=True,
                                timeout=600)
        print(f"the guide's commands took {time.monotonic() - started:.1f} s")
        return result

    def remove(self):
        shutil.rmtree(self.path, ignore_errors=True)


def prepare(build):
    """Everything that the tests look at is what the guide has made."""
    global PLACE, ROOT, GUIDE_RUN, TOOLS
    PLACE = Workplace(build)
    atexit.register(PLACE.remove)
    GUIDE_RUN = PLACE.run_guide()
    ROOT = PLACE.at("build", "root")
    TOOLS = lab.Programs(os.path.join(ROOT, "usr"))
    documents.Documents.ROOT = ROOT
    guide_code.GuideCode.ROOT = ROOT
    abi.BinaryInterface.BUILD = build


def files_below(root):
    return sorted(os.path.relpath(os.path.join(place, name), root)
                  for place, _, names in os.walk(root) for name in names)


def packages_below(root):
    return sorted(os.path.join(place, file) for place, _, files in os.walk(root) for file in files
                  if file.endswith((".deb", ".ddeb")) and "_CPack" not in place)


def package(name):
    return next(path for path in packages_below(PLACE.at("build", "packages"))
                if os.path.basename(path).startswith(name + "_"))


def field(name, which):
    return subprocess.run(["dpkg-deb", "--field", package(name), which], capture_output=True,
                          text=True, check=True).stdout.strip()


def contents(name):
    listing = subprocess.run(["dpkg-deb", "--contents", package(name)], capture_output=True,
                             text=True, check=True).stdout
    return [line.split()[5][2:] for line in listing.splitlines() if not line.startswith("d")]


class Guide(unittest.TestCase):
    def test_every_command_of_the_guide_works(self):
        self.assertEqual(GUIDE_RUN.returncode, 0, GUIDE_RUN.stdout[-2000:] + GUIDE_RUN.stderr[-3000:])

    def test_what_the_guide_pushes_arrives(self):
        def but_permissions(root):  # the umask is anybody's
            return {name: (kind, *rest) for name, (kind, _, *rest) in lab.manifest(root).items()}

        self.assertEqual(lab.differences(but_permissions(os.path.join(SOURCE, "examples")),
                                         but_permissions(PLACE.at("build", "received"))), [])
        self.assertIn("c_minimal.c: success\n", GUIDE_RUN.stdout)

    def test_all_packages_can_be_installed_together(self):
        installed = re.findall(r"^Inst (\S+)", GUIDE_RUN.stdout, re.MULTILINE)
        self.assertLessEqual(set(PACKAGES), set(installed))

    def test_the_guide_is_read(self):
        self.assertGreater(len(commands_of(GUIDE).splitlines()), 15)


RUNTIME, PLATFORM = "lib-inst-pkgdist-recv0", "libpkgdist-platform0"
PACKAGES = (RUNTIME, PLATFORM, "libpkgdist-dev", "pkgdist-tools")


class Packages(unittest.TestCase):
    def test_each_needs_the_libraries_of_its_own_version(self):
        version = field(RUNTIME, "Version")
        for name in ("libpkgdist-dev", "pkgdist-tools"):
            self.assertIn(f"{RUNTIME} (= {version})", field(name, "Depends"))
        for name in (RUNTIME, "libpkgdist-dev", "pkgdist-tools"):
            self.assertIn(f"{PLATFORM} (= {version})", field(name, "Depends"))
        self.assertIn("libc6", field(PLATFORM, "Depends"))
        self.assertNotIn("pkgdist", field(PLATFORM, "Depends"))

    def test_a_librarys_package_holds_it_under_its_soname(self):
        for package_name, library in ((RUNTIME, "lib_inst_pkgdist_recv"), (PLATFORM, "libpkgdist_platform")):
            version = field(package_name, "Version")
            files = [f"{documents.LIBRARIES}/{library}.so.{end}" for end in ("0", version)]
            notes = [f"usr/share/doc/{package_name}/{name}" for name in ("changelog.gz", "copyright")]
            self.assertEqual(sorted(contents(package_name)), sorted(files + notes))

    def test_lintian_finds_no_error_and_no_warning(self):
        everything = packages_below(PLACE.at("build", "packages"))
        self.assertEqual(len(everything), 2 * len(PACKAGES) - 1)  # with the debugging symbols
        result = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning", *everything],
                                capture_output=True, text=True, timeout=300)
        self.assertEqual((result.returncode, result.stdout), (0, ""))

    def test_the_debugging_symbols_are_those_of_the_package(self):
        name = f"{documents.LIBRARIES}/lib_inst_pkgdist_recv.so.0"
        listing = subprocess.run(["readelf", "-n", os.path.join(ROOT, name)], capture_output=True, text=True,
                                 check=True).stdout
        build_id = re.search(r"Build ID: ([0-9a-f]+)", listing)[1]
        self.assertIn(f"usr/lib/debug/.build-id/{build_id[:2]}/{build_id[2:]}.debug",
                      contents(f"{RUNTIME}-dbgsym"))

    def test_the_tools_are_the_programs(self):
        programs = [name for name in contents("pkgdist-tools") if name.startswith("usr/bin/")]
        self.assertEqual({f"usr/bin/{name}" for name in PROGRAMS}, set(programs))

    def test_every_public_header_is_there(self):
        for part in ("pkgdist", "platform"):
            headers = os.path.join(SOURCE, part, "include", part)
            self.assertEqual(files_below(os.path.join(ROOT, "usr", "include", part)),
                             files_below(headers))

    def test_nothing_knows_where_it_was_built(self):
        traces = [path.encode() for path in (SOURCE, PLACE.build, PLACE.path)]
        for name in files_below(ROOT):
            with open(os.path.join(ROOT, name), "rb") as file:
                content = file.read()
            self.assertEqual([path for path in traces if path in content], [], name)

    def test_an_installation_under_a_prefix_has_the_same_files(self):
        prefix = PLACE.at("build", "installed")
        subprocess.run(["cmake", "--install", "build/release", "--prefix", prefix], cwd=PLACE.path,
                       check=True, capture_output=True)
        self.assertEqual(files_below(prefix), files_below(os.path.join(ROOT, "usr")))

    def test_libraries_and_programs_are_stripped(self):
        for name in (f"{documents.LIBRARIES}/lib_inst_pkgdist_recv.so.0", "usr/bin/pkgdist-lead"):
            sections = subprocess.run(["readelf", "-SW", os.path.join(ROOT, name)],
                                      capture_output=True, text=True, check=True).stdout
            self.assertNotIn(".debug_info", sections, name)


PROGRAMS = ("pkgdist-doctor", "pkgdist-lead", "pkgdist-node", "pkgdist-release", "pkgdist-stat",
            "pkgdist-trace")


class Service(unittest.TestCase):
    """What is beside the programs: units, kernel settings, manual pages, completion."""

    def at(self, *parts):
        return os.path.join(ROOT, "usr", *parts)

    def test_the_units_are_valid_and_hardened(self):
        for name in ("pkgdist-lead", "pkgdist-node"):
            with open(self.at("lib", "systemd", "system", f"{name}.service"), encoding="utf-8") as file:
                unit = file.read()
            place = os.path.join(PLACE.at("build"), f"{name}.service")
            with open(place, "w", encoding="utf-8") as file:
                file.write(unit.replace(f"ExecStart={name}", f"ExecStart={self.at('bin', name)}"))
            verified = self.analyze("verify", "--man=no", place)
            self.assertEqual((verified.returncode, verified.stderr), (0, ""))
            # Of 10; what is left is the network.
            exposed = self.analyze("security", "--offline=true", "--threshold=15", place)
            self.assertEqual(exposed.returncode, 0, exposed.stdout)

    @staticmethod
    def analyze(*arguments):
        return subprocess.run(["systemd-analyze", *arguments], capture_output=True, text=True, timeout=60)

    def test_the_kernel_settings_allow_the_buffers_that_programs_ask_for(self):
        with open(self.at("lib", "sysctl.d", "60-pkgdist.conf"), encoding="utf-8") as file:
            settings = dict(re.findall(r"^([a-z_.]+) = (\d+)$", file.read(), re.MULTILINE))
        self.assertEqual(settings, {"net.core.rmem_max": str(8 << 20), "net.core.wmem_max": str(2 << 20)})

    def test_every_link_of_an_installed_page_leads_to_a_file(self):
        pages = glob.glob(self.at("share", "doc", "*", "*.md"))
        self.assertGreater(len(pages), 12)
        for page in pages:
            with open(page, encoding="utf-8") as file:
                links = set(boxes.links(file.read()))
            missing = [link for link in links if not os.path.exists(os.path.join(os.path.dirname(page), link))]
            self.assertEqual(missing, [], page)

    def test_every_page_of_the_manual_is_clean(self):
        pages = [self.at("share", "man", f"man{page[-1]}", page + ".gz")
                 for page in (*[f"{program}.1" for program in PROGRAMS], "pkgdist.3", "pkgdist.7")]
        for page in pages:  # mandoc unpacks the first one only
            result = subprocess.run(["mandoc", "-Tlint", "-W", "warning", page], capture_output=True, text=True,
                                    timeout=60)
            self.assertEqual((result.returncode, result.stdout + result.stderr), (0, ""))

    def test_every_option_has_its_line_in_the_manual(self):
        for program in PROGRAMS:
            page = subprocess.run(["mandoc", "-Tascii", self.at("share", "man", "man1", f"{program}.1.gz")],
                                  capture_output=True, text=True, timeout=60).stdout
            page = re.sub(r".\x08", "", page)  # overstrikes
            for option in self.options(program):
                self.assertRegex(page, rf"(?<![\w-]){option}(?![\w-])", program)

    def options(self, program):
        text = self.help(program)
        for command in re.findall(r"^  ([a-z]+)  ", text.partition("Subcommands:")[2], re.MULTILINE):
            text += self.help(program, command)
        return set(re.findall(r"(?:^  |,)(--[a-z][a-z-]*)", text, re.MULTILINE))

    def help(self, program, *command):
        return subprocess.run([self.at("bin", program), *command, "--help"], capture_output=True, text=True,
                              check=True, timeout=10).stdout

    def complete(self, *words):
        """What bash offers for the last word."""
        script = ('source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _pkgdist; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        place = self.at("share", "bash-completion", "completions", words[0])
        path = {"PATH": self.at("bin") + ":" + os.environ["PATH"]}
        result = subprocess.run(["bash", "-c", script, place, *words], capture_output=True, text=True,
                                env=os.environ | path, timeout=20)
        self.assertEqual(result.stderr, "")
        return set(result.stdout.split())

    def test_bash_completes_commands_and_options_of_every_program(self):
        self.assertEqual(self.complete("pkgdist-lead", ""),
                         {"push", "serve", "message", "cancel", "delete", "report", "top", "status",
                          "nodes", "pushes", "activate", "releases"})
        self.assertEqual(self.complete("pkgdist-node", "--json", "g"), {"get"})
        self.assertEqual(self.complete("pkgdist-node", "release", ""),
                         {"status", "activate", "rollback", "verify", "downgrade"})
        self.assertIn("--force", self.complete("pkgdist-node", "release", "rollback", "--"))
        self.assertNotIn("--force", self.complete("pkgdist-node", "release", "verify", "--"))
        self.assertEqual(self.complete("pkgdist-doctor", "--inter"), {"--interface"})
        self.assertIn("--standby", self.complete("pkgdist-lead", "serve", "--"))
        self.assertIn("--interface", self.complete("pkgdist-lead", "serve", "--"))
        self.assertNotIn("--standby", self.complete("pkgdist-lead", "push", "--"))
        self.assertEqual(self.complete("pkgdist-lead", "--location", ""), set())
        for program in PROGRAMS:
            self.assertLessEqual({"--help", "--version"}, self.complete(program, "--"), program)


class Programs(unittest.TestCase):
    """Each program against a lead out of the package. Bytes, permissions and times are compared."""

    def setUp(self):
        self.work = lab.work_directory()
        self.addCleanup(lab.remove, self.work)
        self.content = os.path.join(self.work, "content")
        self.received = os.path.join(self.work, "received") + "/"
        os.makedirs(os.path.join(self.content, "directory"))
        os.mkdir(self.received)
        for name, size in (("small", 100), ("directory/large", 2_000_000), ("empty", 0)):
            with open(os.path.join(self.content, name), "wb") as file:
                file.write(os.urandom(size))
        self.environment = os.environ | {"LD_LIBRARY_PATH": os.path.join(ROOT, documents.LIBRARIES)}
        self.addCleanup(NODE.processes.clear)
        self.addCleanup(NODE.stop_all)
        umask = os.umask(0o022)
        self.addCleanup(os.umask, umask)

    def assert_received(self):
        self.assertEqual(lab.differences(lab.manifest(self.content), lab.manifest(self.received)), [])

    def assert_receives_a_push(self, *program, environment=None):
        node = NODE.spawn([PLACE.at(*program), NODE.address, self.received],
                          env=environment or self.environment, stdout=subprocess.PIPE, text=True)
        result = TOOLS.push(LEAD, self.content, "--nodes", NODE.address, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr + str(result.events[-4:]))
        self.assert_received()
        node.terminate()
        said, _ = node.communicate(timeout=10)
        self.assertIn("directory/large: success\n", said)
        return node.returncode

    def test_the_epoll_program_receives_a_push_and_ends_in_order(self):
        self.assertEqual(self.assert_receives_a_push("build", "examples", "epoll_loop"), 0)

    def test_the_libuv_program_receives_a_push_and_ends_in_order(self):
        self.assertEqual(self.assert_receives_a_push("build", "examples", "libuv_loop"), 0)

    def test_the_sd_event_program_receives_a_push_and_ends_in_order(self):
        self.assertEqual(self.assert_receives_a_push("build", "examples", "sd_event_loop"), 0)

    def test_the_cpp_program_gets_the_files_that_it_names_and_tells_which_do_not_come(self):
        self.serve()
        result = self.get("small", "absent", "directory/large", "../outside", "empty")
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assert_received()
        self.assertIn("small: success\n", result.stdout)
        self.assertIn("absent: No such file or directory\n", result.stdout)
        self.assertIn("../outside: an argument was rejected\n", result.stderr)

    def serve(self):
        lead = TOOLS.start_lead(LEAD, self.content, "serve", stdout=subprocess.DEVNULL)
        self.addCleanup(LEAD.processes.clear)
        self.addCleanup(LEAD.stop_all)
        return lead

    def get(self, *names):
        return NODE.run([PLACE.at("build", "examples", "get_files"), NODE.address, self.received, *names],
                        env=self.environment | {"LC_ALL": "C"}, capture_output=True, text=True,
                        timeout=60)

    def test_a_third_party_platform_receives_a_push(self):
        # It says itself where its libraries are; those of the package have another platform.
        self.assert_receives_a_push("build", "c_own", environment=dict(os.environ))
        needed = self.libraries_of_own()
        self.assertIn("libminimal_platform.so", needed)
        self.assertNotIn("libpkgdist_platform", needed)

    def test_a_third_party_platform_may_bring_the_codec(self):
        self.addCleanup(self.build_own, "OFF", "platform")
        result = self.build_own("ON", "platform", "codec")
        self.assertEqual(result.returncode, 0, result.stdout[-2000:] + result.stderr[-2000:])
        self.assertIn("libminimal_codec.so", self.libraries_of_own())

    def test_a_function_that_a_platform_lacks_is_named(self):
        self.addCleanup(self.build_own, "OFF", "platform")
        result = self.build_own("OFF", "codec")  # has nothing of what is left to bring
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("undefined reference to `qitc_put'", result.stdout)

    @staticmethod
    def build_own(codec, *parts):
        """The guide's library anew, against these parts of the minimal platform."""
        libraries = ";".join(PLACE.at("build", "platform", f"libminimal_{part}.so") for part in parts)
        command = (f"cmake build/own -DPKGDIST_PLATFORM_CODEC={codec} "
                   f"'-DPKGDIST_PLATFORM_LIBRARY={libraries}' && cmake --build build/own")
        return subprocess.run(["sh", "-c", command], cwd=PLACE.path, capture_output=True, text=True)

    @staticmethod
    def libraries_of_own():
        library = PLACE.at("build", "own", "lib", "lib_inst_pkgdist_recv.so")
        return subprocess.run(["readelf", "-dW", library], capture_output=True, text=True,
                              check=True).stdout


def enter_namespace():
    """A loopback network of our own, so that other leads of this machine are not met."""
    if lab.available() or os.environ.get(lab.MARK):
        lab.enter()
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def main():
    parser = argparse.ArgumentParser(description="Tests packages, installed files and examples.")
    parser.add_argument("build", help="the build directory to make the packages of")
    parser.add_argument("-k", dest="pattern", action="append", help="run matching tests only")
    options = parser.parse_args()
    enter_namespace()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # cleans up
    prepare(options.build)
    loader = unittest.TestLoader()
    if options.pattern:
        loader.testNamePatterns = [f"*{pattern}*" for pattern in options.pattern]
    suite = unittest.TestSuite(loader.loadTestsFromModule(module)
                               for module in (sys.modules[__name__], abi, documents, guide_code))
    result = unittest.TextTestRunner(stream=sys.stdout, verbosity=2,
                                     resultclass=TimedResult).run(suite)
    failed = len({test.id() for test, _ in result.failures + result.errors})
    skipped = len(result.skipped)
    print(f"packaging: {result.testsRun - failed - skipped} passed, {failed} failed, {skipped} skipped")
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
