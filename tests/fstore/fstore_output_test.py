#!/usr/bin/env python3
"""What is written where: tables, colours, escapes, JSON, and readers that go away."""

import os
import re
import subprocess

import support
from authority import Authority, request_of_key
from pki import openssl
from support import InitialisedTest
from terminal import Terminal

ESCAPE = "\x1b["


class OutputTest(InitialisedTest):
    LONG = "CN=" + "x" * 200

    @classmethod
    def fill(cls, folder):
        (folder / "db/certificates/local/server.dsc").write_text(
            f"00000004 00000103 {cls.LONG}\n00000004 00000107 2001-01-01T00:00:00Z\n")

    def on_terminal(self, *args, **more):
        terminal = Terminal(args, cwd=self.folder, **more)
        self.addCleanup(terminal.close)
        self.assertEqual(0, terminal.wait(), terminal.seen)
        return terminal.seen

    def test_table_is_never_cut_when_it_is_no_terminal(self):
        self.assertIn(self.LONG, self.run_tool("ls").text)

    def test_table_is_as_wide_as_the_terminal(self):
        for columns in [70, 100, 300]:
            seen = self.on_terminal("ls", "--color", "never", columns=columns)
            widest = max(len(line) for line in seen.splitlines())
            self.assertLessEqual(widest, columns)
            self.assertEqual(columns >= 300, self.LONG in seen)

    def test_colour_rules(self):
        self.assertIn(ESCAPE, self.on_terminal("ls"))
        self.assertNotIn(ESCAPE, self.run_tool("ls").text)
        self.assertIn(ESCAPE, self.run_tool("ls", "--color", "always").text)
        self.assertNotIn(ESCAPE, self.on_terminal("ls", "--color", "never"))
        self.assertNotIn(ESCAPE, self.on_terminal("ls", env={"NO_COLOR": "1"}))
        self.assertIn(ESCAPE, self.on_terminal("ls", env={"NO_COLOR": ""}))
        self.assertIn(ESCAPE, self.on_terminal("ls", "--color", "always", env={"NO_COLOR": "1"}))
        self.assertNotIn(ESCAPE, self.on_terminal("ls", env={"TERM": "dumb"}))
        self.assertNotIn(ESCAPE, self.on_terminal("ls", "--json"))

    def test_expired_is_a_word_too(self):
        self.assertIn("expired", self.run_tool("ls").text)

    def test_control_characters_are_escaped(self):
        name = "evil\x1b[31m"
        (self.folder / f"db/settings/{name}.dsc").write_bytes(
            b"00000004 00000102 label\x1b]0;title\x07\n")
        for args in [("ls",), ("show", f"settings/{name}"), ("dump", f"settings/{name}")]:
            text = self.run_tool(*args).text
            self.assertNotIn("\x1b", text)
            self.assertIn("\\x1b", text)
        self.assertNotIn("\x1b", self.run_tool("show", "settings/\x1bnothing", code=50).message)

    def test_names_that_are_not_utf8(self):
        with open(os.fsencode(self.folder) + b"/db/settings/\xff.dsc", "wb"):
            pass
        self.assertIn("settings/\\xff", self.run_tool("ls", "settings").text)
        record = self.run_tool("ls", "settings", "--json").document["records"][0]
        self.assertEqual("settings/\ufffd", record["address"])
        self.assertEqual(b"settings/\xff".hex(), record["addressBytes"])

    def test_every_document_has_its_schema(self):
        self.put("settings/a", b"x")
        for args in [("ls",), ("show", "a"), ("get", "a"), ("dump", "a"), ("info",), ("check",),
                     ("set", "a", "label=x"), ("unset", "a", "label"), ("put", "-f", "settings/a", "-"),
                     ("rm", "a"), ("init",), ("passwd", *support.CHEAP)]:
            document = self.run_tool("--json", *args, stdin=b"x",
                                     env={"FSTORE_NEW_PASSWORD": "new"}).document
            self.assertEqual("fstore/1", document["schema"], args)
            self.assertEqual("schema", next(iter(document)))

    def test_a_binary_body_does_not_reach_a_terminal(self):
        self.put("settings/a", b"\x1b[2J", "--plain-body")
        terminal = Terminal(["get", "a"], cwd=self.folder)
        self.addCleanup(terminal.close)
        self.assertEqual(2, terminal.wait())
        self.assertNotIn("\x1b[2J", terminal.seen)
        self.assertIn("-o", terminal.seen)

    def test_a_full_disk_is_told(self):
        with open("/dev/full", "wb") as full:
            run = subprocess.run([support.PROGRAM, "ls"], cwd=self.folder, stdout=full,
                                 stderr=subprocess.PIPE, check=False, env=support.environment())
        self.assertEqual(9, run.returncode)
        self.assertIn(b"No space left", run.stderr)

    def test_what_was_done_is_told_though_the_disk_is_full(self):
        with open("/dev/full", "wb") as full:
            run = subprocess.run([support.PROGRAM, "--json", "passwd", *support.CHEAP],
                                 cwd=self.folder, stdout=full, stderr=subprocess.PIPE, check=False,
                                 env=support.environment(FSTORE_PASSWORD=support.PASSWORD,
                                                         FSTORE_NEW_PASSWORD="new"))
        self.assertEqual(9, run.returncode)
        self.assertIn(b"all else that the command does is done", run.stderr)
        self.run_tool("key", "test", password="new")

    def test_a_reader_that_goes_away_is_told_nothing(self):
        read, write = os.pipe()
        os.close(read)
        run = subprocess.run([support.PROGRAM, "ls"], cwd=self.folder, stdout=write,
                             stderr=subprocess.PIPE, check=False, env=support.environment())
        os.close(write)
        self.assertEqual((9, b""), (run.returncode, run.stderr))

    def test_equal_warnings_are_said_once_and_counted(self):
        self.write("no-key.pem", support.PASSWORD)
        self.write("good.pem", openssl("genpkey", "-algorithm", "ed25519"))
        files = ["good.pem"] + ["no-key.pem"] * 5
        warnings = [line.split("warning: ")[1] for line in
                    self.run_tool("import", *files, code=5).message.splitlines()
                    if "warning" in line]
        self.assertEqual([warnings[0], "5 times: " + warnings[0]], warnings)
        self.write("good.pem", openssl("genpkey", "-algorithm", "ed25519"))
        document = self.run_tool("import", "--json", *files, code=5).document
        self.assertEqual(5, len(document["failures"]))

    def test_closed_streams_do_no_harm(self):
        before = self.files()
        run = subprocess.run(["sh", "-c", 'exec "$0" set server label=x <&- >&- 2>&-',
                              support.PROGRAM], cwd=self.folder, check=False,
                             env=support.environment())
        self.assertEqual(0, run.returncode)
        changed = {name for name, contents in self.files().items()
                   if before.get(name) != contents}
        self.assertEqual({"db/certificates/local/server.dsc"}, changed)
        self.assertNotIn("fstore", (self.folder / "db/certificates/local/server.dsc").read_text())

    def run_closed(self, closed, *args):
        return subprocess.run(["sh", "-c", f'exec "$0" "$@" {closed}', support.PROGRAM, *args],
                              cwd=self.folder, check=False, capture_output=True,
                              env=support.environment(FSTORE_PASSWORD=support.PASSWORD))

    def test_a_closed_input_is_not_an_empty_one(self):
        self.put("settings/a", b"body")
        for args in [("put", "-f", "settings/a", "-"), ("put", "settings/new", "-"), ("import", "-")]:
            run = self.run_closed("<&-", *args)
            self.assertEqual(9, run.returncode, run)
            self.assertIn(b"Bad file descriptor", run.stderr)
        self.assertEqual(b"body", self.body("settings/a"))
        self.run_tool("get", "settings/new", code=50)

    def test_what_a_closed_output_does_not_take_is_told(self):
        self.put("settings/a", b"body")
        for args in [("get", "settings/a"), ("backup", "-"), ("ls",), ("ls", "--json"), ("info",)]:
            run = self.run_closed(">&-", *args)
            self.assertEqual(9, run.returncode, run)
            self.assertIn(b"Bad file descriptor", run.stderr)


