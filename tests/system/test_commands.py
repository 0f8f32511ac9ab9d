#!/usr/bin/env python3
"""What ./run and ./test are made of: who installs what, who configures what, and how the counts are added up."""

import os
import re
import shutil
import subprocess

from trabex_system import REPO, Scenario, bound, main, only_ipv4


def run(*command, cwd=REPO, environment=None):
    """Runs a command to its end; returns its status and what it said."""
    done = subprocess.run(list(map(str, command)), cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=bound(120), check=False,
                          env={**os.environ, **(environment or {})})
    return done.returncode, done.stdout


def packages_of(*sections):
    status, said = run("scripts/install-packages", "--list", *sections)
    if status != 0:
        raise AssertionError(said)
    return said.split()


@only_ipv4("no client comes")
class Packages(Scenario):
    def test_every_line_belongs_to_a_section(self):
        lines = [line for line in (REPO / "packages.txt").read_text(encoding="utf-8").splitlines()
                 if line and not line.startswith("#")]
        sections = [line for line in lines if line.startswith("[")]
        names = ["run", "test", "package", "full", "memcheck", "package-test", "package-root", "fresh"]
        self.assertEqual(sections, [f"[{name}]" for name in names])
        self.assertEqual(packages_of(*names), [line for line in lines if line not in sections])

    def test_nothing_is_installed_twice(self):
        for sections in (["run", "test", "full"], ["run", "package"], ["package-root"], ["fresh"]):
            packages = packages_of(*sections)
            self.assertEqual(sorted(set(packages)), sorted(packages))

    def test_running_needs_nothing_of_the_tests(self):
        packages = packages_of("run")
        self.assertIn("g++", packages)
        self.assertEqual([name for name in packages if re.search(r"test|mock|benchmark|clang|python|debstrap", name)], [])

    def test_sections_that_are_not_there(self):
        for arguments, message in (([], "which sections of packages.txt?"), (["rnu"], "no file of packages has a section [rnu]"),
                                   (["--list", "run", ".*"], "no file of packages has a section [.*]")):
            self.assertEqual(run("scripts/install-packages", *arguments), (1, f"install-packages: {message}\n"))

    def test_each_command_installs_its_own(self):
        # A folder in which the commands only say what they would install.
        folder = self.place.new_folder("checkout")
        (folder / "scripts").mkdir()
        for name in ("install-packages", "build", "run-tests", "run-fresh", "run-package-test"):
            script = folder / "scripts" / name
            end = 'echo "$*"; exit 1' if name == "install-packages" else "exit 1"
            script.write_text(f"#!/bin/sh\n{end}\n", encoding="utf-8")
            script.chmod(0o755)
        # (the command, which sections it asks for)
        for command, sections in ((["run"], "run"), (["test"], "run test"), (["test", "--quick"], "run test"),
                                  (["test", "--full"], "run test full"), (["test", "--fresh"], "fresh"),
                                  (["test", "--package"], "run package fresh package-test"), (["package"], "run package")):
            if command[-1] in ("--fresh", "--package") and os.geteuid() != 0:
                continue  # they say so
            with self.subTest(command=command):
                shutil.copy(REPO / command[0], folder)
                status, said = run(f"./{command[0]}", *command[1:], cwd=folder)
                self.assertEqual((status, said.splitlines()[:1]), (1, [sections]))


@only_ipv4("no client comes")
class Builds(Scenario):
    """A folder as it comes from a checkout; what is built in it does not matter here."""

    def setUp(self):
        super().setUp()
        self.folder = self.place.new_folder("checkout")
        for name in ("CMakeLists.txt", "CMakePresets.json"):
            shutil.copy(REPO / name, self.folder)
        for name in ("cmake", "scripts", "src", "tests", "tools", "bench", "fuzz"):
            shutil.copytree(REPO / name, self.folder / name)

    def build(self, *arguments):
        status, said = run("scripts/build", *arguments, cwd=self.folder)
        self.assertEqual(status, 0, said)
        return said

    def targets(self):
        """What the folder is configured to build."""
        status, said = run("ninja", "-C", "build/release", "-t", "targets", "all", cwd=self.folder)
        self.assertEqual(status, 0, said)
        return set(re.findall(r"^([\w/]+): CXX_EXECUTABLE_LINKER", said, re.MULTILINE))

    def test_running_configures_no_tests_and_testing_adds_them(self):
        said = self.build("--program", "release", "help")
        self.assertRegex(said, r"(?s)\AConfiguring build/release\n.*\n\[1/1, \d+\.\d+s\] ")
        program = {"Trabex", "tools/sample_mail_server/sample_mail_server"}
        self.assertEqual(self.targets(), program)
        # A second time it says nothing of it.
        self.assertNotIn("Configuring", self.build("--program", "release", "help"))

        self.assertEqual(self.build("release", "help"), "")
        with_tests = self.targets()
        self.assertLess(program | {"tests/session_tests", "bench/bench_greylist"}, with_tests)
        # To run it afterwards takes nothing away: all tests would be built anew.
        self.build("--program", "release", "help")
        self.assertEqual(self.targets(), with_tests)

    def test_a_step_that_fails_shows_what_it_said(self):
        (self.folder / "src" / "base" / "text.cpp").write_text("#error this line is wrong\n", encoding="utf-8")
        step = "src/base/CMakeFiles/base.dir/text.cpp.o"
        for arguments in (["--program", "release", step], ["release", step]):
            status, said = run("scripts/build", *arguments, cwd=self.folder, environment={"CCACHE_DISABLE": "1"})
            self.assertEqual(status, 1)
            self.assertIn("error: #error this line is wrong", said)


@only_ipv4("no client comes")
class Counts(Scenario):
    """What the build service is told."""

    def test_all_commands_count(self):
        good = ("5 passed, 0 failed", 0)
        # (what ./test --full, --package, --fresh and --windows say, and their statuses; the last line, the status in all)
        cases = [((("10 passed, 0 failed", 0), good, good, good), "25 passed, 0 failed", 0),
                 ((("10 passed, 0 failed, 2 skipped", 0), good, good, good), "25 passed, 0 failed", 0),
                 ((("9 passed, 1 failed", 1), good, good, good), "24 passed, 1 failed", 1),
                 ((good, ("8 passed, 2 failed", 1), good, good), "23 passed, 2 failed", 1),
                 ((good, good, ("3 passed, 2 failed", 1), good), "18 passed, 2 failed", 1),
                 ((good, good, good, ("4 passed, 1 failed, 2 skipped", 1)), "19 passed, 1 failed", 1),
                 ((("10 passed, 0 failed", 1), good, good, good), "25 passed, 1 failed", 1),
                 ((("no compiler", 1), good, good, good), "15 passed, 1 failed", 1),
                 ((good, ("not root", 1), ("not root", 1), ("not root", 1)), "5 passed, 3 failed", 1)]
        folder = self.place.new_folder("checkout")
        shutil.copytree(REPO / ".ci", folder / ".ci")
        for steps, last, status in cases:
            with self.subTest(steps=steps):
                test = folder / "test"
                answers = "".join(f'--{name}) echo "{said}"; exit {its_status} ;;\n' for name, (said, its_status) in
                                  zip(("full", "package", "fresh", "windows"), steps))
                test.write_text(f'#!/bin/sh\ncase "$1" in\n{answers}esac\n', encoding="utf-8")
                test.chmod(0o755)
                self.assertEqual(run("bash", ".ci/run", cwd=folder),
                                 (status, "".join(f"{said}\n" for said in [said for said, _ in steps] + [last])))


if __name__ == "__main__":
    main()
