#!/usr/bin/env python3
"""docs/python.md: its examples print what it says. And the example program does what it promises."""

import contextlib
import io
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import filestore
import support

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs/python.md").read_text(encoding="utf-8")
EXAMPLE = re.compile(r"```python\n(.*?)```\n```\n(.*?)```\n", re.DOTALL)


class PageTest(unittest.TestCase):
    def test_examples_print_what_they_say(self):
        examples = EXAMPLE.findall(PAGE)
        self.assertEqual(PAGE.count("```python"), len(examples))
        self.assertGreater(len(examples), 5)
        names = {}
        with tempfile.TemporaryDirectory() as folder, contextlib.chdir(folder):
            for source, expected in examples:
                printed = io.StringIO()
                with contextlib.redirect_stdout(printed):
                    exec(compile(source, "docs/python.md", "exec"), names)
                self.assertEqual(expected, printed.getvalue(), source)

    def test_names_are_real(self):
        for name in re.findall(r"`(\w+)\(\)`", PAGE):
            self.assertTrue(any(hasattr(each, name) for each in
                                (filestore, filestore.Database, filestore.Record, os)), name)
        for name in filestore.__all__:
            self.assertTrue(hasattr(filestore, name), name)


class ExampleTest(unittest.TestCase):
    def notes(self, *arguments):
        return subprocess.run([sys.executable, "-B", ROOT / "examples/notes.py", *arguments],
                              capture_output=True, text=True, check=False, timeout=60)

    def test_keeps_a_note(self):
        with tempfile.TemporaryDirectory() as folder, contextlib.chdir(folder):
            pathlib.Path("password").write_text("correct horse\n", encoding="utf-8")
            pathlib.Path("wrong").write_text("another\n", encoding="utf-8")
            run = self.notes("keys", "password", "milk", "two bottles")
            self.assertEqual((0, "", ""), (run.returncode, run.stdout, run.stderr))
            run = self.notes("keys", "password", "milk")
            self.assertEqual((0, "two bottles\n", ""), (run.returncode, run.stdout, run.stderr))
            run = self.notes("keys", "wrong", "milk")
            self.assertEqual((6, ""), (run.returncode, run.stdout))
            self.assertIn("wrong password", run.stderr)
            run = self.notes("keys", "password", "bread")
            self.assertEqual(50, run.returncode)


if __name__ == "__main__":
    support.main()
