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
        self.assertEqual(sections, ["[run]", "[test]", "[fresh]"])
        self.assertEqual(packages_of("run", "test", "fresh"), [line for line in lines if line not in sections])

    def test_nothing_is_installed_twice(self):
        for sections in (["run", "test"], ["fresh"]):
            packages = packages_of(*sections)
            self.assertEqual(sorted(set(packages)), sorted(packages))

    def test_running_needs_nothing_of_the_tests(self):
        packages = packages_of("run")
        self.assertIn("g++", packages)
        self.assertEqual([name for name in packages if re.search(r"test|mock|benchmark|clang|python|debstrap", name)], [])

    def test_sections_that_are_not_there(self):
        for arguments, message in (([], "which sections of packages.txt?"), (["rnu"], "packages.txt has no section [rnu]"),
                                   (["--list", "run", ".*"], "packages.txt has no section [.*]")):
            self.assertEqual(run("scripts/install-packages", *arguments), (1, f"install-packages: {message}\n"))

    def test_each_command_installs_its_own(self):
        # (the command, which sections it asks for)
        for command, sections in (("run", "run"), ("test", "run test")):
            text = (REPO / command).read_text(encoding="utf-8")
            self.assertIn(f"scripts/install-packages {sections}\n", text, command)


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

    def test_both_commands_count(self):
        # (what ./test says, its status, what ./test --fresh says, its status; the last line, the status in all)
        cases = [("10 passed, 0 failed", 0, "5 passed, 0 failed", 0, "15 passed, 0 failed", 0),
                 ("10 passed, 0 failed, 2 skipped", 0, "5 passed, 0 failed", 0, "15 passed, 0 failed", 0),
                 ("9 passed, 1 failed", 1, "5 passed, 0 failed", 0, "14 passed, 1 failed", 1),
                 ("10 passed, 0 failed", 0, "3 passed, 2 failed", 1, "13 passed, 2 failed", 1),
                 ("10 passed, 0 failed", 1, "5 passed, 0 failed", 0, "15 passed, 1 failed", 1),
                 ("no compiler", 1, "5 passed, 0 failed", 0, "5 passed, 1 failed", 1),
                 ("10 passed, 0 failed", 0, "not root", 1, "10 passed, 1 failed", 1)]
        folder = self.place.new_folder("checkout")
        shutil.copytree(REPO / ".ci", folder / ".ci")
        for all_said, all_status, fresh_said, fresh_status, last, status in cases:
            with self.subTest(all_said=all_said, all_status=all_status, fresh_said=fresh_said):
                test = folder / "test"
                test.write_text(f'#!/bin/sh\nif [ "$1" = --fresh ]; then echo "{fresh_said}"; exit {fresh_status}; fi\n'
                                f'echo "{all_said}"; exit {all_status}\n', encoding="utf-8")
                test.chmod(0o755)
                self.assertEqual(run("bash", ".ci/run", cwd=folder), (status, f"{all_said}\n{fresh_said}\n{last}\n"))


if __name__ == "__main__":
    main()
