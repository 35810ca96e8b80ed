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
    for line in PAGE.split("# EXAMPLES")[1].split("# SEE ALSO")[0].splitlines():
        if line.startswith("\t$ "):
            found.append((line[3:], ""))
        elif line.startswith("\t"):
            command, output = found[-1]
            found[-1] = (command, output + line[1:] + "\n")
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
    def test_every_option_of_every_command_is_told(self):
        commands = re.findall(r"^  (\w+)  ", self.run_tool("--help").text.split("Subcommands")[1],
                              re.MULTILINE)
        self.assertGreater(len(commands), 15)
        for command in ["", *commands]:
            text = self.run_tool(*filter(None, [command]), "--help").text
            section = PAGE.split(f"## {command}", 1)[1].split("\n## ")[0] if command else PAGE
            for option in re.findall(r"--[a-z][a-z-]+", text):
                if option != "--help":
                    self.assertIn(option, section, command)

    def test_no_option_is_invented(self):
        known = set()
        for command in re.findall(r"^## ([a-z]+)", PAGE, re.MULTILINE):
            known |= set(re.findall(r"--[a-z][a-z-]+", self.run_tool(command, "--help").text))
        known |= set(re.findall(r"--[a-z][a-z-]+", self.run_tool("--help").text))
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
