#!/usr/bin/env python3
"""completion: what the shells offer is what the program takes."""

import pathlib
import shutil
import subprocess

import support
from support import FstoreTest, InitialisedTest, PROGRAM


class CompletionTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for address in ("settings/first", "settings/second one", "keys/first", "lsps/only"):
            run = support.fstore("-D", folder, "put", address, "-", "--plain-body", stdin=b"x")
            assert run.code == 0, run.message

    def answer(self, *words, **more):
        """What is offered for the last word: the line about files, and the words."""
        lines = self.run_tool("complete", len(words), "--", "fstore", *words,
                              password=None, **more).text.splitlines()
        return lines[0], [line.split("\t")[0] for line in lines[1:]]

    def words(self, *words, **more):
        files, offered = self.answer(*words, **more)
        self.assertEqual(":words", files)
        return offered


class AnswerTest(CompletionTest):
    def test_commands(self):
        commands = self.words("")
        for command in ("init", "import", "export", "backup", "restore", "completion", "ls"):
            self.assertIn(command, commands)
        self.assertNotIn("complete", commands)
        self.assertEqual(["export"], self.words("ex"))
        self.assertEqual(["export"], self.words("--json", "-q", "ex"))
        self.assertEqual(["export"], self.words("-D", "ls", "ex"))

    def test_commands_below_a_command(self):
        self.assertEqual(["ls", "add", "rm", "test", "raw", "reset"], self.words("key", ""))
        self.assertEqual(["rm", "raw", "reset"], self.words("key", "-q", "r"))
        self.assertIn("--sheet", self.words("key", "add", "--"))
        self.assertNotIn("--sheet", self.words("key", "rm", "--"))
        self.assertEqual(1, self.words("key", "add", "--key").count("--key-file"))
        self.assertIn("--drop-others", self.words("passwd", "--d"))

    def test_every_command_of_the_help_is_offered(self):
        text = self.run_tool("--help").text
        listed = [line.split()[0] for line in text.split("Subcommands:")[1].splitlines()
                  if line.startswith("  ") and not line.startswith("   ")]
        self.assertGreater(len(listed), 15)
        self.assertEqual(sorted(listed), sorted(self.words("")))

    def test_options_of_the_command_and_of_all(self):
        self.assertEqual(["--output", "--out-password-file", "--out-password-fd"],
                         self.words("export", "--out"))
        self.assertEqual(["--json"], self.words("export", "--js"))
        self.assertIn("--dir", self.words("--"))
        self.assertNotIn("--chain", self.words("--"))

    def test_values(self):
        self.assertEqual(["pem", "p12", "p7"], self.words("export", "--format", "p"))
        self.assertEqual(["--format=pem", "--format=p12", "--format=p7"], self.words("export", "--format=p"))
        self.assertEqual(["pem", "p12", "p7"], self.words("export", "--format", "=", "p"))
        self.assertEqual(["pem", "der", "p12", "p7"], self.words("export", "--format", "="))
        self.assertEqual(["always"], self.words("--color", "al"))
        self.assertEqual(["name", "expiry", "subject"], self.words("ls", "--sort", ""))
        self.assertEqual(["bash", "zsh", "fish"], self.words("completion", ""))
        self.assertEqual([], self.words("--lock-timeout", ""))

    def test_every_value_is_taken(self):
        for option in ("--format", "--color", "--sort"):
            command = {"--format": ("export", "lsps/only"), "--color": ("ls",),
                       "--sort": ("ls",)}[option]
            values = self.words(*command, option, "")
            self.assertGreater(len(values), 2)
            for value in values:
                run = support.fstore(*command, option, value, cwd=self.folder)
                self.assertNotEqual(2, run.code, run.message)

    def test_files(self):
        for words in [("import", ""), ("import", "a", "b"), ("put", "a", ""), ("backup", ""),
                      ("export", "-o", ""), ("--password-file", ""), ("export", "-o", "=")]:
            self.assertEqual((":files", []), self.answer(*words), words)
        self.assertEqual((":folders", []), self.answer("--dir", ""))
        self.assertEqual((":folders", []), self.answer("-D", "x"))

    def test_records(self):
        everything = ["keys/first", "lsps/only", "settings/first", "settings/second one"]
        self.assertEqual(everything, self.words("show", ""))
        self.assertEqual(["settings/first", "settings/second one"], self.words("rm", "set"))
        self.assertEqual(everything, self.words("rm", "keys/first", ""))
        self.assertEqual([], self.words("show", "keys/first", ""))
        self.assertEqual(["keys/first"], self.words("mv", "key"))

    def test_bare_names_that_are_unique(self):
        self.assertEqual(["only"], self.words("show", "on"))
        self.assertEqual(["second one"], self.words("show", "sec"))
        self.assertEqual([], self.words("show", "fir"))

    def test_folders_of_the_database(self):
        self.assertEqual(["certificates", "certificates/local", "certificates/remote"],
                         self.words("ls", "cer"))
        self.assertEqual(["crls", "crm"], self.words("import", "a", "--to", "cr"))
        self.assertEqual(["crls", "crm"], self.words("mv", "keys/first", "cr"))

    def test_database_that_the_line_names(self):
        for words in [("-D", self.folder), (f"-D{self.folder}",), ("--dir", self.folder),
                      (f"--dir={self.folder}",), ("--dir", "=", self.folder),
                      ("-q", "-D", self.folder)]:
            run = support.fstore("complete", len(words) + 2, "--", "fstore", *words, "show", "on",
                                 cwd="/")
            self.assertEqual(":words\nonly\n", run.text, words)
        run = support.fstore("complete", 2, "--", "fstore", "show", "on", cwd="/",
                             env={"FSTORE_DIR": str(self.folder)})
        self.assertEqual(":words\nonly\n", run.text)

    def test_behind_two_dashes_all_are_arguments(self):
        self.assertEqual([], self.words("show", "--", "-"))
        self.assertEqual(["lsps/only"], self.words("show", "--", "l"))

    def test_changes_nothing(self):
        before = self.files()
        (self.folder / "db/settings/first.dsc").rename(self.folder / "db/settings/first.dsc.$o$")
        moved = self.files()
        self.assertNotEqual(before, moved)
        self.words("show", "")
        self.assertEqual(moved, self.files())


