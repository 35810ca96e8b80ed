#!/usr/bin/env python3
"""What holds for every command: standard streams that are closed or not read, JSON of one type."""

import json
import os
import re
import subprocess

import support
from pki import openssl
from support import CHEAP, InitialisedTest

HOST = "www.example.com"

# Each command, as it works in the database of the test and prints something with --json.
COMMANDS = {
    "init": ["init"],
    "generate": ["generate", "new", "--type", "ec:P-256"],
    "request": ["request", "web", "-o", "request.pem", "-f"],
    "import": ["import", "good.pem"],
    "ls": ["ls"],
    "show": ["show", "certificates/local/web"],
    "tree": ["tree"],
    "verify": ["verify", "--all"],
    "report": ["report"],
    "metrics": ["metrics"],
    "export": ["export", "certificates/local/web"],
    "ref": ["ref", "keys/web"],
    "deploy": ["deploy", HOST, "--chain", "made/chain.pem", "--key", "made/key.pem"],
    "renew-hook": ["renew-hook", "certbot", HOST, "--chain", "made/chain.pem", "--key",
                   "made/key.pem"],
    "openssl-conf": ["openssl-conf"],
    "set": ["set", "settings/a", "label=x"],
    "unset": ["unset", "settings/a", "0x8001"],
    "mv": ["mv", "settings/b", "settings/c"],
    "cp": ["cp", "settings/a", "settings/d"],
    "mkdir": ["mkdir", "settings/folder"],
    "rm": ["rm", "settings/b"],
    "prune": ["prune"],
    "put": ["put", "settings/new", "good.pem"],
    "get": ["get", "settings/a"],
    "edit": ["edit", "settings/a"],
    "key ls": ["key", "ls"],
    "key test": ["key", "test"],
    "key add": ["key", "add", "--key-file", "key"],
    "key rm": ["key", "rm", "2"],
    "passwd": ["passwd", *CHEAP, "--rewrap"],
    "passwd rotate": ["passwd", *CHEAP, "--rotate", "--drop-others"],
    "check": ["check", "--deep"],
    "backup": ["backup", "saved.tar", "-f"],
    "backup verify": ["backup", "--verify", "whole.tar"],
    "restore": ["-D", "restored", "restore", "whole.tar"],
    "restore list": ["restore", "--list", "whole.tar"],
    "restore over": ["restore", "whole.tar", "--replace"],
    "completion": ["completion", "bash"],
    "dump": ["dump", "settings/a"],
    "info": ["info"],
    "help": ["help"],
    "version": ["version"],
}
# With these the standard output is text though there is --json.
TEXT = ("completion", "help", "metrics")


class CommandsTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        def run(*args, stdin=b""):
            done = support.fstore("-D", folder, *args, stdin=stdin, cwd=folder)
            assert done.code == 0, done.message
        (folder / "good.pem").write_bytes(openssl("genpkey", "-algorithm", "ed25519"))
        run("generate", "web", "--self-signed", "5", "--request", "--subject", "CN=web", "--san",
            HOST)
        run("put", "settings/a", "-", stdin=b"text")
        run("set", "settings/a", "0x8001=x", "0x8002:number=5")
        run("put", "settings/b", "-", "--plain-body", stdin=b"text")
        run("key", "add", "--key-file", folder / "second")
        run("backup", folder / "whole.tar")

    def environment(self):
        return support.environment(FSTORE_PASSWORD=support.PASSWORD, FSTORE_NEW_PASSWORD="new",
                                   EDITOR="echo more >>")

    def run_with(self, name, args, redirection, **more):
        """Runs a copy of the command line, in a copy of the folder."""
        copy = self.folder.parent / f"{self.folder.name}-copy"
        subprocess.run(["rm", "-rf", copy], check=True)
        subprocess.run(["cp", "-a", self.folder, copy], check=True)
        self.addCleanup(subprocess.run, ["rm", "-rf", copy], check=True)
        return subprocess.run(["sh", "-c", f'exec "$0" "$@" {redirection}', support.PROGRAM,
                               *([] if name in TEXT else ["--json"]), *args], cwd=copy,
                              check=False, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE,
                              env=self.environment(), **more)

    def test_each_command_is_here(self):
        listed = re.findall(r"^  ([a-z-]+) +[A-Z]", self.run_tool("--help").text.split(
            "Subcommands:")[1], re.MULTILINE)
        self.assertEqual(set(listed), {name.split()[0] for name in COMMANDS})

    def test_what_cannot_be_printed_is_told(self):
        for name, args in COMMANDS.items():
            with self.subTest(name):
                run = self.run_with(name, args, ">&-")
                self.assertEqual(9, run.returncode, run.stderr)
                self.assertIn(b"Bad file descriptor", run.stderr)

    def test_a_full_disk_is_told(self):
        for name, args in COMMANDS.items():
            with self.subTest(name):
                run = self.run_with(name, args, ">/dev/full")
                self.assertEqual(9, run.returncode, run.stderr)
                self.assertIn(b"No space left on device", run.stderr)

    def test_a_reader_that_goes_away_is_told_nothing(self):
        for name, args in COMMANDS.items():
            with self.subTest(name):
                read, write = os.pipe()
                os.close(read)
                run = self.run_with(name, args, "", stdout=write)
                os.close(write)
                self.assertEqual((9, b""), (run.returncode, run.stderr))

    def collect(self, value, path, kinds):
        if isinstance(value, dict):
            for key, member in value.items():
                kinds.setdefault(key, {}).setdefault(type(member).__name__, path)
                self.collect(member, path, kinds)
        elif isinstance(value, list):
            for element in value:
                self.collect(element, path, kinds)

    def test_a_key_of_json_has_one_type_everywhere(self):
        kinds = {}
        for name, args in COMMANDS.items():
            if name not in TEXT:
                run = self.run_with(name, args, "", stdout=subprocess.PIPE)
                self.assertIn(run.returncode, (0, 3, 5), (name, run.stderr))
                self.collect(json.loads(run.stdout), name, kinds)
        self.assertEqual({}, {key: found for key, found in kinds.items()
                              if len(set(found) - {"NoneType"}) > 1})


if __name__ == "__main__":
    support.main()
