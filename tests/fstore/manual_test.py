#!/usr/bin/env python3
"""The manual pages: their examples do what they show, and they tell of every option."""

import os
import pathlib
import re
import shutil
import subprocess

import support
from support import FstoreTest, PROGRAM

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "man/fstore.1.scd").read_text(encoding="utf-8")


def examples():
    """The commands of the examples, and what each is said to print."""
    found = []
    for block in PAGE.split("# EXAMPLES")[1].split("# SEE ALSO")[0].split("```")[1::2]:
        for line in block.strip("\n").splitlines():
            if line.startswith("$ "):
                found.append((line[2:], ""))
            else:
                command, output = found[-1]
                found[-1] = (command, output + line + "\n")
    return found


class ExamplesTest(FstoreTest):
    def test_print_what_they_say(self):
        shutil.copy(ROOT / "tests/fstore/data/server.p12", self.folder)
        env = support.environment(
            FSTORE_PASSWORD="p", FSTORE_IN_PASSWORD="secret",
            PATH=f"{pathlib.Path(PROGRAM).parent}:{os.environ['PATH']}")
        self.assertGreater(len(examples()), 7)
        for command, output in examples():
            run = subprocess.run(["bash", "-c", command], cwd=self.folder, env=env, text=True,
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                                 timeout=support.SECONDS)
            self.assertEqual((0, output), (run.returncode, run.stdout), command)


class OptionsTest(FstoreTest):
    def commands(self, *above):
        """The commands below these words, down to those that have none below them."""
        below = self.run_tool(*above, "--help").text.partition("Subcommands")[2]
        names = re.findall(r"^  ([\w-]+)  ", below, re.MULTILINE)
        return [found for name in names for found in self.commands(*above, name)] or [above]

    def options(self, *command):
        return set(re.findall(r"--[a-z][a-z-]+", self.run_tool(*command, "--help").text))

    def test_every_option_of_every_command_is_told(self):
        commands = self.commands()
        self.assertGreater(len(commands), 20)
        for command in [(), *commands]:
            name = " ".join(command)
            section = re.split(rf"^## {name}\b", PAGE, 1, re.MULTILINE)[1].split("\n## ")[0] \
                if command else PAGE
            for option in self.options(*command) - {"--help"}:
                self.assertIn(option, section, name)

    def test_no_option_is_invented(self):
        known = set().union(*map(lambda command: self.options(*command), [(), *self.commands()]))
        told = set(re.findall(r"--[a-z][a-z-]+", PAGE))
        self.assertEqual(set(), told - known)


class ExitStatusTest(FstoreTest):
    def test_every_exit_code_is_told(self):
        source = (ROOT / "lib/base/error.cpp").read_text(encoding="utf-8")
        self.assertEqual(18, len(re.findall(r"^    \{k\w+, \"", source, re.MULTILINE)))
        told = re.findall(r"^[\[|].*\*(\d+)\*", PAGE.split("# EXIT STATUS")[1], re.MULTILINE)
        self.assertEqual(["0", "1", "2", "3", "4", "5", "6", "9", "14", "33", "35", "36", "40",
                          "50", "59", "74", "125", "130"], told)


if __name__ == "__main__":
    support.main()