class WidthTest(InitialisedTest):
    """Nothing is wider than the terminal, and all of it is there when it is none."""

    LONG = "certificates/local/" + "-".join(["long"] * 12)

    @classmethod
    def fill(cls, folder):
        root = Authority(folder, "A Root Authority of a Company with a Long Name")
        sub = Authority(folder, "A Sub Authority of the Same Company", root)
        run = support.fstore("-D", folder, "key", "add", "--key-file", folder / "key", "--label",
                             "in the safe of the office in the other town")
        assert run.code == 0, run.message
        for name in "web", "-".join(["long"] * 12):
            request = request_of_key(folder, name, "--subject", f"CN={name},O=A Company,C=EU",
                                     "--san", f"{name}.example.com")
            for begin, end in (-50, -10), (-5, 20), (-4, 400):
                cls.add(folder, sub.sign(request, begin, end), f"{name}{-begin}")
        cls.add(folder, root.certificate.read_bytes(), "root")
        cls.add(folder, sub.certificate.read_bytes(), "sub")
        (folder / "db/settings" / ("x" * 100 + ".dsc")).write_text("nonsense\n")
        (folder / "db/settings/unknown file of somebody else").write_text("?")

    @staticmethod
    def add(folder, contents, name):
        run = support.fstore("-D", folder, "import", "-", "--name", name, stdin=contents)
        assert run.code == 0, run.message

    COMMANDS = (["ls"], ["ls", "--expired", "--all"], ["ls", "--unlock"], ["key", "ls"], ["tree"],
                ["verify", "--all"], ["check"], ["check", "--deep"], ["info"], ["prune"])

    def on_terminal(self, args, columns):
        terminal = Terminal([*args, "--color", "always"], cwd=self.folder, columns=columns,
                            password=support.PASSWORD)
        self.addCleanup(terminal.close)
        self.assertIn(terminal.wait(), (0, 3, 5), terminal.seen)
        plain = re.sub("\\x1b\\[[0-9;]*[mK]", "", terminal.seen)
        # Without messages, which go on in lines that are indented.
        return re.sub(r"(?m)^fstore: .*\n(?:  .*\n)*", "", plain.replace("\r\n", "\n")).split("\n")

    def test_no_line_is_wider_than_the_terminal(self):
        for args in self.COMMANDS:
            for columns in 40, 80, 200:
                with self.subTest(args=args, columns=columns):
                    lines = self.on_terminal(args, columns)
                    self.assertGreater(len(lines), 1)
                    for line in lines:
                        self.assertLessEqual(len(line), columns, line)

    def test_what_is_no_terminal_gets_all(self):
        for args in self.COMMANDS:
            with self.subTest(args=args):
                run = support.fstore("-D", self.folder, *args, password=support.PASSWORD)
                self.assertNotIn("…", run.text)

    def test_an_address_is_cut_inside(self):
        lines = self.on_terminal(["ls"], 40)
        self.assertTrue(any(re.match(r"cert\S*…\S*g4 ", line) for line in lines), lines)

    def test_a_sentence_keeps_all_its_words(self):
        for args in ["check"], ["verify", "--all"]:
            whole = support.fstore("-D", self.folder, *args, password=support.PASSWORD).text
            lines = self.on_terminal(args, 40)
            self.assertEqual("".join(whole.split()), "".join("".join(lines).split()))