class NoDatabaseTest(FstoreTest):
    def test_offers_nothing_and_says_nothing(self):
        run = self.run_tool("complete", 2, "--", "fstore", "show", "", password=None)
        self.assertEqual((":words\n", ""), (run.text, run.message))
        run = self.run_tool("complete", 4, "--", "fstore", "-D", "/nowhere", "show", "")
        self.assertEqual(":words\n", run.text)


class ShellTest(CompletionTest):
    """A script, in the shell that it is for."""

    def shell(self, command, *args):
        path = {"PATH": f"{pathlib.Path(PROGRAM).parent}:/usr/bin:/bin", "HOME": str(self.folder)}
        run = subprocess.run([*command, *args], cwd=self.folder, capture_output=True, text=True,
                             env=support.environment(**path), timeout=support.SECONDS,
                             check=False)
        self.assertEqual((0, ""), (run.returncode, run.stderr))
        return run.stdout.splitlines()


class BashTest(ShellTest):
    def bash(self, *words):
        return self.shell(["bash", "--norc", "-c", 'source <(fstore completion bash)\n'
                           'COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))\n_fstore\n'
                           'printf "%s\\n" "${COMPREPLY[@]}"', "bash"], "fstore", *words)

    def test_bash(self):
        self.assertEqual(["export"], self.bash("ex"))
        self.assertEqual(["keys/first", "lsps/only", "settings/first", "settings/second\\ one"],
                         self.bash("show", ""))
        self.assertEqual(["pem", "p12", "p7"], self.bash("export", "--format", "p"))
        self.write("file one", "")
        self.assertEqual(["file one"], self.bash("import", "fi"))
        self.assertEqual(["db"], self.bash("-D", ""))
        self.assertEqual([""], self.bash("show", "nothing"))

    def test_bash_script_is_registered(self):
        registered = self.shell(["bash", "--norc", "-c",
                                 "source <(fstore completion bash); complete -p fstore"])
        self.assertEqual(["complete -F _fstore fstore"], registered)

    def test_script_for_programs(self):
        document = self.run_tool("completion", "fish", "--json").document
        self.assertIn("complete -c fstore", document["script"])
        self.fails(2, "usage", "completion", "csh")


# The other two are installed for the further checks only.
if shutil.which("zsh"):
    class ZshTest(ShellTest):
        def zsh(self, *words):
            return self.shell(["zsh", "-f", "-c", 'compdef() { [[ "$*" == "_fstore fstore" ]] }\n'
                               'compadd() { print -rl -- "${plain[@]}" }\n'
                               '_files() { print -r -- "files $*" }\n'
                               'source <(fstore completion zsh)\n'
                               'words=("${(@q)@}") CURRENT=$#\n_fstore', "zsh"], "fstore", *words)

        def test_zsh(self):
            self.assertEqual(["export"], self.zsh("ex"))
            self.assertEqual(["keys/first", "lsps/only", "settings/first", "settings/second one"],
                             self.zsh("show", ""))
            self.assertEqual(["--format=pem", "--format=p12", "--format=p7"], self.zsh("export", "--format=p"))
            self.assertEqual(["files "], self.zsh("import", "fi"))
            self.assertEqual(["files -/"], self.zsh("-D", ""))


if shutil.which("fish"):
    class FishTest(ShellTest):
        def fish(self, *words):
            line = " ".join(["fstore", *words])
            return [word.split("\t")[0] for word in
                    self.shell(["fish", "--no-config", "-c", "fstore completion fish | source\n"
                                "complete -C $argv[1]"], line)]

        def test_fish(self):
            self.assertEqual(["export"], self.fish("ex"))
            self.assertEqual(["keys/first", "lsps/only", "settings/first", "settings/second one"],
                             self.fish("show", ""))
            self.write("file", "")
            self.assertEqual(["file"], self.fish("import", "fi"))


if __name__ == "__main__":
    support.main()
