#!/usr/bin/env python3
"""docs/coming-from.md: each command of ours on the page does its work, in the page's order."""

import os
import pathlib
import re
import shutil
import subprocess

import support
from pki import openssl
from support import FstoreTest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs/coming-from.md").read_text(encoding="utf-8")
ROW = re.compile(r"^\| (`.+) \| `(fstore .+)` \|$", re.MULTILINE)


def commands(tool):
    """Theirs and ours, of the section of this tool."""
    section = re.split(rf"^## {tool}$", PAGE, 1, re.MULTILINE)[1].split("\n## ")[0]
    rows = section.split("|---|---|\n")[1].strip().splitlines()
    found = ROW.findall(section)
    assert len(rows) == len(found), section
    return found


class ComingFromTest(FstoreTest):
    def setUp(self):
        super().setUp()
        shutil.copy(ROOT / "tests/fstore/data/server.p12", self.folder)
        self.write("secret.txt", "secret\n")
        openssl("req", "-x509", "-newkey", "ed25519", "-nodes", "-subj", "/CN=Root", "-keyout",
                "/dev/null", "-out", self.folder / "root.pem")

    def run_section(self, tool):
        env = support.environment(
            FSTORE_PASSWORD=support.PASSWORD, FSTORE_IN_PASSWORD="secret", FSTORE_OUT_PASSWORD="out",
            FSTORE_NEW_PASSWORD=support.PASSWORD + "2",
            PATH=f"{pathlib.Path(support.PROGRAM).parent}:{os.environ['PATH']}")
        rows = commands(tool)
        self.assertEqual(10, len(rows))
        if not any(" init" in ours for _, ours in rows):
            self.init()
        for theirs, ours in rows:
            run = subprocess.run(["bash", "-c", ours], cwd=self.folder, env=env, text=True,
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, check=False, timeout=support.SECONDS)
            self.assertEqual(0, run.returncode, f"{ours}\n{run.stdout}")
            self.assertNotIn("warning", run.stdout, ours)
            self.assertNotIn("fstore", theirs)
            if " passwd" in ours:
                env["FSTORE_PASSWORD"] = env["FSTORE_NEW_PASSWORD"]

    def test_openssl(self):
        self.run_section("openssl")
        for name in "www.csr", "dev.p12", "plain.key":
            self.assertTrue((self.folder / name).exists(), name)

    def test_keytool(self):
        self.run_section("keytool")
        self.assertEqual((self.folder / "root.pem").read_bytes(),
                         (self.folder / "copy.pem").read_bytes())

    def test_certutil(self):
        self.run_section("certutil")

    def test_pass(self):
        self.run_section("pass")
        self.assertEqual(b"secret\n", self.body("settings/bob"))

    def test_gocryptfs(self):
        self.run_section("gocryptfs")

    def test_no_other_section(self):
        self.assertEqual(["openssl", "keytool", "certutil", "pass", "gocryptfs"],
                         re.findall(r"^## (.+)$", PAGE, re.MULTILINE))


if __name__ == "__main__":
    support.main()
