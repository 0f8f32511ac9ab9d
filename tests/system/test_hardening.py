#!/usr/bin/env python3
"""What the built program is hardened with: read from its file, and from how its parts were compiled."""

import json
import platform
import re
import subprocess

from trabex_system import REPO, Options, Scenario, main, only_ipv4, program

# The first instruction of a function that may be called by its address.
LANDING = {"x86_64": bytes.fromhex("f30f1efa"), "aarch64": bytes.fromhex("5f2403d5")}


def readelf(*arguments):
    return subprocess.run(["readelf", "-W", *arguments, program("Trabex")], stdout=subprocess.PIPE, text=True,
                          check=True).stdout


@only_ipv4("no client comes")
class Hardening(Scenario):
    def setUp(self):
        super().setUp()
        if Options.through != "trabex":
            self.skipTest("needs Trabex itself")
        self.dynamic = readelf("--dynamic")

    def test_addresses_are_not_known_beforehand(self):
        self.assertRegex(readelf("--file-header"), r"Type: +DYN ")
        self.assertRegex(self.dynamic, r"\(FLAGS_1\).*\bPIE\b")
        self.assertNotIn("TEXTREL", self.dynamic)

    def test_tables_of_the_linker_are_read_only(self):
        self.assertIn(" GNU_RELRO ", readelf("--program-headers"))
        self.assertRegex(self.dynamic, r"\(FLAGS_1\).*\bNOW\b")

    def test_nothing_is_written_and_run(self):
        stack = re.search(r"GNU_STACK(?: +0x[0-9a-f]+){5} +(\S+)", readelf("--program-headers"))
        self.assertEqual(stack[1], "RW")
        loaded = re.findall(r"LOAD(?: +0x[0-9a-f]+){5} +([RWE ]{3})", readelf("--program-headers"))
        self.assertGreater(len(loaded), 2)
        self.assertEqual([flags for flags in loaded if "W" in flags and "E" in flags], [])

    def test_libraries_are_those_of_the_system(self):
        self.assertIn("(NEEDED)", self.dynamic)
        self.assertNotRegex(self.dynamic, r"\((RPATH|RUNPATH)\)")

    def test_stacks_are_guarded(self):
        self.assertRegex(readelf("--dyn-syms"), r"\b__stack_chk_fail\b")

    def test_calls_of_the_library_are_checked(self):
        """Most lengths are known while compiling; some calls are left that have to be checked when they are made."""
        self.assertRegex(readelf("--dyn-syms"), r"\b__(?!stack_)\w+_chk\b")

    def test_calls_land_where_they_may(self):
        """Each virtual function and each other one that is called by its address begins with the mark for it."""
        if platform.machine() not in LANDING:
            self.skipTest(f"{platform.machine()} has no such mark")
        text = re.search(r"\] \.text +PROGBITS +([0-9a-f]+) +([0-9a-f]+) +([0-9a-f]+)", readelf("--sections"))
        begin, offset, size = (int(number, 16) for number in text.groups())
        code = program("Trabex").read_bytes()[offset:offset + size]
        functions = {int(address, 16) for address in re.findall(
            r" ([0-9a-f]{16}) +\d+ FUNC +(?:GLOBAL|WEAK) +\S+ +\d+ _ZN[A-Z]*6trabex", readelf("--symbols"))}
        self.assertGreater(len(functions), 1000)
        marked = [address for address in functions
                  if code[address - begin:address - begin + 4] == LANDING[platform.machine()]]
        # Parts of functions that are seldom needed stand apart, and are never called by an address.
        self.assertGreater(len(marked), 0.95 * len(functions))

    def test_every_part_is_compiled_so(self):
        commands = json.loads((Options.build / "compile_commands.json").read_text(encoding="utf-8"))
        parts = {entry["file"]: entry["command"] for entry in commands if entry["file"].startswith(f"{REPO}/src/")}
        self.assertGreater(len(parts), 100)
        for file, command in parts.items():
            for wanted in (r"-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=[23]\b", r"-fstack-protector-strong\b", r"-fstack-clash-protection\b", r"-fPIE\b",
                           r"-Wformat-security\b"):
                self.assertRegex(command, wanted, file)


if __name__ == "__main__":
    main()
