#!/usr/bin/env python3
"""docs/security.md: each test that it names is there, and is played by somebody."""

import re
import unittest

from trabex_system import REPO, main

PAGE = REPO / "docs" / "security.md"
_NAME = re.compile(r"`((?:tests|fuzz|bench|scripts)/[^`]+)`")


class SecurityPage(unittest.TestCase):
    def setUp(self):
        self.text = PAGE.read_text(encoding="utf-8")

    def test_what_it_names_is_there(self):
        names = set(_NAME.findall(self.text))
        self.assertGreater(len(names), 30)
        for name in sorted(names):
            with self.subTest(name=name):
                path = REPO / name
                self.assertTrue(path.exists())
                if path.suffix == ".cpp" and name.startswith("tests/"):
                    self.assertRegex(path.read_text(encoding="utf-8"), r"(?m)^TEST(_F|_P)?\(")

    def test_full_ones_are_played(self):
        played = (REPO / "scripts" / "run-tests").read_text(encoding="utf-8")
        for name in _NAME.findall(self.text):
            if name.startswith("tests/system/full_"):
                self.assertIn(f'"{name.rsplit("/", 1)[1]}"', played)

    def test_each_promise_names_its_tests(self):
        promises = 0
        for table in re.findall(r"\| promise \| tests \|\n\|---\|---\|\n((?:\|.*\|\n)+)", self.text):
            for row in table.splitlines():
                promises += 1
                promise, tests = row.strip("| ").rsplit(" | ", 1)
                self.assertTrue(promise)
                self.assertTrue(_NAME.search(tests), row)
        self.assertGreater(promises, 15)

    def test_security_md_points_there(self):
        self.assertIn("(docs/security.md)", (REPO / "SECURITY.md").read_text(encoding="utf-8"))


if __name__ == "__main__":
    main()