class NarrowTest(InitialisedTest):
    """What does not fit a narrow terminal goes on in the next line, and not amid a word."""

    def on_terminal(self, args, columns):
        terminal = Terminal(args, cwd=self.folder, columns=columns, password=support.PASSWORD,
                            env={"NO_COLOR": "1"})
        self.addCleanup(terminal.close)
        terminal.wait()
        return terminal.seen.replace("\r\n", "\n").splitlines()

    def test_fields_and_messages(self):
        self.put("settings/a", b"body")
        self.run_tool("set", "a", "label=a label of several words that is long enough for two lines")
        for args in ["show", "a"], ["show", "nothing-of-that-name"], ["check"]:
            whole = "".join(self.on_terminal(args, 200))
            for columns in (10, 20, 40):
                with self.subTest(args=args, columns=columns):
                    lines = self.on_terminal(args, columns)
                    self.assertLessEqual(max(map(len, lines)), columns, lines)
                    self.assertEqual("".join(whole.split()), "".join("".join(lines).split()))
        (label,) = [line for line in self.on_terminal(["show", "a"], 80) if line.startswith("label")]
        self.assertIn("label of several words that is long enough for two lines", label)


    def test_questions(self):
        self.put("settings/a-name-of-some-length", b"body")
        self.write("other", b"other")
        terminal = Terminal(["put", "settings/a-name-of-some-length", "other"], cwd=self.folder,
                            columns=40, password=support.PASSWORD)
        self.addCleanup(terminal.close)
        terminal.expect("Replace the body of\r\n  settings/a-name-of-some-length? [y/N] ")
        terminal.type("y\n")
        self.assertEqual(0, terminal.wait(), terminal.seen)
        self.assertEqual(b"other", self.body("settings/a-name-of-some-length"))


class ProgressTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for number in range(12):
            run = support.fstore("-D", folder, "put", f"settings/{number}", "-", stdin=b"x" * 5000)
            assert run.code == 0, run.message

    def test_a_bar_after_half_a_second(self):
        # Slow enough to be seen: each record is read behind a pause.
        terminal = Terminal(["check", "--deep"], cwd=self.folder, password=support.PASSWORD,
                            env={"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_PAUSE": "100"})
        self.addCleanup(terminal.close)
        self.assertEqual(0, terminal.wait(), terminal.seen)
        self.assertRegex(terminal.seen, r"Checking \[#*\.*\] +\d+%, \d+ s left\x1b")
        self.assertIn("\r\x1b[K", terminal.seen)

    def test_re_encryption_counts_each_secret(self):
        terminal = Terminal(["passwd", *support.CHEAP], cwd=self.folder,
                            password=support.PASSWORD,
                            env={"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_PAUSE": "100",
                                 "FSTORE_NEW_PASSWORD": "new"})
        self.addCleanup(terminal.close)
        self.assertEqual(0, terminal.wait(), terminal.seen)
        self.assertRegex(terminal.seen, r"Re-encrypting \[#+\.*\] +\d+%")

    def test_plain_records_show_that_it_goes_on(self):
        """They are copied without a step that could be counted."""
        folder = self.folder / "plain"
        folder.mkdir()
        support.fstore("-D", folder, "init", *support.CHEAP)
        for number in range(12):
            run = support.fstore("-D", folder, "put", f"settings/{number}", "-", "--plain-body",
                                 stdin=b"x")
            self.assertEqual(0, run.code, run)
        for columns in (40, 80, 200):
            terminal = Terminal(["passwd", *support.CHEAP], cwd=folder, password=support.PASSWORD,
                                columns=columns,
                                env={"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_PAUSE": "60",
                                     "FSTORE_NEW_PASSWORD": support.PASSWORD})
            self.addCleanup(terminal.close)
            self.assertEqual(0, terminal.wait(), terminal.seen)
            self.assertRegex(terminal.seen, r"\rRe-encrypting, \d+ s\x1b\[K")

    def test_whatever_reads_all_records_shows_it(self):
        commands = [["ls"], ["ls", "--expired"], ["tree"], ["verify", "--all"], ["prune"],
                    ["metrics"], ["report", "-o", "report.html"]]
        terminals = [Terminal(args, cwd=self.folder, password=support.PASSWORD,
                              env={"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_PAUSE": "60"})
                     for args in commands]
        for args, terminal in zip(commands, terminals, strict=True):
            self.addCleanup(terminal.close)
            with self.subTest(args=args):
                terminal.wait()
                self.assertRegex(terminal.seen, r"Reading \[#*\.*\] +\d+%")

    def test_a_bar_fits_a_narrow_terminal(self):
        for columns, bar in (40, r"Checking \[#*\.*\] +\d+%"), (16, r"Checking +\d+%"):
            terminal = Terminal(["check", "--deep"], cwd=self.folder, password=support.PASSWORD,
                                columns=columns,
                                env={"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_PAUSE": "100"})
            self.addCleanup(terminal.close)
            self.assertEqual(0, terminal.wait(), terminal.seen)
            lines = [line for line in re.split("[\r\n]|\x1b\\[K", terminal.seen)
                     if line.startswith("Checking")]
            self.assertTrue(lines, terminal.seen)
            self.assertRegex(lines[0], bar)
            if columns == 40:
                self.assertLess(max(map(len, lines)), columns)

    def test_none_when_quick_quiet_or_json(self):
        for args, pause in [(("check", "--deep"), 0), (("check", "--deep", "-q"), 100),
                            (("check", "--deep", "--json"), 100)]:
            terminal = Terminal(args, cwd=self.folder, password=support.PASSWORD,
                                env={"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_PAUSE": pause})
            self.addCleanup(terminal.close)
            self.assertEqual(0, terminal.wait(), terminal.seen)
            if pause:
                self.assertNotIn("Checking", terminal.seen)


if __name__ == "__main__":
    support.main()
