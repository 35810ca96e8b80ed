#!/usr/bin/env python3
"""The command line: options before and after the command, usage errors, help."""

import os

import support
from support import FstoreTest, InitialisedTest

COMMANDS = ["init", "ls", "show", "set", "unset", "mv", "rm", "put", "get", "passwd", "check", "dump",
            "info"]


class UsageTest(FstoreTest):
    def test_wrong_command_lines_exit_with_2(self):
        for args in [(), ("nonsense",), ("ls", "--nonsense"), ("show",), ("put", "keys/a"),
                     ("info", "extra"), ("--color", "sometimes", "ls"),
                     ("--lock-timeout", "-1", "ls"), ("--password-fd", "-1", "ls"),
                     ("init", "--cost", "13"), ("init", "--cost", "23"),
                     ("ls", "--sort", "size"), ("ls", "--has-key", "--no-key"), ("-D",)]:
            with self.subTest(args=args):
                run = self.run_tool(*args, code=2)
                self.assertEqual(b"", run.out)
                self.assertIn(" --help`", run.message)

    def test_what_stands_behind_two_dashes_is_no_option(self):
        for command in ("metrics", "check", "version", "ls settings"):
            run = self.run_tool(*command.split(), "--", "-q", code=2)
            self.assertIn('"-q" is one argument too many', run.message)
        self.init()
        self.write("-q", "a body")
        self.run_tool("put", "settings/-q", "--", "-q")
        self.assertEqual(b"a body", self.body("settings/-q"))
        self.assertIn("there is no record -x", self.run_tool("show", "--", "-x", code=50).message)

    def test_what_is_wrong_is_said_in_the_words_of_who_typed_it(self):
        before_it = '"--" stands in front of the arguments of a command; name the command before it'
        for args, message in (
                ("-- ls", before_it), ("-D . -- ls", before_it), ("key -- ls", before_it),
                ("--", 'name a command, such as "fstore ls"'), ("key --", '"fstore key" needs one of'),
                ("put --", '"fstore put" needs ADDRESS'), ("backup --", '"fstore backup" needs '),
                ("nosuch -- ls", 'there is no command "fstore nosuch"'), ("deploy -- x", '"fstore deploy" needs '),
                ("get -- a b", '"b" is one argument too many'),
                ("ls -D a -D b", "--dir is given more than once"),
                ("get a -o x -o y", "--output is given more than once"),
                ("check --repair=maybe", "--repair takes no value"),
                ("put --plain-body=no a b", "--plain-body takes no value"),
                ("ls --json=3", "--json takes no value"), ("ls --json=", "--json takes no value"),
                ("rm --force= settings/a", "--force takes no value"),
                ("rm -f=no settings/a", 'a flag of one letter takes no value, such as "=no"'),
                ("--dir= ls", "--dir names no folder"), ("ls --zz=", "has no option --zz"),
                ("get settings/a --output= word", '"word" is one argument too many'),
                ("ls --sort= expiry", '--sort: "" is not'),
                ("--- ls", 'has no option ---'), ("--=x", 'has no option --=x')):
            with self.subTest(args):
                run = self.run_tool(*args.split(), code=2)
                self.assertIn(message, run.message)
                self.assertNotIn("did you mean", run.message)
                self.assertIn("; see `fstore", run.message)
        self.assertIn("Usage: fstore [OPTIONS] COMMAND", self.run_tool("--help").text)

    def test_usage_errors_are_json_when_asked_for(self):
        self.fails(2, "usage", "nonsense")
        run = self.run_tool("ls", "--nonsense", "--json", code=2)
        self.assertEqual("usage", run.error["name"])

    def test_filters_that_cannot_be_read_exit_with_2(self):
        for args in [("--expires-within", "soon"), ("--serial", "xyz"), ("--sha256", "g"),
                     ("--attr", "nonsense")]:
            with self.subTest(args=args):
                self.assertIn(args[1], self.fails(2, "usage", "ls", *args))

    def test_help_names_all_commands(self):
        run = self.run_tool("--help", password=None)
        for command in COMMANDS:
            self.assertRegex(run.text, rf"(?m)^  {command} ")
            self.assertIn("Usage", self.run_tool(command, "--help", password=None).text)

    def test_version(self):
        self.assertRegex(self.run_tool("--version").text, r"\Afstore \d+\.\d+\.\d+\n\Z")


class GlobalOptionsTest(InitialisedTest):
    def test_stand_before_and_after_the_command(self):
        here = str(self.folder)
        for args in [("-D", here, "--json", "info"), ("info", "--json", "-D", here),
                     ("--dir", here, "info", "--json")]:
            run = support.fstore(*args, cwd="/")
            self.assertEqual(0, run.code, run.message)
            self.assertEqual(here + "/db", run.document["database"])

    def test_folder_comes_from_the_environment(self):
        run = support.fstore("info", "--json", cwd="/", env={"FSTORE_DIR": self.folder})
        self.assertEqual(f"{self.folder}/db", run.document["database"])

    def test_folder_of_the_command_line_goes_first(self):
        run = support.fstore("info", "-D", self.folder, cwd="/", env={"FSTORE_DIR": "/nonexistent"})
        self.assertEqual(0, run.code)

    def test_a_folder_without_database_is_missing(self):
        (self.folder / "empty").mkdir()
        self.assertIn("fstore init", self.fails(50, "missing", "-D", "empty", "ls"))
        self.fails(50, "missing", "-D", "nowhere", "ls")
        self.assertFalse((self.folder / "empty" / "db").exists())

    def test_quiet_tells_of_failures_only(self):
        run = self.run_tool("-q", "put", "-f", "settings/a", "-", stdin=b"x")
        self.assertEqual((b"", b""), (run.out, run.err))
        self.assertNotEqual(b"", self.run_tool("-q", "get", "nothing", code=50).err)

    def test_verbose_tells_more(self):
        self.put("settings/a", b"x")
        self.assertIn("removed", self.run_tool("-v", "rm", "settings/a").message)

    def test_modules_that_are_missing_are_told(self):
        self.fails(40, "no-service", "ls", env={"FILESTORE_MODULES": "/nonexistent"})


class StartTest(InitialisedTest):
    """Processor time, the best of some runs: what else the machine does has no part in it."""

    SLACK = 20 if support.SANITIZED else 4

    def seconds(self, *args):
        best = None
        for _ in range(5):
            process = support.start(*args, cwd=self.folder, password=None)
            with process.stdin, process.stdout, process.stderr:
                process.stdout.read()
                _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
            self.assertEqual(0, process.returncode)
            used = usage.ru_utime + usage.ru_stime
            best = used if best is None else min(best, used)
        return best

    def test_takes_milliseconds(self):
        for args, most in [(("--version",), 0.010), (("ls",), 0.025), (("info",), 0.025)]:
            self.assertLess(self.seconds(*args), most * self.SLACK, args)

    def test_a_listing_takes_microseconds_a_record(self):
        count = 3000
        for number in range(count):
            (self.folder / f"db/certificates/remote/host{number}.dsc").write_text(
                f"00000004 00000103 CN=host{number}\n00000004 00000107 2999-01-01T00:00:00Z\n")
        # So many are read by several threads; nothing is lost or out of order between them.
        names = sorted(f"certificates/remote/host{number}" for number in range(count))
        self.assertEqual(names, self.records(password=None))
        self.assertEqual([], self.run_tool("ls", "--has-key", "--json").document["records"])
        # 15 microseconds is what a second and a half for 100,000 of them leaves.
        self.assertLess(self.seconds("ls"), (0.025 + count * 15e-6) * self.SLACK)


if __name__ == "__main__":
    support.main()
