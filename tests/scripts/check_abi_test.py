#!/usr/bin/env python3
"""check_abi.sh finds what would break programs that are built already.

Needs abigail-tools, and so is a step of ./test --full and no entry of ctest.
"""

import pathlib
import shutil
import subprocess
import sys
import unittest

from support import SCRIPTS, ScriptTest

LIBRARY = pathlib.Path(sys.argv.pop(1)).resolve() if len(sys.argv) > 1 else None

# What changes in the header, and what is said about it.
CHANGES = {
    "the type of an argument": (
        "FILESTORE_API void filestore_close(filestore_db* db);",
        "FILESTORE_API void filestore_close(uint64_t db);",
        "parameter 1 of type"),
    "the type of a result": (
        "FILESTORE_API uint32_t filestore_version(void);",
        "FILESTORE_API uint64_t filestore_version(void);",
        "return type changed"),
    "a function that is gone": (
        "FILESTORE_API void filestore_close(filestore_db* db);", "", "filestore_close"),
    "a function more": (
        "FILESTORE_API uint32_t filestore_version(void);",
        "FILESTORE_API uint32_t filestore_version(void);\n"
        "FILESTORE_API uint32_t filestore_age(void);", "filestore_age"),
    "a member in between": (
        "    uint32_t slot;     /* try this slot only; 0: whichever fits */",
        "    uint64_t slot;", "type size changed"),
    "a constant": ("FILESTORE_READ_ONLY = 2", "FILESTORE_READ_ONLY = 4", "FILESTORE_READ_ONLY"),
}


class CheckAbiTest(ScriptTest):
    """In a tree that has the script, the header and what is said of it, and nothing else."""

    def setUp(self):
        super().setUp()
        for folder in ("scripts", "capi"):
            (self.root / folder).mkdir()
        shutil.copy(SCRIPTS / "check_abi.sh", self.root / "scripts")
        for name in ("filestore.h", "filestore.map", "filestore.abi"):
            shutil.copy(SCRIPTS.parent / "capi" / name, self.root / "capi")

    def check(self, *options):
        run = subprocess.run([self.root / "scripts/check_abi.sh", *options, LIBRARY],
                             capture_output=True, text=True, check=False)
        return run.returncode, run.stdout + run.stderr

    def test_finds_nothing_in_what_has_not_changed(self):
        status, output = self.check()
        self.assertEqual(0, status, output)

    def test_finds_each_change(self):
        header = self.root / "capi/filestore.h"
        text = header.read_text(encoding="utf-8")
        for name, (old, new, told) in CHANGES.items():
            with self.subTest(name):
                self.assertEqual(1, text.count(old))
                header.write_text(text.replace(old, new), encoding="utf-8")
                status, output = self.check()
                self.assertEqual(1, status, output)
                self.assertIn(told, output)

    def test_an_update_says_what_is_there_now(self):
        before = (self.root / "capi/filestore.abi").read_text(encoding="utf-8")
        (self.root / "capi/filestore.abi").write_text("", encoding="utf-8")
        status, output = self.check("--update")
        self.assertEqual(0, status, output)
        self.assertEqual(before, (self.root / "capi/filestore.abi").read_text(encoding="utf-8"))


if __name__ == "__main__":
    unittest.main()
